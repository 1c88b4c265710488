"""Layers both suppressors are made of."""

from __future__ import annotations

from collections.abc import Callable, Mapping

import numpy as np
import torch
from torch import nn
from torch.nn import functional as F

Activation = Callable[[torch.Tensor], torch.Tensor]
BatchNorm = nn.BatchNorm1d | nn.BatchNorm2d


def fast_exp(x: torch.Tensor) -> torch.Tensor:
    """The engines' exponential, (1 + x/1024)^1024, by ten squarings: 0.05 % off at |x| = 1, 5 % at 10."""
    y = 1 + x / 1024
    for _ in range(10):
        y = y * y
    return y


def fast_sigmoid(x: torch.Tensor) -> torch.Tensor:
    """1 above 10, 0 below -10, else by fast_exp(); the clamp inside keeps the unused branch's gradient finite."""
    y = 1 / (1 + fast_exp(-x.clamp(-10, 10)))
    return torch.where(x > 10, torch.ones_like(y), torch.where(x < -10, torch.zeros_like(y), y))


def fast_tanh(x: torch.Tensor) -> torch.Tensor:
    e = fast_exp(2 * x.clamp(-10, 10))
    y = (e - 1) / (e + 1)
    return torch.where(x > 10, torch.ones_like(y), torch.where(x < -10, -torch.ones_like(y), y))


def limited_sigmoid(x: torch.Tensor) -> torch.Tensor:
    return torch.where(x > 10, torch.ones_like(x), torch.where(x < -10, torch.zeros_like(x), torch.sigmoid(x)))


def limited_tanh(x: torch.Tensor, limit: float) -> torch.Tensor:
    return torch.where(x > limit, torch.ones_like(x), torch.where(x < -limit, -torch.ones_like(x), torch.tanh(x)))


def run_gru(gru: nn.GRU, x: torch.Tensor, sigmoid: Activation, tanh: Activation) -> torch.Tensor:
    """A one-layer nn.GRU over x [B, time, inputs] with activations of one's own, from a zero state."""
    gates_x = x @ gru.weight_ih_l0.T + gru.bias_ih_l0
    h, outputs = x.new_zeros(x.shape[0], gru.hidden_size), []
    for gi in gates_x.unbind(1):
        gh = h @ gru.weight_hh_l0.T + gru.bias_hh_l0
        (ir, iz, i_n), (hr, hz, hn) = gi.chunk(3, -1), gh.chunk(3, -1)
        r, z = sigmoid(ir + hr), sigmoid(iz + hz)
        n = tanh(i_n + r * hn)
        h = (1 - z) * n + z * h
        outputs.append(h)
    return torch.stack(outputs, 1)


class CausalConv(nn.Module):
    """Convolution over (time, frequency) that sees only past frames, then normalisation and PReLU where asked for.

    Normalisation exists in training only: fold() moves it into weight and bias, which are the exported tables.
    """

    bfloat16 = False  # the products of training; everything else stays float32

    def __init__(
        self, inputs: int, outputs: int, kernel: tuple[int, int], stride: int = 1, activation: bool = False, norm: bool = False
    ) -> None:
        super().__init__()
        self.conv = nn.Conv2d(inputs, outputs, kernel, stride=(1, stride))
        self.norm = nn.BatchNorm2d(outputs, momentum=0.02) if norm else None
        self.prelu = nn.PReLU(outputs) if activation else None

    def forward(self, x: torch.Tensor) -> torch.Tensor:
        x = F.pad(x, (1, 1, self.conv.kernel_size[0] - 1, 0))
        with torch.autocast(x.device.type, torch.bfloat16, enabled=self.bfloat16 and self.training):
            x = self.convolve(x)
        x = x.float()
        if self.norm is not None:
            x = self.norm(x)
        return x if self.prelu is None else self.prelu(x)

    def convolve(self, padded: torch.Tensor) -> torch.Tensor:
        return self.conv(padded)

    @torch.no_grad()
    def fold(self) -> None:
        if self.norm is None:
            return
        scale, shift = folded(self.norm)
        self.conv.weight *= scale[:, None, None, None]
        self.conv.bias.mul_(scale).add_(shift)
        self.norm = None


class GruBlock(nn.Module):
    """x + affine(Linear(ReLU(GRU(x)))), along time or along frequency. x: [B, time, frequency, channels]."""

    def __init__(self, channels: int, axis: str, affine: bool, sigmoid: Activation, tanh: Activation) -> None:
        super().__init__()
        self.axis, self.sigmoid, self.tanh = axis, sigmoid, tanh
        self.gru = nn.GRU(channels, channels, batch_first=True)
        self.linear = nn.Linear(channels, channels)
        self.norm = nn.BatchNorm1d(channels, momentum=0.02) if affine else None
        self.deployed = False

    def forward(self, x: torch.Tensor) -> torch.Tensor:
        sequences = x.transpose(1, 2) if self.axis == "time" else x
        h = self.run(sequences.flatten(0, 1))
        h = self.linear(F.relu(h))
        if self.norm is not None:
            h = self.norm(h.flatten(0, 1)).view_as(h)
        h = h.view(sequences.shape)
        return x + (h.transpose(1, 2) if self.axis == "time" else h)

    def run(self, x: torch.Tensor) -> torch.Tensor:
        if not self.deployed:
            return self.gru(x)[0]
        return run_gru(self.gru, x, self.sigmoid, self.tanh)

    def affine(self) -> tuple[torch.Tensor, torch.Tensor]:
        """Scale and shift that follow the linear layer."""
        return folded(self.norm)


@torch.no_grad()
def folded(norm: BatchNorm) -> tuple[torch.Tensor, torch.Tensor]:
    """A batch normalisation with its running statistics, as (scale, shift)."""
    scale = norm.weight / torch.sqrt(norm.running_var + norm.eps)
    return scale, norm.bias - norm.running_mean * scale


@torch.no_grad()
def set_affine(norm: BatchNorm, scale: torch.Tensor, shift: torch.Tensor) -> None:
    """The inverse of folded(): statistics of a standard normal input, which training must leave as they are."""
    norm.running_mean.zero_()
    norm.running_var.fill_(1 - norm.eps)
    norm.weight.copy_(scale.view(-1))
    norm.bias.copy_(shift.view(-1))


def shuffle(y: torch.Tensor) -> torch.Tensor:
    """[B, 2C, T, F] -> [B, C, T, 2F]: the first half of the channels gives even positions, the second half odd ones."""
    b, c, t, f = y.shape
    return y.view(b, 2, c // 2, t, f).permute(0, 2, 3, 4, 1).reshape(b, c // 2, t, 2 * f)


def deploy(model: nn.Module) -> nn.Module:
    """Turns a trained model in place into what the engine computes: normalisation folded, the engine's activations."""
    model.eval()
    for module in model.modules():
        if isinstance(module, CausalConv):
            module.fold()
        elif isinstance(module, GruBlock):
            module.deployed = True
    return model


# ---- tables ---------------------------------------------------------------------------------------------------------


def conv_tables(layer: CausalConv, weight: str, bias: str, prelu: str | None = None) -> dict[str, torch.Tensor]:
    tables = {weight: layer.conv.weight, bias: layer.conv.bias}
    if prelu:
        tables[prelu] = layer.prelu.weight
    return tables


def gru_gates(gru: nn.GRU) -> tuple[tuple[torch.Tensor, ...], tuple[torch.Tensor, ...], torch.Tensor]:
    """Input and recurrent weights per gate (r, z, n), and the four bias vectors in the engines' order.

    The engines add the two biases of r and z, of which only the sum matters; the new gate keeps them apart, its second
    one stands inside the product with r.
    """
    w_i, w_h = gru.weight_ih_l0.chunk(3), gru.weight_hh_l0.chunk(3)
    b_i, b_h = gru.bias_ih_l0.chunk(3), gru.bias_hh_l0.chunk(3)
    return w_i, w_h, torch.cat([b_i[0] + b_h[0], b_i[1] + b_h[1], b_i[2], b_h[2]])


@torch.no_grad()
def load_gru(gru: nn.GRU, w_i: torch.Tensor, w_h: torch.Tensor, bias: torch.Tensor) -> None:
    """The inverse of gru_gates(): w_i and w_h [3 H, H]."""
    h = gru.hidden_size
    gru.weight_ih_l0.copy_(w_i)
    gru.weight_hh_l0.copy_(w_h)
    gru.bias_ih_l0.copy_(bias[: 3 * h])
    gru.bias_hh_l0.copy_(torch.cat([torch.zeros(2 * h), bias[3 * h :]]))


@torch.no_grad()
def load_tables(model: nn.Module, tables: Mapping[str, np.ndarray]) -> None:
    """Starts a model without normalisation from exported tables: the inverse of its tables()."""
    tables = {name: torch.from_numpy(values) for name, values in tables.items()}
    for name, own in model.tables().items():
        if isinstance(own, nn.Parameter):
            own.copy_(tables[name].view_as(own))
    model.load_blocks(tables)
