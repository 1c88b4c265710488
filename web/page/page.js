// The page: the sample, a recording of one's own, live. Everything it needs beyond itself lies beside it as scripts, so
// that it works from a folder without a server: quibo.js (the module and its worker and worklet) and sample.js.

import { processRecording } from "../package/index.js";
import { bytesOf } from "../../viewer/audio.js";
import { el } from "../../viewer/dom.js";
import { show } from "../../viewer/viewer.js";
import { listen } from "./live.js";
import { Problem, readRecording, toFloats } from "./recording.js";
import { reportOf } from "./report.js";
import { texts } from "./text.js";

const MUSIC_S = [0, 7]; // of the sample's reference: music alone

const page = document.getElementById("page");
let language = localStorageOr(navigator.language?.startsWith("zh") ? "zh" : "en");
let running = null; // what has to end before something else begins: { stop() }

function localStorageOr(otherwise) {
  try {
    return localStorage.getItem("quibo-language") ?? otherwise;
  } catch {
    return otherwise; // a page from a folder may have none
  }
}

// Loads a script beside the page that leaves its data in a global.
const scripts = new Map();
function beside(file, missing) {
  if (!scripts.has(file)) {
    scripts.set(
      file,
      new Promise((resolve, reject) => {
        const script = el("script", { src: file, onload: resolve, onerror: () => reject(new Problem(missing)) });
        document.head.append(script);
      }),
    );
    scripts.get(file).catch(() => scripts.delete(file));
  }
  return scripts.get(file);
}

async function engine(text) {
  await beside("quibo.js", text.problems.noLibrary);
  const { wasm, worker, worklet, version } = globalThis.QUIBO;
  // A page from a folder may take workers from blobs, but worklets from data only.
  const blob = (source) => URL.createObjectURL(new Blob([source], { type: "text/javascript" }));
  const data = (source) => `data:text/javascript;charset=utf-8,${encodeURIComponent(source)}`;
  return { wasm: bytesOf(wasm), worker: () => new Worker(blob(worker)), worklet: data(worklet), version };
}

async function sampleBytes(text) {
  await beside("sample.js", text.problems.noSample);
  return bytesOf(globalThis.QUIBO_SAMPLE).buffer;
}

function build() {
  const text = texts[language];
  document.documentElement.lang = language;
  document.title = "Quibo";
  const status = el("p", { class: "p-status", role: "status" });
  const bar = el("progress", { max: 1, value: 0, hidden: true, "aria-label": text.sampleRun });
  const cancel = el("button", { hidden: true, onclick: () => stop() }, text.cancel);
  const result = el("div", { class: "p-result" });
  const liveArea = el("div", { class: "p-live" });

  const stop = () => {
    running?.stop();
    running = null;
    bar.hidden = cancel.hidden = true;
    liveArea.replaceChildren();
    liveButton.textContent = text.liveStart;
  };
  const begin = () => {
    stop();
    result.replaceChildren();
    status.className = "p-status";
    status.textContent = text.loading;
  };
  const failed = (error) => {
    stop();
    status.className = "p-status p-problem";
    status.textContent =
      error instanceof Problem || error.name === "QuiboError" ? error.message : `${error.name}: ${error.message}`;
  };

  const play = async (title, bytes, options) => {
    const abort = new AbortController();
    running = { stop: () => abort.abort(new Problem(text.cancelled)) };
    const still = () => abort.signal.throwIfAborted();
    const loaded = await engine(text);
    still();
    status.textContent = text.reading(title);
    const { tracks, recorded, about } = await readRecording(await bytes(), options.name, text, options.map);
    still();
    bar.hidden = cancel.hidden = false;
    bar.value = 0;
    const begun = performance.now();
    const done = await processRecording(tracks, {
      wasm: loaded.wasm,
      worker: loaded.worker(),
      encoding: options.encoding,
      check: true,
      recorded,
      signal: abort.signal,
      onProgress: (samples, total) => {
        bar.value = samples / total;
        const times = samples / 16 / Math.max(1, performance.now() - begun);
        status.textContent = text.processing(
          (samples / 16000).toFixed(0),
          (total / 16000).toFixed(0),
          times.toFixed(0),
        );
      },
    });
    if (done.encoding === "scrambled" && options.encoding === "guess") about.notes.push(text.guessedScrambled);
    const shown = reportOf({
      title,
      tracks: { ...tracks, mic1: done.mic1 },
      about: { ...about, encoding: done.encoding },
      result: { ...done, version: loaded.version },
      text,
    });
    bar.hidden = cancel.hidden = true;
    const seconds = shown.report.seconds;
    status.textContent = text.speed(
      seconds.toFixed(1),
      done.secondsUsed.toFixed(1),
      (seconds / done.secondsUsed).toFixed(0),
    );
    const viewer = show(result, shown.report, { samples: shown.samples, language });
    running = { stop: () => viewer.close() };
    result.scrollIntoView({ block: "start" });
  };

  const playSample = () => {
    begin();
    play(text.sampleTitleInViewer, () => sampleBytes(text), { name: "living_room.flac", encoding: "scrambled" }).catch(
      failed,
    );
  };

  const map = el("input", {
    type: "text",
    class: "p-map",
    "aria-describedby": "p-map-hint",
    placeholder: "1,2,3,4",
    spellcheck: "false",
  });
  const encoding = el(
    "select",
    {},
    Object.entries(text.encodings).map(([value, name]) => el("option", { value }, name)),
  );
  const playFile = (file) => {
    if (!file) return;
    begin();
    const bytes = () => file.arrayBuffer();
    play(file.name, bytes, { name: file.name, encoding: encoding.value, map: map.value.trim() }).catch(failed);
  };
  const chooser = el("input", {
    type: "file",
    accept: ".wav,.flac,audio/*",
    class: "p-hidden",
    "aria-label": text.ownChoose,
    tabindex: -1,
    onchange: () => {
      playFile(chooser.files[0]);
      chooser.value = "";
    },
  });
  const own = el(
    "section",
    {
      class: "p-card",
      ondragover: (event) => {
        event.preventDefault();
        own.classList.add("p-over");
      },
      ondragleave: () => own.classList.remove("p-over"),
      ondrop: (event) => {
        event.preventDefault();
        own.classList.remove("p-over");
        playFile(event.dataTransfer.files[0]);
      },
    },
    el("h2", {}, text.ownTitle),
    el("p", {}, text.ownText),
    el("button", { class: "p-main", onclick: () => chooser.click() }, text.ownChoose),
    chooser,
    el("label", {}, text.channels, map, el("small", { id: "p-map-hint" }, text.channelsHint)),
    el("label", {}, text.encoding, encoding),
  );

  const startLive = async () => {
    if (liveButton.textContent === text.liveStop) {
      stop();
      status.textContent = "";
      return;
    }
    begin();
    try {
      const loaded = await engine(text);
      const { tracks } = await readRecording(await sampleBytes(text), "living_room.flac", text);
      const [from, to] = MUSIC_S.map((second) => second * 16000);
      const music = toFloats(tracks.ref.subarray(from, to));
      status.textContent = text.asking;
      running = await listen(liveArea, { text, music, wasm: loaded.wasm, worklet: loaded.worklet, onFailure: failed });
      status.textContent = "";
      liveButton.textContent = text.liveStop;
    } catch (error) {
      failed(error);
    }
  };
  const liveButton = el("button", { class: "p-main", onclick: startLive }, text.liveStart);

  page.replaceChildren(
    el(
      "header",
      { class: "p-header" },
      el("h1", {}, "Quibo"),
      el("button", { lang: language === "en" ? "zh" : "en", onclick: changeLanguage }, text.language),
    ),
    el("p", { class: "p-intro" }, text.intro, " ", el("strong", {}, text.privacy)),
    el(
      "div",
      { class: "p-cards" },
      el(
        "section",
        { class: "p-card" },
        el("h2", {}, text.sampleTitle),
        el("p", {}, text.sampleText),
        el("button", { class: "p-main", onclick: playSample }, text.sampleRun),
      ),
      own,
      el("section", { class: "p-card" }, el("h2", {}, text.liveTitle), el("p", {}, text.liveText), liveButton),
    ),
    el("div", { class: "p-progress" }, bar, cancel),
    status,
    liveArea,
    result,
  );
}

function changeLanguage() {
  language = language === "en" ? "zh" : "en";
  try {
    localStorage.setItem("quibo-language", language);
  } catch {
    // it lasts for this page only
  }
  running?.stop();
  running = null;
  build();
}

build();
