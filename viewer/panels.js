// The panels over the common time axis: waveforms, spectrograms and curves. Each is { node, redraw, close }, a figure of
// a caption and a canvas; GUTTER pixels on the left hold the scale, so that all panels line up.

import { RATE, bytesOf } from "./audio.js";
import { canvas, colour, el } from "./dom.js";
import { BINS, colourScale, paintColumns } from "./spectrum.js";
import { clock, ticks } from "./timeline.js";

export const GUTTER = 52;
const FLAG = 15; // pixels, height of a wake's flag
const SLICE_MS = 12; // of computing between two screen frames
const MOST_COLUMNS = 1600;

const STOPS = {
  dark: [
    [10, 12, 20],
    [33, 26, 74],
    [98, 35, 118],
    [178, 54, 108],
    [238, 106, 66],
    [252, 188, 92],
    [255, 249, 214],
  ],
  light: [
    [255, 255, 255],
    [226, 234, 243],
    [160, 190, 220],
    [92, 124, 190],
    [76, 60, 148],
    [60, 24, 98],
    [24, 8, 40],
  ],
};
const isDark = () => matchMedia("(prefers-color-scheme: dark)").matches;

function figure(title, note, drawn, kind) {
  const reading = el("output", { class: "q-reading", "aria-live": "off" });
  const caption = el("figcaption", {}, el("b", {}, title), note && el("span", { class: "q-note" }, note), reading);
  return {
    node: el("figure", { class: `q-panel q-${kind}` }, caption, drawn.node),
    redraw: drawn.redraw,
    close: drawn.close,
    reading,
  };
}

function clip(context, width, height) {
  context.beginPath();
  context.rect(GUTTER, 0, width - GUTTER, height);
  context.clip();
}

const place = (timeline, width) => (seconds) => GUTTER + timeline.fraction(seconds) * (width - GUTTER);

function drawScale(context, node, width, height, marks, y, unit) {
  context.textBaseline = "middle";
  context.textAlign = "right";
  for (const mark of marks) {
    const at = Math.round(y(mark)) + 0.5;
    context.strokeStyle = colour(node, "line");
    context.beginPath();
    context.moveTo(GUTTER, at);
    context.lineTo(width, at);
    context.stroke();
    context.fillStyle = colour(node, "dim");
    context.fillText(
      `${mark}${mark === marks[marks.length - 1] ? unit : ""}`,
      GUTTER - 6,
      Math.max(7, Math.min(height - 7, at)),
    );
  }
}

// Wakes as lines, the phrase that led to each as a band; with flags, the band is no higher than those.
function drawWakes(context, node, timeline, width, height, wakes, flags) {
  const x = place(timeline, width);
  const shade = colour(node, "wake");
  let free = 0; // where the last flag ends
  context.save();
  clip(context, width, height);
  for (const { seconds, start, end, angle } of wakes) {
    if (start != null && end != null) {
      context.globalAlpha = flags ? 0.6 : 0.22;
      context.fillStyle = shade;
      context.fillRect(x(start), 0, x(end) - x(start), flags ? FLAG : height);
      context.globalAlpha = 1;
    }
    const at = Math.round(x(seconds));
    context.fillStyle = shade;
    context.fillRect(at, 0, 1.5, height);
    if (!flags || x(seconds) < free) continue;
    const text = angle == null ? "·" : `${angle}°`;
    const wide = context.measureText(text).width + 8;
    const left = at + wide > width ? at - wide : at; // a flag at the right end hangs to the left
    context.fillRect(left, 0, wide, FLAG);
    free = left + wide;
    context.fillStyle = colour(node, "on-wake");
    context.textAlign = "left";
    context.textBaseline = "middle";
    context.fillText(text, left + 4, FLAG / 2 + 0.5);
  }
  context.restore();
}

export function timeAxis(timeline) {
  const drawn = canvas("", (context, width, height) => {
    const x = place(timeline, width);
    const { step, at } = ticks(timeline.from, timeline.to, (width - GUTTER) / 70);
    context.fillStyle = colour(drawn.node, "dim");
    context.textBaseline = "middle";
    for (const second of at) {
      const text = clock(second, step);
      const half = context.measureText(text).width / 2;
      context.textAlign = "center";
      context.fillText(text, Math.min(width - half, x(second)), height / 2 + 2);
      context.fillRect(Math.round(x(second)), 0, 1, 4);
    }
  });
  drawn.node.setAttribute("aria-hidden", "true");
  drawn.node.removeAttribute("role");
  return { ...drawn, node: el("div", { class: "q-panel q-axis" }, drawn.node) };
}

// The whole recording: the extremes of every track one over the other, the wakes, and what the other panels show.
export function overview(timeline, tracks, wakes, text) {
  const shades = ["before", "linear", "after"];
  const extremes = new Map(); // track -> what was last computed and for which width
  const draw = (context, width, height) => {
    const node = drawn.node;
    const columns = Math.max(1, Math.floor(width - GUTTER));
    tracks.forEach(({ id, samples }, index) => {
      if (!samples) return;
      if (extremes.get(id)?.length !== columns) extremes.set(id, peaks(samples, columns));
      context.fillStyle = colour(node, index === tracks.length - 1 ? "after" : shades[index]);
      extremes.get(id).forEach((peak, column) => {
        const half = Math.max(0.5, (Math.min(1, peak) ** 0.5 * height) / 2); // square root: quiet speech is seen too
        context.fillRect(GUTTER + column, height / 2 - half, 1, 2 * half);
      });
    });
    const whole = { fraction: (seconds) => seconds / timeline.seconds };
    drawWakes(context, node, whole, width, height, wakes, false);
    const from = GUTTER + (timeline.from / timeline.seconds) * (width - GUTTER);
    const to = GUTTER + (timeline.to / timeline.seconds) * (width - GUTTER);
    context.fillStyle = colour(node, "shade");
    context.fillRect(GUTTER, 0, from - GUTTER, height);
    context.fillRect(to, 0, width - to, height);
    context.fillStyle = colour(node, "text");
    context.fillRect(GUTTER + (timeline.position / timeline.seconds) * (width - GUTTER), 0, 1, height);
  };
  const drawn = canvas(text.overview, draw);
  drawn.node.title = text.overview;
  const second = (event) => {
    const box = drawn.node.getBoundingClientRect();
    const fraction = (event.clientX - box.left - GUTTER) / (box.width - GUTTER);
    return Math.max(0, Math.min(1, fraction)) * timeline.seconds;
  };
  let pressed = null;
  const node = el(
    "div",
    {
      class: "q-panel q-overview",
      onpointerdown: (event) => {
        pressed = { at: second(event), x: event.clientX };
        node.setPointerCapture(event.pointerId);
      },
      onpointermove: (event) => {
        if (!pressed || Math.abs(event.clientX - pressed.x) < 4) return;
        timeline.show(Math.min(pressed.at, second(event)), Math.max(pressed.at, second(event)));
      },
      onpointerup: (event) => {
        if (pressed && Math.abs(event.clientX - pressed.x) < 4)
          node.dispatchEvent(new CustomEvent("seek", { detail: second(event) }));
        pressed = null;
      },
      ondblclick: () => timeline.show(0, timeline.seconds),
    },
    drawn.node,
  );
  return { ...drawn, node };
}

function peaks(samples, columns) {
  const out = new Float32Array(columns);
  for (let column = 0; column < columns; ++column) {
    const last = Math.floor(((column + 1) * samples.length) / columns);
    for (let i = Math.floor((column * samples.length) / columns); i < last; ++i) {
      const size = Math.abs(samples[i]);
      if (size > out[column]) out[column] = size;
    }
  }
  return out;
}

// Computed for what is shown, in slices, so that the page stays awake; until then the last picture is stretched.
export function spectrogram(timeline, track, brightest, wakes, text) {
  let picture = null; // { sheet, from, to }
  let wanted = "";
  const compute = (columns) => {
    const { from, to } = timeline;
    const dark = isDark();
    const key = `${columns} ${from} ${to} ${dark}`;
    if (key === wanted) return;
    wanted = key;
    const colours = colourScale(STOPS[dark ? "dark" : "light"]);
    const image = new ImageData(columns, BINS);
    let done = 0;
    const slice = () => {
      if (key !== wanted) return; // the view has moved on
      const end = performance.now() + SLICE_MS;
      while (done < columns && performance.now() < end) {
        const last = Math.min(columns, done + 16);
        paintColumns(image, done, last, track.samples, from * RATE, to * RATE, brightest(), colours);
        done = last;
      }
      if (done < columns) {
        setTimeout(slice);
        return;
      }
      picture = { sheet: sheetOf(image), from, to };
      drawn.redraw();
    };
    slice();
  };
  const drawn = canvas(`${text.spectrogram}: ${track.name}`, (context, width, height) => {
    const node = drawn.node;
    if (track.samples) compute(Math.min(MOST_COLUMNS, Math.round((width - GUTTER) * devicePixelRatio)));
    else if (track.given) picture = givenPicture(track.given);
    const x = place(timeline, width);
    context.fillStyle = colour(node, "sunken");
    context.fillRect(GUTTER, 0, width - GUTTER, height);
    context.save();
    clip(context, width, height);
    if (picture) context.drawImage(picture.sheet, x(picture.from), 0, x(picture.to) - x(picture.from), height);
    context.restore();
    if (!picture) {
      context.fillStyle = colour(node, "dim");
      context.textAlign = "center";
      context.fillText(track.failed ?? text.loading, GUTTER + (width - GUTTER) / 2, height / 2);
    }
    context.textBaseline = "middle";
    context.textAlign = "right";
    context.fillStyle = colour(node, "dim");
    for (const kilohertz of [0, 2, 4, 6, 8]) {
      const y = Math.max(7, Math.min(height - 7, height * (1 - kilohertz / 8)));
      context.fillText(kilohertz === 8 ? "8 kHz" : kilohertz, GUTTER - 6, y);
    }
    drawWakes(context, node, timeline, width, height, wakes, true);
  });
  return figure(track.name, text.spectrogram, drawn, "spectrogram");
}

// The picture that came with the report: shown until the audio is unpacked, and where there is none.
function givenPicture({ columns, bands, seconds_per_column: step, base64 }) {
  const colours = colourScale(STOPS[isDark() ? "dark" : "light"]);
  const image = new ImageData(columns, bands);
  const pixels = new Uint32Array(image.data.buffer);
  bytesOf(base64).forEach(
    (level, i) => (pixels[(bands - 1 - (i % bands)) * columns + Math.floor(i / bands)] = colours[level]),
  );
  return { sheet: sheetOf(image), from: 0, to: columns * step };
}

function sheetOf(image) {
  const sheet = el("canvas", { width: image.width, height: image.height });
  sheet.getContext("2d").putImageData(image, 0, 0);
  return sheet;
}

const shown = (value, unit) => (value == null ? "–" : `${value.toFixed(1)} ${unit}`);

// A curve of values that each hold for `step` seconds; null leaves a gap.
export function steps(timeline, { title, note, unit, step, values, shade, low, high, marks, label }) {
  const drawn = canvas(label, (context, width, height) => {
    const node = drawn.node;
    const x = place(timeline, width);
    const y = (value) => height - ((Math.max(low, Math.min(high, value)) - low) / (high - low)) * (height - 4) - 2;
    drawScale(context, node, width, height, marks, y, ` ${unit}`);
    context.save();
    clip(context, width, height);
    context.fillStyle = colour(node, shade);
    values.forEach((value, i) => {
      if (value == null) return;
      const left = x(i * step);
      const wide = Math.max(1, x((i + 1) * step) - left - (x(step) - x(0) > 4 ? 1 : 0));
      context.globalAlpha = 0.3;
      context.fillRect(left, y(value), wide, y(low) - y(value));
      context.globalAlpha = 1;
      context.fillRect(left, y(value), wide, 2);
    });
    context.restore();
  });
  const panel = figure(title, note, drawn, "curve");
  panel.read = (seconds) => (panel.reading.value = shown(values[Math.floor(seconds / step)], unit));
  return panel;
}

// Lines of dBFS, one per channel; a tick at the top where a channel reaches full scale.
export function levelLines(timeline, { step, channels }, title, label) {
  const low = -90;
  const drawn = canvas(label, (context, width, height) => {
    const node = drawn.node;
    const x = place(timeline, width);
    const y = (db) => 2 + ((0 - Math.max(low, Math.min(0, db))) / (0 - low)) * (height - 4);
    drawScale(context, node, width, height, [-80, -60, -40, -20, 0], y, " dB");
    context.save();
    clip(context, width, height);
    channels.forEach((channel, c) => {
      context.strokeStyle = context.fillStyle = colour(node, `channel${c % 6}`);
      context.lineWidth = 1.5;
      context.beginPath();
      channel.rms_db.forEach((db, i) => context.lineTo(x((i + 0.5) * step), y(db ?? low)));
      context.stroke();
      channel.peak_db?.forEach((db, i) => db > -0.1 && context.fillRect(x((i + 0.5) * step) - 1, 0, 3, 5));
    });
    context.restore();
  });
  const key = channels.map((channel, c) =>
    el("span", { class: "q-key", style: `--key: var(--channel${c % 6})` }, channel.name),
  );
  const panel = figure(title, null, drawn, "levels");
  panel.node.querySelector("figcaption").append(el("span", { class: "q-keys" }, key));
  return panel;
}

// Estimates of the delay, paler where they are less sure; what the canceller cannot reach is shaded.
export function delayPoints(timeline, { points, reach_ms: reach }, title, note, label) {
  const values = points.map((point) => point.ms);
  const margin = Math.max(2, 0.3 * (Math.max(...values) - Math.min(...values)));
  const low = Math.min(...values) - margin;
  const high = Math.max(...values) + margin;
  const { at: marks } = ticks(low, high, 4);
  const drawn = canvas(label, (context, width, height) => {
    const node = drawn.node;
    const x = place(timeline, width);
    const y = (ms) => height - ((ms - low) / (high - low)) * height;
    if (reach) {
      context.fillStyle = colour(node, "unreached");
      if (reach[1] < high) context.fillRect(GUTTER, 0, width - GUTTER, Math.min(height, y(reach[1])));
      if (reach[0] > low) context.fillRect(GUTTER, Math.max(0, y(reach[0])), width - GUTTER, height);
    }
    drawScale(
      context,
      node,
      width,
      height,
      marks.map((mark) => Number(mark.toFixed(2))),
      y,
      " ms",
    );
    context.fillStyle = colour(node, "accent");
    for (const point of points) {
      if (point.seconds < timeline.from || point.seconds > timeline.to) continue;
      context.globalAlpha = 0.25 + 0.75 * Math.max(0, Math.min(1, point.confidence ?? 1));
      context.beginPath();
      context.arc(x(point.seconds), y(point.ms), 3, 0, 2 * Math.PI);
      context.fill();
    }
    context.globalAlpha = 1;
  });
  const panel = figure(title, note, drawn, "curve");
  panel.read = (seconds) => {
    const near = points.reduce(
      (best, point) => (Math.abs(point.seconds - seconds) < Math.abs(best.seconds - seconds) ? point : best),
      points[0],
    );
    panel.reading.value = shown(near?.ms, "ms");
  };
  return panel;
}
