#!/usr/bin/env python3
"""Turns parameter files into C++ source: one constant array per tensor, under the tensor's name.

    embed.py MANIFEST PARAMS_DIR OUT_DIR
    embed.py --pin MANIFEST

MANIFEST lists, per .safetensors file, its SHA-256 and every tensor with its element type and shape; PARAMS_DIR holds the
files. The keyword table, keywords.json, is one tensor of any length. One FILE.cpp per parameter file is written to OUT_DIR.
A missing or malformed file, or a missing, unknown, mis-shaped or mistyped tensor, is reported in one line each, and nothing is
written. The SHA-256 is held against the files beside the manifest; those of another folder are somebody else's and may differ.

--pin writes the SHA-256 of the files beside the manifest into it, after the same checks: for whoever replaces one.
"""

from __future__ import annotations

import array
import hashlib
import json
import os
import pathlib
import struct
import sys
from collections.abc import Iterator

import keyword_table
import safetensors_file
import syllable_names

# element type -> (array type code, C type, how a value is written). repr() of the double nearest to a float carries
# enough digits to be read back as the same float.
ELEMENTS = {
    "I8": ("b", "int8_t", str),
    "I16": ("h", "int16_t", str),
    "I32": ("i", "int32_t", lambda v: str(v) if v > -(2**31) else "INT32_MIN"),
    "F32": ("f", "float", lambda v: repr(v) + "f"),
}
PER_LINE = 12


def check(file_name: str, expected: dict, found: safetensors_file.Tensors) -> Iterator[str]:
    """Yields one line per difference between the manifest's tensors and the file's."""
    for name in sorted(expected.keys() - found.keys()):
        yield f"{file_name}: tensor {name} is missing"
    for name in sorted(found.keys() - expected.keys()):
        yield f"{file_name}: tensor {name} is not one the library knows"
    for name in sorted(expected.keys() & found.keys()):
        dtype, shape, data = found[name]
        want = expected[name]
        if dtype != want["dtype"]:
            yield f"{file_name}: tensor {name} has type {dtype}, expected {want['dtype']}"
        elif shape != want.get("shape", shape):
            yield f"{file_name}: tensor {name} has shape {shape}, expected {want['shape']}"
        elif dtype == "F32" and not all(abs(v) < float("inf") for v in values_of(dtype, data)):
            yield f"{file_name}: tensor {name} holds a value that is not finite"


def values_of(dtype: str, data: bytes) -> array.array:
    values = array.array(ELEMENTS[dtype][0], data)
    if sys.byteorder == "big":
        values.byteswap()
    return values


def source(file_name: str, expected: dict, found: safetensors_file.Tensors) -> str:
    lines = [f"// Generated from {file_name}; do not edit.", '#include "quibo/quibo.h"', ""]
    for name in expected:
        dtype, _, data = found[name]
        _, c_type, write = ELEMENTS[dtype]
        values = [write(v) for v in values_of(dtype, data)]
        # Declared first: a constant would otherwise be private to its unit. Tables that the header exports are
        # declared there already.
        lines.append(f"extern const {c_type} {name}[{len(values)}];")
        lines.append(f"const {c_type} {name}[{len(values)}] = {{")
        lines += ["    " + ", ".join(values[i : i + PER_LINE]) + "," for i in range(0, len(values), PER_LINE)]
        lines += ["};", ""]
    return "\n".join(lines)


def load(manifest: dict, folder: pathlib.Path, pinned: bool) -> tuple[dict[str, safetensors_file.Tensors], list[str]]:
    """({file: {name: (dtype, shape, bytes)}}, problems), each problem a line. pinned: whether the SHA-256 must be the
    manifest's."""
    files, problems = {}, []
    for file_name, entry in manifest.items():
        path = folder / file_name
        try:
            found = read(path)
            if pinned and sha256(path) != entry["sha256"]:
                problems.append(
                    f"{file_name}: its SHA-256 is not the manifest's; if it was replaced on purpose, run "
                    "params/embed.py --pin params/manifest.json"
                )
        except FileNotFoundError:
            problems.append(f"{file_name}: no such file in {ascii(str(folder))}")
        except OSError as reason:
            problems.append(f"{file_name}: cannot be read ({reason.strerror})")
        except (safetensors_file.FormatError, keyword_table.TableError) as reason:
            problems.append(f"{file_name}: {reason}")
        else:
            problems += check(file_name, entry["tensors"], found)
            files[file_name] = found
    return files, problems


def read(path: pathlib.Path) -> safetensors_file.Tensors:
    """{name: (dtype, shape, bytes)} of a parameter file."""
    if path.suffix == ".safetensors":
        return safetensors_file.read(path)[0]
    classes = syllable_names.classes()
    values = keyword_table.values(keyword_table.read(path, classes), classes)
    return {keyword_table.NAME: ("I16", [len(values)], struct.pack(f"<{len(values)}h", *values))}


def sha256(path: pathlib.Path) -> str:
    return hashlib.sha256(path.read_bytes()).hexdigest()


def write(path: pathlib.Path, text: str) -> None:
    """All of it or nothing: a source cut short by a full disk would pass for a finished one."""
    part = path.with_name(path.name + ".part")
    try:
        part.write_text(text)
        os.replace(part, path)
    except OSError as reason:
        raise OSError(reason.errno, reason.strerror, str(path)) from None


def embed(manifest_path: pathlib.Path, params_dir: pathlib.Path, out_dir: pathlib.Path) -> list[str]:
    manifest = json.loads(manifest_path.read_text())
    files, problems = load(manifest, params_dir, pinned=params_dir.resolve() == manifest_path.parent.resolve())
    if not problems:
        out_dir.mkdir(parents=True, exist_ok=True)
        for file_name, found in files.items():
            write(out_dir / f"{pathlib.Path(file_name).stem}.cpp", source(file_name, manifest[file_name]["tensors"], found))
    return problems


def pin(manifest_path: pathlib.Path) -> list[str]:
    manifest = json.loads(manifest_path.read_text())
    _, problems = load(manifest, manifest_path.parent, pinned=False)
    if not problems:
        sums = {file_name: sha256(manifest_path.parent / file_name) for file_name in manifest}
        write(
            manifest_path,
            "{\n"
            + ",\n".join(
                f'  "{file_name}": {{"sha256": "{sums[file_name]}", "tensors": {{\n'
                + ",\n".join(f'    "{name}": {json.dumps(tensor)}' for name, tensor in entry["tensors"].items())
                + "\n  }}"
                for file_name, entry in manifest.items()
            )
            + "\n}\n",
        )
    return problems


def main() -> None:
    arguments = sys.argv[1:]
    try:
        if arguments[:1] == ["--pin"] and len(arguments) == 2:
            problems = pin(pathlib.Path(arguments[1]))
        elif len(arguments) == 3:
            problems = embed(*map(pathlib.Path, arguments))
        else:
            sys.exit("usage: embed.py MANIFEST PARAMS_DIR OUT_DIR | embed.py --pin MANIFEST")
    except OSError as reason:
        problems = [f"{ascii(str(reason.filename))}: {reason.strerror}"]
    except (ValueError, KeyError, TypeError, AttributeError) as reason:
        problems = [f"the manifest is malformed ({type(reason).__name__}: {ascii(reason)})"]
    for line in problems:
        print(f"params: {line}", file=sys.stderr)
    sys.exit(1 if problems else 0)


if __name__ == "__main__":
    main()
