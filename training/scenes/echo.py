"""The echo: what the loudspeaker plays, and how it reaches the microphones.

The canceller gets the clean reference. On its way to the microphones the same signal is bent by
the loudspeaker, delayed, may be stretched by a clock of its own, lose or repeat samples, and the
path through the room may change.
"""

from __future__ import annotations

import dataclasses

import numpy as np
from scipy import ndimage, signal

from training.corpus import Corpus
from training.scenes import mixing, sources
from training.scenes.audio import RATE
from training.scenes.loudspeaker import (
    AsymmetricTanh,
    HardClip,
    Linear,
    Loudspeaker,
    ScaledErf,
    ZhangWang,
)

MATERIAL = {"speech": 0.47, "music": 0.43, "tones": 0.1}
REFERENCE_LEVEL = (-32.0, -14.0)  # dBFS, active
REFERENCE_PEAK = 0.98
NONLINEARITIES = {"linear": 0.2, "clip": 0.25, "sigmoid": 0.25, "erf": 0.2, "tanh": 0.1}
DRIVE = (0.8, 1.2)  # peak of the reference where the loudspeaker bends it
ERF_BETA = (0.5, 1.0, 10.0, 999.0)
LOW_HZ, HIGH_HZ = (150.0, 300.0), (6000.0, 7600.0)  # 2nd-order sections of small loudspeakers

WINDOW = 0.192  # s of echo path the canceller models
DELAY = (0.0, 0.12)  # s from reference to loudspeaker
LATE_DELAY, LATE_SHARE = (0.17, 0.23), 0.05  # around the window's end and beyond it
DRIFT_PPM, DRIFT_SHARE = 50.0, 0.2
SLIPS, SLIP_SHARE = (1, 10), 0.1  # samples lost or repeated
CHANGE_SHARE = 0.3
CHANGE_SECONDS = 0.05


@dataclasses.dataclass(frozen=True)
class Path:
    """How the reference becomes echo. Times in samples from the beginning of the clip."""

    loudspeaker: Loudspeaker
    drive: float  # the nonlinearity sees the reference at this peak; its output is scaled back
    delay: int
    drift_ppm: float = 0.0
    slip: int = 0  # > 0: samples repeated, < 0: lost, at slip_at
    slip_at: int = 0
    change_at: int | None = None  # the responses change from the first to the second


def far_end(corpus: Corpus, rng: np.random.Generator, split: str, samples: int) -> np.ndarray:
    """A reference signal: int16 steps, full scale 1.0."""
    material = rng.choice(list(MATERIAL), p=list(MATERIAL.values()))
    if material == "speech":
        x = sources.talk(corpus, rng, "far", split, samples)
    elif material == "music":
        x = sources.excerpts(corpus, rng, "music", split, samples)[0]
    else:
        x = sources.tones(rng, samples)
    return at_reference_level(rng, x)


def at_reference_level(rng: np.random.Generator, x: np.ndarray) -> np.ndarray:
    x = sources.levelled(x, rng.uniform(*REFERENCE_LEVEL))
    return quantised(x * np.float32(min(1.0, REFERENCE_PEAK / (np.abs(x).max() + 1e-9))))


def quantised(x: np.ndarray) -> np.ndarray:
    """x on the grid of int16 samples."""
    return np.float32(np.round(np.clip(x, -1.0, 32767 / 32768) * 32768) / 32768)


def draw_loudspeaker(rng: np.random.Generator) -> Loudspeaker:
    kind = rng.choice(list(NONLINEARITIES), p=list(NONLINEARITIES.values()))
    nonlinearity = {
        "linear": Linear(),
        "clip": HardClip(rng.uniform(0.6, 0.95)),
        "sigmoid": ZhangWang(),
        "erf": ScaledErf(rng.choice(ERF_BETA)),
        "tanh": AsymmetricTanh(rng.uniform(0.3, 1.0), rng.uniform(0.0, 0.15)),
    }[kind]
    return Loudspeaker(nonlinearity, rng.uniform(*LOW_HZ), rng.uniform(*HIGH_HZ))


def draw_path(rng: np.random.Generator, samples: int) -> Path:
    late = rng.random() < LATE_SHARE
    path = Path(
        loudspeaker=draw_loudspeaker(rng),
        drive=rng.uniform(*DRIVE),
        delay=round(rng.uniform(*(LATE_DELAY if late else DELAY)) * RATE),
    )
    middle = rng.integers(samples // 4, 3 * samples // 4, 2)
    if rng.random() < DRIFT_SHARE:
        path = dataclasses.replace(path, drift_ppm=rng.uniform(-DRIFT_PPM, DRIFT_PPM))
    if rng.random() < SLIP_SHARE:
        slip = int(rng.choice((-1, 1)) * rng.integers(SLIPS[0], SLIPS[1] + 1))
        path = dataclasses.replace(path, slip=slip, slip_at=int(middle[0]))
    if rng.random() < CHANGE_SHARE:
        path = dataclasses.replace(path, change_at=int(middle[1]))
    return path


def drifted(x: np.ndarray, ppm: float) -> np.ndarray:
    """x played by a clock `ppm` millionths fast: y(t) = x(t (1 + ppm / 10^6))."""
    # Cubic splines are accurate where the signal is oversampled.
    wide = signal.resample_poly(x, 4, 1)
    at = 4.0 * np.arange(len(x)) * (1.0 + ppm * 1e-6)
    return ndimage.map_coordinates(wide, [at], order=3, mode="constant", prefilter=True)


def played(path: Path, reference: np.ndarray) -> np.ndarray:
    """The sound leaving the loudspeaker, delay, drift and lost samples included."""
    peak = np.abs(reference).max() + 1e-9
    scale = path.drive / peak
    x = path.loudspeaker.play(reference.astype(np.float64) * scale) / scale
    if path.drift_ppm:
        x = drifted(x, path.drift_ppm)
    if path.slip > 0:
        repeated = x[path.slip_at : path.slip_at + path.slip]
        x = np.concatenate([x[: path.slip_at], repeated, x[path.slip_at :]])
    elif path.slip < 0:
        x = np.delete(x, slice(path.slip_at, path.slip_at - path.slip))
    n = len(reference)
    x = np.concatenate([np.zeros(path.delay), x, np.zeros(n)])[:n]
    return x.astype(np.float32)


def echo(path: Path, reference: np.ndarray, before: np.ndarray, after: np.ndarray) -> np.ndarray:
    """The reference at the microphones, [3, n], through the responses [3, taps] `before` and, once
    the path has changed, `after`."""
    x = played(path, reference)
    y = mixing.convolve(x, before)
    if path.change_at is None:
        return y
    n = round(CHANGE_SECONDS * RATE)
    fade = np.clip((np.arange(len(x)) - path.change_at) / n, 0.0, 1.0).astype(np.float32)
    other = mixing.convolve(x, after)
    # The device keeps its volume: what changes is the path.
    other *= np.sqrt(mixing.power(y[0]) / (mixing.power(other[0]) + 1e-20))
    return y * (1.0 - fade) + other * fade
