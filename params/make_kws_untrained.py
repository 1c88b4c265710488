#!/usr/bin/env python3
"""Writes kws.safetensors with untrained values: the shapes, scales and zero points of a trained set, random weights.

    make_kws_untrained.py OUT_DIR

The folder must be named: a trained file may stand beside this script.

Everything that a trained set must fulfil holds here too (docs/quantisation.md): multipliers below 2^24, biases that
absorb the input zero point, zero point 0 where the clamp is the rectifier. The spread of every layer's codes is set from
that of its input, so that noise and speech move all of them and saturate few. The blank's bias keeps the engine silent.
Two runs write the same bytes.
"""

import math
import pathlib
import random
import sys
from array import array

import mel_filters
import safetensors_file
from syllable_names import class_names

SEED = 20251103
LARGEST_WEIGHT = 100
SPREAD = 32  # standard deviation of a layer's codes
MIDDLE = 128  # zero point of codes that take both signs

FEATURE_SCALE, FEATURE_ZERO = 0.1, 20  # codes 0..255 are -2..23.5 nats
FEATURE_MEAN, FEATURE_SPREAD = 130, 50  # speech and noise at usual levels, in codes
STATE_SCALE = 2 / 255
STATE_SPREAD = 60
GATE_SCALE = 6 / 255
NORM_SCALE = 6 / 255  # normalised values within +-3
SCORE_SCALE = 0.1
BLANK_LEAD = 110  # codes by which the blank stands above the syllables

CLASSES, BLANK = 146, 145
STATE, CHANNELS, MEMORY, WIDTH = 128, 164, 8, 256


def pair(value):
    """value as M0 * 2^-M1 with 2^23 <= M0 < 2^24, so that M0 passes through a float unchanged."""
    mantissa, exponent = math.frexp(value)
    M0 = min(round(mantissa * 2**24), 2**24 - 1)
    return [M0, 24 - exponent]


class Net:
    def __init__(self):
        self.random = random.Random(SEED)
        self.tensors = {}

    def add(self, name, dtype, shape, values):
        code = {"I8": "b", "I32": "i", "F32": "f"}[dtype]
        self.tensors[name] = (dtype, shape, array(code, values).tobytes())

    def layer(self, name, bias_name, rows, depth, mean, deviation, spread=SPREAD, lead=()):
        """Adds weights [rows][depth] and biases that cancel `mean`, the input's average code; lead gives single rows a
        head start in output codes. Returns the pair that takes an input of that deviation to the given spread."""
        weights = [[round((2 * self.random.random() - 1) * LARGEST_WEIGHT) for _ in range(depth)] for _ in range(rows)]
        factor = spread / (deviation * LARGEST_WEIGHT / math.sqrt(3) * math.sqrt(depth))
        biases = [-round(mean * sum(row)) for row in weights]
        for row, codes in lead:
            biases[row] += round(codes / factor)
        self.add(name, "I8", [rows, depth], [w for row in weights for w in row])
        self.add(bias_name, "I32", [rows], biases)
        return pair(factor)


def rectified(spread):
    """Mean and deviation of max(0, x), x normal around 0."""
    return 0.4 * spread, 0.58 * spread


def make(net):
    """Adds all layers; returns the packed table."""
    packed = [FEATURE_SCALE, FEATURE_ZERO]
    relu_mean, relu_spread = rectified(2 * SPREAD)

    def conv(number, rows, depth, mean, deviation, spread=SPREAD):
        return net.layer(f"chinese_conv{number}_weight", f"chinese_conv{number}_bias", rows, depth, mean, deviation, spread)

    # The per-channel layers have no bias to cancel their input's mean with, so it counts as deviation.
    per_channel = math.hypot(relu_mean, relu_spread)
    packed += conv("1", 16, 8, FEATURE_MEAN, FEATURE_SPREAD, 2 * SPREAD) + [0]
    packed += conv("2_1", 16, 8, 0, per_channel) + [MIDDLE]
    packed += conv("2_2", 48, 16, MIDDLE, SPREAD, 2 * SPREAD) + [0]
    packed += conv("3_1", 48, 8, 0, per_channel) + [MIDDLE]
    packed += conv("3_2", 64, 48, MIDDLE, SPREAD, 2 * SPREAD) + [0]
    packed += conv("4_1", 64, 9, 0, per_channel) + [MIDDLE]
    packed += conv("4_2", 128, 64, MIDDLE, SPREAD) + [MIDDLE]

    packed += [STATE_SCALE, MIDDLE]
    for side, deviation in ("ih", SPREAD), ("hh", STATE_SPREAD):
        multiplier = net.layer(
            f"chinese_gru_weight_{side}_l0", f"chinese_gru_bias_{side}_l0", 3 * STATE, STATE, MIDDLE, deviation
        )
        packed += (multiplier + [MIDDLE, GATE_SCALE]) * 3

    width, spread = STATE, STATE_SPREAD
    for block in range(1, 5):
        names = f"chinese_d{block}_%s_conv1_"
        into, left, out = ((names % side + "weight", names % side + "bias") for side in ("in", "left", "out"))
        packed += net.layer(*into, CHANNELS, width, MIDDLE, spread) + [MIDDLE]
        packed += net.layer(*left, CHANNELS, MEMORY, MIDDLE, SPREAD, SPREAD / 2) + [MIDDLE]
        packed += [MIDDLE, MIDDLE, MIDDLE] + pair(0.75) + pair(0.5)
        packed += net.layer(*out, WIDTH, CHANNELS, MIDDLE, SPREAD) + [MIDDLE]
        packed += [1 / SPREAD, MIDDLE, NORM_SCALE, MIDDLE]
        net.add(f"chinese_ln{block}_weight", "F32", [WIDTH], [0.75 + 0.5 * net.random.random() for _ in range(WIDTH)])
        net.add(f"chinese_ln{block}_bias", "F32", [WIDTH], [0.2 * net.random.random() - 0.1 for _ in range(WIDTH)])
        width, spread = WIDTH, 1 / NORM_SCALE

    packed += net.layer(
        "chinese_fc_weight", "chinese_fc_bias", CLASSES, WIDTH, MIDDLE, spread, SPREAD / 2, [(BLANK, BLANK_LEAD)]
    )
    return packed + [MIDDLE, SCORE_SCALE, MIDDLE]


def main():
    if len(sys.argv) != 2:
        sys.exit("usage: make_kws_untrained.py OUT_DIR")
    out = pathlib.Path(sys.argv[1])
    net = Net()
    packed = make(net)
    net.add("chinese_fix_param", "F32", [len(packed)], packed)
    weights = mel_filters.weights()
    net.add("fbank_filter1", "F32", [len(weights)], weights)
    safetensors_file.write(
        out / "kws.safetensors",
        net.tensors,
        {
            "generator": "params/make_kws_untrained.py",
            "trained": "no",
            "training_run": "none",
            "version": "0",
            "classes": class_names(),
        },
    )


if __name__ == "__main__":
    main()
