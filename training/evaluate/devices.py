"""Section 2b: the echo path on recordings of real devices.

A folder aec_pairs of the corpus holds *_mic and *_lpb files: what a microphone heard, what was played. Nobody knows what
the talker alone sounded like, so there is AECMOS and the level over time, and no SI-SDR.
"""

from __future__ import annotations

import pathlib
import typing

import numpy as np
import soundfile

from training.evaluate import echo_path, intervals, metrics
from training.evaluate.alignment import find_delay
from training.scenes.audio import RATE
from training.shared import Record

if typing.TYPE_CHECKING:
    from training.evaluate.work import Opened

FOLDER = "aec_pairs"
MOST_DELAY = RATE  # samples between the two files
EARLY = 320  # samples the reference keeps ahead of its echo
WINDOW = 0.5  # s of a level
QUIETEST = 1e-10


def recordings(opened: Opened) -> list[pathlib.Path]:
    """What the microphones heard; nothing where the corpus has no such folder."""
    root = opened.corpus.root
    return sorted((root / FOLDER).glob("*_mic.wav")) if root else []


def numbers(opened: Opened) -> range:
    return range(len(recordings(opened)))


def pair(path: pathlib.Path) -> tuple[str, str, np.ndarray, np.ndarray]:
    """(name, kind of AECMOS, mic [n], ref [n]), the recordings' own delay taken off."""
    name = path.stem.removesuffix("_mic")
    mic, ref = (soundfile.read(path.with_name(f"{name}_{end}.wav"), dtype="float32")[0] for end in ("mic", "lpb"))
    n = min(len(mic), len(ref))
    late = max(0, find_delay(ref[:n], mic[:n], MOST_DELAY) - EARLY)
    return name, "far_end" if "farend" in name else "double_talk", mic[late:n], ref[: n - late]


def levels(x: np.ndarray) -> list[float]:
    """dBFS of consecutive windows."""
    n = round(WINDOW * RATE)
    power = np.square(x[: len(x) // n * n].reshape(-1, n), dtype=np.float64).mean(1)
    return (10 * np.log10(power + QUIETEST)).round(1).tolist()


def rows(opened: Opened, number: int) -> list[Record]:
    """One per system."""
    name, kind, mic, ref = pair(recordings(opened)[number])
    found = []
    for names, process in echo_path.systems(opened)[0]:
        for system, output in zip(names, process(mic, ref)):
            echo, other = metrics.aecmos(kind, ref, mic, output)
            found.append(
                {
                    "recording": name,
                    "kind": kind,
                    "system": system,
                    "echo": echo,
                    "degradation": other,
                    "levels": levels(output),
                }
            )
    return found


def result(opened: Opened, heard: list[Record]) -> Record:
    _, delays, absent = echo_path.systems(opened)
    return {"rows": heard, "summary": summarise(heard), "delays": delays, "absent": absent}


def summarise(rows: list[Record]) -> Record:
    """kind -> system -> measure -> figure."""
    summary = {}
    for row in rows:
        summary.setdefault(row["kind"], {}).setdefault(row["system"], []).append(row)
    return {
        kind: {
            system: {m: intervals.bootstrap([r[m] for r in chosen]) for m in ("echo", "degradation")}
            for system, chosen in systems.items()
        }
        for kind, systems in summary.items()
    }
