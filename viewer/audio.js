// Recordings from the page's own text, and a player that keeps all of them in step.

export const RATE = 16000;
const SWITCH_S = 0.01; // crossfade from one track to another
const AHEAD_S = 0.05; // from the call to the first sample, so that all tracks start at the same one

export function bytesOf(base64) {
  if (Uint8Array.fromBase64) return Uint8Array.fromBase64(base64);
  return Uint8Array.from(atob(base64), (c) => c.charCodeAt(0));
}

// Samples of an audio file in base64, at RATE.
export async function decode(base64) {
  const context = new OfflineAudioContext(1, 1, RATE);
  const buffer = await context.decodeAudioData(bytesOf(base64).buffer);
  return buffer.getChannelData(0);
}

// Plays tracks (id -> Float32Array at RATE) sample by sample together; one of them is heard.
export class Player {
  #tracks;
  #context = null;
  #gains = new Map();
  #master = null;
  #sources = [];
  #startedAt = 0; // of the context's clock, when the recording's second 0 was or would have been
  #position = 0;
  #boost = 1;

  constructor(tracks, seconds) {
    this.#tracks = tracks;
    this.seconds = seconds;
    this.playing = false;
    this.heard = tracks.keys().next().value;
    this.onEnd = () => {};
  }

  get position() {
    if (!this.playing) return this.#position;
    return Math.max(0, Math.min(this.seconds, this.#context.currentTime - this.#startedAt));
  }

  async play() {
    if (this.playing) return;
    this.#context ??= this.#open();
    await this.#context.resume();
    if (this.#position >= this.seconds - 0.05) this.#position = 0;
    this.playing = true;
    this.#start();
  }

  pause() {
    this.#position = this.position;
    this.playing = false;
    this.#stop();
  }

  seek(seconds) {
    this.#position = Math.max(0, Math.min(this.seconds, seconds));
    if (!this.playing) return;
    this.#stop();
    this.#start();
  }

  hear(id) {
    this.heard = id;
    for (const [track, gain] of this.#gains) {
      gain.gain.setTargetAtTime(track === id ? 1 : 0, this.#context.currentTime, SWITCH_S / 3);
    }
  }

  boost(db) {
    this.#boost = 10 ** (db / 20);
    if (this.#master) this.#master.gain.value = this.#boost;
  }

  close() {
    this.#stop();
    this.playing = false;
    this.#context?.close();
    this.#context = null;
  }

  #open() {
    const context = new AudioContext();
    this.#master = new GainNode(context, { gain: this.#boost });
    this.#master.connect(context.destination);
    for (const id of this.#tracks.keys()) {
      const gain = new GainNode(context, { gain: id === this.heard ? 1 : 0 });
      gain.connect(this.#master);
      this.#gains.set(id, gain);
    }
    return context;
  }

  #start() {
    const when = this.#context.currentTime + AHEAD_S;
    this.#startedAt = when - this.#position;
    for (const [id, samples] of this.#tracks) {
      const buffer = new AudioBuffer({ length: samples.length, numberOfChannels: 1, sampleRate: RATE });
      buffer.copyToChannel(samples, 0);
      const source = new AudioBufferSourceNode(this.#context, { buffer });
      source.connect(this.#gains.get(id));
      source.start(when, this.#position);
      this.#sources.push(source);
    }
    this.#sources[0].onended = () => {
      this.pause();
      this.onEnd();
    };
  }

  #stop() {
    for (const source of this.#sources) {
      source.onended = null;
      source.stop();
      source.disconnect();
    }
    this.#sources = [];
  }
}
