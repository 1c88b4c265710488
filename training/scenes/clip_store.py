"""Numbered clips on disk: arrays of one shape per clip, and what is known about each.

A store is a folder, named by what its clips are made from (cache_keys.py):
  made_from.json  that
  cache.json      samples per clip, number of clips, one entry per clip made
  FILE            [clips, ...] a memory-mapped array per field
Clip i is a function of that and of its number; making goes on where it stopped.
"""

from __future__ import annotations

import json
import math
import os
import pathlib
from collections.abc import Callable
from concurrent.futures import ProcessPoolExecutor

import numpy as np

from training import cache_keys
from training.shared import Record

SAVE_EVERY = 50  # clips

Fields = dict[str, tuple[str, type, tuple[int, ...]]]  # name -> file, element type, shape of one clip


class ClipStore:
    """A store to read: `signals` {name: array [clips, ...]}, `made` [entry].

    fields: samples per clip -> {name: (file, dtype, shape of one clip)}
    """

    def __init__(self, path: pathlib.Path | str, fields: Callable[[int], Fields]) -> None:
        path = pathlib.Path(path)
        if not (path / "cache.json").exists():
            raise FileNotFoundError(f"{path}: nothing has been made from these ingredients yet")
        description = _describe(path)
        self.made = description["made"]
        self.signals = {
            name: np.memmap(path / file, dtype, "r", shape=(description["clips"], *shape))
            for name, (file, dtype, shape) in fields(description["samples"]).items()
        }

    def __len__(self) -> int:
        return len(self.made)


def _describe(path: pathlib.Path) -> Record:
    return json.loads((path / "cache.json").read_text(encoding="utf-8"))


_maker = None


def _start_worker(kind: type, arguments: tuple) -> None:
    global _maker
    os.environ["OMP_NUM_THREADS"] = "1"
    _maker = kind(*arguments)


def _make(number: int) -> tuple[dict[str, np.ndarray], Record]:
    return _maker(number)


def fill(
    parent: pathlib.Path | str,
    fields: Callable[[int], Fields],
    made_from: Record,
    clips: int,
    kind: type,
    arguments: tuple,
    jobs: int = 1,
    progress: Callable[[int, int], object] = lambda done, clips: None,
) -> pathlib.Path:
    """Makes, or goes on making, a store of `clips` clips, more if there are more already.

    made_from: what the clips are a function of, beside their number, `samples` among it.
    kind(*arguments), in each of the `jobs` processes, gives the maker: number -> (signals, entry).
    Returns the store's folder in `parent`.
    """
    path = cache_keys.begin(parent, made_from)
    made = []
    if (path / "cache.json").exists():
        before = _describe(path)
        clips, made = max(clips, before["clips"]), before["made"]

    signals, samples = {}, made_from["samples"]
    for name, (file, dtype, shape) in fields(samples).items():
        with open(path / file, "ab") as f:
            f.truncate(clips * math.prod(shape) * np.dtype(dtype).itemsize)
        signals[name] = np.memmap(path / file, dtype, "r+", shape=(clips, *shape))

    def save() -> None:
        for x in signals.values():
            x.flush()
        part = path / "cache.json.part"
        description = {"samples": samples, "clips": clips, "made": made}
        part.write_text(json.dumps(description), encoding="utf-8")
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
    return path
