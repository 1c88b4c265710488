// quibo_digest, built for WebAssembly.

import { readFileSync } from "node:fs";
import { createRequire } from "node:module";
import { join } from "node:path";
import { WASM } from "./builds.js";

// Runs in node and, as text, in a page: what it prints of a capture's first frames with one variant of the kernels; the
// names of the variants for "list".
export async function digest(createDigest, wasmBinary, samples, kernels, frames) {
  const lines = [];
  const module = await createDigest({
    wasmBinary,
    print: (line) => lines.push(line),
    preRun: [({ ENV }) => (ENV.QUIBO_KERNELS = kernels)],
    quit: () => {}, // node is to go on
  });
  module.FS.writeFile("capture.raw", samples);
  module.callMain(kernels === "list" ? ["--variants"] : ["capture.raw", `${frames}`]);
  return `${lines.join("\n")}\n`;
}

export function digestInNode(samples, kernels, frames) {
  const createDigest = createRequire(import.meta.url)(join(WASM, "quibo_digest.js"));
  return digest(createDigest, readFileSync(join(WASM, "quibo_digest.wasm")), samples, kernels, frames);
}
