"""The sample encoding of the microphone channels.

A magnitude m in 1..4800 travels as G * m mod 4801 with its sign kept; 0 and magnitudes above 4800
travel as they are. 4801 is prime, so every non-zero G permutes 1..4800 and its modular inverse
undoes it. G = 1361 spreads neighbouring magnitudes well: the shortest vector of the lattice
{(m, G m mod 4801)} is within 1 % of the longest possible (two-dimensional spectral test).
"""

from __future__ import annotations

import numpy as np

MODULUS = 4801
G = 1361
G_INVERSE = pow(G, -1, MODULUS)


def _substitute(samples: np.ndarray, factor: int) -> np.ndarray:
    x = np.asarray(samples)
    if x.dtype != np.int16:
        raise TypeError(f"int16 samples expected, got {x.dtype}")
    wide = x.astype(np.int32)  # |-32768| does not fit 16 bits
    mapped = np.sign(wide) * (np.abs(wide) * factor % MODULUS)
    return np.where(np.abs(wide) < MODULUS, mapped, wide).astype(np.int16)


def scramble(samples: np.ndarray) -> np.ndarray:
    """int16 samples -> scrambled int16 samples (a new array)."""
    scrambled = _substitute(samples, G)
    if not np.array_equal(unscramble(scrambled), samples):
        raise AssertionError("scrambling does not invert")
    return scrambled


def unscramble(samples: np.ndarray) -> np.ndarray:
    """Inverse of scramble()."""
    return _substitute(samples, G_INVERSE)
