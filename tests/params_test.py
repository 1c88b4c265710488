"""The build step that embeds the parameter files: what it refuses, and that what it is given arrives."""

import array
import ctypes
import hashlib
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
from conftest import SOURCE
from parser_property import hold

SEED = 20251103
TENSORS = {"weight": {"dtype": "F32", "shape": [2, 3]}, "bias": {"dtype": "I8", "shape": [2]}}


def tensors(weight=(0.0,) * 6, bias=(1, -128)):
    return {
        "weight": ("F32", [2, 3], array.array("f", weight).tobytes()),
        "bias": ("I8", [2], array.array("b", bias).tobytes()),
    }


def write(folder, content):
    safetensors_file.write(folder / "net.safetensors", content, {})


def embed(source, folder, expected=TENSORS, pinned=None):
    """With `pinned`, a SHA-256, the manifest stands beside the file, as the library's own does."""
    manifest = folder / "manifest.json" if pinned else folder / "elsewhere" / "manifest.json"
    manifest.parent.mkdir(exist_ok=True)
    manifest.write_text(json.dumps({"net.safetensors": {"sha256": pinned or "", "tensors": expected}}))
    return run_tool(source, manifest, folder, folder / "out")


def run_tool(source, *arguments):
    return subprocess.run([sys.executable, source / "params/embed.py", *arguments], capture_output=True, text=True)


def without(content, name):
    return {key: value for key, value in content.items() if key != name}


def change(folder, edit):
    path = folder / "net.safetensors"
    path.write_bytes(edit(path.read_bytes()))


def one_byte_less_header(blob):
    (length,) = struct.unpack("<Q", blob[:8])
    return struct.pack("<Q", length - 1) + blob[8:]


def replace(folder, text, body=b"", length=None):
    """A file of this header and these tensors' bytes."""
    (folder / "net.safetensors").write_bytes(struct.pack("<Q", len(text) if length is None else length) + text + body)


def entry(begin, end, dtype="I8", shape=None):
    return json.dumps(
        {"dtype": dtype, "shape": [end - begin] if shape is None else shape, "data_offsets": [begin, end]}
    ).encode()


def two(first, second):
    return b'{"bias":' + first + b',"weight":' + second + b"}"


# what is done to a good file -> what the lines say
FAULTS = {
    "missing file": (lambda f: (f / "net.safetensors").unlink(), ["no such file"]),
    "a folder": (lambda f: ((f / "net.safetensors").unlink(), (f / "net.safetensors").mkdir()), ["not a regular file"]),
    "a pipe": (lambda f: ((f / "net.safetensors").unlink(), os.mkfifo(f / "net.safetensors")), ["not a regular file"]),
    "a huge file": (lambda f: os.truncate(f / "net.safetensors", 2**40), ["larger than"]),
    "empty file": (lambda f: change(f, lambda blob: b""), ["too short"]),
    "truncated header": (lambda f: change(f, lambda blob: blob[:30]), ["truncated header"]),
    "truncated data": (lambda f: change(f, lambda blob: blob[:-1]), ["lies outside the file"]),
    "trailing byte": (lambda f: change(f, lambda blob: blob + b"x"), ["1 bytes behind the last tensor"]),
    "header length one too small": (lambda f: change(f, one_byte_less_header), ["1 bytes behind the last tensor"]),
    "header length without bound": (lambda f: replace(f, b"{}", length=2**63), ["a header longer than"]),
    "gap": (lambda f: replace(f, two(entry(0, 2), entry(3, 5)), b"12345"), ["weight does not begin where"]),
    "gap at the start": (lambda f: replace(f, b'{"bias":' + entry(1, 3) + b"}", b"123"), ["bias does not begin where"]),
    "overlap": (lambda f: replace(f, two(entry(0, 2), entry(1, 3)), b"123"), ["weight does not begin where"]),
    "the same bytes twice": (lambda f: replace(f, two(entry(0, 2), entry(0, 2)), b"12"), ["does not begin where"]),
    "a name twice": (
        lambda f: replace(f, b'{"bias":%b,"bias":%b}' % (entry(0, 1), entry(1, 2)), b"12"),
        ["a name stands twice"],
    ),
    "a field twice": (
        lambda f: replace(f, b'{"bias":{"dtype":"I8","dtype":"I8","shape":[1],"data_offsets":[0,1]}}', b"1"),
        ["a name stands twice"],
    ),
    "not JSON": (lambda f: replace(f, b"{nonsense"), ["malformed header"]),
    "not UTF-8": (lambda f: replace(f, b'{"\xff":1}'), ["malformed header"]),
    "not an object": (lambda f: replace(f, b"[1]"), ["malformed header"]),
    "no offsets": (lambda f: replace(f, b'{"bias":{"dtype":"I8","shape":[2]}}'), ["malformed header"]),
    "a tensor that is a list": (lambda f: replace(f, b'{"bias":[1]}'), ["malformed header"]),
    "metadata that are numbers": (lambda f: replace(f, b'{"__metadata__":{"a":1}}'), ["malformed header"]),
    "nested deeply": (lambda f: replace(f, b"[" * 500000), ["nested too deeply"]),
    "a number without end": (lambda f: replace(f, b'{"bias":%b}' % (b"9" * 100000)), ["malformed header"]),
    "sizes without bound": (lambda f: replace(f, b'{"bias":%b}' % entry(0, 1, shape=[2**62] * 8)), ["shape of tensor bias"]),
    "dimensions without bound": (
        lambda f: replace(f, b'{"bias":%b}' % entry(0, 1, shape=[1] * 10000), b"1"),
        ["shape of tensor bias"],
    ),
    "a negative size": (lambda f: replace(f, b'{"bias":%b}' % entry(0, 1, shape=[-1, -1]), b"1"), ["shape of tensor bias"]),
    "a size that is no integer": (
        lambda f: replace(f, b'{"bias":%b}' % entry(0, 1, shape=[1.0]), b"1"),
        ["shape of tensor bias"],
    ),
    "offsets backwards": (lambda f: replace(f, b'{"bias":%b}' % entry(2, 0, shape=[0]), b"12"), ["offsets of tensor bias"]),
    "sizes disagree": (lambda f: replace(f, b'{"bias":%b}' % entry(0, 3, shape=[2]), b"abc"), ["do not fit"]),
    "unknown type": (lambda f: replace(f, b'{"bias":%b}' % entry(0, 2, dtype="\x1b[31m"), b"12"), ["none of I8, "]),
    "a name for the terminal": (
        lambda f: replace(f, b'{"\\u001b[2J\\n\xe2\x80\xae":%b}' % entry(0, 1), b"1"),
        ["a tensor's name is not"],
    ),
    "a long name": (lambda f: replace(f, b'{"%b":%b}' % (b"a" * 101, entry(0, 1)), b"1"), ["a tensor's name is not"]),
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
    lines = result.stderr.split("\n")
    assert result.returncode == 1
    assert lines.pop() == "" and len(lines) == len(expected), result.stderr
    for line, said in zip(lines, expected):
        assert line.startswith("params: net.safetensors: ") and said in line
        assert line.isascii() and line.isprintable() and len(line) < 250
    assert not (tmp_path / "out").exists()


@pytest.mark.parametrize("seed", sorted((SOURCE / "fuzz/corpus/parameters").iterdir()), ids=lambda path: path.name)
def test_the_fuzzer_s_seeds_are_read_or_refused(seed):
    hold(seed.read_bytes())


def test_a_file_cut_or_changed_anywhere_is_read_or_refused(tmp_path):
    """4000 files: bytes changed, dropped and put in."""
    rng = random.Random(SEED)
    write(tmp_path, tensors())
    good = (tmp_path / "net.safetensors").read_bytes()
    for _ in range(4000):
        blob = bytearray(good)
        for _ in range(rng.randint(1, 4)):
            at = rng.randrange(len(blob))
            blob[at : at + rng.choice([0, 1, 1, 5])] = rng.choice(
                [b"", bytes([rng.randrange(256)]), b"0", b"9" * 30, b"-1", b"[", b"{", b'"', b"null", b"1e999", b"\\ud800"]
            )
        hold(bytes(blob))


def test_the_library_s_own_files_are_those_of_the_manifest(source, tmp_path):
    """A changed value passes every other check. Files of another folder may differ."""
    write(tmp_path, tensors())
    sum_of_good = hashlib.sha256((tmp_path / "net.safetensors").read_bytes()).hexdigest()
    assert embed(source, tmp_path, pinned=sum_of_good).returncode == 0
    write(tmp_path, tensors(bias=(1, 2)))
    assert embed(source, tmp_path).returncode == 0
    shutil.rmtree(tmp_path / "out")
    refused = embed(source, tmp_path, pinned=sum_of_good)
    assert refused.returncode == 1 and not (tmp_path / "out").exists()
    assert refused.stderr.startswith("params: net.safetensors: its SHA-256 is not the manifest's")
    assert refused.stderr.count("\n") == 1

    assert run_tool(source, "--pin", tmp_path / "manifest.json").returncode == 0
    assert run_tool(source, tmp_path / "manifest.json", tmp_path, tmp_path / "out").returncode == 0


def test_pinning_changes_nothing_of_an_up_to_date_manifest_and_refuses_files_that_do_not_fit(source, tmp_path):
    own = source / "params/manifest.json"
    for path in [own, own.parent / "keywords.json", *own.parent.glob("*.safetensors")]:
        shutil.copy(path, tmp_path)
    assert run_tool(source, "--pin", tmp_path / "manifest.json").returncode == 0
    assert (tmp_path / "manifest.json").read_text() == own.read_text()
    codec = tmp_path / "codec.safetensors"
    codec.write_bytes(codec.read_bytes() + b"x")
    assert run_tool(source, "--pin", tmp_path / "manifest.json").returncode == 1
    assert (tmp_path / "manifest.json").read_text() == own.read_text()


def keywords(**fields):
    return json.dumps({"keywords": [{"identifier": 0, "phrase": "ni hao", "threshold": 0.6, "divisor": 2.0} | fields]})


def embed_keywords(source, folder, text):
    (folder / "keywords.json").write_text(text)
    manifest = folder / "elsewhere" / "manifest.json"
    manifest.parent.mkdir(exist_ok=True)
    manifest.write_text('{"keywords.json": {"sha256": "", "tensors": {"keywords_index": {"dtype": "I16"}}}}')
    return run_tool(source, manifest, folder, folder / "out")


def test_a_keyword_table_is_embedded_as_the_classes_of_its_syllables(source, tmp_path):
    first = json.loads(keywords(phrase="ling dang ling dang", divisor=4))["keywords"]
    second = json.loads(keywords(identifier=7, phrase="ling", threshold=1.25, divisor=0.1))["keywords"]
    result = embed_keywords(source, tmp_path, json.dumps({"keywords": first + second}))
    assert (result.returncode, result.stderr) == (0, "")
    (values,) = re.findall(
        r"const int16_t keywords_index\[14\] = \{(.*?)\};", (tmp_path / "out/keywords.cpp").read_text(), re.S
    )
    assert [int(v) for v in values.rstrip(" ,\n").split(",")] == [2, 0, 60, 40, 4, 125, 2, 125, 2, 7, 125, 1, 1, 125]


@pytest.mark.parametrize(
    "text, said",
    [
        ("{", "not JSON"),
        ("[" * 100000, "nested too deeply"),
        ("[]", "at least one"),
        ('{"keywords": []}', "at least one"),
        ('{"keywords": [{"phrase": "ni hao"}]}', "keyword 1 is not identifier, phrase,"),
        (keywords(phrase="xiao bay"), "'bay' (the nearest: ba"),
        (keywords(phrase="\x1b[2J \u3042"), "knows no syllable '\\x1b[2J'"),
        (keywords(phrase=""), "the phrase has 0 syllables"),
        (keywords(phrase="ling " * 39), "the phrase has 39 syllables"),
        (keywords(phrase=["ni", "hao"]), "the phrase has 0 syllables"),
        (keywords(threshold=0), "threshold 0, expected"),
        (keywords(threshold=0.605), "threshold 0.605, expected"),
        (keywords(divisor=float("nan")), "divisor nan, expected"),
        (keywords(divisor=1e9), "divisor 1000000000.0, expected"),
        (keywords(identifier=True), "identifier True, expected"),
    ],
)
def test_a_keyword_table_that_does_not_fit_is_one_line(source, tmp_path, text, said):
    result = embed_keywords(source, tmp_path, text)
    assert result.returncode == 1 and not (tmp_path / "out").exists()
    assert result.stderr.startswith("params: keywords.json: ") and said in result.stderr
    assert result.stderr.count("\n") == 1 and result.stderr[:-1].isprintable() and len(result.stderr) < 250


@pytest.mark.parametrize("text", ["", "{nonsense", "[]", '{"net.safetensors": {}}', '{"net.safetensors": {"tensors": [1]}}'])
def test_a_malformed_manifest_is_one_line(source, tmp_path, text):
    write(tmp_path, tensors())
    (tmp_path / "manifest.json").write_text(text)
    for result in (
        run_tool(source, tmp_path / "manifest.json", tmp_path, tmp_path / "out"),
        run_tool(source, "--pin", tmp_path / "manifest.json"),
    ):
        assert result.returncode == 1 and result.stderr.startswith("params: the manifest is malformed")
        assert result.stderr.count("\n") == 1


@pytest.mark.skipif(not os.path.exists("/dev/full"), reason="no /dev/full")
def test_a_source_that_cannot_be_written_is_one_line_and_no_half_of_it_stays(source, tmp_path):
    write(tmp_path, tensors())
    (tmp_path / "out").mkdir()
    (tmp_path / "out/net.cpp.part").symlink_to("/dev/full")
    result = embed(source, tmp_path)
    assert result.returncode == 1 and not (tmp_path / "out/net.cpp").exists()
    assert result.stderr == f"params: '{tmp_path}/out/net.cpp': No space left on device\n"


def test_every_value_is_written_exactly(source, tmp_path):
    rng = random.Random(SEED)
    bits = [0x00000000, 0x80000000, 0x00000001, 0x807FFFFF, 0x00800000, 0x7F7FFFFF, 0xFF7FFFFF, 0x3EAAAAAB, 0x3DCCCCCD]
    bits += [b for b in (rng.getrandbits(32) for _ in range(5000)) if b >> 23 & 0xFF != 0xFF]
    floats = array.array("f", array.array("I", bits).tobytes())
    integers = {"I8": [-128, -1, 0, 127], "I16": [-(2**15), 2**15 - 1], "I32": [-(2**31), -(2**31) + 1, 2**31 - 1]}
    content = {"f": ("F32", [len(floats)], floats.tobytes())}
    for dtype, values in integers.items():
        content[dtype.lower()] = (
            dtype,
            [len(values)],
            array.array({"I8": "b", "I16": "h", "I32": "i"}[dtype], values).tobytes(),
        )
    expected = {name: {"dtype": dtype, "shape": shape} for name, (dtype, shape, _) in content.items()}
    write(tmp_path, content)
    result = embed(source, tmp_path, expected)
    assert (result.returncode, result.stderr) == (0, "")

    emitted = {}
    for c_type, name, count, body in re.findall(
        r"const (\w+) (\w+)\[(\d+)\] = \{(.*?)\};", (tmp_path / "out/net.cpp").read_text(), flags=re.S
    ):
        emitted[name] = (c_type, body.replace("\n", " ").rstrip(" ,").split(","))
        assert int(count) == len(emitted[name][1])
    for dtype, values in integers.items():
        c_type, written = emitted[dtype.lower()]
        assert c_type == {"I8": "int8_t", "I16": "int16_t", "I32": "int32_t"}[dtype]
        assert [-(2**31) if v.strip() == "INT32_MIN" else int(v) for v in written] == values
    c_type, written = emitted["f"]
    assert c_type == "float" and all(v.endswith("f") and ("." in v or "e" in v) for v in written)
    read_back = array.array("f", (float(v.strip()[:-1]) for v in written))
    assert read_back.tobytes() == floats.tobytes(), f"seed {SEED}"


@pytest.fixture(scope="module")
def debug_build(source, tmp_path_factory, unsanitized):
    """(parameter files, build folder, configure command) of a debug build with parameter files of its own."""
    own, build = tmp_path_factory.mktemp("own"), tmp_path_factory.mktemp("debug")
    for path in [source / "params/keywords.json", *(source / "params").glob("*.safetensors")]:
        shutil.copy(path, own)
    configure = ["cmake", "-S", source, "-B", build, f"-DQUIBO_PARAMS_DIR={own}", "-DCMAKE_BUILD_TYPE=Debug"]
    subprocess.run(configure, check=True, capture_output=True)
    return own, build, configure


def make(build):
    subprocess.run(
        ["cmake", "--build", build, "--target", "quibo_shared", "-j", str(os.cpu_count())], check=True, capture_output=True
    )
    return build / "libquibo.so"


def test_files_of_another_folder_are_built_in_and_rebuilt_when_they_change(debug_build, tmp_path):
    own, build, configure = debug_build

    def set_entry(value):
        content, metadata = safetensors_file.read(own / "codec.safetensors")
        dtype, shape, data = content["enc_table"]
        table = array.array("h", data)
        table[4800] = value
        content["enc_table"] = (dtype, shape, table.tobytes())
        safetensors_file.write(own / "codec.safetensors", content, metadata)

    def built_entry(copy):
        shutil.copy(make(build), tmp_path / copy)  # a path is loaded once per process
        return (ctypes.c_int16 * 4801).in_dll(ctypes.CDLL(tmp_path / copy), "enc_table")[4800]

    set_entry(-123)
    assert built_entry("first.so") == -123
    set_entry(456)
    assert built_entry("second.so") == 456

    codec = (own / "codec.safetensors").read_bytes()
    (own / "codec.safetensors").unlink()
    refused = subprocess.run(configure, capture_output=True, text=True)
    (own / "codec.safetensors").write_bytes(codec)
    assert refused.returncode != 0
    assert "params: codec.safetensors: no such file" in refused.stderr


def test_a_debug_build_too_needs_libc_only(debug_build):
    dynamic = subprocess.run(["readelf", "-d", make(debug_build[1])], capture_output=True, text=True, check=True).stdout
    needed = re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic)
    assert {name.split(".so")[0] for name in needed} <= {"libc", "ld-linux-x86-64", "ld-linux-aarch64"}
