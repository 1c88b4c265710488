"""Power spectra as the engine's features see them, in numpy and at any hop, and voices bent in them."""

from __future__ import annotations

import functools

import numpy as np
import scipy.fft
from numpy.lib.stride_tricks import sliding_window_view

from ..device_facts import FULL_SCALE
from ..models import features

BINS = features.MEL_FFT // 2 + 1
FEATURE_HOP = features.HOP
PITCH_QUEFRENCY = (30, 44)  # samples: the spectral envelope is below, the harmonics of up to 360 Hz are above


@functools.cache
def mel() -> np.ndarray:
    return features.MEL.numpy()


@functools.cache
def level_weights() -> np.ndarray:
    """Mel energies times these, summed, are the power of the wave: pre-emphasis, window and transform undone."""
    centre = (mel() * np.arange(BINS)[:, None]).sum(0) / mel().sum(0)
    emphasis = np.abs(1 - features.PRE_EMPHASIS * np.exp(-2j * np.pi * centre / features.MEL_FFT)) ** 2
    frame = features.MEL_FFT / 2 * float((features.WINDOW**2).sum()) * FULL_SCALE**2
    return np.float32(1 / emphasis / frame)


def power(x: np.ndarray, hop: int) -> np.ndarray:
    """x of full scale 1.0 -> power spectra [frames, 257]; frame i is centred on sample i hop."""
    half = features.MEL_FRAME // 2
    frames = sliding_window_view(np.pad(np.float32(x) * np.float32(FULL_SCALE), half), features.MEL_FRAME)[::hop]
    frames = frames - frames.mean(-1, keepdims=True)
    frames[:, 1:] -= features.PRE_EMPHASIS * frames[:, :-1].copy()
    spectrum = scipy.fft.rfft(frames * features.WINDOW.numpy(), features.MEL_FFT)
    return spectrum.real**2 + spectrum.imag**2


@functools.cache
def envelope() -> np.ndarray:
    """[257, 257]: log spectrum -> its smooth part."""
    low, high = PITCH_QUEFRENCY
    lifter = 0.5 + 0.5 * np.cos(np.pi * np.clip((np.arange(BINS) - low) / (high - low), 0, 1))
    cosines = scipy.fft.dct(np.eye(BINS), type=1, axis=0)
    return np.float32(scipy.fft.idct(lifter[:, None] * cosines, type=1, axis=0))


def stretched(matrix: np.ndarray, factor: float) -> np.ndarray:
    """The rows of `matrix`, functions of frequency, moved to `factor` times their frequency (one for all bins, or one for
    each); mirrored at the top."""
    at = np.arange(BINS) / factor
    at = np.where(at > BINS - 1, 2 * (BINS - 1) - at, at).clip(0, BINS - 1)
    low = np.minimum(at.astype(int), BINS - 2)
    part = np.float32(at - low)[:, None]
    return matrix[low] * (1 - part) + matrix[low + 1] * part


def voice(formants: float, pitch: float, voicing: float) -> np.ndarray:
    """[257, 257]: log spectra @ this have formants (by one factor or one per bin) and pitch times these factors, harmonics
    `voicing` as marked."""
    smooth = envelope()
    return (stretched(smooth, formants) + voicing * stretched(np.eye(BINS, dtype=np.float32) - smooth, pitch)).T
