"""Numbered clips on disk: arrays of one shape per clip, and what is known about each.

A store is a folder:
  cache.json    what the clips were made from, and one entry per clip made
  FILE          [clips, ...] a memory-mapped array per field
Clip i is made from its number alone; making goes on where it stopped.
"""

import json
import math
import os
import pathlib
from concurrent.futures import ProcessPoolExecutor

import numpy as np

SAVE_EVERY = 50  # clips


class ClipStore:
    """A store to read: `signals` {name: array [clips, ...]}, `made` [entry], `description`.

    fields: samples per clip -> {name: (file, dtype, shape of one clip)}
    """

    def __init__(self, path, fields):
        path = pathlib.Path(path)
        self.description = _describe(path)
        self.made = self.description["made"]
        self.signals = {
            name: np.memmap(path / file, dtype, "r", shape=(self.description["clips"], *shape))
            for name, (file, dtype, shape) in fields(self.description["samples"]).items()
        }

    def __len__(self):
        return len(self.made)


def _describe(path):
    return json.loads((path / "cache.json").read_text(encoding="utf-8"))


_maker = None


def _start_worker(kind, arguments):
    global _maker
    os.environ["OMP_NUM_THREADS"] = "1"
    _maker = kind(*arguments)


def _make(number):
    return _maker(number)


def fill(path, fields, wanted, clips, kind, arguments, jobs=1, progress=lambda done, clips: None):
    """Makes, or goes on making, a store of `clips` clips, more if there are more already.

    wanted: what the clips are a function of, beside their number, `samples` among it; a store of
    something else is refused. kind(*arguments), in each of the `jobs` processes, gives the maker: number -> (signals,
    entry).
    """
    path = pathlib.Path(path)
    path.mkdir(parents=True, exist_ok=True)
    made = []
    if (path / "cache.json").exists():
        before = _describe(path)
        if any(before[name] != value for name, value in wanted.items()):
            raise ValueError(f"{path} holds a cache of other scenes")
        clips, made = max(clips, before["clips"]), before["made"]

    signals = {}
    for name, (file, dtype, shape) in fields(wanted["samples"]).items():
        with open(path / file, "ab") as f:
            f.truncate(clips * math.prod(shape) * np.dtype(dtype).itemsize)
        signals[name] = np.memmap(path / file, dtype, "r+", shape=(clips, *shape))

    def save():
        for x in signals.values():
            x.flush()
        part = path / "cache.json.part"
        part.write_text(json.dumps({**wanted, "clips": clips, "made": made}), encoding="utf-8")
        part.replace(path / "cache.json")

    save()
    missing = range(len(made), clips)
    with ProcessPoolExecutor(jobs, initializer=_start_worker, initargs=(kind, arguments)) as pool:
        for i, (clip, entry) in zip(missing, pool.map(_make, missing)):
            for name, x in signals.items():
                x[i] = clip[name]
            made.append(entry)
            if len(made) % SAVE_EVERY == 0:
                save()
            progress(len(made), clips)
    save()
