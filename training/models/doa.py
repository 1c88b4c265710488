"""The direction network (doa/): a vector per 30 ms whose heading is the talker's and whose length is confidence."""

from __future__ import annotations

import torch
from torch import nn
from torch.nn import functional as F

from . import features
from .layers import limited_sigmoid, limited_tanh, run_gru

MEL_HISTORY = 240  # the filterbank's frames end with the block, like the correlation's
UNITS, MEMORY, TAPS, LAYERS = 164, 108, 6, 4
STATE = 64
GCC_DEVIATION = 0.05  # of the correlations: noise about 0.03, a dry talker's peak up to 0.5


def inputs(waves: torch.Tensor) -> torch.Tensor:
    """int16-valued waves [B, 3, samples] -> feature map [B, 4, frames, 40]: three microphone pairs, then log-mel of the
    first microphone."""
    mel = features.log_mel(waves[:, 0], MEL_HISTORY)
    return torch.cat([features.gcc_phat(waves), mel[:, None]], 1)


class MemoryLayer(nn.Module):
    """Projection plus a filter over its six previous steps, then ReLU and layer normalisation without epsilon: should
    every unit be equal, the result is not a number, here as in the engine."""

    def __init__(self, size: int) -> None:
        super().__init__()
        self.project = nn.Linear(size, MEMORY, bias=False)
        self.taps = nn.Parameter(torch.randn(MEMORY, TAPS) * TAPS**-0.5)  # oldest step first
        self.output = nn.Linear(MEMORY, UNITS)
        nn.init.uniform_(self.output.bias, 0.2, 0.8)  # keeps some units above zero, and with them the variance
        self.norm = nn.LayerNorm(UNITS, eps=0.0)

    def forward(self, x: torch.Tensor) -> torch.Tensor:
        p = self.project(x)
        past = F.pad(p, (0, 0, TAPS, 0))
        memory = sum(past[:, k : k + p.shape[1]] * self.taps[:, k] for k in range(TAPS))
        return self.norm(F.relu(self.output(p + memory)))


class DirectionNetwork(nn.Module):
    def __init__(self, mel_mean: float = 10.0, mel_deviation: float = 5.0) -> None:
        super().__init__()
        self.register_buffer("mean", torch.tensor([0.0, 0.0, 0.0, mel_mean])[:, None, None])
        deviation = [GCC_DEVIATION] * 3 + [mel_deviation]
        self.register_buffer("deviation", torch.tensor(deviation)[:, None, None])
        separable = lambda i, o, kernel, stride: nn.ModuleList(
            [nn.Conv2d(i, i, kernel, stride, groups=i, bias=False), nn.Conv2d(i, o, 1)]
        )
        self.conv1 = nn.Conv2d(4, 16, (2, 4), (1, 2))
        self.conv2, self.conv3 = separable(16, 28, (2, 4), (1, 2)), separable(28, 36, (2, 4), (1, 2))
        self.conv4 = separable(36, STATE, (3, 3), (3, 3))  # folds a block's three frames into one step
        self.gru = nn.GRU(STATE, STATE, batch_first=True)
        self.memory = nn.ModuleList(MemoryLayer(UNITS if i else STATE) for i in range(LAYERS))
        self.output = nn.Linear(UNITS, 2)
        self.keep_variance()

    def keep_variance(self) -> None:
        """The framework's initial weights shrink a signal at every layer: after seven of them the recurrent layer would
        hear next to nothing, and a thousand steps would pass before anything is learnt (He et al. 2015)."""
        nn.init.kaiming_normal_(self.conv1.weight, nonlinearity="relu")
        nn.init.zeros_(self.conv1.bias)
        for depthwise, pointwise in (self.conv2, self.conv3, self.conv4):
            nn.init.kaiming_normal_(depthwise.weight, nonlinearity="linear")
            nn.init.kaiming_normal_(pointwise.weight, nonlinearity="relu")
            nn.init.zeros_(pointwise.bias)

    def forward(self, x: torch.Tensor, deployed: bool = False) -> torch.Tensor:
        """[B, 4, frames, 40] -> [B, frames / 3, 2]: x, y in -1..1."""
        earlier = lambda maps: F.pad(maps, (0, 0, 1, 0))  # one frame of zeros before the start
        x = F.relu(self.conv1((earlier(x) - self.mean) / self.deviation))
        for depthwise, pointwise in (self.conv2, self.conv3):
            x = F.relu(pointwise(depthwise(earlier(x))))
        depthwise, pointwise = self.conv4
        x = F.relu(pointwise(depthwise(x)))[..., 0].transpose(1, 2)
        x = run_gru(self.gru, x, limited_sigmoid, lambda v: limited_tanh(v, 10)) if deployed else self.gru(x)[0]
        for layer in self.memory:
            x = layer(x)
        return torch.tanh(self.output(x))

    @torch.no_grad()
    def tables(self) -> dict[str, torch.Tensor]:
        """The library's tables. The input normalisation goes into the first layer."""
        scaled = self.conv1.weight / self.deviation
        tables = {"ring_conv1_weight": scaled, "ring_conv1_bias": self.conv1.bias - (scaled * self.mean).sum((1, 2, 3))}
        for i, (depthwise, pointwise) in enumerate((self.conv2, self.conv3, self.conv4), 2):
            tables |= {
                f"ring_conv{i}_1_weight": depthwise.weight,
                f"ring_conv{i}_2_weight": pointwise.weight,
                f"ring_conv{i}_2_bias": pointwise.bias,
            }
        tables |= {f"ring_gru_{name}": p for name, p in self.gru.named_parameters()}
        for i, layer in enumerate(self.memory, 1):
            tables |= {
                f"ring_d{i}_conv_in": layer.project.weight,
                f"ring_d{i}_conv_left": layer.taps,
                f"ring_d{i}_conv_out": layer.output.weight,
                f"ring_d{i}_out_bias": layer.output.bias,
                f"ring_ln{i}_weight": layer.norm.weight,
                f"ring_ln{i}_bias": layer.norm.bias,
            }
        return tables | {"ring_fc_weight": self.output.weight, "ring_fc_bias": self.output.bias}

    def load_blocks(self, tables: dict[str, torch.Tensor]) -> None:
        """What of tables() is not a parameter as it stands: the first layer, normalisation taken out again."""
        scaled = tables["ring_conv1_weight"].view_as(self.conv1.weight)
        self.conv1.weight.copy_(scaled * self.deviation)
        self.conv1.bias.copy_(tables["ring_conv1_bias"] + (scaled * self.mean).sum((1, 2, 3)))
