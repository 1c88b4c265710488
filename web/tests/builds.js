// What the tests take from the builds, and the sample recording.

import { execFileSync } from "node:child_process";
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
