#!/usr/bin/env python3
"""Writes doa.safetensors: the direction network's tables before any training.

    make_doa_untrained.py OUT_DIR

Every table is drawn from a generator seeded with the table's name, uniformly and with the variance that keeps activations
in range, so that the network runs as a trained one would (finite, no dead layer) and points nowhere in particular.
"""

import json
import math
import pathlib
import random
import sys
from array import array

import safetensors_file

FILE = "doa.safetensors"
SMALL = 0.05
LOG_MEL_SCALE = 0.02  # log-mel values reach +-36 where a cross-correlation stays within +-1


def bounds(name, shape):
    """Interval that the values of a table are drawn from."""
    if name.startswith("ring_ln"):
        return (0.9, 1.1) if name.endswith("weight") else (-SMALL, SMALL)
    if name.endswith("out_bias"):
        return 0.2, 0.8  # keeps the ReLU, and with it the layer norm's variance, alive
    if "bias" in name:
        return -SMALL, SMALL
    fan_in = math.prod(shape[1:])
    limit = math.sqrt(3.0 / fan_in)
    return -limit, limit


def table(name, shape):
    generator, (low, high) = random.Random(name), bounds(name, shape)
    values = array("f", (generator.uniform(low, high) for _ in range(math.prod(shape))))
    if name == "ring_conv1_weight":
        outputs, channels, *kernel = shape
        taps = math.prod(kernel)
        for row in range(outputs):
            start = (row * channels + channels - 1) * taps
            for i in range(start, start + taps):
                values[i] *= LOG_MEL_SCALE
    return values


def main():
    if len(sys.argv) != 2:
        sys.exit("usage: make_doa_untrained.py OUT_DIR")
    here, out = pathlib.Path(__file__).parent, pathlib.Path(sys.argv[1])
    tensors = json.loads((here / "manifest.json").read_text())[FILE]["tensors"]
    shapes = {name: entry["shape"] for name, entry in tensors.items()}
    safetensors_file.write(
        out / FILE,
        {name: ("F32", shape, table(name, shape).tobytes()) for name, shape in shapes.items()},
        {"generator": "params/make_doa_untrained.py", "trained": "no"},
    )


if __name__ == "__main__":
    main()
