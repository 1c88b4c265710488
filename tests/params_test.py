"""The build step that embeds the parameter files: what it refuses, and that what it is given arrives."""
import array
import ctypes
import json
import math
import os
import random
import re
import shutil
import struct
import subprocess
import sys

import pytest

import safetensors_file

SEED = 20251103
MANIFEST = {"net.safetensors": {"weight": {"dtype": "F32", "shape": [2, 3]}, "bias": {"dtype": "I8", "shape": [2]}}}


def tensors(weight=(0.0,) * 6, bias=(1, -128)):
    return {"weight": ("F32", [2, 3], array.array("f", weight).tobytes()),
            "bias": ("I8", [2], array.array("b", bias).tobytes())}


def write(folder, content):
    safetensors_file.write(folder / "net.safetensors", content, {})


def embed(source, folder, manifest=MANIFEST):
    (folder / "manifest.json").write_text(json.dumps(manifest))
    return subprocess.run([sys.executable, source / "params/embed.py", folder / "manifest.json", folder, folder / "out"],
                          capture_output=True, text=True)


def without(content, name):
    return {key: value for key, value in content.items() if key != name}


def truncate(folder, size):
    path = folder / "net.safetensors"
    path.write_bytes(path.read_bytes()[:size])


def overwrite(folder, blob):
    (folder / "net.safetensors").write_bytes(blob)


def header(text):
    return struct.pack("<Q", len(text)) + text


# what is done to a good file -> what the lines say
FAULTS = {
    "missing file": (lambda f: (f / "net.safetensors").unlink(), ["no such file"]),
    "a folder": (lambda f: ((f / "net.safetensors").unlink(), (f / "net.safetensors").mkdir()), ["cannot be read"]),
    "empty file": (lambda f: truncate(f, 0), ["too short"]),
    "truncated header": (lambda f: truncate(f, 30), ["truncated header"]),
    "truncated data": (lambda f: truncate(f, -1), ["lies outside the file"]),
    "not JSON": (lambda f: overwrite(f, header(b"{nonsense")), ["malformed header"]),
    "not an object": (lambda f: overwrite(f, header(b"[1]")), ["malformed header"]),
    "no offsets": (lambda f: overwrite(f, header(b'{"bias":{"dtype":"I8","shape":[2]}}')), ["malformed header"]),
    "sizes disagree": (lambda f: overwrite(
        f, header(b'{"bias":{"dtype":"I8","shape":[2],"data_offsets":[0,3]}}') + b"abc"), ["do not fit"]),
    "missing tensor": (lambda f: write(f, without(tensors(), "bias")), ["tensor bias is missing"]),
    "unknown tensor": (lambda f: write(f, {**tensors(), "extra": ("I8", [1], b"a")}), ["extra is not one the library"]),
    "wrong shape": (lambda f: write(f, {**tensors(), "weight": ("F32", [3, 2], bytes(24))}), ["weight has shape [3, 2]"]),
    "wrong type": (lambda f: write(f, {**tensors(), "bias": ("I16", [2], bytes(4))}), ["bias has type I16"]),
    "NaN": (lambda f: write(f, tensors(weight=(0, 0, math.nan, 0, 0, 0))), ["weight holds a value that is not finite"]),
    "infinity": (lambda f: write(f, tensors(weight=(0, 0, 0, 0, 0, -math.inf))), ["not finite"]),
    "two at once": (lambda f: write(f, {"weight": ("F32", [6], bytes(24))}), ["bias is missing", "weight has shape [6]"]),
}


@pytest.mark.parametrize("fault", FAULTS)
def test_a_file_that_does_not_fit_is_refused_with_one_line_per_fault(source, tmp_path, fault):
    spoil, expected = FAULTS[fault]
    write(tmp_path, tensors())
    spoil(tmp_path)
    result = embed(source, tmp_path)
    lines = result.stderr.splitlines()
    assert result.returncode == 1
    assert len(lines) == len(expected), result.stderr
    for line, said in zip(lines, expected):
        assert line.startswith("params: net.safetensors: ") and said in line
    assert not (tmp_path / "out").exists()


def test_every_value_is_written_exactly(source, tmp_path):
    rng = random.Random(SEED)
    bits = [0x00000000, 0x80000000, 0x00000001, 0x807FFFFF, 0x00800000, 0x7F7FFFFF, 0xFF7FFFFF, 0x3EAAAAAB, 0x3DCCCCCD]
    bits += [b for b in (rng.getrandbits(32) for _ in range(5000)) if b >> 23 & 0xFF != 0xFF]
    floats = array.array("f", array.array("I", bits).tobytes())
    integers = {"I8": [-128, -1, 0, 127], "I16": [-2**15, 2**15 - 1], "I32": [-2**31, -2**31 + 1, 2**31 - 1]}
    content = {"f": ("F32", [len(floats)], floats.tobytes())}
    for dtype, values in integers.items():
        content[dtype.lower()] = (dtype, [len(values)], array.array({"I8": "b", "I16": "h", "I32": "i"}[dtype],
                                                                    values).tobytes())
    manifest = {name: {"dtype": dtype, "shape": shape} for name, (dtype, shape, _) in content.items()}
    write(tmp_path, content)
    result = embed(source, tmp_path, {"net.safetensors": manifest})
    assert (result.returncode, result.stderr) == (0, "")

    emitted = {}
    for c_type, name, count, body in re.findall(r"const (\w+) (\w+)\[(\d+)\] = \{(.*?)\};",
                                                (tmp_path / "out/net.cpp").read_text(), flags=re.S):
        emitted[name] = (c_type, body.replace("\n", " ").rstrip(" ,").split(","))
        assert int(count) == len(emitted[name][1])
    for dtype, values in integers.items():
        c_type, written = emitted[dtype.lower()]
        assert c_type == {"I8": "int8_t", "I16": "int16_t", "I32": "int32_t"}[dtype]
        assert [-2**31 if v.strip() == "INT32_MIN" else int(v) for v in written] == values
    c_type, written = emitted["f"]
    assert c_type == "float" and all(v.endswith("f") and ("." in v or "e" in v) for v in written)
    read_back = array.array("f", (float(v.strip()[:-1]) for v in written))
    assert read_back.tobytes() == floats.tobytes(), f"seed {SEED}"


def test_files_of_another_folder_are_built_in_and_rebuilt_when_they_change(source, tmp_path, unsanitized):
    """A whole build of the library, unoptimised."""
    own, build = tmp_path / "own", tmp_path / "build"
    own.mkdir()
    for path in (source / "params").glob("*.safetensors"):
        shutil.copy(path, own)

    def set_entry(value):
        content, metadata = safetensors_file.read(own / "codec.safetensors")
        dtype, shape, data = content["enc_table"]
        table = array.array("h", data)
        table[4800] = value
        content["enc_table"] = (dtype, shape, table.tobytes())
        safetensors_file.write(own / "codec.safetensors", content, metadata)

    def built_entry(copy):
        subprocess.run(["cmake", "--build", build, "--target", "quibo_shared", "-j", str(os.cpu_count())], check=True,
                       capture_output=True)
        shutil.copy(build / "libquibo.so", tmp_path / copy)  # a path is loaded once per process
        return (ctypes.c_int16 * 4801).in_dll(ctypes.CDLL(tmp_path / copy), "enc_table")[4800]

    configure = ["cmake", "-S", source, "-B", build, f"-DQUIBO_PARAMS_DIR={own}", "-DCMAKE_BUILD_TYPE=Debug"]
    set_entry(-123)
    subprocess.run(configure, check=True, capture_output=True)
    assert built_entry("first.so") == -123
    set_entry(456)
    assert built_entry("second.so") == 456

    (own / "codec.safetensors").unlink()
    refused = subprocess.run(configure, capture_output=True, text=True)
    assert refused.returncode != 0
    assert "params: codec.safetensors: no such file" in refused.stderr
