// The npm package in node and in Chromium: the sample's wakes, the native output bits, clear complaints.

import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { createHash } from "node:crypto";
import { mkdtempSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { after, before, test } from "node:test";
import { launch } from "./browser.js";
import { PACKAGE, capture, checkNatively, descramble, faulty, playNatively, tracksOf } from "./builds.js";
import { serve } from "./server.js";
import { DELAYS, FRAME, FrontEnd, QuiboError, createFrontEnd, createFrontEndNode } from "../package/index.js";

let folder, native, tracks, server, browser;
before(async () => {
  folder = mkdtempSync(join(tmpdir(), "quibo-package-"));
  const raw = capture();
  native = playNatively(folder, raw);
  tracks = tracksOf(raw);
  for (const [name, track] of Object.entries(tracks)) writeFileSync(join(folder, name), track);
  writeFileSync(join(folder, "index.html"), "");
  server = await serve({ "/": folder, "/package/": PACKAGE });
  browser = await launch();
});
after(async () => {
  await browser?.close();
  await server?.close();
  rmSync(folder, { recursive: true });
});

const hash = (data) => createHash("sha256").update(data).digest("hex");
const told = (wakes) => wakes.map(({ seconds, angle }) => [Math.round(1000 * seconds), angle]);

test("node: the sample's wakes at the native angles, the driver's output to the bit", async () => {
  const frontEnd = await createFrontEnd({ encoding: "scrambled" });
  assert.equal(frontEnd.kernels, "wasm");
  const wakes = [];
  const clean = [];
  for (let start = 0; start + FRAME <= tracks.ref.length; start += FRAME) {
    const frame = Object.values(tracks).map((track) => track.subarray(start, start + FRAME));
    const result = frontEnd.process(...frame);
    clean.push(Buffer.from(result.clean.buffer));
    if (result.wake) wakes.push(result.wake);
  }
  assert.equal(wakes.length, 5);
  assert.deepEqual(told(wakes), native.wakes);
  assert.equal(hash(Buffer.concat(clean)), hash(native.output));
});

test("node: a check tells what the native command tells, of faults and of none", async () => {
  const module = await WebAssembly.compile(readFileSync(join(PACKAGE, "quibo.wasm")));
  const plain = [...[tracks.mic1, tracks.mic2, tracks.mic3].map(descramble), tracks.ref];
  const pieces = (recording, size) =>
    Array.from({ length: Math.floor(recording[0].length / size) }, (_, i) =>
      recording.map((track) => track.subarray(i * size, (i + 1) * size)),
    );
  const fine = plain.map((track) => track.subarray(0, 20 * 16000 - 512));
  for (const [recording, verdict] of [
    [fine, "fit"],
    [faulty(plain), "unfit"],
  ]) {
    const frontEnd = new FrontEnd(module, { checkRate: 16000 });
    for (const piece of pieces(recording, 512)) frontEnd.addRecorded(...piece);
    for (const frame of pieces(recording, FRAME)) frontEnd.process(...frame);
    const found = frontEnd.check();
    assert.equal(found.verdict, verdict);
    assert.deepEqual(found, checkNatively(folder, recording));
  }
  const floats = Array(4).fill(new Float32Array(FRAME));
  assert.throws(() => new FrontEnd(module, { checkRate: 16000 }).addRecorded(...floats), {
    message: /mic1: a check takes Int16Arrays/,
  });
});

test("Chromium, in a worker: the same, lined up, with progress", async () => {
  const page = await browser.newPage();
  await page.goto(server.url);
  const { result, progress, early } = await page.evaluate(async () => {
    const { processRecording } = await import("/package/index.js");
    const track = async (name) => new Int16Array(await (await fetch(name)).arrayBuffer());
    const [mic1, mic2, mic3, ref] = await Promise.all(["mic1", "mic2", "mic3", "ref"].map(track));
    const progress = [];
    const early = [];
    const result = await processRecording(
      { mic1, mic2, mic3, ref },
      {
        encoding: "guess",
        onProgress: (done, total) => progress.push(done / total),
        onWake: (wake) => early.push(wake),
      },
    );
    return { result: { ...result, mics: null, mic1: null, clean: [...result.clean] }, progress, early };
  });
  assert.deepEqual(told(result.wakes), native.wakes);
  assert.deepEqual(early, result.wakes);
  assert.ok(
    Math.abs(result.wakes[1].start - 15.8) < 0.2 && result.wakes[1].cost < 2 && result.wakes[1].angleLength > 0.5,
  );
  const { medianReduction, onlyDevice, levels } = result.meters;
  assert.ok(medianReduction > 20 && onlyDevice[5] && !onlyDevice[20] && levels.clean.length === 48);
  assert.equal(result.encoding, "scrambled"); // as it guessed
  assert.ok(progress.length > 20 && progress.every((share, i) => share >= (progress[i - 1] ?? 0) && share <= 1));
  const lined = Buffer.from(Int16Array.from(result.clean).buffer);
  assert.equal(lined.length, 2 * tracks.ref.length);
  assert.ok(
    lined.subarray(0, native.output.length - 2 * DELAYS.clean).equals(native.output.subarray(2 * DELAYS.clean)),
  );
  await page.close();
});

test("Chromium, in a worklet: wakes of a recording that is played to it", async () => {
  const page = await browser.newPage();
  await page.goto(server.url);
  const wakes = await page.evaluate(async () => {
    const { createFrontEndNode } = await import("/package/index.js");
    const seconds = 12;
    const context = new OfflineAudioContext(1, seconds * 16000, 16000);
    const buffer = new AudioBuffer({ length: seconds * 16000, numberOfChannels: 4, sampleRate: 16000 });
    for (const [channel, name] of ["mic1", "mic2", "mic3", "ref"].entries()) {
      const track = new Int16Array(await (await fetch(name)).arrayBuffer()).subarray(0, buffer.length);
      buffer.copyToChannel(
        Float32Array.from(track, (sample) => sample / 32768),
        channel,
      );
    }
    const wakes = [];
    const node = await createFrontEndNode(context, { encoding: "scrambled", onWake: (wake) => wakes.push(wake) });
    const source = new AudioBufferSourceNode(context, { buffer });
    const splitter = new ChannelSplitterNode(context, { numberOfOutputs: 4 });
    const mics = new ChannelMergerNode(context, { numberOfInputs: 3 });
    source.connect(splitter);
    for (const mic of [0, 1, 2]) splitter.connect(mics, mic, mic);
    mics.connect(node, 0, 0);
    splitter.connect(node, 3, 1);
    node.connect(context.destination);
    source.start();
    await context.startRendering();
    await new Promise((delivered) => setTimeout(delivered, 200));
    return wakes;
  });
  assert.deepEqual(told(wakes), native.wakes.slice(0, 1));
  await page.close();
});

test("plain microphones give what scrambled ones give", async () => {
  const plain = await createFrontEnd();
  const scrambled = await createFrontEnd({ encoding: "scrambled" });
  for (let frame = 100; frame < 104; ++frame) {
    const cut = (name) => tracks[name].subarray(frame * FRAME, (frame + 1) * FRAME);
    const mics = ["mic1", "mic2", "mic3"].map(cut);
    const expected = scrambled.process(...mics, cut("ref"));
    const floats = Float32Array.from(cut("ref"), (sample) => sample / 32768); // as a page has them
    assert.deepEqual(plain.process(...mics.map(descramble), floats), expected);
  }
});

test("what does not fit is said", async () => {
  const frontEnd = await createFrontEnd();
  const frame = new Int16Array(FRAME);
  const complaint = (call, message) =>
    assert.throws(call, (error) => error instanceof QuiboError && message.test(error.message));
  complaint(
    () => frontEnd.process(frame, frame, new Int16Array(512), frame),
    /^mic3: 1024 samples are needed, not 512$/,
  );
  complaint(() => frontEnd.process(frame, frame, frame), /^ref: 1024 samples are needed, not undefined$/);
  complaint(() => frontEnd.process([...frame], frame, frame, frame), /^mic1: an Int16Array or a Float32Array/);
  const wrong = (promise, message) =>
    assert.rejects(promise, (error) => error instanceof QuiboError && message.test(error.message));
  await wrong(createFrontEnd({ wasm: new Uint8Array([1, 2, 3]) }), /^this is no quibo\.wasm/);
  await wrong(createFrontEnd({ wasm: `${server.url}nothing.wasm` }), /nothing\.wasm: 404/);
  await wrong(createFrontEnd({ encoding: "mp3" }), /no encoding is called mp3/);
  await wrong(createFrontEndNode({ sampleRate: 48000 }), /runs at 48000 Hz: create it with/);
  await wrong(createFrontEndNode({ sampleRate: 16000 }), /https or localhost/);
  assert.ok(new FrontEnd(await WebAssembly.compile(readFileSync(join(PACKAGE, "quibo.wasm")))));
});

test("silence, not a number and full scale are processed", async () => {
  const frontEnd = await createFrontEnd();
  for (const value of [0, NaN, 2, -2, Infinity]) {
    const frame = new Float32Array(FRAME).fill(value);
    const { clean, mics, wake } = frontEnd.process(frame, frame, frame, frame);
    assert.deepEqual([clean.length, ...mics.map((mic) => mic.length), wake], [FRAME, FRAME, FRAME, FRAME, null]);
  }
});

test("npm packs what a user needs", () => {
  const packed = execFileSync("npm", ["pack", "--dry-run", "--json"], {
    cwd: PACKAGE,
    encoding: "utf8",
    stdio: ["ignore", "pipe", "ignore"],
  });
  const [{ files, version }] = JSON.parse(packed);
  assert.deepEqual(files.map(({ path }) => path).sort(), [
    "README.md",
    "front_end.js",
    "index.d.ts",
    "index.js",
    "package.json",
    "quibo.wasm",
    "worker.js",
    "worklet.js",
  ]);
  assert.match(
    readFileSync(new URL("../../CMakeLists.txt", import.meta.url), "utf8"),
    new RegExp(`VERSION ${version} `),
  );
});
