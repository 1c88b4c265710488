"""What holds of the parameter files' parser for any bytes: held by the fuzzer and by the tests."""

import math

import safetensors_file


def hold(blob):
    """The file is read as it describes itself, every byte of it, or refused in one printable line."""
    try:
        found, metadata = safetensors_file.parse(blob)
    except safetensors_file.FormatError as reason:
        line = str(reason)
        assert line.isascii() and line.isprintable() and 0 < len(line) < 200, blob
        return
    for dtype, shape, data in found.values():
        assert len(data) == safetensors_file.ITEM_SIZES[dtype] * math.prod(shape), blob
    assert sum(len(data) for _, _, data in found.values()) == len(blob) - 8 - int.from_bytes(blob[:8], "little"), blob
    assert all(isinstance(value, str) for value in metadata.values()), blob
