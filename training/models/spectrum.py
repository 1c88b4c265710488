"""The short-time transform of both suppressors: 1024-point frames, 512-sample hops, perfect reconstruction."""

from __future__ import annotations

import math

import torch

FRAME, HOP, BINS = 1024, 512, 513
LOOKAHEAD = 4  # hops: the mask of step t is applied to the spectrum of step t - 4


def _windows() -> list[torch.Tensor]:
    n = torch.arange(FRAME, dtype=torch.float64)
    hann = 0.5 - 0.5 * torch.cos(2 * math.pi * n / FRAME)
    inverse = hann / (hann**2 + hann.roll(-HOP) ** 2)
    # The library's windows are these, rounded to six decimals.
    return [(w * 1e6).round().div(1e6).float() for w in (hann, inverse)]


ANALYSIS, SYNTHESIS = _windows()


class RealTransform(torch.autograd.Function):
    """torch.fft.rfft, whose backward pass takes twice the time of this one's real transform."""

    @staticmethod
    def forward(context: torch.autograd.function.FunctionCtx, x: torch.Tensor) -> torch.Tensor:
        context.size = x.shape[-1]
        return torch.fft.rfft(x)

    @staticmethod
    def backward(context: torch.autograd.function.FunctionCtx, gradient: torch.Tensor) -> torch.Tensor:
        half = gradient * 0.5  # but for the two bins without a mirror image, of which the real part counts
        half[..., 0] += half[..., 0]
        half[..., -1] += half[..., -1]
        return torch.fft.irfft(half, context.size, norm="forward")


def analyse(x: torch.Tensor) -> torch.Tensor:
    """x [..., steps * HOP] -> complex [..., steps, BINS]. Step t sees hops t - 1 and t; before the start is silence."""
    frames = torch.nn.functional.pad(x, (HOP, 0)).unfold(-1, FRAME, HOP)
    return RealTransform.apply(frames * ANALYSIS.to(x.device))


def synthesise(spectrum: torch.Tensor) -> torch.Tensor:
    """Complex [..., frames, BINS] -> [..., frames * HOP], one hop later than what analyse() was given."""
    frames = torch.fft.irfft(spectrum, n=FRAME) * SYNTHESIS.to(spectrum.device)
    first, second = frames[..., :HOP], frames[..., HOP:]
    return (first + torch.nn.functional.pad(second, (0, 0, 1, 0))[..., :-1, :]).flatten(-2)


def as_channels(spectrum: torch.Tensor) -> torch.Tensor:
    """Complex [B, steps, BINS] -> [B, 2, steps, 512]: real and imaginary parts as channels, the last bin dropped."""
    return torch.stack([spectrum.real, spectrum.imag], 1)[..., : BINS - 1]


def apply_mask(
    mask: torch.Tensor, spectrum: torch.Tensor, low_bins: int, low_factor: float, floor: float = 0.0
) -> torch.Tensor:
    """Scales real and imaginary parts separately, as the engines do.

    mask [B, 2, frames, 512] in [0, 1], spectrum complex [B, frames, BINS] -> complex [B, frames, BINS]. The last bin's
    mask is sigmoid(0). The lowest bins are attenuated by a fixed factor on top of mask and floor.
    """
    mask = torch.nn.functional.pad(mask, (0, 1), value=0.5).clamp_min(floor)
    return torch.complex(mask[:, 0] * spectrum.real, mask[:, 1] * spectrum.imag) * low_bin_factors(
        low_bins, low_factor, spectrum.device
    )


def low_bin_factors(low_bins: int, low_factor: float, device: torch.device | str | None = None) -> torch.Tensor:
    factors = torch.ones(BINS, device=device)
    factors[:low_bins] = low_factor
    return factors
