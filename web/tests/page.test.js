// The page as a visitor uses it: sample, own file, live; nothing leaves it.

import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { createHash } from "node:crypto";
import { mkdtempSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { after, before, test } from "node:test";
import { pathToFileURL } from "node:url";
import { launch, noSeriousAccessibilityFault, noSidewaysScroll, open } from "./browser.js";
import { SOURCE, capture, checkNatively, descramble, faulty, playNatively, tracksOf, wav } from "./builds.js";
import { serve } from "./server.js";

const PAGE = join(SOURCE, "build-web/");
const RATE = 16000;
const DONE = { timeout: 300000 }; // a busy machine is slow

let folder, raw, native, plain, server, browser;
before(async () => {
  folder = mkdtempSync(join(tmpdir(), "quibo-page-"));
  raw = capture();
  native = playNatively(folder, raw);
  const { mic1, mic2, mic3, ref } = tracksOf(raw);
  plain = [...[mic1, mic2, mic3].map(descramble), ref];
  const bundle = ["--bundle", "--format=iife", "--global-name=recording", "--external:node:*", "--log-level=error"];
  execFileSync("esbuild", [
    join(SOURCE, "web/page/recording.js"),
    ...bundle,
    `--outfile=${join(folder, "recording.js")}`,
  ]);
  server = await serve({ "/": PAGE, "/test/": folder });
  browser = await launch();
});
after(async () => {
  await browser?.close();
  await server?.close();
  rmSync(folder, { recursive: true });
});

// The page, and every address it asked for.
async function visit(from = browser, options = {}, url = server.url) {
  const context = await from.newContext(options);
  const addresses = [];
  context.on("request", (request) => addresses.push(request.url()));
  const page = await open(context, url);
  return { page, addresses };
}

async function shownWakes(page) {
  await page.waitForSelector(".q-play:not([disabled])", DONE);
  const rows = await page.$$eval(".q-events tbody tr", (all) =>
    all.map((row) => [...row.cells].map((cell) => cell.textContent)),
  );
  return rows.map(([time, , angle]) => {
    const [minutes, seconds] = time.split(":").map(Number);
    return [Math.round((60 * minutes + seconds) * 100), Number.parseInt(angle)];
  });
}
const expectedWakes = () => native.wakes.map(([ms, angle]) => [Math.round(ms / 10), angle]);

const drop = async (page, name, bytes) => {
  const transfer = await page.evaluateHandle(
    ([name, base64]) => {
      const transfer = new DataTransfer();
      transfer.items.add(new File([Uint8Array.from(atob(base64), (c) => c.charCodeAt(0))], name));
      return transfer;
    },
    [name, bytes.toString("base64")],
  );
  await page.locator(".p-card").nth(1).dispatchEvent("drop", { dataTransfer: transfer });
};

test("the sample gives the native wakes and angles; no request leaves the page's origin", async () => {
  const { page, addresses } = await visit();
  await page.getByRole("button", { name: /Play it through/ }).click();
  assert.deepEqual(await shownWakes(page), expectedWakes());
  assert.match(await page.textContent(".p-status"), /48\.0 s of audio in .* times real time/);
  assert.ok(addresses.length >= 5);
  assert.deepEqual(
    addresses.filter((address) => !address.startsWith(server.url) && !/^(blob|data):/.test(address)),
    [],
  );
  await noSeriousAccessibilityFault(page);
  assert.deepEqual(page.faults, []);
  await page.context().close();
});

test("the browser unpacks the sample's tracks to the bit", async () => {
  const { page } = await visit();
  await page.addScriptTag({ url: `${server.url}test/recording.js` });
  const digests = await page.evaluate(async () => {
    const script = Object.assign(document.createElement("script"), { src: "sample.js" });
    await new Promise((loaded) => document.head.append(Object.assign(script, { onload: loaded })));
    const bytes = Uint8Array.from(atob(globalThis.QUIBO_SAMPLE), (c) => c.charCodeAt(0));
    const { tracks } = await globalThis.recording.readRecording(bytes.buffer, "", { guessedMap: () => "" });
    const digest = async (samples) => [...new Uint8Array(await crypto.subtle.digest("SHA-256", samples))];
    return Promise.all(Object.values(tracks).map(digest));
  });
  const expected = Object.values(tracksOf(raw)).map((track) => createHash("sha256").update(track).digest("hex"));
  assert.deepEqual(
    digests.map((digest) => Buffer.from(digest).toString("hex")),
    expected,
  );
  await page.context().close();
});

test("a dropped file gives the same, from a folder without a server too", async () => {
  const { page, addresses } = await visit(browser, {}, pathToFileURL(join(PAGE, "index.html")).href);
  await drop(page, "kitchen.wav", wav(plain));
  assert.deepEqual(await shownWakes(page), expectedWakes());
  assert.equal(await page.textContent("h1 >> nth=1"), "kitchen.wav");
  assert.match(await page.textContent(".q-facts"), /WAV, 16 bit, 4 channels, 16000 Hz.*plain.*channels taken for/);
  assert.deepEqual(
    addresses.filter((address) => !/^(file|blob|data):/.test(address)),
    [],
  );
  assert.deepEqual(page.faults, []);
  await page.context().close();
});

test("planted faults are named as the command words them", async () => {
  const { page } = await visit(browser, { locale: "zh-CN" });
  const recording = faulty(plain);
  await drop(page, "faulty.wav", wav(recording));
  await page.waitForSelector(".q-play:not([disabled])", DONE);
  const { findings } = checkNatively(folder, recording);
  const ids = findings.map(({ id }) => id);
  assert.ok(ids.includes("dead_microphone") && ids.includes("reference_early"), ids.join());
  const shown = await page.$$eval(".q-findings li", (all) => all.map((item) => item.textContent));
  assert.equal(shown.length, findings.length);
  for (const [i, { what, how_bad, do: advice }] of findings.entries()) {
    for (const words of [what, how_bad, advice]) assert.ok(shown[i].includes(words), `${shown[i]}: ${words}`);
  }
  assert.match(shown[0], /故障/);
  assert.deepEqual(page.faults, []);
  await page.context().close();
});

test("a wrong file gets a clear line, and the page goes on", async () => {
  const { page } = await visit();
  const said = async (name, bytes, line) => {
    await drop(page, name, bytes);
    await page.locator(".p-problem", { hasText: line }).waitFor(DONE);
  };
  await said("notes.txt", Buffer.from("no audio at all"), /notes\.txt is neither WAV nor FLAC/);
  await said("empty.wav", Buffer.alloc(0), /empty\.wav is neither WAV nor FLAC/);
  await said("cut.wav", wav(plain).subarray(0, 40), /cut\.wav: the WAV file ends before its samples/);
  await said("none.wav", wav(plain.map(() => new Int16Array(0))), /none\.wav holds no samples/);
  await said("stereo.wav", wav([new Int16Array(99), new Int16Array(99)]), /stereo\.wav has 2 channels\. Say which/);
  await said(
    "broken.flac",
    Buffer.concat([Buffer.from("fLaC"), Buffer.alloc(100, 1)]),
    /broken\.flac is neither WAV nor FLAC/,
  );
  await page.getByLabel("Channels").fill("1,2,3,9");
  await said(
    "four.wav",
    wav(plain.map(() => new Int16Array(99))),
    /“1,2,3,9” does not name four different channels of 1 to 4/,
  );
  await page.getByLabel("Channels").fill("4,3,2,1");
  await drop(page, "short.wav", wav(plain.map((track) => track.subarray(0, 3)))); // three samples are a recording
  assert.deepEqual(await shownWakes(page), []);
  assert.deepEqual(page.faults, []);
  await page.context().close();
});

test("48 kHz, cut short, is resampled and said", async () => {
  const { page } = await visit();
  const three = plain.map((track) =>
    Int16Array.from({ length: 6 * RATE }, (_, i) => track[Math.floor(i / 3) + 15 * RATE]),
  );
  await drop(page, "fast.wav", wav(three, 48000).subarray(0, -1001));
  assert.equal((await shownWakes(page)).length, 1); // the phrase at 15.8 s
  assert.match(await page.textContent(".q-facts"), /48000 Hz: resampled to 16000 Hz by the browser/);
  await page.context().close();
});

test("live: a phrase from the microphone wakes, the levels move, stop stops", async () => {
  const phrase = join(folder, "phrase.wav");
  const second = (t) => Math.round(t * RATE);
  writeFileSync(phrase, wav([plain[0].subarray(second(14.7), second(18))]));
  const fake = [
    "--use-fake-device-for-media-stream",
    "--use-fake-ui-for-media-stream",
    `--use-file-for-fake-audio-capture=${phrase}`,
  ];
  const listening = await launch(fake);
  const fromFolder = pathToFileURL(join(PAGE, "index.html")).href;
  const { page, addresses } = await visit(listening, {}, fromFolder);
  await page.getByRole("button", { name: "Start" }).click();
  await page.locator(".p-wakes li").first().waitFor({ timeout: 120000 });
  assert.match(await page.textContent(".p-wakes"), /Wake phrase heard at/);
  assert.match(await page.textContent(".p-readings"), /Microphone-?\d+ dB/);
  await noSeriousAccessibilityFault(page);
  await page.getByRole("button", { name: "Stop" }).click();
  assert.equal(await page.locator(".p-wakes").count(), 0);
  assert.deepEqual(
    addresses.filter((address) => !/^(file|blob|data):/.test(address)),
    [],
  );
  assert.deepEqual(page.faults, []);
  await listening.close();
});

test("without a microphone the page says so", async () => {
  const { page } = await visit();
  await page.getByRole("button", { name: "Start" }).click();
  await page.locator(".p-problem", { hasText: /No microphone can be used/ }).waitFor(DONE);
  await page.context().close();
});

// The engine itself runs in a worker; here it is one that answers at once, and what is left is the page's own work.
test("ten minutes do not freeze the page", async () => {
  const { page } = await visit();
  const ten = plain.map((track) => Int16Array.from({ length: 600 * RATE }, (_, i) => track[i % track.length]));
  const file = join(folder, "ten.wav");
  writeFileSync(file, wav(ten));
  await page.evaluate(async () => {
    await new Promise((loaded) =>
      document.head.append(Object.assign(document.createElement("script"), { src: "quibo.js", onload: loaded })),
    );
    const engine = globalThis.QUIBO;
    engine.worker = `onmessage = ({ data: { tracks } }) => {
      const perSecond = Array(600).fill(-30);
      const levels = { mic1: perSecond, mic2: perSecond, mic3: perSecond, ref: perSecond, clean: perSecond };
      const meters = { levels, peaks: levels, reduction: perSecond, onlyDevice: perSecond.map(() => true), medianReduction: 20 };
      const { mic1 } = tracks;
      postMessage({ type: "result", result: { mic1, clean: mic1.slice(), mics: [], wakes: [], meters, kernels: "wasm", secondsUsed: 60 } });
    };`;
    Object.defineProperty(globalThis, "QUIBO", { get: () => engine, set: () => {} });
    let last = performance.now();
    globalThis.longest = 0;
    setInterval(() => {
      globalThis.longest = Math.max(globalThis.longest, performance.now() - last);
      last = performance.now();
    }, 5);
  });
  await page.locator("input[type=file]").setInputFiles(file);
  await page.waitForSelector(".q-play:not([disabled])", DONE);
  await page.waitForTimeout(1000);
  const longest = await page.evaluate(() => globalThis.longest);
  assert.ok(longest < 1000, `${longest} ms`);
  assert.deepEqual(page.faults, []);
  await page.context().close();
});

for (const width of [1440, 820, 390]) {
  for (const [colorScheme, locale] of [
    ["dark", "en-US"],
    ["light", "zh-CN"],
  ]) {
    test(`${width} pixels, ${colorScheme}, ${locale}: no serious accessibility fault, nothing runs out of the page`, async () => {
      const { page } = await visit(browser, { viewport: { width, height: 900 }, colorScheme, locale });
      await page.getByRole("button", { name: /^(Start|开始)$/ }).waitFor();
      assert.equal(await page.evaluate(() => document.documentElement.lang), locale.slice(0, 2));
      await noSeriousAccessibilityFault(page);
      await noSidewaysScroll(page);
      await page.context().close();
    });
  }
}
