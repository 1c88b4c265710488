// Plays a recording through a front end and sends back what comes out, lined up with the recording.

import { DELAYS, FRAME, FrontEnd } from "./front_end.js";

const FRAMES_PER_MESSAGE = 16; // about a second of the recording

function play({ tracks, encoding, wasm }, send) {
  const { mic1, mic2, mic3, ref } = tracks;
  const length = mic1.length;
  if ([mic2, mic3, ref].some((track) => track.length !== length)) throw new Error("the tracks are not equally long");
  const frontEnd = new FrontEnd(new WebAssembly.Module(wasm), { encoding });
  const outputs = { mics: [0, 1, 2].map(() => new Int16Array(length)), clean: new Int16Array(length) };
  const put = (samples, output, start) => {
    const first = Math.max(0, -start);
    const last = Math.min(FRAME, length - start);
    if (last > first) output.set(samples.subarray(first, last), start + first);
  };
  const frameOf = (track, start) => {
    if (start + FRAME <= length) return track.subarray(start, start + FRAME);
    const frame = new track.constructor(FRAME); // the end, filled up with silence
    if (start < length) frame.set(track.subarray(start));
    return frame;
  };
  const wakes = [];
  const begun = performance.now();
  const frames = Math.ceil((length + DELAYS.clean) / FRAME);
  for (let i = 0; i < frames; ++i) {
    const start = i * FRAME;
    const { mics, clean, wake } = frontEnd.process(...[mic1, mic2, mic3, ref].map((track) => frameOf(track, start)));
    mics.forEach((samples, mic) => put(samples, outputs.mics[mic], start - DELAYS.mics));
    put(clean, outputs.clean, start - DELAYS.clean);
    if (wake) {
      wakes.push(wake);
      send({ type: "wake", wake });
    }
    if (i % FRAMES_PER_MESSAGE === 0) send({ type: "progress", done: Math.min(start, length), total: length });
  }
  const secondsUsed = (performance.now() - begun) / 1000;
  return { ...outputs, wakes, kernels: frontEnd.kernels, secondsUsed };
}

onmessage = ({ data }) => {
  try {
    const result = play(data, (message) => postMessage(message));
    postMessage({ type: "result", result }, [result.clean.buffer, ...result.mics.map((samples) => samples.buffer)]);
  } catch (error) {
    postMessage({ type: "error", message: error.message });
  }
};
