"""The noise suppressor (denoise/): masks for the real and imaginary parts of the spectrum of four hops ago.

Three microphones run through one set of recurrent states, as in the product: per 1024-sample frame two steps of
microphone 1, two of microphone 2, two of microphone 3. The convolutions' histories are each microphone's own.
"""

from __future__ import annotations

import torch
from torch import nn
from torch.nn import functional as F

from . import spectrum
from .layers import CausalConv, GruBlock, conv_tables, fast_sigmoid, fast_tanh, gru_gates, load_gru, set_affine, shuffle

LOW_BINS, LOW_FACTOR = 8, 0.15
STEPS_PER_FRAME = 2
ENCODER = [(2, 16), (16, 32), (32, 32), (32, 32)]
DECODER = [(32, 32), (16, 32), (16, 16), (8, 4)]
CHANNELS, BLOCKS = 32, 3


class FirstConv(CausalConv):
    """The engine sums 20 products over rows of 18: the last two pair the first two values of the next position's patch
    with the first two weights of the next channel's row. Holding those two weights of every row at zero makes the
    over-read contribute nothing, at any position, and costs 32 parameters.
    """

    def convolve(self, padded: torch.Tensor) -> torch.Tensor:
        return F.conv2d(padded, self.weight(), self.conv.bias, self.conv.stride)

    def weight(self) -> torch.Tensor:
        free = torch.ones_like(self.conv.weight)
        free[:, 0, 0, :2] = 0
        return self.conv.weight * free


class NoiseSuppressor(nn.Module):
    def __init__(self, norm: bool = True) -> None:
        super().__init__()
        self.encoder = nn.ModuleList(
            (FirstConv if i == 0 else CausalConv)(*shape, (3, 3), stride=2, activation=True, norm=norm)
            for i, shape in enumerate(ENCODER)
        )
        self.blocks = nn.ModuleList(
            GruBlock(CHANNELS, axis, True, fast_sigmoid, fast_tanh) for _ in range(BLOCKS) for axis in ("time", "freq")
        )
        self.decoder = nn.ModuleList(CausalConv(*shape, (3, 3)) for shape in DECODER)

    def mask(self, spectra: torch.Tensor, microphones: int = 1) -> torch.Tensor:
        """spectra: complex [B * microphones, steps, BINS], steps even -> mask [B * microphones, 2, steps - 4, 512].

        Microphones of one scene are consecutive in the batch and share the recurrent states. Mask t belongs to
        spectrum t.
        """
        x = spectrum.as_channels(spectra)
        for layer in self.encoder:
            x = layer(x)[:, :, 1:]  # a layer's first step only fills its history
        x = interleave(x.permute(0, 2, 3, 1), microphones)
        for block in self.blocks:
            x = block(x)
        x = separate(x, microphones).permute(0, 3, 1, 2)
        for layer in self.decoder:
            x = shuffle(layer(x))
        return fast_sigmoid(x)

    def forward(self, wave: torch.Tensor, microphones: int = 1, floor: float = 0.0) -> torch.Tensor:
        """[B * microphones, samples], samples a multiple of 1024 -> complex spectra [B * microphones, steps - 4, BINS],
        cleaned; synthesise() makes them audible. Frame t belongs to frame t of analyse(wave)."""
        spectra = spectrum.analyse(wave)
        mask = self.mask(spectra, microphones)
        return spectrum.apply_mask(mask, spectra[:, : mask.shape[2]], LOW_BINS, LOW_FACTOR, floor)

    @torch.no_grad()
    def tables(self) -> dict[str, torch.Tensor]:
        """The library's tables, by name. The model must have been through deploy()."""
        tables = {}
        for i, layer in enumerate(self.encoder, 1):
            p = f"denoise_inp_conv{i}_"
            tables |= conv_tables(layer, p + "weight", p + "bias", f"denoise_inp_prelu{i}_weight")
        tables["denoise_inp_conv1_weight"] = self.encoder[0].weight()
        for i, layer in enumerate(self.decoder, 1):
            tables |= conv_tables(layer, f"denoise_pixel_conv{i}_weight", f"denoise_pixel_conv{i}_bias")
        for i, block in enumerate(self.blocks):
            p, n = f"denoise_{block.axis}_", i // 2 + 1
            w_i, w_h, bias = gru_gates(block.gru)
            # r and z: one row per unit, input weights then recurrent ones; n: the two matrices one after the other.
            tables[f"{p}gru{n}_weight"] = torch.cat(
                [
                    torch.cat([w_i[0], w_h[0]], 1).flatten(),
                    torch.cat([w_i[1], w_h[1]], 1).flatten(),
                    w_i[2].flatten(),
                    w_h[2].flatten(),
                ]
            )
            tables[f"{p}gru{n}_bias"] = bias
            tables[f"{p}linear{n}_weight"], tables[f"{p}linear{n}_bias"] = block.linear.weight, block.linear.bias
            tables[f"{p}norm{n}_weight"], tables[f"{p}norm{n}_bias"] = block.affine()
        return tables

    @torch.no_grad()
    def load_blocks(self, tables: dict[str, torch.Tensor]) -> None:
        first = self.encoder[0].conv.weight
        first.copy_(tables["denoise_inp_conv1_weight"].view(-1)[: first.numel()].view_as(first))
        n = CHANNELS
        for i, block in enumerate(self.blocks):
            p, k = f"denoise_{block.axis}_", i // 2 + 1
            gates, new = tables[f"{p}gru{k}_weight"].view(-1).split([4 * n * n, 2 * n * n])
            gates, new = gates.view(2 * n, 2 * n), new.view(2, n, n)
            load_gru(
                block.gru,
                torch.cat([gates[:, :n], new[0]]),
                torch.cat([gates[:, n:], new[1]]),
                tables[f"{p}gru{k}_bias"].view(-1),
            )
            set_affine(block.norm, tables[f"{p}norm{k}_weight"], tables[f"{p}norm{k}_bias"])


def interleave(x: torch.Tensor, microphones: int) -> torch.Tensor:
    """[B * M, T, F, C] -> [B, M * T, F, C], two steps of each microphone in turn."""
    _, t, f, c = x.shape
    x = x.reshape(-1, microphones, t // STEPS_PER_FRAME, STEPS_PER_FRAME, f, c)
    return x.transpose(1, 2).reshape(-1, microphones * t, f, c)


def separate(x: torch.Tensor, microphones: int) -> torch.Tensor:
    """The inverse of interleave()."""
    _, mt, f, c = x.shape
    t = mt // microphones
    x = x.reshape(-1, t // STEPS_PER_FRAME, microphones, STEPS_PER_FRAME, f, c)
    return x.transpose(1, 2).reshape(-1, t, f, c)
