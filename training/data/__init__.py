"""What the networks are trained on: here what all share, in data/NETWORK.py what is one network's own:

    Scenes   what it draws from recordings in simulated rooms, what is to be made before, its options on the command line
    Stub     the same shapes from formulas alone (stub_signals.py)

A task (tasks/NETWORK.py) draws from either.
"""

from __future__ import annotations

import argparse
import collections
import functools
import importlib
import os
import pathlib
import types

import tqdm

from training.corpus import Corpus, open_corpus
from training.scenes import bank
from training.shared import Config

SEED = 1  # of splits and rooms, which all networks share


class Stub:
    """Needs no audio."""

    def __init__(self, config: Config) -> None:
        self.config = config

    def prepare(self) -> None:
        """Nothing is to be made."""

    def digest(self) -> str:
        return "stub"

    def sources(self) -> dict[tuple[str, str], float]:
        return {("none", "signals from formulas"): 0.0}


class Scenes:
    """Everything is opened on first use, so that worker processes open their own."""

    def __init__(self, config: Config, arguments: argparse.Namespace) -> None:
        self.config, self.arguments = config, arguments
        self.library: pathlib.Path | None = arguments.library

    @staticmethod
    def add_options(parser: argparse.ArgumentParser) -> None:
        """What the command `train` takes for this network alone."""

    @staticmethod
    def settle(arguments: argparse.Namespace) -> str:
        """Fills in what these options imply for others. Returns the run's name, of its folder."""
        return arguments.network

    @staticmethod
    def recorded(arguments: argparse.Namespace) -> dict[str, str]:
        """What of these options belongs to the recipe that an exported file names."""
        return {}

    def folder(self, name: str) -> pathlib.Path:
        """Of what is made before and kept."""
        return self.arguments.out / f"{name}{'-smoke' if self.arguments.smoke else ''}"

    @functools.cached_property
    def corpus(self) -> Corpus:
        return open_corpus(self.arguments.data, self.arguments.out / "corpus", SEED)

    @functools.cached_property
    def bank(self) -> bank.RoomBank:
        return bank.load_bank(self.folder("bank"))

    def digest(self) -> str:
        return self.corpus.digest()

    def sources(self) -> collections.Counter[tuple[str, str]]:
        """(licence, folder) -> hours of the audio trained on."""
        return self.corpus.sources(splits=("train",))

    def prepare(self) -> None:
        """Makes what is missing: rooms, and in networks that need it what the modules before them put out."""
        c = self.config["data"]
        with Progress("rooms") as progress:
            bank.build_bank(self.folder("bank"), c["rooms"], SEED, c["workers"], progress=progress)

    def clips(self, split: str) -> int:
        """How many are kept of a split."""
        return self.config["data"]["clips" if split == "train" else "valid_clips"]

    def built(self) -> pathlib.Path:
        if self.library is None:
            raise SystemExit("training: these scenes go through the built library: --library PATH")
        return self.library


class Progress:
    """A bar for the makers of rooms and caches, which report (done, of)."""

    def __init__(self, what: str) -> None:
        self.bar = tqdm.tqdm(desc=what, mininterval=1 if os.isatty(2) else 60)

    def __call__(self, done: int, of: int) -> None:
        self.bar.total = of
        self.bar.update(done - self.bar.n)

    def __enter__(self) -> Progress:
        return self

    def __exit__(self, *_: object) -> None:
        self.bar.close()


def of(network: str) -> types.ModuleType:
    """Its module, which not everybody can import who is here for SEED: it wants PyTorch."""
    return importlib.import_module(f".{network}", __name__)


def open_data(network: str, config: Config, arguments: argparse.Namespace) -> Stub | Scenes:
    return of(network).Stub(config) if arguments.stub else of(network).Scenes(config, arguments)
