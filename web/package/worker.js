// Plays a recording through a front end and sends back what comes out, lined up with the recording.

import { DELAYS, FRAME, FrontEnd, SAMPLE_RATE, looksScrambled } from "./front_end.js";

const FRAMES_PER_MESSAGE = 16; // about a second of the recording

const GUESS_S = 10; // of microphone 1 tell whether it is scrambled

// Shows the check the recording before it was resampled.
function addRecorded(frontEnd, { mic1, mic2, mic3, ref }) {
  for (let start = 0; start < mic1.length; start += FRAME) {
    frontEnd.addRecorded(...[mic1, mic2, mic3, ref].map((track) => track.subarray(start, start + FRAME)));
  }
}

function play({ tracks, encoding, check, recorded, wasm }, send) {
  const { mic1, mic2, mic3, ref } = tracks;
  const length = mic1.length;
  if ([mic2, mic3, ref].some((track) => track.length !== length)) throw new Error("the tracks are not equally long");
  const module = new WebAssembly.Module(wasm);
  if (encoding === "guess") {
    const scrambled = mic1 instanceof Int16Array && looksScrambled(module, mic1.subarray(0, GUESS_S * SAMPLE_RATE));
    encoding = scrambled ? "scrambled" : "plain";
  }
  recorded ??= { ...tracks, rate: SAMPLE_RATE };
  const frontEnd = new FrontEnd(module, { encoding, measure: true, checkRate: check ? recorded.rate : 0 });
  const microphone = new Int16Array(length);
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
  if (check) addRecorded(frontEnd, recorded);
  const count = Math.ceil((length + DELAYS.clean) / FRAME);
  for (let i = 0; i < count; ++i) {
    const start = i * FRAME;
    const frames = [mic1, mic2, mic3, ref].map((track) => frameOf(track, start));
    const { mics, clean, wake } = frontEnd.process(...frames, Math.max(0, Math.min(FRAME, length - start)));
    put(frontEnd.microphone, microphone, start);
    mics.forEach((samples, mic) => put(samples, outputs.mics[mic], start - DELAYS.mics));
    put(clean, outputs.clean, start - DELAYS.clean);
    if (wake) {
      wakes.push(wake);
      send({ type: "wake", wake });
    }
    if (i % FRAMES_PER_MESSAGE === 0) send({ type: "progress", done: Math.min(start, length), total: length });
  }
  const secondsUsed = (performance.now() - begun) / 1000;
  return {
    ...outputs,
    mic1: microphone,
    wakes,
    meters: frontEnd.finish(),
    check: check ? frontEnd.check() : null,
    encoding: encoding ?? "plain",
    kernels: frontEnd.kernels,
    secondsUsed,
  };
}

onmessage = ({ data }) => {
  try {
    const result = play(data, (message) => postMessage(message));
    const arrays = [result.mic1, result.clean, ...result.mics];
    postMessage(
      { type: "result", result },
      arrays.map((samples) => samples.buffer),
    );
  } catch (error) {
    postMessage({ type: "error", message: error.message });
  }
};
