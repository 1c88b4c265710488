"""The wake-up network (wakeup/), float or with the engine's rounding: log-mel frames to 146 syllable scores per 30 ms."""

from __future__ import annotations

from collections.abc import Iterable

import torch
from torch import nn
from torch.nn import functional as F

from ..device_facts import BLANK, BLANK_GAIN, CLASSES, FILLER, FILLER_GAIN
from ..shared import Tables
from . import features, kws_tables
from .quantise import Quantiser, fake_bias, fake_weight

MEL_HISTORY = 240
STATE, CHANNELS, MEMORY, WIDTH, LAYERS = 128, 164, 8, 256, 4
FEATURE_MEAN, FEATURE_SPREAD = 10.0, 4.0  # nats, of speech at usual levels
FEATURE_CODES = (0.1, 20)  # -2..23.5 nats; silence lies below and becomes code 0
STATE_CODES = (2 / 255, 128)
NORM_GUARD = 1e-7


def inputs(wave: torch.Tensor) -> torch.Tensor:
    """int16-valued wave [B, samples] -> [B, frames, 40]."""
    return features.log_mel(wave, MEL_HISTORY)


def as_codes(weight: torch.Tensor, bias: torch.Tensor | None, into: Quantiser) -> tuple[torch.Tensor, torch.Tensor | None]:
    """Weight and bias as the integers of a layer stand for them; as they are while codes are not in use. into: the
    Quantiser of the layer's input."""
    return (fake_weight(weight), fake_bias(bias, weight, into)) if into.mode == "codes" else (weight, bias)


class Conv(nn.Module):
    """A convolution's weights as codes where its output is."""

    def __init__(
        self,
        into: Quantiser,
        inputs: int,
        outputs: int,
        kernel: int | tuple[int, int],
        stride: int | tuple[int, int] = 1,
        per_channel: bool = False,
        rectified: bool = False,
    ) -> None:
        super().__init__()
        # A per-channel layer has no bias: its input has zero point 0, so there is nothing to absorb either.
        self.conv = nn.Conv2d(inputs, outputs, kernel, stride, groups=inputs if per_channel else 1, bias=not per_channel)
        self.into, self.out = [into], Quantiser(rectified)  # the list keeps another layer's module out of this one

    def forward(self, x: torch.Tensor) -> torch.Tensor:
        weight, bias = as_codes(self.conv.weight, self.conv.bias, self.into[0])
        return self.out(F.conv2d(x, weight, bias, self.conv.stride, groups=self.conv.groups))


def separable(before: Conv, inputs: int, outputs: int, kernel: tuple[int, int], stride: tuple[int, int]) -> nn.ModuleList:
    per_channel = Conv(before.out, inputs, inputs, kernel, stride, per_channel=True)
    return nn.ModuleList([per_channel, Conv(per_channel.out, inputs, outputs, 1, rectified=True)])


class Dense(nn.Module):
    def __init__(self, into: Quantiser, inputs: int, outputs: int, rectified: bool = False) -> None:
        super().__init__()
        self.linear, self.into, self.out = nn.Linear(inputs, outputs), [into], Quantiser(rectified)

    def forward(self, x: torch.Tensor) -> torch.Tensor:
        return self.out(F.linear(x, *as_codes(self.linear.weight, self.linear.bias, self.into[0])))


class Recurrent(nn.Module):
    """The engine clears the state to code 0, which stands for about -1, not for 0."""

    def __init__(self, into: Quantiser) -> None:
        super().__init__()
        self.into = [into]
        self.gru = nn.GRU(STATE, STATE, batch_first=True)
        self.input_gates = nn.ModuleList(Quantiser(zero_first=True) for _ in "rzn")
        self.state_gates = nn.ModuleList(Quantiser(zero_first=True) for _ in "rzn")
        self.out = Quantiser(fixed=STATE_CODES, zero_first=True)

    def forward(self, x: torch.Tensor) -> torch.Tensor:
        h = x.new_full((x.shape[0], STATE), self.out.cleared())
        if self.out.mode == "float":
            return self.gru(x, h[None])[0]
        g, outputs = self.gru, []
        per_gate = lambda weight, bias, into: [as_codes(w, b, into) for w, b in zip(weight.chunk(3), bias.chunk(3))]
        recurrent = per_gate(g.weight_hh_l0, g.bias_hh_l0, self.out)
        from_input = [
            q(F.linear(x, *layer)) for q, layer in zip(self.input_gates, per_gate(g.weight_ih_l0, g.bias_ih_l0, self.into[0]))
        ]
        for t in range(x.shape[1]):
            h_r, h_z, h_n = (q(F.linear(h, *layer)) for q, layer in zip(self.state_gates, recurrent))
            i_r, i_z, i_n = (gate[:, t] for gate in from_input)
            r, z = torch.sigmoid(i_r + h_r), torch.sigmoid(i_z + h_z)
            h = self.out((1 - z) * torch.tanh(i_n + r * h_n) + z * h)
            outputs.append(h)
        return torch.stack(outputs, 1)


class MemoryBlock(nn.Module):
    """Dense, a filter over each channel's eight previous steps added on, dense and ReLU, layer norm without epsilon."""

    def __init__(self, into: Quantiser, size: int) -> None:
        super().__init__()
        self.into = Dense(into, size, CHANNELS)
        self.taps = nn.Parameter(torch.randn(CHANNELS, MEMORY) * 0.1)  # oldest step first
        self.left, self.sum = Quantiser(), Quantiser()
        self.outof = Dense(self.sum, CHANNELS, WIDTH, rectified=True)
        nn.init.uniform_(self.outof.linear.bias, 0.1, 0.5)
        self.norm, self.out = nn.LayerNorm(WIDTH, eps=0.0), Quantiser(zero_first=True, guard=NORM_GUARD)

    def forward(self, x: torch.Tensor) -> torch.Tensor:
        p = self.into(x)
        codes = self.out.mode == "codes"
        past = F.pad(p.transpose(1, 2), (MEMORY, 0), value=self.into.out.cleared() if codes else 0.0)[..., :-1]
        taps = fake_weight(self.taps) if codes else self.taps
        memory = self.left(F.conv1d(past, taps[:, None], groups=CHANNELS).transpose(1, 2))
        if codes:  # the engine brings the second summand to the first one's scale, in whole steps
            scale = self.into.out.scale
            memory = memory + (torch.round(memory / scale) * scale - memory).detach()
        return self.out(self.norm(self.outof(self.sum(p + memory))))


class SyllableNetwork(nn.Module):
    def __init__(self) -> None:
        super().__init__()
        self.features = Quantiser(fixed=FEATURE_CODES, zero_first=True)
        self.conv1 = Conv(self.features, 1, 16, (2, 4), (1, 2), rectified=True)
        self.conv2 = separable(self.conv1, 16, 48, (2, 4), (1, 2))
        self.conv3 = separable(self.conv2[1], 48, 64, (2, 4), (1, 2))
        self.conv4 = separable(self.conv3[1], 64, STATE, (3, 3), (3, 3))  # folds the block's three frames
        self.gru = Recurrent(self.conv4[1].out)
        self.memory = nn.ModuleList()
        for i in range(LAYERS):
            self.memory.append(MemoryBlock(self.memory[-1].out, WIDTH) if i else MemoryBlock(self.gru.out, STATE))
        self.output = Dense(self.memory[-1].out, WIDTH, CLASSES)
        self.spread()

    @torch.no_grad()
    def spread(self) -> None:
        """Starts with activations of about unit spread: the framework's convolutions would leave a hundredth of it."""
        for module in self.modules():
            if isinstance(module, nn.Conv2d):
                nn.init.kaiming_normal_(module.weight, nonlinearity="relu")
        first = self.conv1.conv
        first.weight /= FEATURE_SPREAD
        first.bias.copy_(-FEATURE_MEAN * first.weight.sum((1, 2, 3)))

    def forward(self, x: torch.Tensor) -> torch.Tensor:
        """Features [B, frames, 40] -> scores [B, frames / 3, 146]."""
        low = self.features.cleared()
        x = self.features(x.clamp(low, low + 255 * float(self.features.scale)))[:, None]
        x = self.conv1(F.pad(x, (0, 0, 1, 0), value=low))
        for per_channel, pointwise in (self.conv2, self.conv3):
            x = pointwise(per_channel(F.pad(x, (0, 0, 1, 0))))
        per_channel, pointwise = self.conv4
        x = self.gru(pointwise(per_channel(x))[..., 0].transpose(1, 2))
        for block in self.memory:
            x = block(x)
        return self.output(x)

    @torch.no_grad()
    def favour(self, classes: Iterable[int], nats: float) -> None:
        """Adds to the scores of some syllables, a phrase's: its operating point."""
        self.output.linear.bias[list(set(classes))] += nats

    def tables(self) -> Tables:
        """The library's tables; the quantisers must be calibrated."""
        return kws_tables.tables(self)


def posteriors(scores: torch.Tensor) -> torch.Tensor:
    """Log posteriors as the engine forms them: positive filler and blank scores are damped."""
    gain = torch.ones(CLASSES, device=scores.device)
    gain[FILLER], gain[BLANK] = FILLER_GAIN, BLANK_GAIN
    return torch.log_softmax(torch.where(scores > 0, scores * gain, scores), -1)
