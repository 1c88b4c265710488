// Microphone and music through the engine: one microphone taken three times, the reference is what the page plays.

import { QuiboError, SAMPLE_RATE, createFrontEndNode } from "../package/index.js";
import { canvas, colour, el } from "../../viewer/dom.js";

const SHOWN_S = 30;
const FRAME_S = 0.064;
const EARLY_S = 0.01; // the reference comes this much before the sound leaves: the canceller needs it before the echo
const SMOOTHING = 0.9; // of powers, per frame: about two thirds of a second
const FLOOR_DB = -90;
const CURVES = [
  ["ref", "channel3"],
  ["mic", "before"],
  ["cancelled", "channel2"],
  ["clean", "after"],
];

const decibels = (power) => Math.max(FLOOR_DB, 10 * Math.log10(power + 1e-12));

// Starts listening; resolves with an object whose stop() ends it. music: Float32Array at SAMPLE_RATE, played in a loop.
export async function listen(root, { text, music, wasm, worklet, onFailure }) {
  let stream;
  try {
    const plain = { echoCancellation: false, noiseSuppression: false, autoGainControl: false, channelCount: 1 };
    stream = await navigator.mediaDevices.getUserMedia({ audio: plain });
  } catch (error) {
    throw new QuiboError(`${text.problems.noMicrophone}: ${error.message}`);
  }
  const context = new AudioContext({ sampleRate: SAMPLE_RATE });
  const history = [];
  const smooth = {};
  const wakes = el("ol", { class: "p-wakes", "aria-live": "polite" });
  const reading = el("dl", { class: "p-readings" });
  const chart = canvas(text.liveChart, (drawing, width, height) =>
    drawHistory(drawing, chart.node, width, height, history),
  );
  const gain = new GainNode(context, { gain: 0.5 });
  const volume = el("input", {
    type: "range",
    min: 0,
    max: 1,
    step: 0.01,
    value: 0.5,
    oninput: () => (gain.gain.value = Number(volume.value)),
  });
  const keys = CURVES.map(([name, shade]) =>
    el("span", { class: "q-key", style: `--key: var(--${shade})` }, text.liveLevels[name]),
  );
  const values = ["mic", "cancelled", "clean", "reduction"].map((name) => {
    const value = el("dd", {});
    reading.append(el("div", {}, el("dt", {}, text.liveLevels[name]), value));
    return { name, value };
  });
  const stop = () => {
    for (const track of stream.getTracks()) track.stop();
    context.close();
    chart.close();
  };
  let node;
  try {
    node = await createFrontEndNode(context, {
      wasm,
      worklet,
      onWake: ({ seconds }) => wakes.prepend(el("li", {}, text.liveWake(`${seconds.toFixed(1)} s`))),
      onFrame: (powers) => {
        for (const [name, power] of Object.entries(powers)) {
          smooth[name] = SMOOTHING * (smooth[name] ?? power) + (1 - SMOOTHING) * power;
        }
        history.push(Object.fromEntries(Object.entries(powers).map(([name, power]) => [name, decibels(power)])));
        if (history.length > SHOWN_S / FRAME_S) history.shift();
        const now = { ...smooth, reduction: null };
        for (const { name, value } of values) {
          const db = name === "reduction" ? decibels(smooth.mic) - decibels(smooth.clean) : decibels(now[name]);
          value.textContent = `${db.toFixed(0)} dB`;
        }
        chart.redraw();
      },
      onError: onFailure,
    });
    const microphone = context.createMediaStreamSource(stream);
    const three = new ChannelMergerNode(context, { numberOfInputs: 3 });
    for (const channel of [0, 1, 2]) microphone.connect(three, 0, channel);
    three.connect(node, 0, 0);
  } catch (error) {
    stop();
    throw error;
  }
  const buffer = new AudioBuffer({ length: music.length, numberOfChannels: 1, sampleRate: SAMPLE_RATE });
  buffer.copyToChannel(music, 0);
  const player = new AudioBufferSourceNode(context, { buffer, loop: true });
  const late = Math.max(0, (context.outputLatency || context.baseLatency || 0) - EARLY_S);
  const reference = new DelayNode(context, { maxDelayTime: 1, delayTime: Math.min(1, late) });
  player.connect(gain);
  gain.connect(context.destination);
  gain.connect(reference);
  reference.connect(node, 0, 1);
  const sink = new GainNode(context, { gain: 0 }); // the node runs; nobody hears the microphone
  node.connect(sink);
  sink.connect(context.destination);
  player.start();
  await context.resume();
  root.replaceChildren(
    el("p", { class: "p-status", role: "status" }, text.listening),
    el("label", { class: "p-volume" }, text.music, volume),
    reading,
    el("div", { class: "p-chart" }, el("div", { class: "q-keys" }, keys), chart.node),
    wakes,
  );
  return { stop };
}

function drawHistory(drawing, node, width, height, history) {
  const frames = SHOWN_S / FRAME_S;
  const y = (db) => 4 + (db / FLOOR_DB) * (height - 8);
  drawing.fillStyle = colour(node, "dim");
  drawing.strokeStyle = colour(node, "line");
  drawing.textBaseline = "middle";
  for (const db of [-20, -40, -60, -80]) {
    drawing.beginPath();
    drawing.moveTo(36, y(db));
    drawing.lineTo(width, y(db));
    drawing.stroke();
    drawing.fillText(`${db}`, 8, y(db));
  }
  for (const [name, shade] of CURVES) {
    drawing.strokeStyle = colour(node, shade);
    drawing.lineWidth = 1.5;
    drawing.beginPath();
    history.forEach((levels, i) =>
      drawing.lineTo(36 + ((i + frames - history.length) / frames) * (width - 36), y(levels[name])),
    );
    drawing.stroke();
  }
}
