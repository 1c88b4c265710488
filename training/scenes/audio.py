"""Levels in dBFS."""

from __future__ import annotations

import numpy as np

from training.device_facts import RATE

LEVEL_FRAME = 512
ACTIVE_RANGE = 1e-3  # of power: 30 dB


def dbfs(x: np.ndarray) -> float:
    """Mean power of x in dB, 0 dBFS = a constant 1.0."""
    return 10.0 * np.log10(np.mean(np.square(x)) + 1e-20)


def active_power(x: np.ndarray) -> float:
    """Mean power of the frames of [..., n] within ACTIVE_RANGE of the loudest one: speech without
    its pauses. numpy arrays or torch tensors."""
    n = x.shape[-1] // LEVEL_FRAME * LEVEL_FRAME
    frames = (x * x)[..., :n].reshape(*x.shape[:-1], -1, LEVEL_FRAME).mean(-1)
    loudest = frames.max(-1)
    loudest = getattr(loudest, "values", loudest)  # torch returns the places too
    ones = frames**0  # of the array's own kind and precision
    active = ones * (frames > loudest[..., None] * ACTIVE_RANGE)
    return (frames * active).sum(-1) / (active.sum(-1) + 1e-9) + 1e-20


def active_dbfs(x: np.ndarray) -> float:
    return 10.0 * np.log10(active_power(x))


def gain(db: float | np.ndarray) -> float | np.ndarray:
    return 10.0 ** (db / 20.0)


def fade(x: np.ndarray, seconds: float) -> np.ndarray:
    """x with raised-cosine ends of `seconds`, shorter ones where x is too short for them."""
    n = min(round(seconds * RATE), len(x) // 2)
    if n == 0:
        return x
    ramp = 0.5 - 0.5 * np.cos(np.pi * (np.arange(n) + 0.5) / n)
    y = x.copy()
    y[:n] *= ramp
    y[-n:] *= ramp[::-1]
    return y
