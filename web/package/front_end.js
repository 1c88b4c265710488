// One front end in its own instance of quibo.wasm. Runs wherever WebAssembly does: pages, workers, audio worklets, node.

export const SAMPLE_RATE = 16000;
export const FRAME = 1024; // samples per channel and call, 64 ms
export const DELAYS = Object.freeze({ mics: 20, clean: 2580 }); // samples by which the outputs follow the input

const TRACKS = ["mic1", "mic2", "mic3", "ref"];
const CLEAN = 3;

// The smallest module with an operation of 128-bit SIMD (i8x16.popcnt on a splat).
const SIMD = [
  0, 97, 115, 109, 1, 0, 0, 0, 1, 5, 1, 96, 0, 1, 123, 3, 2, 1, 0, 10, 10, 1, 8, 0, 65, 0, 253, 15, 253, 98, 11,
];

export class QuiboError extends Error {
  name = "QuiboError";
}

function complainAboutThisPlace() {
  if (typeof WebAssembly !== "object") throw new QuiboError("there is no WebAssembly here");
  if (!WebAssembly.validate(new Uint8Array(SIMD))) {
    throw new QuiboError("this WebAssembly has no 128-bit SIMD: a browser of 2023 or newer, or node 18, is needed");
  }
}

// What the module asks of its surroundings: nothing but to print, and nobody reads that.
function surroundings(memory) {
  const view = () => new DataView(memory().buffer);
  return {
    wasi_snapshot_preview1: {
      environ_get: () => 0,
      environ_sizes_get: (count, size) => {
        view().setUint32(count, 0, true);
        view().setUint32(size, 0, true);
        return 0;
      },
      fd_close: () => 0,
      fd_seek: () => 0,
      fd_write: (descriptor, pieces, count, written) => {
        let bytes = 0;
        for (let i = 0; i < count; ++i) bytes += view().getUint32(pieces + 8 * i + 4, true);
        view().setUint32(written, bytes, true);
        return 0;
      },
    },
  };
}

// Floats of full scale 1.0 to the nearest int16, limited to the range.
function copySamples(from, to, name) {
  if (from?.length !== FRAME) throw new QuiboError(`${name}: ${FRAME} samples are needed, not ${from?.length}`);
  if (from instanceof Int16Array) {
    to.set(from);
  } else if (from instanceof Float32Array) {
    for (let i = 0; i < FRAME; ++i) {
      const sample = Math.round(32768 * from[i]) || 0; // a NaN is silence
      to[i] = Math.max(-32768, Math.min(32767, sample));
    }
  } else {
    throw new QuiboError(`${name}: an Int16Array or a Float32Array is needed`);
  }
}

export class FrontEnd {
  #calls;
  #inputs;
  #outputs;
  #frame = 0;
  #scrambled;

  // module: a WebAssembly.Module of quibo.wasm. encoding: of the microphones, "plain" or the codec's "scrambled".
  constructor(module, { encoding = "plain" } = {}) {
    complainAboutThisPlace();
    if (encoding !== "plain" && encoding !== "scrambled") throw new QuiboError(`no encoding is called ${encoding}`);
    this.#scrambled = encoding === "scrambled" ? 1 : 0;
    let memory;
    const calls = new WebAssembly.Instance(
      module,
      surroundings(() => memory),
    ).exports;
    memory = calls.memory;
    calls._initialize();
    const code = calls.module_create();
    if (code !== 0) throw new QuiboError(`the front end could not be created (${code})`);
    // The memory does not grow after this: no call of a frame allocates.
    const frame = (address) => new Int16Array(memory.buffer, address, FRAME);
    this.#calls = calls;
    this.#inputs = TRACKS.map((_, track) => frame(calls.module_input(track)));
    this.#outputs = TRACKS.map((_, track) => frame(calls.module_output(track)));
  }

  // Name of the kernels in use.
  get kernels() {
    const bytes = new Uint8Array(this.#calls.memory.buffer, this.#calls.module_kernels(), 16);
    return String.fromCharCode(...bytes.subarray(0, bytes.indexOf(0)));
  }

  // One frame: FRAME samples of each microphone and of the reference. Returns new arrays.
  process(mic1, mic2, mic3, ref) {
    [mic1, mic2, mic3, ref].forEach((samples, track) => copySamples(samples, this.#inputs[track], TRACKS[track]));
    this.#calls.module_process(this.#scrambled);
    this.#frame += 1;
    const [out1, out2, out3, clean] = this.#outputs.map((samples) => samples.slice());
    return { mics: [out1, out2, out3], clean, wake: this.#calls.module_woke() ? this.#wake() : null };
  }

  #wake() {
    const angle = this.#calls.module_angle();
    return {
      frame: this.#frame - 1,
      seconds: (this.#frame * FRAME) / SAMPLE_RATE,
      angle: angle < 0 ? null : angle,
    };
  }
}
