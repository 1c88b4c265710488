// A file as four tracks of int16 at 16 kHz: WAV is read here, to the bit; FLAC by the browser.

import { SAMPLE_RATE } from "../package/index.js";

const SLICE = 1 << 18; // samples between two looks at what else the page has to do

// A line for a person; a function of the page's texts.
export class Problem extends Error {
  constructor(line) {
    super(line);
    this.name = "Problem";
  }
}

export const breathe = () => new Promise((resume) => setTimeout(resume));

const clamp = (value) => Math.max(-32768, Math.min(32767, Math.round(value) || 0));
const name4 = (view, at) => String.fromCharCode(...[0, 1, 2, 3].map((i) => view.getUint8(at + i)));

// How samples of a WAV format become int16; undefined where that is not known.
function reader(kind, bits) {
  if (kind === 3 && bits === 32) return (view, at) => clamp(32768 * view.getFloat32(at, true));
  if (kind !== 1) return undefined;
  return {
    8: (view, at) => (view.getUint8(at) - 128) * 256,
    16: (view, at) => view.getInt16(at, true),
    24: (view, at) => clamp(((view.getUint8(at) << 8) | (view.getInt16(at + 1, true) << 16)) / 65536),
    32: (view, at) => clamp(view.getInt32(at, true) / 65536),
  }[bits];
}

// { rate, channels: [Int16Array], format }, or null where the bytes are no WAV file.
async function readWav(buffer, name, { problems }) {
  const view = new DataView(buffer);
  if (buffer.byteLength < 12 || name4(view, 0) !== "RIFF" || name4(view, 8) !== "WAVE") return null;
  let format = null;
  for (let at = 12; at + 8 <= buffer.byteLength; ) {
    const chunk = name4(view, at);
    const size = view.getUint32(at + 4, true);
    at += 8;
    if (chunk === "fmt " && at + 16 <= buffer.byteLength) {
      let kind = view.getUint16(at, true);
      if (kind === 0xfffe && size >= 26) kind = view.getUint16(at + 24, true); // extensible
      format = {
        kind,
        count: view.getUint16(at + 2, true),
        rate: view.getUint32(at + 4, true),
        bits: view.getUint16(at + 14, true),
      };
    } else if (chunk === "data" && format) {
      const read = reader(format.kind, format.bits);
      if (!read || !format.count || !format.rate)
        throw new Problem(problems.wavKind(name, `${format.kind}, ${format.bits} bit`));
      const bytes = format.bits / 8;
      const available = Math.min(size, buffer.byteLength - at); // a file that was cut gives what it has
      const length = Math.floor(available / (bytes * format.count));
      const channels = Array.from({ length: format.count }, () => new Int16Array(length));
      for (let start = 0; start < length; start += SLICE) {
        const end = Math.min(length, start + SLICE);
        channels.forEach((samples, c) => {
          for (let i = start; i < end; ++i) samples[i] = read(view, at + bytes * (i * format.count + c));
        });
        await breathe();
      }
      return { rate: format.rate, channels, format: `WAV, ${format.bits} bit${format.kind === 3 ? " float" : ""}` };
    }
    at += size + (size % 2);
  }
  throw new Problem(problems.wavCut(name));
}

async function toInt16(samples, positive = 32768) {
  const out = new Int16Array(samples.length);
  for (let start = 0; start < samples.length; start += SLICE) {
    const end = Math.min(samples.length, start + SLICE);
    for (let i = start; i < end; ++i) out[i] = clamp((samples[i] > 0 ? positive : 32768) * samples[i]);
    await breathe();
  }
  return out;
}

// A loop: Float32Array.from() takes fifty times as long.
export function toFloats(samples) {
  const out = new Float32Array(samples.length);
  for (let i = 0; i < out.length; ++i) out[i] = samples[i] / 32768;
  return out;
}

// What a browser's decoder divides positive samples by: 32767 in Chromium, 32768 elsewhere. Large samples tell, which
// are whole numbers with the right one.
function positiveScale(samples) {
  const error = [32767, 32768].map((scale) => ({ scale, sum: 0 }));
  for (const sample of samples) {
    if (sample < 0.2) continue;
    for (const guess of error) guess.sum += Math.abs(guess.scale * sample - Math.round(guess.scale * sample));
  }
  return error[0].sum < error[1].sum ? 32767 : 32768;
}

async function readFlac(buffer, name, { problems }) {
  const bytes = new Uint8Array(buffer);
  if (bytes.length < 22 || String.fromCharCode(...bytes.subarray(0, 4)) !== "fLaC") return null;
  const rate = (bytes[18] << 12) | (bytes[19] << 4) | (bytes[20] >> 4); // of the stream: nothing is to be resampled
  const bits = (((bytes[20] & 1) << 4) | (bytes[21] >> 4)) + 1;
  let audio;
  try {
    audio = await new OfflineAudioContext(1, 1, rate).decodeAudioData(buffer.slice(0));
  } catch {
    throw new Problem(problems.notAudio(name));
  }
  const decoded = Array.from({ length: audio.numberOfChannels }, (_, c) => audio.getChannelData(c));
  const scales = decoded.map(positiveScale);
  const scale = scales.includes(32767) ? 32767 : 32768; // quiet channels do not tell
  const channels = [];
  for (const samples of decoded) channels.push(await toInt16(samples, scale));
  return { rate, channels, format: `FLAC, ${bits} bit` };
}

// Numbers, from 0, of microphones 1, 2, 3 and the reference.
function channelMap(wanted, count, name, { problems }) {
  if (wanted) {
    const numbers = wanted.split(",").map((part) => Number(part.trim()) - 1);
    const fine = numbers.every((n) => Number.isInteger(n) && n >= 0 && n < count);
    if (!fine || new Set(numbers).size !== 4 || numbers.length !== 4)
      throw new Problem(problems.channelMap(wanted, count));
    return { map: numbers, guessed: false };
  }
  if (count === 4) return { map: [0, 1, 2, 3], guessed: true };
  if (count === 6) return { map: [0, 1, 2, 4], guessed: true }; // as the demonstration driver reads them
  throw new Problem(problems.channelCount(name, count));
}

async function resampled(tracks, rate) {
  const length = tracks[0].length;
  const context = new OfflineAudioContext(tracks.length, Math.ceil((length * SAMPLE_RATE) / rate), SAMPLE_RATE);
  const buffer = new AudioBuffer({ length, numberOfChannels: tracks.length, sampleRate: rate });
  tracks.forEach((samples, c) => buffer.copyToChannel(toFloats(samples), c));
  const source = new AudioBufferSourceNode(context, { buffer });
  source.connect(context.destination);
  source.start();
  const rendered = await context.startRendering();
  const out = [];
  for (let c = 0; c < tracks.length; ++c) out.push(await toInt16(rendered.getChannelData(c)));
  return out;
}

// { tracks: { mic1, mic2, mic3, ref }, recorded, about } of a file's bytes; recorded: the tracks as they are in the file,
// with their rate. Throws a Problem.
export async function readRecording(buffer, name, text, wantedMap = "") {
  const file = (await readWav(buffer, name, text)) ?? (await readFlac(buffer, name, text));
  if (!file) throw new Problem(text.problems.notAudio(name));
  const { rate, channels, format } = file;
  if (!channels[0]?.length) throw new Problem(text.problems.empty(name));
  const { map, guessed } = channelMap(wantedMap, channels.length, name, text);
  const notes = [];
  const names = ["mic1", "mic2", "mic3", "ref"];
  if (guessed) notes.push(text.guessedMap(names.map((track, i) => `${track}=${map[i] + 1}`).join(", ")));
  let chosen = map.map((channel) => channels[channel]);
  const named = () => Object.fromEntries(names.map((track, i) => [track, chosen[i]]));
  const recorded = { ...named(), rate };
  if (rate !== SAMPLE_RATE) {
    notes.push(text.resampled(rate));
    chosen = await resampled(chosen, rate);
  }
  const numbers = Object.fromEntries(names.map((track, i) => [track, map[i] + 1]));
  return {
    tracks: named(),
    recorded,
    about: { file: name, format, channels: channels.length, sample_rate: rate, map: numbers, notes },
  };
}
