"""The neural echo suppressor (aec/): masks the canceller's error spectrum of four hops ago.

It sees the microphone's spectrum D and the error E = D - Y, Y being the canceller's echo estimate.
"""

from __future__ import annotations

import torch
from torch import nn

from . import spectrum
from .layers import CausalConv, GruBlock, conv_tables, fast_sigmoid, gru_gates, limited_sigmoid, limited_tanh, load_gru, shuffle

LOW_BINS, LOW_FACTOR = 4, 0.2
INPUT = [(4, 16), (16, 32), (32, 48), (48, 64)]
CHANNELS, BLOCKS, STAGES = 64, 3, 4
UPSAMPLING = [(64, 64), (32, 32), (16, 16), (8, 4)]
GROUPS, GROUP = 64, 8
TANH_LIMIT = 8


def tanh(x: torch.Tensor) -> torch.Tensor:
    return limited_tanh(x, TANH_LIMIT)


class GroupedMap(nn.Module):
    """512 bins as 64 groups of 8, each with its own 8 x 8 matrix."""

    def __init__(self) -> None:
        super().__init__()
        self.weight = nn.Parameter(torch.eye(GROUP).repeat(GROUPS, 1, 1))
        self.bias = nn.Parameter(torch.zeros(GROUPS * GROUP))

    def forward(self, x: torch.Tensor) -> torch.Tensor:
        grouped = x.view(*x.shape[:-1], GROUPS, GROUP)
        return torch.einsum("gji,btgi->btgj", self.weight, grouped).flatten(-2) + self.bias


class EchoSuppressor(nn.Module):
    def __init__(self, norm: bool = True) -> None:
        super().__init__()
        self.input = nn.ModuleList(CausalConv(*shape, (2, 3), stride=2, activation=True, norm=norm) for shape in INPUT)
        stage = lambda: CausalConv(CHANNELS, CHANNELS, (3, 3), activation=True, norm=norm)
        self.encoder = nn.ModuleList(stage() for _ in range(STAGES))
        self.blocks = nn.ModuleList(
            GruBlock(CHANNELS, axis, False, limited_sigmoid, tanh) for _ in range(BLOCKS) for axis in ("time", "freq")
        )
        self.decoder = nn.ModuleList(stage() for _ in range(STAGES))
        self.upsampling = nn.ModuleList(CausalConv(*shape, (2, 3)) for shape in UPSAMPLING)
        self.real, self.imag = GroupedMap(), GroupedMap()
        nn.init.zeros_(self.imag.weight)  # start as the identity of the complex plane

    def mask(self, microphone: torch.Tensor, error: torch.Tensor) -> torch.Tensor:
        """Complex spectra [B, steps, BINS] -> mask [B, 2, steps, 512]; mask t belongs to spectrum t - 4."""
        d, e = spectrum.as_channels(microphone), spectrum.as_channels(error)
        x = torch.stack([d, e], 2).flatten(1, 2)  # D real, E real, D imaginary, E imaginary
        for layer in self.input:
            x = layer(x)
        encoded = []
        for layer in self.encoder:
            x = layer(x)
            encoded.append(x)
        x = x.permute(0, 2, 3, 1)
        for block in self.blocks:
            x = block(x)
        x = x.permute(0, 3, 1, 2)
        # The first stage goes around itself, the others receive the encoder's maps, the latest first.
        for layer, earlier in zip(self.decoder, [x, encoded[2], encoded[1], encoded[0]]):
            x = layer(x) + earlier
        for layer in self.upsampling:
            x = shuffle(layer(x))
        real, imag = x[:, 0], x[:, 1]
        # Four products, each with its own bias, as the engine forms them.
        return fast_sigmoid(torch.stack([self.real(real) - self.imag(imag), self.real(imag) + self.imag(real)], 1))

    def forward(self, microphone: torch.Tensor, echo: torch.Tensor) -> torch.Tensor:
        """Waves [B, samples], samples a multiple of 512 -> complex spectra [B, steps - 4, BINS] of the suppressed error."""
        d = spectrum.analyse(microphone)
        e = d - spectrum.analyse(echo)
        mask = self.mask(d, e)[:, :, spectrum.LOOKAHEAD :]
        return spectrum.apply_mask(mask, e[:, : mask.shape[2]], LOW_BINS, LOW_FACTOR)

    @torch.no_grad()
    def tables(self) -> dict[str, torch.Tensor]:
        """The library's tables, by name. The model must have been through deploy()."""
        tables = {}
        for i, layer in enumerate(self.input, 1):
            p = f"aec_inp_conv{i}_"
            tables |= conv_tables(layer, p + "weight", p + "bias", f"aec_inp_prelu{i}_weight")
        for kind, stages in (("enc", self.encoder), ("dec", self.decoder)):
            for i, layer in enumerate(stages, 1):
                p = f"aec_{kind}_conv{i}_"
                tables |= conv_tables(layer, p + "weight", p + "bias", f"aec_{kind}_prelu{i}_weight")
        for i, layer in enumerate(self.upsampling, 1):
            tables |= conv_tables(layer, f"aec_pixel_conv{i}_weight", f"aec_pixel_conv{i}_bias")
        for i, block in enumerate(self.blocks):
            p, n = f"aec_{block.axis}_", i // 2 + 1
            w_i, w_h, bias = gru_gates(block.gru)
            # One row per unit and gate: input weights, then recurrent ones.
            tables[f"{p}gru{n}_weight"] = torch.cat([torch.cat(pair, 1).flatten() for pair in zip(w_i, w_h)])
            tables[f"{p}gru{n}_bias"] = bias
            tables[f"{p}linear{n}_weight"], tables[f"{p}linear{n}_bias"] = block.linear.weight, block.linear.bias
        for name, layer in (("real", self.real), ("imag", self.imag)):
            tables[f"aec_sys_{name}_conv_weight"], tables[f"aec_sys_{name}_conv_bias"] = layer.weight, layer.bias
        return tables

    def load_blocks(self, tables: dict[str, torch.Tensor]) -> None:
        for i, block in enumerate(self.blocks):
            p, n = f"aec_{block.axis}_gru{i // 2 + 1}", CHANNELS
            rows = tables[p + "_weight"].view(3 * n, 2 * n)
            load_gru(block.gru, rows[:, :n], rows[:, n:], tables[p + "_bias"].view(-1))
