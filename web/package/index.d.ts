/** Samples per second and channel of all audio here. */
export declare const SAMPLE_RATE: 16000;
/** Samples per channel and call: 64 ms. */
export declare const FRAME: 1024;
/** Samples by which the outputs follow the input. */
export declare const DELAYS: { readonly mics: 20; readonly clean: 2580 };

/** Something is missing or does not fit; the message says what. */
export declare class QuiboError extends Error {}

/** int16 as it is, or floats of full scale 1.0, which are rounded and limited. */
export type Samples = Int16Array | Float32Array;
/** Of the microphones' samples. The reference is always plain. */
export type Encoding = "plain" | "scrambled";
/** quibo.wasm: compiled, its bytes, a response that brings them, or where they are. */
export type Wasm = WebAssembly.Module | BufferSource | Response | URL | string;

export interface Wake {
  /** Frame in which the phrase was heard, counted from 0. */
  frame: number;
  /** End of that frame in seconds. */
  seconds: number;
  /** Estimated span of the phrase in seconds. */
  start: number;
  end: number;
  /** The lower the surer. */
  cost: number;
  /** Direction of the talker in degrees, 0 to 359, clockwise from above, 0 at microphone 1; null: none was found. */
  angle: number | null;
  /** Length of the vector that gave the angle, 0 to about 1: how sure it is. */
  angleLength: number;
}

export interface Processed {
  /** The three microphones without the linear echo, DELAYS.mics late. */
  mics: [Int16Array, Int16Array, Int16Array];
  /** Microphone 1 with the residual echo suppressed, DELAYS.clean late. */
  clean: Int16Array;
  wake: Wake | null;
}

export declare class FrontEnd {
  /** checkRate: samples per second of what addRecorded() gets; 0: no check. */
  constructor(module: WebAssembly.Module, options?: { encoding?: Encoding; measure?: boolean; checkRate?: number });
  /** Name of the kernels in use. */
  readonly kernels: string;
  /** Of the last frame: microphone 1 as it came, decoded where it was scrambled. */
  readonly microphone: Int16Array;
  /** One frame: FRAME samples each, the first `samples` of which count for the meters. Returns new arrays. */
  process(mic1: Samples, mic2: Samples, mic3: Samples, ref: Samples, samples?: number): Processed;
  /** After the last frame, where `measure` was asked for. */
  finish(): Meters;
  /** Where there is a checkRate: all of the recording as it was before any resampling, FRAME samples at most at a time. */
  addRecorded(mic1: Int16Array, mic2: Int16Array, mic3: Int16Array, ref: Int16Array): void;
  /** After the last frame, where there is a checkRate. */
  check(): Check;
}

/** A front end on the thread that calls; each is an instance of its own. */
export declare function createFrontEnd(options?: { wasm?: Wasm; encoding?: Encoding }): Promise<FrontEnd>;

/** Four tracks of one length. */
export interface Recording {
  mic1: Samples;
  mic2: Samples;
  mic3: Samples;
  ref: Samples;
}

/** Per second; levels and peaks in dBFS (a sine at full scale has a level of -3), no less than -120. */
export interface Meters {
  levels: Record<"mic1" | "mic2" | "mic3" | "ref" | "clean", number[]>;
  peaks: Record<"mic1" | "mic2" | "mic3" | "ref" | "clean", number[]>;
  /** Level of microphone 1 over that of the output in dB; null where the reference is silent. */
  reduction: (number | null)[];
  /** Seconds in which the device plays and nobody talks. */
  onlyDevice: boolean[];
  /** Median over those seconds; null: there were none. */
  medianReduction: number | null;
}

/** What `quibo check --json` tells of a recording. */
export interface Check {
  /** By the worst finding: none or a note, a warning, a fault. */
  verdict: "fit" | "look" | "unfit";
  /** The worst first. */
  findings: Finding[];
  channels: Record<"mic1" | "mic2" | "mic3" | "ref", ChannelState>;
  reference_delay: {
    /** What the canceller covers. */
    reach_ms: [number, number];
    points: { seconds: number; ms: number; confidence: number }[];
    /** Null: not to be told. */
    drift_ppm: number | null;
  };
}

export interface Finding {
  /** Stays the same from version to version: "reference_early". */
  id: string;
  severity: "fault" | "warning" | "note";
  /** Null: the recording. */
  channel: "mic1" | "mic2" | "mic3" | "ref" | null;
  /** Seconds; null: all of it. */
  start: number | null;
  end: number | null;
  what: string;
  how_bad: string;
  do: string;
}

export interface ChannelState {
  level_dbfs: number;
  peak_dbfs: number;
  /** Null: the device always plays. */
  floor_dbfs: number | null;
  /** Mean, full scale 1.0. */
  dc: number;
  /** Samples. */
  clipped: number;
}

/** Outputs as long as the recording and lined up with it. */
export interface Result {
  /** Microphone 1 as it came, decoded. */
  mic1: Int16Array;
  mics: [Int16Array, Int16Array, Int16Array];
  clean: Int16Array;
  wakes: Wake[];
  meters: Meters;
  /** Null where it was not asked for. */
  check: Check | null;
  encoding: Encoding;
  kernels: string;
  secondsUsed: number;
}

/** Plays a whole recording in a worker of its own, which ends with it. */
export declare function processRecording(
  tracks: Recording,
  options?: {
    wasm?: Exclude<Wasm, WebAssembly.Module>;
    /** "guess": by listening to microphone 1, for int16. */
    encoding?: Encoding | "guess";
    /** Look at the recording, too: it takes int16. */
    check?: boolean;
    /** For the check: the tracks before they were resampled, and their rate. */
    recorded?: { mic1: Int16Array; mic2: Int16Array; mic3: Int16Array; ref: Int16Array; rate: number };
    /** A worker that runs worker.js, where a bundler or a policy asks for another way to make it. */
    worker?: Worker;
    /** Samples done, samples in all. */
    onProgress?: (done: number, total: number) => void;
    onWake?: (wake: Wake) => void;
    signal?: AbortSignal;
  },
): Promise<Result>;

/** Mean powers of a frame, full scale 1.0: microphone 1, reference, microphone 1 cancelled, clean. */
export interface Powers {
  mic: number;
  ref: number;
  cancelled: number;
  clean: number;
}

/**
 * An AudioWorkletNode with a front end inside, in a context of 16 kHz. Input 0: the microphones as channels 0 to 2;
 * input 1: the reference as channel 0; output 0: the clean microphone.
 */
export declare function createFrontEndNode(
  context: BaseAudioContext,
  options?: {
    wasm?: Exclude<Wasm, WebAssembly.Module>;
    encoding?: Encoding;
    /** Where worklet.js is. */
    worklet?: URL | string;
    onWake?: (wake: Wake) => void;
    onFrame?: (powers: Powers) => void;
    onError?: (error: QuiboError) => void;
  },
): Promise<AudioWorkletNode>;
