#!/usr/bin/env python3
"""Writes codec.safetensors: the substitution tables of the microphone interface.

enc[m] = G*m mod P and dec[m] = G^-1*m mod P for m = 1..4800, entry 0 is 0. P = 4801 is prime, so both are permutations
and each inverts the other. G is chosen for scrambling: among all multipliers, G has the longest shortest vector in
the lattice {(m, G*m mod P)} (the spectral test of random number generators in two dimensions), 73.8 where no
lattice of this size can exceed 74.5, so nearby magnitudes never stay near one another.
"""

import pathlib
import sys
from array import array

import safetensors_file

P = 4801
G = 1361


def multiples(g):
    return array("h", [g * m % P for m in range(P)])


def main():
    out = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).parent)
    tensors = {"enc_table": multiples(G), "dec_table": multiples(pow(G, -1, P))}
    safetensors_file.write(
        out / "codec.safetensors",
        {name: ("I16", [P], values.tobytes()) for name, values in tensors.items()},
        {"generator": "params/make_codec.py", "multiplier": str(G)},
    )


if __name__ == "__main__":
    main()
