"""The trained wake-up network as the library's integers."""

from __future__ import annotations

import typing

import numpy as np
import torch

from params import mel_filters

from ..shared import Tables
from .quantise import LARGEST_WEIGHT, Quantiser, multiplier, round_away, weight_scale

if typing.TYPE_CHECKING:
    from .kws import Conv, MemoryBlock, SyllableNetwork


class Writer:
    def __init__(self) -> None:
        self.tables, self.packed = {}, []

    def layer(
        self,
        name: str,
        weight: torch.Tensor,
        bias: torch.Tensor | None,
        into: tuple[float, int],
        *outputs: Quantiser,
        suffix: str = "",
    ) -> list[tuple[int, int]]:
        """Adds one table of weights with its biases. into: (scale, zero point) of the input codes; outputs: the
        Quantiser of each equal part of the rows, with its own weight scale. Returns their multiplier pairs.

        The engine subtracts no input zero point; the biases absorb it."""
        scale_in, zero_in = into
        parts, biases, pairs = [], [], []
        rows = weight.shape[0] // len(outputs)
        for i, out in enumerate(outputs):
            part = weight[i * rows : (i + 1) * rows].flatten(1)
            scale = float(weight_scale(part))
            codes = round_away(part / scale).clamp(-LARGEST_WEIGHT, LARGEST_WEIGHT)
            unit = scale_in * scale
            real = torch.zeros(rows) if bias is None else bias[i * rows : (i + 1) * rows]
            parts.append(codes)
            biases.append(torch.round(real.double() / unit) - zero_in * codes.sum(1).double())
            pairs.append(multiplier(unit / float(out.scale)))
        self.tables[f"chinese_{name}weight{suffix}"] = torch.cat(parts).numpy().astype(np.int8)
        self.tables[f"chinese_{name}bias{suffix}"] = torch.cat(biases).numpy().astype(np.int32)
        return pairs


def codes_of(quantiser: Quantiser) -> tuple[float, int]:
    return float(quantiser.scale), int(quantiser.zero_point)


@torch.no_grad()
def tables(model: SyllableNetwork) -> Tables:
    """model: SyllableNetwork with calibrated quantisers."""
    w = Writer()
    into = codes_of(model.features)
    w.packed += into

    def conv(layer: Conv, name: str, into: tuple[float, int]) -> tuple[float, int]:
        (pair,) = w.layer(f"{name}_", layer.conv.weight, layer.conv.bias, into, layer.out)
        w.packed.extend([*pair, codes_of(layer.out)[1]])
        return codes_of(layer.out)

    into = conv(model.conv1, "conv1", into)
    for i, pair in enumerate((model.conv2, model.conv3, model.conv4), 2):
        for j, layer in enumerate(pair, 1):
            into = conv(layer, f"conv{i}_{j}", into)

    gru, state = model.gru, codes_of(model.gru.out)
    w.packed += state
    sides = (
        ("ih", gru.gru.weight_ih_l0, gru.gru.bias_ih_l0, into, gru.input_gates),
        ("hh", gru.gru.weight_hh_l0, gru.gru.bias_hh_l0, state, gru.state_gates),
    )
    for side, weight, bias, codes, gates in sides:
        pairs = w.layer("gru_", weight, bias, codes, *gates, suffix=f"_{side}_l0")
        for pair, gate in zip(pairs, gates):
            scale, zero = codes_of(gate)
            w.packed += [*pair, zero, scale]

    into = state
    for i, block in enumerate(model.memory, 1):
        into = memory_block(w, block, i, into)
    out = codes_of(model.output.out)
    (pair,) = w.layer("fc_", model.output.linear.weight, model.output.linear.bias, into, model.output.out)
    w.packed += [*pair, out[1], *out]
    w.tables["chinese_fix_param"] = np.float32(w.packed)
    w.tables["fbank_filter1"] = np.float32(mel_filters.weights())
    return w.tables


def memory_block(w: Writer, block: MemoryBlock, i: int, into: tuple[float, int]) -> tuple[float, int]:
    p, left, total = codes_of(block.into.out), codes_of(block.left), codes_of(block.sum)
    before, after = codes_of(block.outof.out), codes_of(block.out)
    (pair,) = w.layer(f"d{i}_in_conv1_", block.into.linear.weight, block.into.linear.bias, into, block.into.out)
    w.packed += [*pair, p[1]]
    (pair,) = w.layer(f"d{i}_left_conv1_", block.taps, None, p, block.left)
    w.packed += [*pair, left[1], p[1], left[1], total[1], *multiplier(p[0] / total[0]), *multiplier(left[0] / p[0])]
    (pair,) = w.layer(f"d{i}_out_conv1_", block.outof.linear.weight, block.outof.linear.bias, total, block.outof.out)
    w.packed += [*pair, before[1], before[0], before[1], *after]
    w.tables[f"chinese_ln{i}_weight"] = block.norm.weight.numpy().astype(np.float32)
    w.tables[f"chinese_ln{i}_bias"] = block.norm.bias.numpy().astype(np.float32)
    return after


FREE = 8 / 255  # scale of codes that the tables leave open: their values are of about unit spread


class Reader:
    def __init__(self, tables: Tables) -> None:
        self.tables, self.packed = tables, [float(v) for v in tables["chinese_fix_param"].ravel()]

    def take(self, count: int) -> list[float]:
        taken, self.packed = self.packed[:count], self.packed[count:]
        return taken

    def factor(self) -> float:
        return self.take(1)[0] * 2.0 ** -self.take(1)[0]

    def layer(
        self,
        name: str,
        weight: torch.Tensor,
        bias: torch.Tensor | None,
        into: Quantiser,
        factors: list[tuple[float, Quantiser]],
        suffix: str = "",
    ) -> None:
        """The reverse of Writer.layer(); factors: of each equal part of the rows, and the Quantiser of its output."""
        codes, biases = (
            torch.from_numpy(self.tables[f"chinese_{name}{what}{suffix}"].astype(np.float64)) for what in ("weight", "bias")
        )
        rows = len(biases) // len(factors)
        codes, (scale_in, zero_in) = codes.reshape(len(biases), -1), codes_of(into)
        for i, (factor, out) in enumerate(factors):
            part, unit = slice(i * rows, (i + 1) * rows), factor * float(out.scale)
            weight[part] = (codes[part] * unit / scale_in).reshape(weight[part].shape).to(weight)
            if bias is not None:
                bias[part] = ((biases[part] + zero_in * codes[part].sum(1)) * unit).to(bias)


def set_codes(quantiser: Quantiser, scale: float, zero: float) -> None:
    quantiser.scale.fill_(scale)
    quantiser.zero_point.fill_(zero)
    quantiser.low.fill_(-zero * scale)
    quantiser.high.fill_((255 - zero) * scale)


@torch.no_grad()
def load(model: SyllableNetwork, tables: Tables) -> None:
    """The network of an exported file: the reverse of tables(). Scales that only their ratios are known of are chosen."""
    r = Reader(tables)
    set_codes(model.features, *r.take(2))

    def conv(layer: Conv, name: str, into: Quantiser) -> Quantiser:
        factor, zero = r.factor(), r.take(1)[0]
        set_codes(layer.out, FREE, zero)
        r.layer(f"{name}_", layer.conv.weight, layer.conv.bias, into, [(factor, layer.out)])
        return layer.out

    into = conv(model.conv1, "conv1", model.features)
    for i, pair in enumerate((model.conv2, model.conv3, model.conv4), 2):
        for j, layer in enumerate(pair, 1):
            into = conv(layer, f"conv{i}_{j}", into)

    gru = model.gru
    set_codes(gru.out, *r.take(2))
    sides = (
        ("ih", gru.gru.weight_ih_l0, gru.gru.bias_ih_l0, into, gru.input_gates),
        ("hh", gru.gru.weight_hh_l0, gru.gru.bias_hh_l0, gru.out, gru.state_gates),
    )
    for side, weight, bias, codes, gates in sides:
        factors = []
        for gate in gates:
            factor, zero, scale = r.factor(), *r.take(2)
            set_codes(gate, scale, zero)
            factors.append((factor, gate))
        r.layer("gru_", weight, bias, codes, factors, suffix=f"_{side}_l0")

    into = gru.out
    for i, block in enumerate(model.memory, 1):
        load_memory_block(r, block, i, into)
        into = block.out
    factor, (_, scale, zero) = r.factor(), r.take(3)
    set_codes(model.output.out, scale, zero)
    r.layer("fc_", model.output.linear.weight, model.output.linear.bias, into, [(factor, model.output.out)])


def load_memory_block(r: Reader, block: MemoryBlock, i: int, into: Quantiser) -> None:
    p, left, total, before = block.into.out, block.left, block.sum, block.outof.out
    factor, zero = r.factor(), r.take(1)[0]
    set_codes(p, FREE, zero)
    r.layer(f"d{i}_in_conv1_", block.into.linear.weight, block.into.linear.bias, into, [(factor, p)])
    taps, (zero_left, _, _, zero_total) = r.factor(), r.take(4)
    set_codes(total, FREE / r.factor(), zero_total)
    set_codes(left, FREE * r.factor(), zero_left)
    r.layer(f"d{i}_left_conv1_", block.taps, None, p, [(taps, left)])
    factor, (_, scale, zero) = r.factor(), r.take(3)
    set_codes(before, scale, zero)
    r.layer(f"d{i}_out_conv1_", block.outof.linear.weight, block.outof.linear.bias, total, [(factor, before)])
    for name in ("weight", "bias"):
        getattr(block.norm, name).copy_(torch.from_numpy(r.tables[f"chinese_ln{i}_{name}"]))
    set_codes(block.out, *r.take(2))
