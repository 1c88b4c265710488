// The front end as an audio worklet: frames of 1024 samples are put together from quanta of 128. Its output is one frame
// late on top of the front end's own delay.

import { FRAME, FrontEnd } from "./front_end.js";

const power = (samples) => samples.reduce((sum, sample) => sum + sample * sample, 0) / (samples.length * 32768 ** 2);

class FrontEndProcessor extends AudioWorkletProcessor {
  #frontEnd;
  #filled = 0;
  #input = Array.from({ length: 4 }, () => new Float32Array(FRAME));
  #output = new Int16Array(FRAME);

  constructor({ processorOptions: { wasm, encoding } }) {
    super();
    try {
      this.#frontEnd = new FrontEnd(new WebAssembly.Module(wasm), { encoding });
      this.port.postMessage({ type: "ready" });
    } catch (error) {
      this.port.postMessage({ type: "error", message: error.message });
    }
  }

  process([mics, ref], [[out]]) {
    if (!this.#frontEnd) return false;
    const quantum = out.length;
    [mics[0], mics[1], mics[2], ref[0]].forEach((samples, track) => {
      if (samples) this.#input[track].set(samples, this.#filled);
      else this.#input[track].fill(0, this.#filled, this.#filled + quantum); // nothing is connected
    });
    for (let i = 0; i < quantum; ++i) out[i] = this.#output[this.#filled + i] / 32768;
    this.#filled += quantum;
    if (this.#filled === FRAME) {
      this.#filled = 0;
      this.#frame();
    }
    return true;
  }

  #frame() {
    const { mics, clean, wake } = this.#frontEnd.process(...this.#input);
    this.#output = clean;
    if (wake) this.port.postMessage({ type: "wake", wake });
    const input = (track) => this.#input[track].reduce((sum, sample) => sum + sample * sample, 0) / FRAME;
    this.port.postMessage({
      type: "frame",
      powers: { mic: input(0), ref: input(3), cancelled: power(mics[0]), clean: power(clean) },
    });
  }
}

registerProcessor("quibo-front-end", FrontEndProcessor);
