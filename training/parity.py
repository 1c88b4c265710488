"""Is what was trained what the library computes? The same signal through both, sample by sample."""
import numpy as np
import torch

from . import engine, export
from .models import spectrum
from .models.layers import deploy
from .models.naec import EchoSuppressor
from .models.ns import NoiseSuppressor

INT16_STEP = 1 / 32768
# The float networks sum in another order than PyTorch: one int16 step, or 1e-4 of the sample.
RELATIVE = 1e-4
DELAY = spectrum.LOOKAHEAD * spectrum.HOP  # samples of the output before the first masked frame


class Mismatch(Exception):
    """The library and the training graph disagree."""


def compare(ours, theirs, what):
    """Float waves at full scale 1.0, int16 from the library. Returns the largest difference in int16 steps."""
    expected = np.trunc(np.clip(ours, -0.99, 0.99) * 32768)  # as the library converts
    difference = np.abs(expected - theirs)
    allowed = np.maximum(1.0, RELATIVE * np.abs(expected))
    if not (difference <= allowed).all():
        worst = np.unravel_index(np.argmax(difference - allowed), difference.shape)
        raise Mismatch(f"{what}: sample {worst} is {theirs[worst]} in the library, {expected[worst]:.0f} in training")
    return float(difference.max())


def signals(rng, rows, frames):
    """Noise bursts at speech-like levels, int16."""
    samples = frames * engine.FRAME
    envelope = np.repeat(10**rng.uniform(-3, -0.7, (rows, frames * 4)), samples // (frames * 4), axis=1)
    return np.int16(np.clip(rng.standard_normal((rows, samples)) * envelope, -0.99, 0.99) * 32768)


@torch.no_grad()
def noise_suppressor(library_path, model, frames=24, floor=0.1, seed=0):
    """model: in deployed form. Three microphones in turns. Returns the largest difference in int16 steps."""
    mics = signals(np.random.default_rng(seed), 3, frames)
    library = engine.load(library_path, export.fit("ns", model.tables()))
    theirs = engine.suppress_noise(library, mics, floor)
    ours = spectrum.synthesise(model(torch.from_numpy(mics) * INT16_STEP, 3, floor)).numpy()
    if theirs[:, :DELAY].any():
        raise Mismatch("ns: sound before the delay is over")
    return compare(ours, theirs[:, DELAY:], "ns")


@torch.no_grad()
def echo_suppressor(library_path, model, frames=24, seed=0):
    microphone, echo = signals(np.random.default_rng(seed), 2, frames).astype(np.float32) * np.float32(INT16_STEP)
    library = engine.load(library_path, export.fit("naec", model.tables()))
    theirs = engine.suppress_echo(library, microphone, echo)
    ours = spectrum.synthesise(model(*(torch.from_numpy(x)[None] for x in (microphone, echo))))[0].numpy()
    if theirs[:DELAY].any():
        raise Mismatch("naec: sound before the delay is over")
    return compare(ours, theirs[DELAY:], "naec")


def random_model(kind, seed):
    """A small random network in deployed form, lively enough that every table matters."""
    torch.manual_seed(seed)
    model = kind()
    with torch.no_grad():
        for name, p in model.named_parameters():
            if "encoder.0.conv" in name or "input.0.conv" in name:
                p *= 0.3
            elif p.dim() == 1 and "norm" not in name:
                p.copy_(torch.randn_like(p) * 0.1 + (0.2 if "prelu" in name else 0))
        for module in model.modules():
            if hasattr(module, "running_var") and module.running_var is not None:
                module.running_mean.normal_(0, 0.1)
                module.running_var.uniform_(0.5, 2)
                module.weight.uniform_(0.7, 1.3)
                module.bias.normal_(0, 0.1)
    return deploy(model)


CHECKS = {"ns": (noise_suppressor, NoiseSuppressor), "naec": (echo_suppressor, EchoSuppressor)}


def random_tables(network, library_path, seed=0):
    check, kind = CHECKS[network]
    return check(library_path, random_model(kind, seed))
