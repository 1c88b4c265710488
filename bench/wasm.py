"""What the WebAssembly build costs in node and in Chromium, and its digests: web/tests/cost.js."""

import hashlib
import json
import os
import shutil
import subprocess

FRAME_MS = 64
PLACES = {
    "native": "native, SSE2",
    "node": "node {node}",
    "chromium": "Chromium {chromium}, in the package's worker, by the clock",
}


def measure(root, build, frames):
    """Nothing where node, its packages or the module are missing; build: native, frames: of the digests."""
    needed = [root / path for path in ("build-wasm/quibo_digest.js", "web/package/quibo.wasm", "web/node_modules")]
    if not shutil.which("node") or not all(path.exists() for path in needed):
        return None
    told = subprocess.run(
        ["node", root / "web/tests/cost.js", str(frames)],
        check=True,
        capture_output=True,
        text=True,
        env={**os.environ, "QUIBO_BUILD_DIR": str(build.resolve())},
    )
    return json.loads(told.stdout)


def digests(found):
    """[variant, wakes, digest of all digests]"""
    return [
        [kernels, lines.count("wake 0 at"), hashlib.sha256(lines.encode()).hexdigest()[:16]]
        for kernels, lines in found["digests"].items()
    ]


def section(found, table):
    if found is None:
        return "Not measured: node, Chromium or Emscripten were missing.\n"
    native = found["ms"]["native"]
    plain, gzip, brotli = (f"{found['bytes'][name] / 1e6:.2f} MB" for name in ("plain", "gzip", "brotli"))
    rows = [
        [place.format(**found["versions"]), f"{ms:.2f}", f"{ms / native:.2f}", f"{FRAME_MS / ms:.0f}"]
        for place, ms in ((place, found["ms"][name]) for name, place in PLACES.items())
    ]
    return f"""Unlike above: whole runs over the sample, of the demonstration driver and of the npm package's front end
([web](../web/README.md)) by turns, the least of a few.

{table(["", "ms per frame", "times native", "times real time"], rows)}
`quibo.wasm` has {plain} with all parameters, {gzip} by gzip, {brotli} by brotli.
"""
