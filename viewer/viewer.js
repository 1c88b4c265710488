// Shows one recording before and after the front end: players in step, spectrograms, curves, wakes and findings. The
// command's report and the web page both call show(); docs of the data: README.md beside this file.

import { Player, RATE, decode } from "./audio.js";
import { el } from "./dom.js";
import { GUTTER, delayPoints, levelLines, overview, spectrogram, steps, timeAxis } from "./panels.js";
import { polar } from "./polar.js";
import { brightestDb } from "./spectrum.js";
import { texts } from "./text.js";
import { Timeline, clock } from "./timeline.js";

const GAINS_DB = [0, 6, 12, 18, 24, 30];
const SCREEN_S = 0.05; // how often the readings follow the player

const median = (values) => [...values].sort((a, b) => a - b)[Math.floor(values.length / 2)];
const known = (values) => values.filter((value) => value != null);

function section(title, ...children) {
  return el("section", { class: "q-section" }, el("h2", {}, title), ...children);
}

function table(rows) {
  return el(
    "table",
    { class: "q-facts" },
    el(
      "tbody",
      {},
      rows.map(([name, value]) => el("tr", {}, el("th", { scope: "row" }, name), el("td", {}, value))),
    ),
  );
}

// The line under the title: what a reader wants to know first.
function headline(report, text) {
  const { wakes, echo_reduction_db: down } = report.summary ?? {};
  const count = (severity) => report.check?.findings.filter((finding) => finding.severity === severity).length ?? 0;
  const faults = count("fault");
  const warnings = count("warning");
  return [
    clock(report.seconds, 1),
    wakes != null && text.wakes(wakes),
    down != null && text.echoDown(down.toFixed(1)),
    faults > 0 && text.faults(faults),
    warnings > 0 && text.warnings(warnings),
  ]
    .filter(Boolean)
    .join(" · ");
}

// What was recorded and what it took, as rows of a table.
function facts({ recording = {}, summary = {}, raw_timing: raw }, text) {
  const names = text.facts;
  const map =
    recording.map &&
    Object.entries(recording.map)
      .map(([name, number]) => `${text.channels[name] ?? name} = ${number}`)
      .join(", ");
  return [
    [names.file, recording.file],
    [
      names.format,
      [
        recording.format,
        recording.channels && text.channelCount(recording.channels),
        recording.sample_rate && `${recording.sample_rate} Hz`,
      ]
        .filter(Boolean)
        .join(", "),
    ],
    [names.map, map],
    [names.encoding, text.encodings[recording.encoding] ?? recording.encoding],
    [
      names.cost,
      summary.core_share != null &&
        text.cost((100 * summary.core_share).toFixed(1), (1 / summary.core_share).toFixed(0)),
    ],
    [names.timing, raw && text.rawTiming],
    ...(recording.notes ?? []).map((note) => [names.note, note]),
  ].filter(([, value]) => value);
}

function versions({ quibo = {}, created }, text) {
  return [
    ["Quibo", [quibo.version, quibo.library].filter(Boolean).join(", ")],
    [text.facts.kernels, quibo.kernels],
    ...Object.entries(quibo.parameters ?? {}).map(([name, digest]) => [`params/${name}`, el("code", {}, digest)]),
    [text.facts.created, created],
  ].filter(([, value]) => value);
}

function wakeTable(wakes, text, seek) {
  if (!wakes.length) return el("p", { class: "q-note" }, text.noWakes);
  const row = (wake) => {
    const time = el("button", { class: "q-time", onclick: () => seek(wake) }, wake.clock);
    const phrase = wake.start == null ? "" : el("small", {}, text.phrase(clock(wake.start), clock(wake.end)));
    return el(
      "tr",
      {},
      el("td", {}, time),
      el("td", {}, el("span", { class: "q-number" }, `${wake.number}`), ` ${text.wake} `, phrase),
      el("td", { class: "q-right" }, wake.angle == null ? "–" : `${wake.angle}°`),
      el("td", { class: "q-right" }, wake.cost == null ? "–" : wake.cost.toFixed(2)),
    );
  };
  return el(
    "div",
    { class: "q-scroll", tabindex: 0, role: "region", "aria-label": text.wakeTitle },
    el(
      "table",
      { class: "q-events" },
      el(
        "thead",
        {},
        el(
          "tr",
          {},
          text.columns.map((name, i) => el("th", { scope: "col", class: i > 1 ? "q-right" : null }, name)),
        ),
      ),
      el("tbody", {}, wakes.map(row)),
    ),
  );
}

function findingList({ findings }, text, seek) {
  if (!findings.length) return el("p", { class: "q-good" }, text.noFindings);
  return el(
    "ul",
    { class: "q-findings" },
    findings.map((finding) => {
      const from =
        finding.start == null
          ? null
          : el(
              "button",
              { class: "q-time", onclick: () => seek({ seconds: finding.start }) },
              clock(finding.start, 0.1),
            );
      const severity = finding.severity in text.severities ? finding.severity : "note";
      return el(
        "li",
        { class: `q-${severity}` },
        el("b", {}, text.severities[severity]),
        finding.channel && ` · ${text.channels[finding.channel] ?? finding.channel}`,
        from && " · ",
        from,
        el("p", {}, [finding.what, finding.how_bad].filter(Boolean).join(": ")),
        finding.do && el("p", { class: "q-advice" }, finding.do),
      );
    }),
  );
}

// The channels whose levels are drawn, with names; null where there are none.
function levelChannels({ levels, peaks }, text) {
  if (!levels) return null;
  const channels = ["mic1", "mic2", "mic3", "ref", "clean"]
    .filter((name) => levels[name]?.length)
    .map((name) => ({ name: text.channels[name], rms_db: levels[name], peak_db: peaks?.[name] }));
  return channels.length ? { step: levels.seconds_per_point, channels } : null;
}

// Bars of the level at the player's place; the mark is the peak.
function meters({ step, channels }, text) {
  const share = (db) => `${Math.max(0, Math.min(100, (100 * ((db ?? -90) + 90)) / 90))}%`;
  const rows = channels.map((channel, c) => {
    const bar = el("div", { class: "q-bar", style: `--key: var(--channel${c % 6})` }, el("i"), el("em"));
    const value = el("span", { class: "q-value" });
    const meter = el(
      "div",
      { class: "q-meter", role: "meter", "aria-label": channel.name, "aria-valuemin": -90, "aria-valuemax": 0 },
      el("span", {}, channel.name),
      bar,
      value,
    );
    const read = (index) => {
      const rms = channel.rms_db[index];
      const peak = channel.peak_db?.[index];
      meter.setAttribute("aria-valuenow", Math.round(rms ?? -90));
      bar.firstChild.style.width = share(rms);
      bar.lastChild.style.left = share(peak ?? rms);
      value.textContent = rms == null || rms <= -90 ? text.silent : `${rms.toFixed(0)} dB`;
    };
    return { meter, read };
  });
  let last = -1;
  const read = (seconds) => {
    const index = Math.min(channels[0].rms_db.length - 1, Math.floor(seconds / step));
    if (index === last) return;
    last = index;
    for (const row of rows) row.read(index);
  };
  return {
    node: el(
      "div",
      { class: "q-meters" },
      rows.map((row) => row.meter),
    ),
    read,
  };
}

// Fills `root` with the report. options.samples: track id -> Float32Array at 16 kHz of full scale 1, for tracks whose
// audio is at hand; the others are decoded from the page's elements. options.language: "en" or "zh". Returns an object
// whose close() stops the player and lets go of everything.
export function show(root, report, { samples = {}, language = "en" } = {}) {
  if (report.format !== "quibo-report" || report.version !== 1) throw new Error("not a report of version 1");
  const text = texts[language] ?? texts.en;
  const tracks = Object.entries(report.audio ?? {}).map(([id, audio]) => ({
    id,
    name: audio.label,
    audio,
    samples: samples[id] ?? null,
    given: report.spectrograms?.[id] ?? null,
  }));
  const audible = tracks.filter((track) => track.samples || track.audio.base64);
  const wakes = (report.wakes ?? []).map((wake, i) => ({
    ...wake,
    number: wake.number ?? i + 1,
    clock: clock(wake.seconds),
  }));
  const levels = levelChannels(report, text);

  const timeline = new Timeline(report.seconds);
  let player = null;
  const seek = (seconds) => {
    player?.seek(seconds);
    timeline.moveTo(seconds);
  };
  const before = ({ start, seconds }) => Math.max(0, (start ?? seconds) - 0.5); // a little of what comes first
  const seekTo = (event) => seek(before(event));

  // ---- the transport ----
  const play = el("button", { class: "q-play", disabled: true, onclick: () => toggle() }, text.play);
  const switches = audible.map((track, i) =>
    el(
      "label",
      {},
      el("input", {
        type: "radio",
        name: `q-track-${report.title}`,
        value: track.id,
        checked: i === 0,
        onchange: () => player?.hear(track.id),
      }),
      el("span", {}, track.name),
    ),
  );
  const position = el("input", {
    type: "range",
    class: "q-position",
    min: 0,
    max: report.seconds,
    step: 0.01,
    value: 0,
    "aria-label": text.position,
    oninput: () => seek(Number(position.value)),
  });
  const time = el("output", { class: "q-clock", "aria-live": "off" }, clock(0));
  const gain = el(
    "select",
    { "aria-label": text.gain, title: text.gain, onchange: () => player?.boost(Number(gain.value)) },
    GAINS_DB.map((db) => el("option", { value: db }, `+${db} dB`)),
  );
  const zoom = (label, sign, action) =>
    el("button", { class: "q-zoom", "aria-label": label, title: label, onclick: action }, sign);
  const status = el("p", { class: "q-status", role: "status" }, audible.length ? text.loading : text.noAudio);
  const transport = el(
    "div",
    { class: "q-transport" },
    audible.length ? [play, el("fieldset", { class: "q-tracks" }, el("legend", {}, text.track), switches)] : [],
    time,
    position,
    audible.length ? gain : [],
    el(
      "span",
      { class: "q-zooms" },
      zoom(text.zoomOut, "−", () => timeline.zoom(2)),
      zoom(text.zoomIn, "+", () => timeline.zoom(0.5)),
      zoom(text.whole, "↔", () => timeline.show(0, report.seconds)),
    ),
  );
  const toggle = async () => {
    if (!player) return;
    if (player.playing) player.pause();
    else await player.play();
    play.textContent = player.playing ? text.pause : text.play;
    follow();
  };
  let following = 0;
  const follow = () => {
    clearTimeout(following);
    timeline.moveTo(player.position);
    if (player.playing) following = setTimeout(() => requestAnimationFrame(follow), 1000 * SCREEN_S);
  };

  // ---- the panels ----
  let brightest = null;
  const scale = () => (brightest ??= brightestDb(tracks.find((track) => track.samples).samples));
  const panels = [overview(timeline, tracks, wakes, text)];
  for (const track of tracks) panels.push(spectrogram(timeline, track, scale, wakes, text));
  const down = (report.echo?.reduction_db ?? []).map((db, second) =>
    report.echo.only_device?.[second] === false ? null : db,
  );
  const downs = known(down);
  if (downs.length) {
    const note = `${text.echoNote}, ${text.median(`${median(downs).toFixed(1)} dB`)}`;
    const top = Math.max(20, 10 * Math.ceil(Math.max(...downs) / 10));
    panels.push(
      steps(timeline, {
        title: text.echo,
        note,
        unit: "dB",
        step: report.echo.seconds_per_point,
        values: down,
        shade: "after",
        low: 0,
        high: top,
        marks:
          top > 40 ? [0, 20, 40, 60].filter((mark) => mark <= top) : [0, 10, 20, 30, 40].filter((mark) => mark <= top),
        label: `${text.echo}: ${note}`,
      }),
    );
  }
  if (levels) panels.push(levelLines(timeline, levels, text.levels, text.levels));
  const delay = report.reference_delay;
  if (delay?.points.length) {
    const ms = median(delay.points.map((point) => point.ms)).toFixed(1);
    const note = [
      text.median(`${ms} ms`),
      delay.drift_ppm != null && text.drift(delay.drift_ppm.toFixed(1)),
      delay.reach_ms && text.reach(...delay.reach_ms),
    ];
    panels.push(
      delayPoints(
        timeline,
        delay,
        text.delay,
        note.filter(Boolean).join(", "),
        `${text.delay}: ${note.filter(Boolean).join(", ")}`,
      ),
    );
  }
  panels.push(timeAxis(timeline));
  const playhead = el("div", { class: "q-playhead" });
  const stack = el(
    "div",
    { class: "q-stack" },
    panels.map((panel) => panel.node),
    playhead,
  );
  const secondAt = (event) => {
    const box = stack.getBoundingClientRect();
    return timeline.from + ((event.clientX - box.left - GUTTER) / (box.width - GUTTER)) * (timeline.to - timeline.from);
  };
  stack.addEventListener("click", (event) => {
    if (event.target.tagName === "CANVAS" && !event.target.closest(".q-overview"))
      seek(Math.max(timeline.from, secondAt(event)));
  });
  stack.addEventListener("seek", (event) => seek(event.detail), true);
  stack.addEventListener(
    "wheel",
    (event) => {
      if (event.ctrlKey) timeline.zoom(event.deltaY > 0 ? 1.25 : 0.8, secondAt(event));
      else if (event.deltaX) timeline.pan((event.deltaX / stack.clientWidth) * (timeline.to - timeline.from));
      else return;
      event.preventDefault();
    },
    { passive: false },
  );

  // ---- beside and below them ----
  const side = el("aside", { class: "q-side" });
  const meter = levels && meters(levels, text);
  if (meter) side.append(section(text.meters, meter.node));
  if (report.wakes) {
    if (wakes.length) side.append(section(text.angles, polar(wakes, text, seekTo)));
    side.append(section(text.wakeTitle, wakeTable(wakes, text, seekTo)));
  }
  if (report.check) side.append(section(text.findings, findingList(report.check, text, seekTo)));
  if (report.warnings?.length)
    side.append(
      section(
        text.warned,
        el(
          "ul",
          { class: "q-findings" },
          report.warnings.map((line) => el("li", { class: "q-warning" }, line)),
        ),
      ),
    );
  const foot = el(
    "div",
    { class: "q-foot" },
    el("details", { open: true }, el("summary", {}, text.details), table(facts(report, text))),
    el("details", {}, el("summary", {}, text.versions), table(versions(report, text))),
    el("details", {}, el("summary", {}, text.keys), table(text.keyTable)),
  );

  root.replaceChildren(
    el(
      "section",
      { class: "q-viewer", lang: language, "aria-label": report.title },
      el("header", {}, el("h1", {}, report.title), el("p", {}, headline(report, text))),
      transport,
      status,
      el("div", { class: "q-body" }, el("div", {}, stack), side, foot),
    ),
  );

  // ---- what keeps them together ----
  const moved = () => {
    const fraction = timeline.fraction(timeline.position);
    playhead.hidden = fraction < 0 || fraction > 1;
    playhead.style.left = `calc(${GUTTER}px + (100% - ${GUTTER}px) * ${fraction})`;
    position.value = timeline.position;
    position.setAttribute("aria-valuetext", clock(timeline.position, 0.1));
    time.value = clock(timeline.position);
    meter?.read(timeline.position);
    for (const panel of panels) panel.read?.(timeline.position);
  };
  timeline.addEventListener("position", moved);
  timeline.addEventListener("position", () => panels[0].redraw());
  timeline.addEventListener("range", () => {
    for (const panel of panels) panel.redraw();
    moved();
  });
  moved();

  const nextEvent = (direction) => {
    const starts = wakes.map(before);
    const now = timeline.position;
    return direction > 0
      ? starts.find((start) => start > now + 0.05)
      : starts.reverse().find((start) => start < now - 0.05);
  };
  const keys = {
    " ": toggle,
    ArrowLeft: (event) => seek(timeline.position - (event.shiftKey ? 5 : 1)),
    ArrowRight: (event) => seek(timeline.position + (event.shiftKey ? 5 : 1)),
    n: () => seek(nextEvent(1) ?? timeline.position),
    p: () => seek(nextEvent(-1) ?? timeline.position),
    "+": () => timeline.zoom(0.5),
    "=": () => timeline.zoom(0.5),
    "-": () => timeline.zoom(2),
    0: () => timeline.show(0, report.seconds),
  };
  const pressed = (event) => {
    if (event.ctrlKey || event.altKey || event.metaKey) return;
    const control = event.target.closest("input, select, textarea, button, summary, a, [role=button], [tabindex]");
    if (control?.matches("select, textarea") || (control && (event.key === " " || event.key.startsWith("Arrow"))))
      return; // its own keys
    const number = Number(event.key);
    if (number >= 1 && number <= switches.length) switches[number - 1].firstChild.click();
    else if (keys[event.key]) keys[event.key](event);
    else return;
    event.preventDefault();
  };
  document.addEventListener("keydown", pressed);

  const ready = (async () => {
    await Promise.all(
      audible
        .filter((track) => !track.samples)
        .map(async (track) => {
          try {
            track.samples = await decode(track.audio.base64);
          } catch (error) {
            track.failed = text.badAudio(track.name, error.message);
          }
          for (const panel of panels) panel.redraw();
        }),
    );
    const playable = tracks.filter((track) => track.samples);
    status.textContent =
      tracks
        .filter((track) => track.failed)
        .map((track) => track.failed)
        .join(" ") || (audible.length ? "" : text.noAudio);
    if (!playable.length) return;
    player = new Player(new Map(playable.map((track) => [track.id, track.samples])), report.seconds);
    player.onEnd = () => {
      play.textContent = text.play;
      timeline.moveTo(0);
      player.seek(0);
    };
    play.disabled = false;
  })();

  return {
    ready,
    get player() {
      return player;
    },
    close() {
      clearTimeout(following);
      document.removeEventListener("keydown", pressed);
      player?.close();
      for (const panel of panels) panel.close();
    },
  };
}

export { RATE };

// A report file carries its data itself.
const embedded = document.getElementById("quibo-report");
if (embedded) {
  const report = JSON.parse(embedded.textContent);
  document.title = `${report.title} · Quibo`;
  show(document.getElementById("viewer"), report, { language: navigator.language?.startsWith("zh") ? "zh" : "en" });
}
