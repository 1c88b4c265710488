"""Reads and writes .safetensors files with the standard library alone.

The format: 8 bytes little-endian header length, a JSON object {name: {dtype, shape, data_offsets}} with an optional
"__metadata__" of strings, then the tensors' bytes, little-endian, row-major, without gaps.

Files come from outside, so they are read strictly: what another reader might take differently is refused.
"""

from __future__ import annotations

import json
import math
import os
import pathlib
import re
import stat
import struct

ITEM_SIZES = {"I8": 1, "U8": 1, "I16": 2, "I32": 4, "F32": 4, "F64": 8, "I64": 8}
LARGEST_FILE, LARGEST_HEADER = 2**28, 2**20  # bytes
LARGEST_RANK = 8
NAME = re.compile(r"[A-Za-z0-9_.]{1,100}")

Tensors = dict[str, tuple[str, list[int], bytes]]  # name -> element type, shape, values


class FormatError(Exception):
    """The file is not a well-formed .safetensors file; the reason is one line of printable ASCII."""


def write(path: pathlib.Path, tensors: Tensors, metadata: dict[str, str]) -> None:
    """tensors: {name: (dtype, shape, bytes)}; metadata: {str: str}. Names are written in sorted order."""
    header, offset = {"__metadata__": metadata}, 0
    for name in sorted(tensors):
        dtype, shape, data = tensors[name]
        assert len(data) == ITEM_SIZES[dtype] * math.prod(shape), name
        header[name] = {"dtype": dtype, "shape": list(shape), "data_offsets": [offset, offset + len(data)]}
        offset += len(data)
    text = json.dumps(header, separators=(",", ":")).encode()
    text += b" " * (-len(text) % 8)
    with open(path, "wb") as f:
        f.write(struct.pack("<Q", len(text)) + text)
        for name in sorted(tensors):
            f.write(tensors[name][2])


def read(path: pathlib.Path | str) -> tuple[Tensors, dict[str, str]]:
    """Returns ({name: (dtype, shape, bytes)}, metadata). Raises FormatError with a one-line reason, or OSError."""
    status = os.stat(path)
    if not stat.S_ISREG(status.st_mode):  # asked first: a pipe would keep open() waiting
        raise FormatError("not a regular file")
    if status.st_size > LARGEST_FILE:
        raise FormatError(f"larger than {LARGEST_FILE} bytes")
    with open(path, "rb") as f:
        return parse(f.read(LARGEST_FILE))


def parse(blob: bytes) -> tuple[Tensors, dict[str, str]]:
    """The same of a file's bytes."""
    if len(blob) < 8:
        raise FormatError("too short for a header")
    (length,) = struct.unpack("<Q", blob[:8])
    if length > LARGEST_HEADER:
        raise FormatError(f"a header longer than {LARGEST_HEADER} bytes")
    if length > len(blob) - 8:
        raise FormatError("truncated header")
    header, body = _object(blob[8 : 8 + length]), blob[8 + length :]
    metadata = header.pop("__metadata__", {})
    if not isinstance(metadata, dict) or not all(isinstance(v, str) for v in metadata.values()):
        raise FormatError("malformed header (metadata that are not strings)")
    spans = {name: _span(name, entry) for name, entry in header.items()}
    end = 0
    for name in sorted(spans, key=spans.get):
        if spans[name][0] != end:
            raise FormatError(f"tensor {name} does not begin where the one before it ends")
        end = spans[name][1]
        if end > len(body):
            raise FormatError(f"tensor {name} lies outside the file (truncated?)")
    if end != len(body):
        raise FormatError(f"{len(body) - end} bytes behind the last tensor")
    return {name: (entry["dtype"], entry["shape"], body[slice(*spans[name])]) for name, entry in header.items()}, metadata


def _object(text: bytes) -> dict:
    """The header: one JSON object in UTF-8, in which no name stands twice."""
    try:
        header = json.loads(text.decode("utf-8"), object_pairs_hook=_unique, parse_constant=_no_constant)
    except RecursionError:
        raise FormatError("malformed header (nested too deeply)") from None
    except ValueError as error:
        raise FormatError(f"malformed header ({error})") from None
    if not isinstance(header, dict):
        raise FormatError("malformed header (not an object)")
    return header


def _unique(pairs: list[tuple[str, object]]) -> dict:
    found = dict(pairs)
    if len(found) != len(pairs):
        raise ValueError("a name stands twice")
    return found


def _no_constant(_: str) -> None:
    raise ValueError("a number that is not finite")


def _span(name: str, entry: object) -> tuple[int, int]:
    """(begin, end) of a tensor's bytes."""
    if not NAME.fullmatch(name):
        raise FormatError("malformed header (a tensor's name is not 1 to 100 letters, digits, _ and .)")
    if not isinstance(entry, dict) or entry.keys() != {"dtype", "shape", "data_offsets"}:
        raise FormatError(f"malformed header (tensor {name} is not type, shape and offsets)")
    dtype, shape, offsets = entry["dtype"], entry["shape"], entry["data_offsets"]
    if not isinstance(dtype, str) or dtype not in ITEM_SIZES:
        raise FormatError(f"tensor {name} has a type that is none of {', '.join(ITEM_SIZES)}")
    if not _sizes(shape) or len(shape) > LARGEST_RANK:
        raise FormatError(f"malformed header (the shape of tensor {name})")
    if not _sizes(offsets) or len(offsets) != 2 or offsets[0] > offsets[1]:
        raise FormatError(f"malformed header (the offsets of tensor {name})")
    begin, end = offsets
    if end - begin != ITEM_SIZES[dtype] * math.prod(shape):
        raise FormatError(f"tensor {name}: {end - begin} bytes do not fit {dtype}{shape}")
    return begin, end


def _sizes(values: object) -> bool:
    return isinstance(values, list) and all(type(v) is int and 0 <= v <= LARGEST_FILE for v in values)
