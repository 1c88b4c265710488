"""Source recordings with their licences, and samples as they are stored."""

from __future__ import annotations

import csv
import pathlib

import numpy as np
import soundfile

from training.device_facts import FULL_SCALE, RATE


class Recordings:
    """A folder of 16 kHz mono WAV files, each top folder with a manifest.csv (path, licence, origin)."""

    def __init__(self, root: pathlib.Path | str) -> None:
        self.root = pathlib.Path(root)
        self._manifests = {}

    def clip(self, name: str, start: float = 0.0, seconds: float | None = None) -> np.ndarray:
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

    def row(self, name: str) -> dict[str, str]:
        """The manifest row of `name`."""
        folder, _, path = name.partition("/")
        if folder not in self._manifests:
            with open(self.root / folder / "manifest.csv", newline="", encoding="utf-8") as f:
                self._manifests[folder] = {row["path"]: row for row in csv.DictReader(f)}
        return self._manifests[folder][path]


def to_int16(x: np.ndarray) -> np.ndarray:
    """Rounds full-scale-1.0 samples to int16; refuses to clip."""
    q = np.round(x * FULL_SCALE)
    if np.abs(q).max() > 32767:
        raise ValueError(f"clips: peak {20 * np.log10(np.abs(x).max()):+.1f} dBFS")
    return q.astype(np.int16)
