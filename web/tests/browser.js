// Debian's Chromium, driven by Playwright.

import { createRequire } from "node:module";
import { readFile } from "node:fs/promises";
import assert from "node:assert/strict";
import { chromium } from "playwright-core";

const AXE = createRequire(import.meta.url).resolve("axe-core/axe.min.js");
const QUIET = [
  "no-sandbox",
  "disable-gpu",
  "disable-quic",
  "no-first-run",
  "disable-background-networking",
  "disable-component-update",
  "disable-sync",
];

export const launch = (flags = []) =>
  chromium.launch({
    executablePath: "/usr/bin/chromium",
    args: ["--headless", ...QUIET.map((flag) => `--${flag}`), "--autoplay-policy=no-user-gesture-required", ...flags],
  });

// A page that fails its test on an uncaught error or a line on the console's error channel.
export async function open(browser, url, options = {}) {
  const page = await browser.newPage(options);
  page.faults = [];
  page.on("pageerror", (error) => page.faults.push(error.stack));
  page.on("console", (message) => message.type() === "error" && page.faults.push(message.text()));
  await page.goto(url);
  return page;
}

export async function noSeriousAccessibilityFault(page) {
  await page.evaluate(await readFile(AXE, "utf8"));
  const { violations } = await page.evaluate(() => globalThis.axe.run({ preload: false }));
  const serious = violations.filter(({ impact }) => impact === "serious" || impact === "critical");
  assert.deepEqual(
    serious.map(({ id, nodes }) => [id, nodes.map((node) => node.html)]),
    [],
  );
}

export const noSidewaysScroll = async (page) =>
  assert.equal(
    await page.evaluate(() => document.documentElement.scrollWidth - document.documentElement.clientWidth),
    0,
  );
