#!/usr/bin/env python3
"""Turns parameter files into C++ source: one constant array per tensor, under the tensor's name.

    embed.py MANIFEST PARAMS_DIR OUT_DIR

MANIFEST lists, per .safetensors file, every tensor with its element type and shape; PARAMS_DIR holds the files. One
FILE.cpp per parameter file is written to OUT_DIR. A missing file, or a missing, unknown, mis-shaped or mistyped tensor,
is reported in one line each, and nothing is written.
"""
import array
import json
import pathlib
import sys

import safetensors_file

# element type -> (array type code, C type, how a value is written). repr() of the double nearest to a float carries
# enough digits to be read back as the same float.
ELEMENTS = {
    "I8": ("b", "int8_t", str),
    "I16": ("h", "int16_t", str),
    "I32": ("i", "int32_t", lambda v: str(v) if v > -2**31 else "INT32_MIN"),
    "F32": ("f", "float", lambda v: repr(v) + "f"),
}
PER_LINE = 12


def check(file_name, expected, found):
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
        elif shape != want["shape"]:
            yield f"{file_name}: tensor {name} has shape {shape}, expected {want['shape']}"
        elif dtype == "F32" and not all(abs(v) < float("inf") for v in values_of(dtype, data)):
            yield f"{file_name}: tensor {name} holds a value that is not finite"


def values_of(dtype, data):
    values = array.array(ELEMENTS[dtype][0], data)
    if sys.byteorder == "big":
        values.byteswap()
    return values


def source(file_name, expected, found):
    lines = [f"// Generated from {file_name}; do not edit.", '#include "quibo/quibo.h"', ""]
    for name in expected:
        dtype, _, data = found[name]
        _, c_type, write = ELEMENTS[dtype]
        values = [write(v) for v in values_of(dtype, data)]
        # Declared first: a constant would otherwise be private to its unit. Tables that the header exports are
        # declared there already.
        lines.append(f"extern const {c_type} {name}[{len(values)}];")
        lines.append(f"const {c_type} {name}[{len(values)}] = {{")
        lines += ["    " + ", ".join(values[i:i + PER_LINE]) + "," for i in range(0, len(values), PER_LINE)]
        lines += ["};", ""]
    return "\n".join(lines)


def main():
    manifest_path, params_dir, out_dir = map(pathlib.Path, sys.argv[1:4])
    manifest = json.loads(manifest_path.read_text())
    errors, sources = [], {}
    for file_name, expected in manifest.items():
        path = params_dir / file_name
        try:
            found, _ = safetensors_file.read(path)
        except FileNotFoundError:
            errors.append(f"{file_name}: no such file in {params_dir}")
            continue
        except OSError as reason:
            errors.append(f"{file_name}: cannot be read ({reason.strerror})")
            continue
        except safetensors_file.FormatError as reason:
            errors.append(f"{file_name}: {reason}")
            continue
        problems = list(check(file_name, expected, found))
        errors += problems
        if not problems:
            sources[pathlib.Path(file_name).stem] = source(file_name, expected, found)
    for line in errors:
        print(f"params: {line}", file=sys.stderr)
    if errors:
        sys.exit(1)
    out_dir.mkdir(parents=True, exist_ok=True)
    for stem, text in sources.items():
        (out_dir / f"{stem}.cpp").write_text(text)


if __name__ == "__main__":
    main()
