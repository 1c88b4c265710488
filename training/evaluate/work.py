"""Scenes over the fleet's engines: what a worker does to one, and the sections made of their rows."""

from __future__ import annotations

import argparse
import dataclasses
import functools
import os
import pathlib
from collections.abc import Sequence

import numpy as np
import tqdm
from quibo.fleet import engines

from training.corpus import open_corpus
from training.data import SEED
from training.evaluate import devices, direction, echo_path, noise, scenes, sets, wake
from training.evaluate.device import Device
from training.scenes import sources
from training.scenes.audio import RATE
from training.scenes.bank import load_bank
from training.shared import Record
from training.syllables.inventory import Phrase, shipped

# A section has numbers(opened), the numbers of its scenes, rows(opened, number), and result(opened, rows) of them all.
SECTIONS = {"noise": noise, "echo": echo_path, "devices": devices, "direction": direction, "wake": wake}


@dataclasses.dataclass(frozen=True)
class Given:
    """What rows depend on: all paths absolute, the bank built."""

    library: pathlib.Path
    data: pathlib.Path | None
    corpus: pathlib.Path  # the corpus' cache
    bank: pathlib.Path
    sizes: sets.Sizes
    gtcrn: pathlib.Path | None
    seed: int = SEED  # of the corpus' splits
    phrase: Phrase = shipped
    voices: pathlib.Path | None = None  # beside the data


class Opened:
    """What scenes are made of, and the device that hears them; a worker opens it once."""

    def __init__(self, given: Given) -> None:
        self.sizes, self.gtcrn, self.phrase = given.sizes, given.gtcrn, given.phrase
        self.device = Device(given.library)
        self.corpus = open_corpus(given.data, given.corpus, given.seed, voices=given.voices)
        self.others = scenes.without_phrases(self.corpus, self.phrase)
        self.bank = load_bank(given.bank)
        self.rooms = scenes.TestRooms(self.bank, given.sizes.rooms)

    @functools.cached_property
    def speech(self) -> np.ndarray:
        """4 s of talk, on which the peers' delays are measured."""
        return sources.talk(self.others, np.random.default_rng(sets.SEED), "near", "test", 4 * RATE)


opened = functools.lru_cache(1)(Opened)


def hear(given: Given, task: tuple[str, int]) -> list[Record]:
    """The rows of a task (section, number)."""
    section, number = task
    return SECTIONS[section].rows(opened(given), number)


def measured(given: Given, wanted: Sequence[str], options: argparse.Namespace) -> dict[str, Record]:
    """section -> its result; options: the engines' (quibo.fleet.engines)."""
    here = opened(given)
    sections = {name: section for name, section in SECTIONS.items() if name in wanted}
    if "devices" in sections and not devices.recordings(here):
        del sections["devices"]
    tasks = [(name, number) for name, section in sections.items() for number in section.numbers(here)]
    rows = {}
    with tqdm.tqdm(total=len(tasks), unit="scene", mininterval=1 if os.isatty(2) else 60) as bar:
        for task, found in engines.run(options, functools.partial(hear, given), tasks):
            if isinstance(found, engines.Died):
                raise SystemExit(f"evaluate: {task[0]}, scene {task[1]}: {found}")
            rows[task] = found
            bar.update()
    return {
        name: section.result(here, [row for task in tasks if task[0] == name for row in rows[task]])
        for name, section in sections.items()
    }
