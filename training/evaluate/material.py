"""What the wake-up engine is listened to with: options of the commands that do, and what they open."""

from __future__ import annotations

import argparse
import ctypes
import pathlib

from training import engine, export
from training.corpus import SPLITS, Corpus, open_corpus
from training.data import SEED
from training.evaluate import scenes
from training.scenes.bank import RoomBank, load_bank
from training.shared import ROOT, Tables
from training.syllables import linter
from training.syllables.inventory import Phrase, shipped


def add_options(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("--library", type=pathlib.Path, required=True, help="built libquibo.so")
    parser.add_argument(
        "--params",
        type=pathlib.Path,
        help="kws.safetensors to listen with instead of the built-in one, or a folder of parameters with what it listens for",
    )
    parser.add_argument(
        "--phrase", type=linter.checked, help="what is listened for, in syllables (default: that folder's, or the shipped one)"
    )
    parser.add_argument("--data", type=pathlib.Path, required=True, help="folder of audio as for training")
    parser.add_argument("--voices", type=pathlib.Path, help="what ./run voices has made, if it is not in that folder")
    parser.add_argument("--cache", type=pathlib.Path, default=ROOT / "build-training", help="rooms, audio; waves are kept here")
    parser.add_argument("--split", choices=SPLITS, default=scenes.SPLIT, help="whose voices, rooms and noises are heard")


class Material:
    """The split that is listened to counts as the test split in it. params: a file, a folder or None."""

    def __init__(
        self,
        library: pathlib.Path,
        params: pathlib.Path | None,
        corpus: Corpus,
        bank: RoomBank,
        split: str = scenes.SPLIT,
        phrase: Phrase | None = None,
    ) -> None:
        self.library, self.bank, self.split = library, bank, split
        whole = params is not None and params.is_dir()
        self.tables: Tables = export.read(params / "kws.safetensors" if whole else params) if params else {}
        self.phrase = phrase or (Phrase.in_folder(params) if whole else shipped)
        self.corpus = corpus if split == scenes.SPLIT else corpus.with_split(split, scenes.SPLIT)
        self.others = scenes.without_phrases(self.corpus, self.phrase)
        self.rooms = scenes.TestRooms(bank, len(bank.rooms), split)

    @staticmethod
    def of(arguments: argparse.Namespace) -> Material:
        corpus = open_corpus(arguments.data, arguments.cache / "corpus", SEED, voices=arguments.voices)
        phrase = Phrase.of(arguments.phrase) if arguments.phrase else None
        return Material(
            arguments.library, arguments.params, corpus, load_bank(arguments.cache / "bank"), arguments.split, phrase
        )

    def engine(self) -> ctypes.CDLL:
        """The library with the parameters that are listened with."""
        return engine.load(self.library, {name: values for name, values in self.tables.items() if name != "fbank_filter1"})
