"""The features of the wake-up engine and of the direction estimator, from int16-valued waves."""

from __future__ import annotations

import math

import torch

from params import mel_filters

from ..device_facts import BLOCK, FRAMES_PER_BLOCK, HOP

MEL_FRAME, MEL_FFT, MEL_BANDS = 400, 512, 40
PRE_EMPHASIS = 0.97
SILENCE = -36.043652  # stored for a band without energy: ln(2^-52)
GCC_FRAME, GCC_FFT, LAGS = 512, 1024, 40
PAIRS = ((0, 1), (0, 2), (1, 2))


def _hamming() -> torch.Tensor:
    half = 0.54 - 0.46 * torch.cos(2 * math.pi * torch.arange(MEL_FRAME // 2, dtype=torch.float64) / (MEL_FRAME - 1))
    return torch.cat([half, half.flip(0)]).float()


def _mel_matrix() -> torch.Tensor:
    """[257, 40]; bands hold the bins strictly inside their triangle."""
    points = [mel_filters.mel(k * mel_filters.BIN_HZ) for k in range(MEL_FFT // 2 + 1)]
    low, high = mel_filters.mel(mel_filters.LOW_HZ), mel_filters.mel(mel_filters.HIGH_HZ)
    edges = [low + (high - low) * i / (MEL_BANDS + 1) for i in range(MEL_BANDS + 2)]
    matrix, weights = torch.zeros(len(points), MEL_BANDS), iter(mel_filters.weights())
    for band, (left, right) in enumerate(zip(edges, edges[2:])):
        for k, p in enumerate(points):
            if left < p < right:
                matrix[k, band] = next(weights)
    return matrix


WINDOW, MEL = _hamming(), _mel_matrix()


def log_mel(wave: torch.Tensor, history: int) -> torch.Tensor:
    """wave [..., samples], whole blocks, int16 values as floats -> [..., frames, 40], three frames per block. A block's
    first frame starts `history` samples before the block; before the start is silence."""
    padded = torch.nn.functional.pad(wave, (history, 0))
    frames = padded.unfold(-1, MEL_FRAME, HOP)[..., : wave.shape[-1] // HOP, :]
    frames = frames - frames.mean(-1, keepdim=True)
    # The first sample of a frame has no predecessor in it and stays as it is.
    frames = torch.cat([frames[..., :1], frames[..., 1:] - PRE_EMPHASIS * frames[..., :-1]], -1)
    spectrum = torch.fft.rfft(frames * WINDOW.to(wave.device), n=MEL_FFT)
    energy = (spectrum.real**2 + spectrum.imag**2) @ MEL.to(wave.device)
    return torch.where(energy > 0, energy.clamp_min(1e-30).log(), torch.full_like(energy, SILENCE))


def gcc_phat(waves: torch.Tensor, lags: int = LAGS) -> torch.Tensor:
    """waves [B, 3, samples] -> [B, 3 pairs, frames, lags]: lags -20..19 of the phase-transformed cross-correlation
    (Knapp and Carter 1976), frames of 512 samples without a window, ending with their block. lags: LAGS, or one more
    for lag 20 too."""
    history = GCC_FRAME + (FRAMES_PER_BLOCK - 1) * HOP - BLOCK
    frames = torch.nn.functional.pad(waves, (history, 0)).unfold(-1, GCC_FRAME, HOP)
    spectra = torch.fft.rfft(frames, n=GCC_FFT)
    pairs = []
    for a, b in PAIRS:
        cross = spectra[:, a] * spectra[:, b].conj()
        cross = cross / cross.abs().clamp_min(1e-8)
        c = torch.fft.irfft(cross, n=GCC_FFT)
        pairs.append(torch.cat([c[..., -LAGS // 2 :], c[..., : lags - LAGS // 2]], -1))
    return torch.stack(pairs, 1)
