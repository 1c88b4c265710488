// What a frame costs in node beside the native library on SSE2: the sample by turns, the least of some rounds, in
// processor time. And the size of the module.
//
//   node web/tests/cost.js        after ./run test and ./run web

import { execFileSync } from "node:child_process";
import { mkdirSync, mkdtempSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { brotliCompressSync, gzipSync } from "node:zlib";
import { FRAME, FrontEnd } from "../package/index.js";
import { INPUT, NATIVE, PACKAGE, capture, tracksOf } from "./builds.js";

const ROUNDS = 3;
const FRAME_MS = 64;

const bytes = readFileSync(join(PACKAGE, "quibo.wasm"));
const module = new WebAssembly.Module(bytes);
const raw = capture();
const tracks = Object.values(tracksOf(raw));
const frames = Math.floor(tracks[0].length / FRAME);

function inNode() {
  const frontEnd = new FrontEnd(module, { encoding: "scrambled" });
  const start = process.cpuUsage();
  for (let i = 0; i < frames; ++i) {
    frontEnd.process(...tracks.map((track) => track.subarray(i * FRAME, (i + 1) * FRAME)));
  }
  const { user, system } = process.cpuUsage(start);
  return (user + system) / 1000 / frames;
}

const folder = mkdtempSync(join(tmpdir(), "quibo-cost-"));
for (const name of ["wav", "wav2"]) mkdirSync(join(folder, name));
writeFileSync(join(folder, INPUT), raw);

// By the shell's own clock of its children.
function native() {
  const script = `${join(NATIVE, "quibo_demo")} >/dev/null; times`;
  const env = { ...process.env, QUIBO_KERNELS: "sse2" };
  const [, children] = execFileSync("sh", ["-c", script], { cwd: folder, env, encoding: "utf8" }).trim().split("\n");
  const seconds = [...children.matchAll(/(\d+)m([\d.]+)s/g)].map(([, m, s]) => 60 * m + Number(s));
  return (1000 * (seconds[0] + seconds[1])) / frames;
}

const times = { node: [], native: [] };
for (let round = 0; round < ROUNDS; ++round) {
  times.native.push(native());
  times.node.push(inNode());
}
rmSync(folder, { recursive: true });

const least = Object.fromEntries(Object.entries(times).map(([name, all]) => [name, Math.min(...all)]));
const row = (name, ms) => `| ${name} | ${ms.toFixed(2)} | ${(FRAME_MS / ms).toFixed(0)} |`;
console.log("| the sample | ms of processor per frame | times real time |\n| --- | ---: | ---: |");
console.log(row("native, SSE2", least.native));
console.log(row("node, WebAssembly SIMD", least.node));
console.log(`\nnode / native: ${(least.node / least.native).toFixed(2)}`);
const sizes = [bytes, gzipSync(bytes, { level: 9 }), brotliCompressSync(bytes)].map(({ length }) =>
  (length / 1e6).toFixed(2),
);
console.log(`quibo.wasm: ${sizes[0]} MB, by gzip ${sizes[1]} MB, by brotli ${sizes[2]} MB`);
