#!/usr/bin/env python3
"""Writes kws.safetensors: the mel filters."""
import pathlib
import sys
from array import array

import mel_filters
import safetensors_file


def main():
    out = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).parent)
    weights = mel_filters.weights()
    safetensors_file.write(out / "kws.safetensors",
                           {"fbank_filter1": ("F32", [len(weights)], array("f", weights).tobytes())},
                           {"generator": "params/make_kws_untrained.py", "trained": "no"})


if __name__ == "__main__":
    main()
