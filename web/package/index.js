// The Quibo speech front end for browsers and node: createFrontEnd() for frames, processRecording() for a whole
// recording in a worker, createFrontEndNode() for live audio in a worklet.

import { FrontEnd, QuiboError, SAMPLE_RATE } from "./front_end.js";

export { DELAYS, FRAME, FrontEnd, QuiboError, SAMPLE_RATE } from "./front_end.js";

const beside = (file) => new URL(file, import.meta.url);

async function bytesOf(wasm) {
  if (wasm instanceof ArrayBuffer || ArrayBuffer.isView(wasm)) return wasm;
  if (wasm instanceof Response) {
    if (!wasm.ok) throw new QuiboError(`${wasm.url}: ${wasm.status} ${wasm.statusText}`);
    return wasm.arrayBuffer();
  }
  const url = new URL(wasm, import.meta.url);
  if (url.protocol === "file:" && typeof process === "object") {
    const { readFile } = await import("node:fs/promises");
    return readFile(url);
  }
  let response;
  try {
    response = await fetch(url);
  } catch (error) {
    throw new QuiboError(`${url} cannot be read: ${error.message}`);
  }
  return bytesOf(response);
}

async function compiled(wasm) {
  if (wasm instanceof WebAssembly.Module) return wasm;
  try {
    return await WebAssembly.compile(await bytesOf(wasm));
  } catch (error) {
    if (error instanceof QuiboError) throw error;
    throw new QuiboError(`this is no quibo.wasm: ${error.message}`);
  }
}

// A front end for frames, on the thread that calls. Every one is an instance of its own.
export async function createFrontEnd({ wasm = beside("./quibo.wasm"), encoding } = {}) {
  return new FrontEnd(await compiled(wasm), { encoding });
}

// A whole recording, in a worker of its own: tracks is { mic1, mic2, mic3, ref }, equally long. encoding may be "guess".
// check: whether to look at it as `quibo check` does; recorded: the tracks before they were resampled, and their rate.
export async function processRecording(
  tracks,
  {
    wasm = beside("./quibo.wasm"),
    encoding,
    check = false,
    recorded,
    worker,
    onProgress = () => {},
    onWake = () => {},
    signal,
  } = {},
) {
  if (typeof Worker === "undefined") throw new QuiboError("there are no web workers here: use createFrontEnd()");
  const bytes = await bytesOf(wasm);
  const thread = worker ?? new Worker(beside("./worker.js"), { type: "module" });
  const stopped = new Promise((_, reject) => {
    thread.onerror = (event) => reject(new QuiboError(event.message || "the worker could not be loaded"));
    signal?.addEventListener("abort", () => reject(signal.reason));
  });
  const finished = new Promise((resolve, reject) => {
    thread.onmessage = ({ data }) => {
      if (data.type === "progress") onProgress(data.done, data.total);
      else if (data.type === "wake") onWake(data.wake);
      else if (data.type === "error") reject(new QuiboError(data.message));
      else resolve(data.result);
    };
  });
  try {
    signal?.throwIfAborted();
    thread.postMessage({ tracks, encoding, check, recorded, wasm: bytes });
    return await Promise.race([finished, stopped]);
  } finally {
    thread.terminate();
  }
}

// An AudioWorkletNode with a front end inside. Input 0: the three microphones as channels; input 1: the reference, in
// its first channel. Output 0: the clean microphone 1. The context has to run at 16 kHz.
export async function createFrontEndNode(
  context,
  { wasm = beside("./quibo.wasm"), encoding, worklet, onWake = () => {}, onFrame = () => {}, onError = () => {} } = {},
) {
  if (context.sampleRate !== SAMPLE_RATE) {
    throw new QuiboError(
      `the AudioContext runs at ${context.sampleRate} Hz: create it with { sampleRate: ${SAMPLE_RATE} }`,
    );
  }
  if (!context.audioWorklet) throw new QuiboError("there are no audio worklets here: they need https or localhost");
  const bytes = await bytesOf(wasm);
  await context.audioWorklet.addModule(worklet ?? beside("./worklet.js"));
  const node = new AudioWorkletNode(context, "quibo-front-end", {
    numberOfInputs: 2,
    numberOfOutputs: 1,
    outputChannelCount: [1],
    channelCount: 3,
    channelCountMode: "explicit",
    channelInterpretation: "discrete",
    processorOptions: { wasm: bytes, encoding },
  });
  await new Promise((resolve, reject) => {
    node.onprocessorerror = () => reject(new QuiboError("the audio worklet failed"));
    node.port.onmessage = ({ data }) => {
      if (data.type === "ready") resolve();
      else if (data.type === "error") reject(new QuiboError(data.message));
    };
  });
  node.onprocessorerror = () => onError(new QuiboError("the audio worklet failed"));
  node.port.onmessage = ({ data }) => {
    if (data.type === "wake") onWake(data.wake);
    else if (data.type === "frame") onFrame(data.powers);
  };
  return node;
}
