#!/usr/bin/env python3
"""Makes the page in a folder of its own, from the built module: static files that work from any place, offline.

web/page/build.py MODULE OUTPUT
"""

import base64
import json
import pathlib
import shutil
import sys

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent.parent
sys.path.insert(0, str(ROOT / "viewer"))
from build import bundle  # noqa: E402


def base64_of(path):
    return base64.b64encode(pathlib.Path(path).read_bytes()).decode("ascii")


def main():
    module, output = map(pathlib.Path, sys.argv[1:])
    output.mkdir(parents=True, exist_ok=True)
    package = ROOT / "web/package"
    options = ["--format=iife", "--minify", "--external:node:*", "--define:import.meta.url=location.href"]
    engine = {
        "version": json.loads((package / "package.json").read_text())["version"],
        "wasm": base64_of(module),
        "worker": bundle(package / "worker.js", *options),
        "worklet": bundle(package / "worklet.js", *options),
    }
    (output / "quibo.js").write_text(f"globalThis.QUIBO = {json.dumps(engine)};\n")
    sample = base64_of(ROOT / "samples/living_room.flac")
    (output / "sample.js").write_text(f"// samples/README.md: CC-BY-SA 3.0\nglobalThis.QUIBO_SAMPLE = {json.dumps(sample)};\n")
    (output / "page.js").write_text(bundle(HERE / "page.js", *options))
    for path in (HERE / "index.html", HERE / "page.css"):
        shutil.copy(path, output)
    shutil.copy(ROOT / "viewer/style.css", output / "viewer.css")


if __name__ == "__main__":
    main()
