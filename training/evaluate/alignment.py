"""Delays: outputs are compared with their targets sample for sample."""

from __future__ import annotations

import numpy as np
from scipy import fft


def find_delay(x: np.ndarray, y: np.ndarray, most: int) -> int:
    """Samples by which y lags x, 0..most: the peak of the cross-correlation, phase transform.

    All frequencies where x is within 40 dB of its loudest count the same, so that a high-pass that
    turns the strong low ones does not move the answer.
    """
    size = fft.next_fast_len(len(x) + len(y), real=True)
    before, after = fft.rfft(x, size), fft.rfft(y, size)
    heard = np.abs(before) > 1e-2 * np.abs(before).max()
    cross = after * np.conj(before) * heard
    return int(np.argmax(fft.irfft(cross / (np.abs(cross) + 1e-20), size)[: most + 1]))


def advance(y: np.ndarray, delay: int, samples: int) -> np.ndarray:
    """The `samples` samples of y [..., n] from `delay` on, zeros behind its end."""
    part = y[..., delay : delay + samples]
    missing = samples - part.shape[-1]
    return np.pad(part, [(0, 0)] * (part.ndim - 1) + [(0, missing)])
