#!/usr/bin/env python3
"""Writes ns.safetensors and naec.safetensors: the two suppressors' tables before any training.

    make_suppressors_untrained.py OUT_DIR

The folder must be named: trained files may stand beside this script.

Every table is drawn from a generator seeded with the table's name, uniformly and with the variance that keeps
activations in range. Two choices make the untrained chain harmless: the first layer takes spectra of full scale (bins of
up to 256) down to the order of 1, and the last stage is small with a bias of OPEN. The masks then stay near
sigmoid(OPEN) = 0.98 whatever is heard, and both suppressors pass their input on, delayed and a little quieter.
"""

import json
import math
import pathlib
import random
import sys
from array import array

import safetensors_file

FILES = ("ns.safetensors", "naec.safetensors")
SMALL = 0.05
FIRST = 0.02  # gain of the layers that read the spectrum
LAST = 0.1  # gain of the layers that make the masks
OPEN = 4.0  # sigmoid argument of an open mask


def bounds(name, shape):
    """Interval that the values of a table are drawn from."""
    if name in ("denoise_pixel_conv4_bias", "aec_sys_real_conv_bias"):
        return OPEN, OPEN
    if name == "aec_sys_imag_conv_bias":
        return 0.0, 0.0  # it enters the two masks with opposite signs
    if "prelu" in name:
        return 0.1, 0.4
    if "norm" in name and name.endswith("weight"):
        return 0.9, 1.1
    if name.endswith("bias"):
        return -SMALL, SMALL
    fan_in = 18 if shape == [290] else math.prod(shape[1:]) if "gru" not in name else shape[2]
    limit = math.sqrt(3.0 / fan_in)
    if "inp_conv1" in name:
        limit *= FIRST
    if name == "denoise_pixel_conv4_weight" or name.startswith("aec_sys"):
        limit *= LAST
    return -limit, limit


def table(name, shape):
    generator, (low, high) = random.Random(name), bounds(name, shape)
    values = array("f", (generator.uniform(low, high) for _ in range(math.prod(shape))))
    if shape == [290]:
        values[288] = values[289] = 0.0  # behind the last row, see denoise_inp_conv1_weight
    return values


def main():
    if len(sys.argv) != 2:
        sys.exit("usage: make_suppressors_untrained.py OUT_DIR")
    out = pathlib.Path(sys.argv[1])
    manifest = json.loads((pathlib.Path(__file__).parent / "manifest.json").read_text())
    for file_name in FILES:
        shapes = {name: entry["shape"] for name, entry in manifest[file_name]["tensors"].items()}
        safetensors_file.write(
            out / file_name,
            {name: ("F32", shape, table(name, shape).tobytes()) for name, shape in shapes.items()},
            {"generator": "params/make_suppressors_untrained.py", "trained": "no"},
        )


if __name__ == "__main__":
    main()
