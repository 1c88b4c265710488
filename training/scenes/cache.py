"""Runs of the library's own canceller, kept: what the echo suppressor is trained on.

A cache is a folder:
  cache.json    what it was made from, and the clips with their scenario and spans
  mic.i16       [clips, T] int16: microphone 1 as the canceller has it, MIC_DELAY samples late
  echo.f32      [clips, T] float32: the canceller's estimate of the echo in it
  target.i16    [clips, T] int16: the talker as that microphone hears it, plus a little of the noise
Clip i is a function of (seed, split, i), corpus, bank and library; making goes on where it stopped.
"""

import json
import os
import pathlib
from concurrent.futures import ProcessPoolExecutor

import numpy as np

from training.corpus import SPLITS
from training.library import MIC_DELAY, Library
from training.scenes import playback
from training.scenes.audio import RATE

NOISE_KEPT = (0.15, 0.3)  # of the noise in the target: a floor instead of gating
FIELDS = {"mic": ("mic.i16", np.int16), "echo": ("echo.f32", np.float32)}
FIELDS["target"] = ("target.i16", np.int16)


def late(x):
    """x delayed as the canceller delays its microphone."""
    return np.concatenate([np.zeros(MIC_DELAY, x.dtype), x[:-MIC_DELAY]])


def to_int16(x):
    return np.int16(np.clip(np.round(x * 32768.0), -32768, 32767))


def make_clip(corpus, bank, library, seconds, seed, split, number):
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


class AecCache:
    """List of clips: dicts of mic, echo and target (float32, full scale 1.0), scenario, ser, snr,
    spans."""

    def __init__(self, path):
        path = pathlib.Path(path)
        self.description = json.loads((path / "cache.json").read_text(encoding="utf-8"))
        self._about = self.description["made"]
        shape = self.description["clips"], self.description["samples"]
        self._signals = {
            name: np.memmap(path / file, dtype, "r", shape=shape)
            for name, (file, dtype) in FIELDS.items()
        }

    def __len__(self):
        return len(self._about)

    def __getitem__(self, i):
        if not -len(self) <= i < len(self):
            raise IndexError(i)
        i %= len(self)
        clip = {
            name: x[i].astype(np.float32) / (32768.0 if x.dtype == np.int16 else 1.0)
            for name, x in self._signals.items()
        }
        return clip | self._about[i]


_worker = {}


def _start_worker(corpus, bank, library):
    os.environ["OMP_NUM_THREADS"] = "1"
    _worker.update(corpus=corpus, bank=bank, library=Library(library))


def _make_in_worker(arguments):
    return make_clip(_worker["corpus"], _worker["bank"], _worker["library"], *arguments)


def aec_cache(
    corpus,
    bank,
    path,
    clips,
    seconds,
    seed,
    split,
    library,
    jobs=1,
    progress=lambda done, clips: None,
):
    """Makes, or goes on making, a cache of `clips` clips of `seconds`; library: path of the
    shared library, or a Library. Returns the cache."""
    path = pathlib.Path(path)
    path.mkdir(parents=True, exist_ok=True)
    library = library.path if isinstance(library, Library) else pathlib.Path(library)
    frames = -(-round(seconds * RATE) // playback.FRAME)
    samples = frames * playback.FRAME
    wanted = {
        "seed": seed,
        "split": split,
        "samples": samples,
        "corpus": corpus.digest(),
        "bank": bank.digest(),
    }
    made = []
    if (path / "cache.json").exists():
        before = json.loads((path / "cache.json").read_text(encoding="utf-8"))
        if any(before[name] != value for name, value in wanted.items()):
            raise ValueError(f"{path} holds a cache of other scenes")
        clips, made = max(clips, before["clips"]), before["made"]

    signals = {}
    for name, (file, dtype) in FIELDS.items():
        with open(path / file, "ab") as f:
            f.truncate(clips * samples * np.dtype(dtype).itemsize)
        signals[name] = np.memmap(path / file, dtype, "r+", shape=(clips, samples))

    def save():
        for x in signals.values():
            x.flush()
        part = path / "cache.json.part"
        part.write_text(json.dumps({**wanted, "clips": clips, "made": made}), encoding="utf-8")
        part.replace(path / "cache.json")

    save()
    work = [(seconds, seed, split, i) for i in range(len(made), clips)]
    with ProcessPoolExecutor(
        jobs, initializer=_start_worker, initargs=(corpus, bank, library)
    ) as pool:
        for (_, _, _, i), (clip, about) in zip(work, pool.map(_make_in_worker, work)):
            for name, x in signals.items():
                x[i] = clip[name]
            made.append(about)
            if len(made) % 50 == 0:
                save()
            progress(len(made), clips)
    save()
    return AecCache(path)


def load_aec_cache(path):
    return AecCache(path)
