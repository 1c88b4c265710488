"""Reads and writes .safetensors files with the standard library alone.

The format: 8 bytes little-endian header length, a JSON object {name: {dtype, shape, data_offsets}} with an optional
"__metadata__" of strings, then the tensors' bytes, little-endian, row-major, without gaps.
"""
import json
import math
import struct

ITEM_SIZES = {"I8": 1, "U8": 1, "I16": 2, "I32": 4, "F32": 4, "F64": 8, "I64": 8}


class FormatError(Exception):
    """The file is not a well-formed .safetensors file."""


def write(path, tensors, metadata):
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


def read(path):
    """Returns ({name: (dtype, shape, bytes)}, metadata). Raises FormatError with a one-line reason."""
    with open(path, "rb") as f:
        blob = f.read()
    if len(blob) < 8:
        raise FormatError("too short for a header")
    (length,) = struct.unpack("<Q", blob[:8])
    if length > len(blob) - 8:
        raise FormatError("truncated header")
    try:
        header = json.loads(blob[8:8 + length])
        metadata = header.pop("__metadata__", {})
        tensors, body = {}, blob[8 + length:]
        for name, entry in header.items():
            dtype, shape, (begin, end) = entry["dtype"], entry["shape"], entry["data_offsets"]
            if not 0 <= begin <= end <= len(body):
                raise FormatError(f"tensor {name} lies outside the file (truncated?)")
            if dtype in ITEM_SIZES and end - begin != ITEM_SIZES[dtype] * math.prod(shape):
                raise FormatError(f"tensor {name}: {end - begin} bytes do not fit {dtype}{shape}")
            tensors[name] = (dtype, shape, body[begin:end])
    except (ValueError, KeyError, TypeError, AttributeError) as error:
        raise FormatError(f"malformed header ({error})") from error
    return tensors, metadata
