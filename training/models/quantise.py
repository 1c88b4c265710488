"""Quantisation of the wake-up network: activations as uint8 codes, weights as int8, one scale per tensor.

A code q stands for (q - zero_point) * scale. Halves round away from zero, as in the engine.
"""

from __future__ import annotations

import math

import torch
from torch import nn

CODES = 255
LARGEST_WEIGHT = 127
CALIBRATION_QUANTILE = 0.9999


def round_away(x: torch.Tensor) -> torch.Tensor:
    """Nearest whole number, halves away from zero; the gradient passes through."""
    rounded = torch.sign(x) * torch.floor(x.abs() + 0.5)
    return x + (rounded - x).detach()


def fake_weight(weight: torch.Tensor) -> torch.Tensor:
    """int8 weights as the floats they stand for."""
    scale = weight_scale(weight)
    return round_away(weight / scale).clamp(-LARGEST_WEIGHT, LARGEST_WEIGHT) * scale


def fake_bias(bias: torch.Tensor | None, weight: torch.Tensor, into: Quantiser) -> torch.Tensor | None:
    """Biases in whole steps of input scale times weight scale."""
    if bias is None:
        return None
    unit = into.scale * weight_scale(weight)
    return round_away(bias / unit) * unit


def weight_scale(weight: torch.Tensor) -> torch.Tensor:
    return weight.detach().abs().max().clamp_min(1e-8) / LARGEST_WEIGHT


class Quantiser(nn.Module):
    """One tensor's codes. mode: "float" passes values on (rectified where the codes start at zero), "observe" also
    widens the range to what it sees, "codes" rounds and limits as the engine does.

    rectified: zero point 0, so that the lower limit is the layer's ReLU. fixed: (scale, zero_point) not to be learnt.
    zero_first: the zero point is added before rounding (recurrent gates, layer norms), not after. guard: what the
    engine adds to a layer norm's scale before it divides.
    """

    def __init__(
        self, rectified: bool = False, fixed: tuple[float, int] | None = None, zero_first: bool = False, guard: float = 0.0
    ) -> None:
        super().__init__()
        self.guard = guard
        self.rectified, self.zero_first, self.fixed, self.mode = rectified, zero_first, fixed is not None, "float"
        scale, zero_point = fixed or (1.0, 0)
        self.register_buffer("scale", torch.tensor(float(scale)))
        self.register_buffer("zero_point", torch.tensor(float(zero_point)))
        self.register_buffer("low", torch.tensor(0.0))
        self.register_buffer("high", torch.tensor(0.0))

    def forward(self, x: torch.Tensor) -> torch.Tensor:
        if self.mode == "codes":
            shifted = x / (self.scale + self.guard)
            codes = round_away(shifted + self.zero_point) if self.zero_first else round_away(shifted) + self.zero_point
            return (codes.clamp(0, CODES) - self.zero_point) * self.scale
        if self.rectified:
            x = torch.relu(x)
        if self.mode == "observe" and not self.fixed:
            self.observe(x.detach())
        return x

    def observe(self, x: torch.Tensor) -> None:
        flat = x.flatten()
        flat = flat[torch.randint(len(flat), (min(len(flat), 100000),), device=x.device)]
        self.low = torch.minimum(self.low, torch.quantile(flat, 1 - CALIBRATION_QUANTILE))
        self.high = torch.maximum(self.high, torch.quantile(flat, CALIBRATION_QUANTILE))
        self.scale = ((self.high - self.low) / CODES).clamp_min(1e-6)
        self.zero_point = (-self.low / self.scale).round()

    def cleared(self) -> float:
        """What code 0 stands for: the contents of a cleared state."""
        return float(-self.zero_point * self.scale)


def set_mode(model: nn.Module, mode: str) -> None:
    for module in model.modules():
        if isinstance(module, Quantiser):
            module.mode = mode


def multiplier(value: float) -> tuple[int, int]:
    """value as (M0, M1), M0 * 2^-M1 with M0 below 2^24: the pair is stored in a table of floats."""
    mantissa, exponent = math.frexp(value)
    return min(round(mantissa * 2**24), 2**24 - 1), 24 - exponent
