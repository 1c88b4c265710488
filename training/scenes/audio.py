"""Reading source clips with their licences, and levels in dBFS."""

import csv
import pathlib

import numpy as np
import soundfile

from training.device_facts import FULL_SCALE, RATE

LEVEL_FRAME = 512
ACTIVE_RANGE = 1e-3  # of power: 30 dB


class Recordings:
    """A folder of 16 kHz mono WAV files, each top folder with a manifest.csv (path, licence, origin)."""

    def __init__(self, root):
        self.root = pathlib.Path(root)
        self._manifests = {}

    def clip(self, name, start=0.0, seconds=None):
        """Float samples of `name`, from `start` s, `seconds` long (None: to the end)."""
        path = self.root / name
        rate = soundfile.info(path).samplerate
        if rate != RATE:
            raise ValueError(f"{path}: {rate} Hz, expected {RATE}")
        count = -1 if seconds is None else round(seconds * RATE)
        x, _ = soundfile.read(path, frames=count, start=round(start * RATE), dtype="float64")
        if x.ndim != 1 or (seconds is not None and len(x) != count):
            raise ValueError(f"{path}: not {seconds} s of mono audio from {start} s on")
        return x

    def row(self, name):
        """The manifest row of `name`."""
        folder, _, path = name.partition("/")
        if folder not in self._manifests:
            with open(self.root / folder / "manifest.csv", newline="", encoding="utf-8") as f:
                self._manifests[folder] = {row["path"]: row for row in csv.DictReader(f)}
        return self._manifests[folder][path]


def dbfs(x):
    """Mean power of x in dB, 0 dBFS = a constant 1.0."""
    return 10.0 * np.log10(np.mean(np.square(x)) + 1e-20)


def active_power(x):
    """Mean power of the frames of [..., n] within ACTIVE_RANGE of the loudest one: speech without
    its pauses. numpy arrays or torch tensors."""
    n = x.shape[-1] // LEVEL_FRAME * LEVEL_FRAME
    frames = (x * x)[..., :n].reshape(*x.shape[:-1], -1, LEVEL_FRAME).mean(-1)
    loudest = frames.max(-1)
    loudest = getattr(loudest, "values", loudest)  # torch returns the places too
    ones = frames**0  # of the array's own kind and precision
    active = ones * (frames > loudest[..., None] * ACTIVE_RANGE)
    return (frames * active).sum(-1) / (active.sum(-1) + 1e-9) + 1e-20


def active_dbfs(x):
    return 10.0 * np.log10(active_power(x))


def gain(db):
    return 10.0 ** (db / 20.0)


def fade(x, seconds):
    """x with raised-cosine ends of `seconds`, shorter ones where x is too short for them."""
    n = min(round(seconds * RATE), len(x) // 2)
    if n == 0:
        return x
    ramp = 0.5 - 0.5 * np.cos(np.pi * (np.arange(n) + 0.5) / n)
    y = x.copy()
    y[:n] *= ramp
    y[-n:] *= ramp[::-1]
    return y


def to_int16(x):
    """Rounds full-scale-1.0 samples to int16; refuses to clip."""
    q = np.round(x * FULL_SCALE)
    if np.abs(q).max() > 32767:
        raise ValueError(f"clips: peak {20 * np.log10(np.abs(x).max()):+.1f} dBFS")
    return q.astype(np.int16)
