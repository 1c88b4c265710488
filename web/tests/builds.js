// What the tests take from the builds, and the sample recording.

import { execFileSync, spawnSync } from "node:child_process";
import { mkdirSync, readFileSync, writeFileSync } from "node:fs";
import { join, resolve } from "node:path";
import { fileURLToPath } from "node:url";

export const SOURCE = fileURLToPath(new URL("../../", import.meta.url));
export const WASM = join(SOURCE, "build-wasm");
export const NATIVE = resolve(SOURCE, process.env.QUIBO_BUILD_DIR ?? "build-test");

// The sample as the driver reads it: interleaved int16, six channels.
export function capture() {
  const raw = ["--force-raw-format", "--endian=little", "--sign=signed"];
  const file = join(SOURCE, "samples/living_room.flac");
  return execFileSync("flac", ["--decode", "--silent", "--stdout", ...raw, file], { maxBuffer: 2 ** 28 });
}

// The npm package, where the build puts quibo.wasm.
export const PACKAGE = join(SOURCE, "web/package/");

export const INPUT = "wav/input_frame_20251107_140756.pcm"; // fixed by the driver

// Plays a capture through the native driver in `folder`: its output, and [ms, degrees] of each wake it printed.
export function playNatively(folder, raw) {
  for (const name of ["wav", "wav2"]) mkdirSync(join(folder, name));
  writeFileSync(join(folder, INPUT), raw);
  const printed = execFileSync(join(NATIVE, "quibo_demo"), { cwd: folder, encoding: "utf8" });
  const wakes = printed.matchAll(/Doa:(\d+)\n-+>is_wakeup:0 \(time:(\d+) m,(\d+) s,(\d+) ms/g);
  return {
    output: readFileSync(join(folder, "wav2/nnaec.pcm")),
    wakes: [...wakes].map(([, angle, m, s, ms]) => [60000 * m + 1000 * s + Number(ms), Number(angle)]),
  };
}

// What the native command tells of a recording of four tracks, as its JSON has it.
export function checkNatively(folder, tracks) {
  const file = join(folder, "checked.wav");
  writeFileSync(file, wav(tracks));
  const run = spawnSync(join(NATIVE, "quibo"), ["check", "--json", file], { encoding: "utf8" });
  const { verdict, findings, channels, reference_delay } = JSON.parse(run.stdout);
  return { verdict, findings, channels, reference_delay };
}

// Twenty seconds of the sample's tracks, decoded, with faults that a check is to name: the reference 0.4 s too early,
// microphone 2 dead.
export function faulty(plain) {
  const [mic1, mic2, mic3, ref] = plain.map((track) => track.slice(0, 20 * 16000));
  return [mic1, mic2.fill(0), mic3, Int16Array.from(ref, (_, i) => ref[i + 6400] ?? 0)];
}

const CHANNELS = { mic1: 0, mic2: 1, mic3: 2, ref: 4 };

// The tracks of a capture, microphones as they came.
export function tracksOf(raw) {
  const samples = new Int16Array(raw.buffer, raw.byteOffset, raw.length / 2);
  const track = (channel) => Int16Array.from({ length: samples.length / 6 }, (_, i) => samples[6 * i + channel]);
  return Object.fromEntries(Object.entries(CHANNELS).map(([name, channel]) => [name, track(channel)]));
}

// Restores microphone samples by the codec's own table.
export function descramble(samples) {
  const file = readFileSync(join(SOURCE, "params/codec.safetensors"));
  const header = Number(file.readBigUInt64LE(0));
  const [from, to] = JSON.parse(file.subarray(8, 8 + header)).dec_table.data_offsets;
  const start = file.byteOffset + 8 + header;
  const table = new Int16Array(file.buffer.slice(start + from, start + to));
  return samples.map((x) => (Math.abs(x) > 4800 || x === 0 ? x : Math.sign(x) * table[Math.abs(x)]));
}

// A WAV file of int16 channels.
export function wav(channels, rate = 16000) {
  const length = channels[0].length;
  const bytes = Buffer.alloc(44 + 2 * channels.length * length);
  bytes.write("RIFF", 0);
  bytes.writeUInt32LE(bytes.length - 8, 4);
  bytes.write("WAVEfmt ", 8);
  bytes.writeUInt32LE(16, 16);
  bytes.writeUInt16LE(1, 20);
  bytes.writeUInt16LE(channels.length, 22);
  bytes.writeUInt32LE(rate, 24);
  bytes.writeUInt32LE(2 * channels.length * rate, 28);
  bytes.writeUInt16LE(2 * channels.length, 32);
  bytes.writeUInt16LE(16, 34);
  bytes.write("data", 36);
  bytes.writeUInt32LE(bytes.length - 44, 40);
  const samples = new Int16Array(bytes.buffer, bytes.byteOffset + 44, channels.length * length);
  channels.forEach((channel, c) => channel.forEach((sample, i) => (samples[channels.length * i + c] = sample)));
  return bytes;
}
