// The WebAssembly build gives the bits of this machine's own: in node and in Chromium, by SIMD and without.

import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { mkdtempSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { after, before, test } from "node:test";
import { launch } from "./browser.js";
import { NATIVE, WASM, capture } from "./builds.js";
import { digest, digestInNode } from "./digest.js";
import { serve } from "./server.js";

const SHORT = 40; // frames, for what runs slowly

let folder, file, server, browser;
before(async () => {
  folder = mkdtempSync(join(tmpdir(), "quibo-digests-"));
  file = join(folder, "capture.raw");
  writeFileSync(file, capture());
  writeFileSync(join(folder, "index.html"), ""); // an origin to fetch from
  server = await serve({ "/": WASM, "/sample/": folder });
  browser = await launch();
});
after(async () => {
  await browser?.close();
  await server?.close();
  rmSync(folder, { recursive: true });
});

const native = (frames) => execFileSync(join(NATIVE, "quibo_digest"), [file, `${frames}`], { encoding: "utf8" });

const inNode = (kernels, frames) => digestInNode(readFileSync(file), kernels, frames);

test("the module holds the scalar kernels and those of WebAssembly's SIMD", async () => {
  assert.equal(await inNode("list"), "scalar\nwasm\n");
});

test("node gives the digests of this machine", async () => {
  const expected = native(1e6);
  assert.ok(expected.split("wake 0 at frame").length > 20);
  assert.equal(await inNode("wasm", 1e6), expected);
  assert.equal(await inNode("scalar", SHORT), native(SHORT));
});

test("Chromium gives the digests of this machine", async () => {
  const page = await browser.newPage();
  await page.goto(`${server.url}sample/`);
  await page.addScriptTag({ url: `${server.url}quibo_digest.js` });
  const inPage = (kernels, frames) =>
    page.evaluate(
      async ([text, url, kernels, frames]) => {
        const bytes = async (name) => new Uint8Array(await (await fetch(url + name)).arrayBuffer());
        const digest = (0, eval)(`(${text})`);
        const [wasm, samples] = [await bytes("quibo_digest.wasm"), await bytes("sample/capture.raw")];
        return digest(globalThis.createDigest, wasm, samples, kernels, frames);
      },
      [digest.toString(), server.url, kernels, frames],
    );
  assert.equal(await inPage("wasm", 1e6), native(1e6));
  assert.equal(await inPage("scalar", SHORT), native(SHORT));
});
