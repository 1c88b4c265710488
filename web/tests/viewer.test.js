// The report in a browser: what it shows, how it is used, how fast a long one opens.

import assert from "node:assert/strict";
import { execFileSync, spawnSync } from "node:child_process";
import { mkdtempSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { after, before, test } from "node:test";
import { fileURLToPath, pathToFileURL } from "node:url";
import { NATIVE, capture, descramble, faulty, tracksOf, wav } from "./builds.js";
import { launch, noSeriousAccessibilityFault, noSidewaysScroll, open } from "./browser.js";

const VIEWER = fileURLToPath(new URL("../../viewer/", import.meta.url));
const RATE = 16000;

let browser, folder;
before(async () => {
  browser = await launch();
  folder = mkdtempSync(join(tmpdir(), "quibo-viewer-"));
});
after(async () => {
  await browser.close();
  rmSync(folder, { recursive: true });
});

function tone(seconds, amplitude) {
  const sample = (_, i) => Math.round(32767 * amplitude * Math.sin((2 * Math.PI * 1000 * i) / RATE));
  return wav([Int16Array.from({ length: seconds * RATE }, sample)]).toString("base64");
}

function report(seconds, changes = {}) {
  const perSecond = (value) => Array(Math.ceil(seconds)).fill(value);
  return {
    format: "quibo-report",
    version: 1,
    title: "kitchen <3.wav",
    seconds,
    quibo: { version: "3.3.22", kernels: "avx2", parameters: { kws: "0123456789abcdef" } },
    recording: {
      file: "kitchen <3.wav",
      format: "WAV, 16 bit",
      channels: 4,
      sample_rate: 48000,
      map: { mic1: 1, mic2: 2, mic3: 3, ref: 4 },
      encoding: "plain",
      notes: ["resampled"],
    },
    audio: changes.audio ?? {
      before: { label: "Microphone 1", base64: tone(seconds, 0.5) },
      after: { label: "Output", base64: tone(seconds, 0.05) },
    },
    levels: { seconds_per_point: 1, mic1: perSecond(-9), ref: perSecond(-12), clean: perSecond(-29) },
    peaks: { seconds_per_point: 1, mic1: perSecond(-6), ref: perSecond(-9), clean: perSecond(0) },
    echo: { seconds_per_point: 1, reduction_db: perSecond(20), only_device: perSecond(true).fill(false, 0, 1) },
    reference_delay: { reach_ms: [-1.25, 190], drift_ppm: 3, points: [{ seconds: 1, ms: 15, confidence: 1 }] },
    wakes: [
      { type: "wake", number: 1, seconds: 1.28, start: 0.9, end: 1.2, cost: 0.61, angle: 303, angle_length: 0.9 },
      { type: "wake", number: 2, seconds: 2.56, start: 2, end: 2.5, cost: 1.1, angle: null, angle_length: 0 },
    ],
    check: {
      verdict: "unfit",
      findings: [
        {
          id: "x",
          severity: "fault",
          channel: "ref",
          start: 1.5,
          end: 3,
          what: "The reference is late",
          how_bad: "by 3 ms",
          do: "Take it earlier",
        },
      ],
    },
    summary: { wakes: 2, echo_reduction_db: 20, core_share: 0.02 },
    ...changes,
  };
}

function write(data) {
  const file = join(folder, `${Math.random()}.html`);
  const page = readFileSync(join(VIEWER, "report.html"), "utf8");
  writeFileSync(file, page.replace("QUIBO_REPORT_DATA", JSON.stringify(data).replaceAll("<", "\\u003c")));
  return pathToFileURL(file).href;
}

const ready = (page) => page.waitForSelector(".q-play:not([disabled])");

test("report.html is what its sources make", () => {
  const made = join(folder, "made.html");
  execFileSync(join(VIEWER, "build.py"), [made]);
  assert.ok(
    readFileSync(made).equals(readFileSync(join(VIEWER, "report.html"))),
    "run viewer/build.py and commit report.html",
  );
});

test("a report says what was heard, from where, and what is wrong with the recording", async () => {
  const page = await open(browser, write(report(4)));
  await ready(page);
  assert.match(await page.title(), /^kitchen <3\.wav/);
  assert.match(await page.textContent("header p"), /0:04 · 2 wakes · echo 20\.0 dB down · 1 fault/);
  assert.deepEqual(
    await page.$$eval(".q-events tbody tr", (rows) =>
      rows.map((row) => [...row.cells].map((cell) => cell.textContent.trim())),
    ),
    [
      ["0:01.28", "1 Wake phrase 0:00.90 to 0:01.20", "303°", "0.61"],
      ["0:02.56", "2 Wake phrase 0:02.00 to 0:02.50", "–", "1.10"],
    ],
  );
  assert.equal(await page.locator(".q-dot").count(), 1); // the wake without an angle has no place in the plot
  assert.match(
    await page.textContent(".q-findings"),
    /Fault · Reference · 0:01\.5.*The reference is late: by 3 ms.*Take it earlier/,
  );
  assert.match(await page.getByRole("img", { name: /Echo reduction/ }).getAttribute("aria-label"), /median 20\.0 dB/);
  assert.match(await page.getByRole("meter", { name: "Output" }).textContent(), /-29 dB/);
  assert.deepEqual(page.faults, []);
  await page.close();
});

test("the report that the command writes opens without a fault and shows its events and findings", async () => {
  const { mic1, mic2, mic3, ref } = tracksOf(capture());
  const recording = join(folder, "kitchen.wav");
  writeFileSync(recording, wav(faulty([...[mic1, mic2, mic3].map(descramble), ref])));
  const run = spawnSync(join(NATIVE, "quibo"), ["run", recording, "--report", "-o", join(folder, "kitchen")]);
  assert.equal(run.status, 1, `${run.stderr}`); // something to look at
  const lines = readFileSync(join(folder, "kitchen/events.jsonl"), "utf8").trim().split("\n");
  const wakes = lines.map((line) => JSON.parse(line)).filter(({ type }) => type === "wake");
  const page = await open(browser, pathToFileURL(join(folder, "kitchen/report.html")).href);
  await ready(page);
  assert.equal(await page.textContent("h1"), "kitchen.wav");
  assert.equal(await page.locator(".q-events tbody tr").count(), wakes.length);
  assert.match(await page.textContent(".q-findings"), /Microphone 2 is dead.*Delay the reference by about 410 ms/s);
  await page.locator(".q-play").click();
  await page.waitForTimeout(500);
  await noSeriousAccessibilityFault(page);
  assert.deepEqual(page.faults, []);
  await page.close();
});

test("players run in step, tracks switch while playing, keys and rows lead to the wakes", async () => {
  const page = await open(browser, write(report(6)));
  await ready(page);
  const clock = async () => Number((await page.textContent(".q-clock")).split(":")[1]);
  await page.click(".q-play");
  await page.waitForFunction(() => document.querySelector(".q-clock").value > "0:00.30");
  await page.keyboard.press("2");
  assert.ok(await page.isChecked("input[value=after]"));
  const then = await clock();
  await page.waitForFunction((t) => Number(document.querySelector(".q-clock").value.slice(2)) > t + 0.3, then); // plays on
  await page.click(".q-play");
  await page.getByRole("button", { name: "0:02.56" }).click();
  assert.equal(await clock(), 1.5); // half a second before the phrase
  await page.locator("h1").click();
  await page.keyboard.press("p");
  assert.equal(await clock(), 0.4);
  await page.keyboard.press("ArrowRight");
  assert.equal(await clock(), 1.4);
  assert.deepEqual(page.faults, []);
  await page.close();
});

test("the spectrogram shows the tone where it is, louder before than after", async () => {
  const page = await open(browser, write(report(4)), { colorScheme: "dark" });
  await ready(page);
  const brightness = (index, kilohertz) =>
    page.evaluate(
      ([i, f]) => {
        const canvas = document.querySelectorAll(".q-spectrogram canvas")[i];
        const y = Math.round(canvas.height * (1 - f / 8));
        const [r, g, b] = canvas.getContext("2d").getImageData(Math.round(0.9 * canvas.width), y, 1, 1).data;
        return r + g + b;
      },
      [index, kilohertz],
    );
  for (const panel of [0, 1]) while ((await brightness(panel, 1)) < 200) await page.waitForTimeout(50); // computed in slices
  const [loud, quiet, nothing] = [await brightness(0, 1), await brightness(1, 1), await brightness(0, 5)];
  assert.ok(loud > 400 && quiet < loud - 50 && nothing < 150, `${[loud, quiet, nothing]}`);
  await page.close();
});

test("what is missing is left out, audio that cannot be decoded is named", async () => {
  const page = await open(browser, write({ format: "quibo-report", version: 1, title: "bare", seconds: 3 }));
  assert.match(await page.textContent(".q-status"), /no audio/);
  assert.equal(await page.locator(".q-play").count(), 0);
  assert.deepEqual(page.faults, []);
  await page.goto(write(report(3, { audio: { before: { label: "Microphone 1", base64: "bm90aGluZw==" } } })));
  await page.getByText(/Microphone 1: the browser cannot decode/).waitFor();
  await page.close();
});

for (const width of [1440, 820, 390]) {
  for (const colorScheme of ["dark", "light"]) {
    test(`${width} pixels, ${colorScheme}: no serious accessibility fault, nothing runs out of the page`, async () => {
      const page = await open(browser, write(report(4)), { viewport: { width, height: 900 }, colorScheme });
      await ready(page);
      await noSeriousAccessibilityFault(page);
      await noSidewaysScroll(page);
      await page.close();
    });
  }
}

test("a Chinese browser gets Chinese", async () => {
  const page = await open(browser, write(report(3)), { locale: "zh-CN" });
  await ready(page);
  assert.match(await page.textContent("header p"), /唤醒 2 次/);
  assert.equal(await page.getAttribute(".q-viewer", "lang"), "zh");
  await page.close();
});

// Noise at -40 dBFS, whose FLAC file is as large as a recording's.
function flac(seconds) {
  const raw = Int16Array.from({ length: seconds * RATE }, () => Math.round(654 * (Math.random() - 0.5)));
  const format = [
    "--force-raw-format",
    "--endian=little",
    "--sign=signed",
    "--channels=1",
    "--bps=16",
    `--sample-rate=${RATE}`,
  ];
  return execFileSync("flac", ["--silent", "--stdout", ...format, "-"], {
    input: Buffer.from(raw.buffer),
    maxBuffer: 2 ** 28,
  }).toString("base64");
}

// In processor time of all of the browser's processes, the smallest of three runs: other work on the machine adds little to that.
test("a report of ten minutes opens within two seconds", async () => {
  const noise = flac(600);
  const url = write(
    report(600, {
      audio: { before: { label: "Microphone 1", base64: noise }, after: { label: "Output", base64: noise } },
    }),
  );
  const session = await browser.newBrowserCDPSession();
  const used = async () =>
    (await session.send("SystemInfo.getProcessInfo")).processInfo.reduce((sum, { cpuTime }) => sum + cpuTime, 0);
  const times = [];
  for (let run = 0; run < 3; ++run) {
    const page = await browser.newPage();
    const start = await used();
    await page.goto(url, { waitUntil: "commit" });
    await page.waitForSelector(".q-events");
    times.push((await used()) - start);
    await page.close();
  }
  assert.ok(Math.min(...times) < 2, `${times} s`);
});
