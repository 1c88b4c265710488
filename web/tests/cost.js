// What a frame costs in node and in Chromium beside the native library on SSE2: the sample by turns, the least of some
// rounds, in processor time; in Chromium, in the package's worker, by the clock. The module's size, and what quibo_digest
// prints in node. As JSON, for docs/performance.md (bench/wasm.py):
//
//   node web/tests/cost.js FRAMES        of the digests; after `./run test` and `./run web`

import { execFileSync } from "node:child_process";
import { mkdirSync, mkdtempSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { brotliCompressSync, gzipSync } from "node:zlib";
import { FRAME, FrontEnd } from "../package/index.js";
import { launch } from "./browser.js";
import { INPUT, NATIVE, PACKAGE, capture, tracksOf } from "./builds.js";
import { digestInNode } from "./digest.js";
import { serve } from "./server.js";

const ROUNDS = 3;

const bytes = readFileSync(join(PACKAGE, "quibo.wasm"));
const module = new WebAssembly.Module(bytes);
const raw = capture();
const named = tracksOf(raw);
const tracks = Object.values(named);
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

async function inChromium(page) {
  const seconds = await page.evaluate(async (names) => {
    const { processRecording } = await import("/package/index.js");
    const track = async (name) => [name, new Int16Array(await (await fetch(name)).arrayBuffer())];
    const tracks = Object.fromEntries(await Promise.all(names.map(track)));
    return (await processRecording(tracks, { encoding: "scrambled" })).secondsUsed;
  }, Object.keys(named));
  return (1000 * seconds) / frames;
}

for (const [name, track] of Object.entries(named)) writeFileSync(join(folder, name), track);
writeFileSync(join(folder, "index.html"), "");
const server = await serve({ "/": folder, "/package/": PACKAGE });
const browser = await launch();
const page = await browser.newPage();
await page.goto(server.url);
const times = { native: [], node: [], chromium: [] };
for (let round = 0; round < ROUNDS; ++round) {
  times.native.push(native());
  times.node.push(inNode());
  times.chromium.push(await inChromium(page));
}
const chromium = browser.version();
await browser.close();
await server.close();
rmSync(folder, { recursive: true });

const digests = {};
for (const kernels of (await digestInNode(raw, "list")).trim().split("\n")) {
  digests[kernels] = await digestInNode(raw, kernels, Number(process.argv[2]));
}
console.log(
  JSON.stringify({
    versions: { node: process.versions.node, chromium },
    ms: Object.fromEntries(Object.entries(times).map(([name, all]) => [name, Math.min(...all)])),
    bytes: {
      plain: bytes.length,
      gzip: gzipSync(bytes, { level: 9 }).length,
      brotli: brotliCompressSync(bytes).length,
    },
    digests,
  }),
);
