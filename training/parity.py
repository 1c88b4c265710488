"""Is what was trained what the library computes? The same signal through both, sample by sample."""

from __future__ import annotations

import pathlib

import numpy as np
import torch

from . import engine, export
from .device_facts import BLOCK, FRAME, FULL_SCALE
from .models import doa, kws, kws_int8, spectrum
from .models.layers import deploy
from .models.naec import EchoSuppressor
from .models.ns import NoiseSuppressor
from .models.quantise import set_mode
from .shared import Tables

INT16_STEP = 1 / FULL_SCALE
# The float networks sum in another order than PyTorch: one int16 step, or 1e-4 of the sample.
RELATIVE = 1e-4
DELAY = spectrum.LOOKAHEAD * spectrum.HOP  # samples of the output before the first masked frame


class Mismatch(Exception):
    """The library and the training graph disagree."""


def compare(ours: np.ndarray, theirs: np.ndarray, what: str) -> float:
    """Float waves at full scale 1.0, int16 from the library. Returns the largest difference in int16 steps."""
    expected = np.trunc(np.clip(ours, -0.99, 0.99) * FULL_SCALE)  # as the library converts
    difference = np.abs(expected - theirs)
    allowed = np.maximum(1.0, RELATIVE * np.abs(expected))
    if not (difference <= allowed).all():
        worst = np.unravel_index(np.argmax(difference - allowed), difference.shape)
        raise Mismatch(f"{what}: sample {worst} is {theirs[worst]} in the library, {expected[worst]:.0f} in training")
    return float(difference.max())


def signals(rng: np.random.Generator, rows: int, frames: int, size: int = FRAME) -> np.ndarray:
    """Noise bursts at speech-like levels, int16."""
    samples = frames * size
    envelope = np.repeat(10 ** rng.uniform(-3, -0.7, (rows, frames * 4)), samples // (frames * 4), axis=1)
    return np.int16(np.clip(rng.standard_normal((rows, samples)) * envelope, -0.99, 0.99) * FULL_SCALE)


@torch.no_grad()
def noise_suppressor(
    library_path: pathlib.Path, model: NoiseSuppressor, frames: int = 24, floor: float = 0.1, seed: int = 0
) -> float:
    """model: in deployed form. Three microphones in turns. Returns the largest difference in int16 steps."""
    mics = signals(np.random.default_rng(seed), 3, frames)
    library = engine.load(library_path, export.fit("ns", model.tables()))
    theirs = engine.suppress_noise(library, mics, floor)
    ours = spectrum.synthesise(model(torch.from_numpy(mics) * INT16_STEP, 3, floor)).numpy()
    if theirs[:, :DELAY].any():
        raise Mismatch("ns: sound before the delay is over")
    return compare(ours, theirs[:, DELAY:], "ns")


@torch.no_grad()
def echo_suppressor(library_path: pathlib.Path, model: EchoSuppressor, frames: int = 24, seed: int = 0) -> float:
    microphone, echo = signals(np.random.default_rng(seed), 2, frames).astype(np.float32) * np.float32(INT16_STEP)
    library = engine.load(library_path, export.fit("naec", model.tables()))
    theirs = engine.suppress_echo(library, microphone, echo)
    ours = spectrum.synthesise(model(*(torch.from_numpy(x)[None] for x in (microphone, echo))))[0].numpy()
    if theirs[:DELAY].any():
        raise Mismatch("naec: sound before the delay is over")
    return compare(ours, theirs[DELAY:], "naec")


@torch.no_grad()
def direction(library_path: pathlib.Path, model: doa.DirectionNetwork, blocks: int = 60, seed: int = 0) -> float:
    """Returns the largest difference of a vector's component."""
    mics = signals(np.random.default_rng(seed), 3, blocks, BLOCK)
    theirs = engine.directions(engine.load(library_path, export.fit("doa", model.tables())), mics)
    ours = model(doa.inputs(torch.from_numpy(mics).float()[None]), deployed=True)[0].numpy()
    difference = np.abs(ours - theirs)
    if not (difference <= RELATIVE).all():
        raise Mismatch(f"doa: {theirs[difference.argmax() // 2]} in the library, {ours[difference.argmax() // 2]} in training")
    return float(difference.max())


@torch.no_grad()
def wake_up(library_path: pathlib.Path, model: kws.SyllableNetwork, blocks: int = 200, seed: int = 0) -> int:
    """model: calibrated. Every state and score of every step, to the bit. Returns the number of steps compared."""
    tables = export.fit("kws", model.tables())
    return wake_up_tables(library_path, tables, blocks, seed)


def wake_up_tables(library_path: pathlib.Path, tables: Tables, blocks: int = 200, seed: int = 0) -> int:
    (wave,) = signals(np.random.default_rng(seed), 1, blocks, BLOCK)
    network, compared = kws_int8.Network(tables), 0
    # The mel filters are the library's own constant and not exported.
    exported = {name: values for name, values in tables.items() if name != "fbank_filter1"}
    for step, theirs in enumerate(engine.syllables(engine.load(library_path, exported), wave)):
        if theirs is None:
            network.clear()
            continue
        features, *rest = theirs
        scores = network.step(features)
        for what, a, b in zip(("state", "memory", "scores"), (network.state, network.memory, scores), rest):
            if not np.array_equal(a, b):
                raise Mismatch(f"kws: step {step}, {what}: {np.sum(a != b)} codes differ")
        compared += 1
    return compared


def random_wake_up(kind: type[kws.SyllableNetwork], seed: int) -> kws.SyllableNetwork:
    """A random network, its quantisers calibrated on noise."""
    torch.manual_seed(seed)
    model = kind()
    wave = signals(np.random.default_rng(seed + 1), 8, 100, BLOCK)
    set_mode(model, "observe")
    with torch.no_grad():
        model(kws.inputs(torch.from_numpy(wave).float()))
    set_mode(model, "codes")
    return model


LIVELINESS = 2.0  # the framework's initial weights shrink a signal by 3^-0.5 per layer; masks would hardly leave 0.5
LIVELY = ("conv",)  # the direction network's, which begin with a signal's full variance
FIRST_LAYERS = ("encoder.0.conv", "input.0.conv")  # read spectra, whose bins reach 100 and more


@torch.no_grad()
def random_model(kind: type[torch.nn.Module], seed: int) -> torch.nn.Module:
    """A random network in deployed form, lively enough that every table matters."""
    torch.manual_seed(seed)
    model = kind()
    for name, p in model.named_parameters():
        if p.dim() > 1:
            lively = 1 if name.startswith(LIVELY) else LIVELINESS
            p *= lively * (0.1 if name.startswith(FIRST_LAYERS) else 1)
        elif "norm" not in name:
            p.copy_(torch.randn_like(p) * 0.1 + (0.2 if "prelu" in name else 0))
    for module in model.modules():
        if isinstance(module, torch.nn.modules.batchnorm._BatchNorm):
            module.running_mean.normal_(0, 0.1)
            module.running_var.uniform_(0.5, 2)
            module.weight.uniform_(0.7, 1.3)
            module.bias.normal_(0, 0.1)
    return deploy(model)


# Network -> check, maker of a random network, its class, unit of the check's result.
CHECKS = {
    "ns": (noise_suppressor, random_model, NoiseSuppressor, "int16 steps at most"),
    "naec": (echo_suppressor, random_model, EchoSuppressor, "int16 steps at most"),
    "doa": (direction, random_model, doa.DirectionNetwork, "at most"),
    "kws": (wake_up, random_wake_up, kws.SyllableNetwork, "steps equal to the bit"),
}


def random_tables(network: str, library_path: pathlib.Path, seed: int = 0) -> float:
    check, make, kind, _ = CHECKS[network]
    return check(library_path, make(kind, seed))
