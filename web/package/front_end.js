// One front end in its own instance of quibo.wasm. Runs wherever WebAssembly does: pages, workers, audio worklets, node.

export const SAMPLE_RATE = 16000;
export const FRAME = 1024; // samples per channel and call, 64 ms
export const DELAYS = Object.freeze({ mics: 20, clean: 2580 }); // samples by which the outputs follow the input

const TRACKS = ["mic1", "mic2", "mic3", "ref"];

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

// What the module asks of its surroundings: to print, which nobody reads; everything else is refused (-1).
function surroundings(module, memory) {
  const view = () => new DataView(memory().buffer);
  const granted = {
    environ_sizes_get: (count, size) => {
      view().setUint32(count, 0, true);
      view().setUint32(size, 0, true);
      return 0;
    },
    fd_write: (descriptor, pieces, count, written) => {
      let bytes = 0;
      for (let i = 0; i < count; ++i) bytes += view().getUint32(pieces + 8 * i + 4, true);
      view().setUint32(written, bytes, true);
      return 0;
    },
    proc_exit: (code) => {
      throw new QuiboError(`the module ended itself (${code})`);
    },
  };
  const imports = {};
  for (const { module: from, name } of WebAssembly.Module.imports(module)) {
    imports[from] ??= {};
    imports[from][name] = granted[name] ?? (() => -1);
  }
  return imports;
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
  #recorded;
  #frame = 0;
  #scrambled;

  // module: a WebAssembly.Module of quibo.wasm. encoding: of the microphones, "plain" or the codec's "scrambled".
  // measure: keep meters of the recording, for finish(). checkRate: look at the recording, whose samples per second
  // before any resampling these are, for check().
  constructor(module, { encoding = "plain", measure = false, checkRate = 0 } = {}) {
    complainAboutThisPlace();
    if (encoding !== "plain" && encoding !== "scrambled") throw new QuiboError(`no encoding is called ${encoding}`);
    this.#scrambled = encoding === "scrambled" ? 1 : 0;
    const calls = instance(module);
    calls.module_create(measure ? 1 : 0, checkRate);
    const frame = (address) => new Int16Array(calls.memory.buffer, address, FRAME);
    this.#calls = calls;
    this.#inputs = TRACKS.map((_, track) => frame(calls.module_input(track)));
    this.#outputs = TRACKS.map((_, track) => frame(calls.module_output(track)));
    this.#recorded = TRACKS.map((_, track) => frame(calls.module_recorded(track)));
  }

  // Name of the kernels in use.
  get kernels() {
    return this.#text(this.#calls.module_kernels());
  }

  #text(address) {
    const bytes = new Uint8Array(this.#calls.memory.buffer, address);
    return String.fromCharCode(...bytes.subarray(0, bytes.indexOf(0))); // ASCII; worklets have no TextDecoder
  }

  // Of the last frame: microphone 1 as it came, decoded where it was scrambled.
  get microphone() {
    return this.#inputs[0].slice();
  }

  // One frame: FRAME samples of each microphone and of the reference, the first `samples` of which are the recording's.
  // Returns new arrays.
  process(mic1, mic2, mic3, ref, samples = FRAME) {
    [mic1, mic2, mic3, ref].forEach((from, track) => copySamples(from, this.#inputs[track], TRACKS[track]));
    this.#calls.module_process(this.#scrambled, samples);
    this.#frame += 1;
    const [out1, out2, out3, clean] = this.#outputs.map((output) => output.slice());
    return { mics: [out1, out2, out3], clean, wake: this.#calls.module_woke() ? this.#wake() : null };
  }

  #wake() {
    const angle = this.#calls.module_angle();
    const [start, end, cost, angleLength] = [0, 1, 2, 3].map((i) => this.#calls.module_wake_value(i));
    const seconds = (this.#frame * FRAME) / SAMPLE_RATE;
    return { frame: this.#frame - 1, seconds, start, end, cost, angle: angle < 0 ? null : angle, angleLength };
  }

  // After the last frame of a front end that measures: what its meters hold per second.
  finish() {
    const calls = this.#calls;
    const seconds = calls.module_finish();
    const values = (i) => Array.from(new Float32Array(calls.memory.buffer, calls.module_meter(i), seconds), known);
    const named = (first) => Object.fromEntries([...TRACKS, "clean"].map((name, i) => [name, values(first + i)]));
    const only = new Uint8Array(calls.memory.buffer, calls.module_only_device(), seconds);
    return {
      levels: named(0),
      peaks: named(TRACKS.length + 1),
      reduction: values(2 * (TRACKS.length + 1)),
      onlyDevice: Array.from(only, Boolean),
      medianReduction: known(calls.module_median_reduction()),
    };
  }

  // For check(): the tracks as they were recorded, Int16Arrays, in pieces of up to FRAME samples.
  addRecorded(...tracks) {
    tracks.forEach((samples, track) => {
      if (!(samples instanceof Int16Array) || samples.length !== tracks[0].length || samples.length > FRAME) {
        throw new QuiboError(`${TRACKS[track]}: a check takes Int16Arrays of one length, up to ${FRAME}`);
      }
      this.#recorded[track].set(samples);
    });
    this.#calls.module_check_recorded(this.#scrambled, tracks[0].length);
  }

  // After the last frame: what `quibo check --json` tells of the recording.
  check() {
    const calls = this.#calls;
    const findings = Array.from({ length: calls.module_check_finish() }, (_, i) => {
      const [id, severity, channel, what, how_bad, advice] = [0, 1, 2, 3, 4, 5].map((part) =>
        this.#text(calls.module_finding_text(i, part)),
      );
      const [start, end] = [0, 1].map((which) => rounded(calls.module_finding_time(i, which), 3));
      return { id, severity, channel: channel || null, start, end, what, how_bad, do: advice };
    });
    const channel = (track) => {
      const decimals = Object.entries({ level_dbfs: 1, peak_dbfs: 1, floor_dbfs: 0, dc: 5, clipped: 0 });
      return Object.fromEntries(
        decimals.map(([name, places], i) => [name, rounded(calls.module_channel_state(track, i), places)]),
      );
    };
    const points = Array.from({ length: calls.module_delay_points() }, (_, point) => {
      const [seconds, delay, confidence] = [0, 1, 2].map((i) => calls.module_delay_point(point, i));
      return { seconds: rounded(seconds, 2), ms: rounded(1000 * delay, 3), confidence: rounded(confidence, 2) };
    });
    const [from, to] = [0, 1].map((end) => 1000 * calls.module_delay_reach(end));
    return {
      verdict: this.#text(calls.module_verdict()),
      findings,
      channels: Object.fromEntries(TRACKS.map((name, track) => [name, channel(track)])),
      reference_delay: {
        reach_ms: [rounded(from, 2), rounded(to, 1)],
        points,
        drift_ppm: rounded(calls.module_drift(), 1),
      },
    };
  }
}

// To so many decimals, as the command does; null for what is not known.
const rounded = (value, decimals) =>
  Number.isNaN(value) ? null : (Math.sign(value) * Math.round(Math.abs(value) * 10 ** decimals)) / 10 ** decimals;

const known = (value) => (Number.isNaN(value) ? null : Math.round(value * 100) / 100);

// Instances do not grow: what JavaScript sees of their memory stays good.
function instance(module) {
  let memory;
  const calls = new WebAssembly.Instance(
    module,
    surroundings(module, () => memory),
  ).exports;
  memory = calls.memory;
  calls._initialize();
  return calls;
}

// Whether samples of a microphone are in the codec's encoding; null: not to be told.
export function looksScrambled(module, samples) {
  const calls = instance(module);
  new Int16Array(calls.memory.buffer, calls.module_guess(samples.length), samples.length).set(samples);
  const answer = calls.module_scrambled();
  return answer < 0 ? null : answer === 1;
}
