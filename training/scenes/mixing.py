"""Dry signals through rooms, at the levels asked for; numpy on the CPU or torch on a GPU.

The functions take arrays of either kind with any leading dimensions, and do not look which it is.
"""

from __future__ import annotations

import types

import numpy as np
import scipy.fft

from training.scenes.audio import RATE
from training.scenes.room import SIMULATOR_DELAY


def fft_of(x: np.ndarray) -> types.ModuleType:
    """The Fourier transforms for an array's kind."""
    if isinstance(x, np.ndarray):
        return scipy.fft
    import torch

    return torch.fft


def spectrum(x: np.ndarray, size: int) -> np.ndarray:
    return fft_of(x).rfft(x, size)


def heard(spectra: np.ndarray, size: int, samples: int) -> np.ndarray:
    """The first `samples` samples of the signals with these spectra, the simulator's delay taken
    off."""
    y = fft_of(spectra).irfft(spectra, size)
    return y[..., SIMULATOR_DELAY : SIMULATOR_DELAY + samples]


def transform_size(samples: int, taps: int) -> int:
    """A fast length at which nothing wraps around into the result."""
    return scipy.fft.next_fast_len(samples + taps - 1, real=True)


def convolve(x: np.ndarray, responses: np.ndarray) -> np.ndarray:
    """x [..., n] through responses [..., 3, taps]: [..., 3, n]."""
    size = transform_size(x.shape[-1], responses.shape[-1])
    product = spectrum(x, size)[..., None, :] * spectrum(responses, size)
    return heard(product, size, x.shape[-1])


def power(x: np.ndarray) -> np.ndarray:
    return (x * x).mean(-1)


def from_decibels(level: np.ndarray) -> np.ndarray:
    """Power ratio of a level in dB."""
    return 10.0 ** (level / 10.0)


def early_part(responses: np.ndarray, onset: np.ndarray, seconds: float) -> np.ndarray:
    """The responses [3, taps] up to `seconds` after each one's direct sound, with a 2 ms fade."""
    t = np.arange(responses.shape[-1]) - (np.asarray(onset)[:, None] + round(seconds * RATE))
    return responses * np.clip(1.0 - t / (0.002 * RATE), 0.0, 1.0).astype(np.float32)
