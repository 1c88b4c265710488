"""What the suppressors are trained for, on spectra and on the wave they resynthesise to.

Compressed magnitude and complex terms follow Ephrat et al. 2018 and Valin et al. 2020; the multi-resolution term
compares several transforms of the wave, so that no frame grid is favoured (Yamamoto et al. 2020).
"""

from __future__ import annotations

from collections.abc import Sequence

import numpy as np
import torch

from .models.spectrum import RealTransform, synthesise
from .shared import Config

COMPRESSION = 0.3
POWER_FLOOR = 1e-5  # of a signal at 0 dBFS; keeps the compressed gradient finite
AUDIBLE = 3e-3  # power of a target, relative to the microphone's, that has a signal-to-distortion ratio
SI_SDR_ENOUGH = 20.0  # dB
RESOLUTIONS = (256, 512, 2048)  # beside the network's own 1024


def compressed(spectrum: torch.Tensor) -> tuple[torch.Tensor, torch.Tensor]:
    """Magnitude to the power 0.3, and the complex value with that magnitude."""
    power = spectrum.real**2 + spectrum.imag**2 + POWER_FLOOR
    magnitude = power ** (COMPRESSION / 2)
    return magnitude, spectrum * power ** ((COMPRESSION - 1) / 2)


def spectral(
    estimate: torch.Tensor,
    target: torch.Tensor,
    complex_share: float,
    over_suppression: float | torch.Tensor,
    weight: torch.Tensor | None = None,
) -> torch.Tensor:
    """Mean squared difference of compressed spectra. Bins where the estimate lies under the target count
    over_suppression times, a number or one for each bin: speech taken away is worse than noise left."""
    m, c = compressed(estimate)
    m_target, c_target = compressed(target)
    w = 1 + (over_suppression - 1) * (m < m_target).to(m.dtype)
    if weight is not None:
        w = w * weight
    d = c - c_target
    return (w * ((1 - complex_share) * (m - m_target) ** 2 + complex_share * (d.real**2 + d.imag**2))).mean()


def multi_resolution(
    estimate: torch.Tensor,
    target: torch.Tensor,
    complex_share: float,
    over_suppression: float,
    sizes: Sequence[int] | np.ndarray = RESOLUTIONS,
) -> torch.Tensor:
    """spectral() of two waves [B, samples] at several frame sizes, averaged."""
    total = 0
    for size in sizes:
        window = torch.hann_window(size, device=estimate.device)
        # Spectra of every size have the level of a 1024-point frame, so that compression acts alike.
        scale = (1024 / size) ** 0.5
        both = RealTransform.apply(torch.cat([estimate, target]).unfold(-1, size, size // 2) * (window * scale))
        total = total + spectral(*both.chunk(2), complex_share, over_suppression)
    return total / len(sizes)


def suppression(
    estimate: torch.Tensor,
    target: torch.Tensor,
    level: torch.Tensor,
    config: Config,
    low_factors: torch.Tensor,
    weight: torch.Tensor | None = None,
    near: torch.Tensor | None = None,
    sizes: Sequence[int] | np.ndarray = RESOLUTIONS,
) -> torch.Tensor:
    """Loss of a suppressor's output.

    estimate, target: complex [B, frames, BINS], the estimate after mask, floor and low-bin factors; level [B]: RMS that
    the pair is divided by, so that quiet clips count like loud ones; low_factors [BINS]: the engine's fixed low-bin
    attenuation, which the target gets too: nothing is to be learnt there; weight [B, frames, BINS] or None; near, of
    that shape or None: share of the target in what came in, which config["near_kept"] adds weight to; sizes: of the other
    frames; one drawn for each batch is as good as all, and cheaper.
    """
    gain = (1 / level.clamp_min(1e-4))[:, None, None]
    estimate, target = estimate * gain, target * gain * low_factors
    first = int((low_factors < 1).sum())
    share, over = config["complex_share"], config["over_suppression"]
    kept = over if near is None else over + config["near_kept"] * near[..., first:]
    loss = spectral(estimate[..., first:], target[..., first:], share, kept, None if weight is None else weight[..., first:])
    estimate, target = synthesise(estimate), synthesise(target)
    loss = loss + config["multi_resolution"] * multi_resolution(estimate, target, share, over, sizes)
    audible = target.pow(2).mean(-1) > AUDIBLE
    if audible.any():
        ratio = si_sdr(estimate[audible], target[audible])
        loss = loss - config["si_sdr"] * ratio.clamp_max(SI_SDR_ENOUGH).mean()
    return loss


def si_sdr(estimate: torch.Tensor, target: torch.Tensor) -> torch.Tensor:
    """Scale-invariant signal-to-distortion ratio in dB, per row (Le Roux et al. 2019)."""
    target = target - target.mean(-1, keepdim=True)
    estimate = estimate - estimate.mean(-1, keepdim=True)
    scaled = (estimate * target).sum(-1, keepdim=True) / (target**2).sum(-1, keepdim=True).clamp_min(1e-9) * target
    return 10 * torch.log10((scaled**2).sum(-1) / ((estimate - scaled) ** 2).sum(-1).clamp_min(1e-12) + 1e-12)
