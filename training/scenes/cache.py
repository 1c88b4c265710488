"""Runs of the library's own canceller, kept: what the echo suppressor is trained on.

A cache is a store of clips (clip_store.py):
  cache.json    the clips with their scenario and spans
  mic.i16       [clips, T] int16: microphone 1 as the canceller has it, MIC_DELAY samples late
  echo.f32      [clips, T] float32: the canceller's estimate of the echo in it
  target.i16    [clips, T] int16: the talker as that microphone hears it, plus a little of the noise
Clip i is a function of (seed, split, i), of the recordings of ROLES and the rooms of that split, of
the library and of the RECIPE's constants.
"""

from __future__ import annotations

import pathlib
from collections.abc import Callable

import numpy as np

from training import cache_keys
from training.corpus import SPLITS, Corpus
from training.device_facts import FRAME, FULL_SCALE, MIC_DELAY, RATE
from training.library import Library
from training.scenes import clip_store, playback
from training.scenes.bank import RoomBank
from training.shared import Record

NOISE_KEPT = (0.15, 0.3)  # of the noise in the target: a floor instead of gating
ROLES = ("near", "far", "noise", "music")
RECIPE = (
    "device_facts",
    "scenes.array_geometry",
    "scenes.audio",
    "scenes.bank",
    "scenes.cache",
    "scenes.echo",
    "scenes.loudspeaker",
    "scenes.mixing",
    "scenes.noisy",
    "scenes.playback",
    "scenes.room",
    "scenes.sources",
    "scenes.steady",
)


def fields(samples: int) -> clip_store.Fields:
    return {
        "mic": ("mic.i16", np.int16, (samples,)),
        "echo": ("echo.f32", np.float32, (samples,)),
        "target": ("target.i16", np.int16, (samples,)),
    }


def late(x: np.ndarray) -> np.ndarray:
    """x delayed as the canceller delays its microphone."""
    return np.concatenate([np.zeros(MIC_DELAY, x.dtype), x[:-MIC_DELAY]])


def to_int16(x: np.ndarray) -> np.ndarray:
    return np.int16(np.clip(np.round(x * FULL_SCALE), -32768, 32767))


def make_clip(
    corpus: Corpus, bank: RoomBank, library: Library, seconds: float, seed: int, split: str, number: int
) -> tuple[dict[str, np.ndarray], Record]:
    """One scene of the mixed scenarios through the canceller: its three signals and what is known
    about it."""
    rng = np.random.default_rng([seed, SPLITS.index(split), number])
    shares = playback.SCENARIOS
    scenario = str(rng.choice(list(shares), p=list(shares.values())))
    scene = playback.aec_clip(corpus, bank, rng, seconds, split, scenario)
    kept = np.float32(rng.uniform(*NOISE_KEPT))
    run = library.cancel(to_int16(scene["mics"][0]), to_int16(scene["ref"]))
    signals = {
        "mic": to_int16(run["mic"]),
        "echo": run["echo"],
        "target": to_int16(late(scene["near"][0] + kept * scene["noise"][0])),
    }
    about = {name: scene[name] for name in ("scenario", "ser", "snr", "room")}
    spans = [(kind, start + MIC_DELAY, end + MIC_DELAY) for kind, start, end in scene["spans"]]
    samples = len(signals["mic"])
    about["spans"] = [(kind, a, min(b, samples)) for kind, a, b in spans]
    return signals, about


class Maker:
    """Clips by number, see clip_store.fill()."""

    def __init__(self, corpus: Corpus, bank: RoomBank, library: pathlib.Path, seconds: float, seed: int, split: str) -> None:
        self._scenes = corpus, bank, Library(library), seconds, seed, split

    def __call__(self, number: int) -> tuple[dict[str, np.ndarray], Record]:
        return make_clip(*self._scenes, number)


class AecCache:
    """List of the first `clips` clips (None: of all): dicts of mic, echo and target (float32, full
    scale 1.0), scenario, ser, snr, spans."""

    def __init__(self, path: pathlib.Path, clips: int | None = None) -> None:
        self.path = path
        self._store = clip_store.ClipStore(path, fields)
        self._clips = len(self._store) if clips is None else min(clips, len(self._store))

    def __len__(self) -> int:
        return self._clips

    def __getitem__(self, i: int) -> Record:
        if not -len(self) <= i < len(self):
            raise IndexError(i)
        i %= len(self)
        clip = {
            name: x[i].astype(np.float32) / (FULL_SCALE if x.dtype == np.int16 else 1.0)
            for name, x in self._store.signals.items()
        }
        return clip | self._store.made[i]


def made_from(corpus: Corpus, bank: RoomBank, library: pathlib.Path, seconds: float, seed: int, split: str) -> Record:
    """What the clips of a cache are a function of, beside their number (cache_keys.py)."""
    return {
        "seed": seed,
        "split": split,
        "samples": -(-round(seconds * RATE) // FRAME) * FRAME,
        "library": cache_keys.file_digest(library),
        "corpus": corpus.used(ROLES, split),
        "bank": bank.contents(bank.numbers(split)),
        "recipe": cache_keys.constants(*RECIPE),
    }


def aec_cache(
    corpus: Corpus,
    bank: RoomBank,
    path: pathlib.Path | str,
    clips: int,
    seconds: float,
    seed: int,
    split: str,
    library: pathlib.Path,
    jobs: int = 1,
    progress: Callable[[int, int], object] = lambda done, clips: None,
) -> AecCache:
    """Makes, or goes on making, a cache of `clips` clips of `seconds` in the folder `path`, beside
    those made from anything else; library: path of the shared library. Returns the cache."""
    scenes = corpus, bank, library, seconds, seed, split
    folder = clip_store.fill(path, fields, made_from(*scenes), clips, Maker, scenes, jobs, progress)
    return AecCache(folder, clips)
