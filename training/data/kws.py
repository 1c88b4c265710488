"""Utterances put together as mel energies, from the voices and backgrounds of training/syllables."""

from __future__ import annotations

import argparse
import collections
import functools
import pathlib
import subprocess

import numpy as np
import torch

from training import cache_keys, data
from training.corpus import SPLITS, Corpus, open_corpus
from training.data import naec
from training.device_facts import BLANK, BLOCK, FULL_SCALE, RATE
from training.models import kws
from training.scenes import cache
from training.shared import PARAMS, ROOT, Config
from training.syllables import backgrounds, cutting, linter, voices
from training.syllables import batch as batches
from training.syllables.confusions import Confusions
from training.syllables.inventory import Phrase, inventory, shipped


def phrase_of(config: Config) -> Phrase:
    """What a recipe trains for."""
    return Phrase.of(config["phrase"]) if "phrase" in config else shipped


class Once(argparse.Action):
    """An option that a second time does not silently replace what the first one said."""

    def __call__(self, parser: argparse.ArgumentParser, namespace: argparse.Namespace, values: object, *_: object) -> None:
        if getattr(namespace, self.dest) is not None:
            raise argparse.ArgumentError(self, "one phrase at a time")
        setattr(namespace, self.dest, values)


class ForPhrase:
    """What both kinds of material know."""

    config: Config

    @property
    def phrase(self) -> Phrase:
        return phrase_of(self.config)

    @functools.cached_property
    def confusions(self) -> Confusions:
        """Of the network that is trained on it."""
        return Confusions(self.phrase)


class Scenes(ForPhrase, naec.Scenes):
    """With a library also what the canceller leaves of playback, in the echo suppressor's clips."""

    @staticmethod
    def add_options(parser: argparse.ArgumentParser) -> None:
        parser.add_argument(
            "--cutter",
            type=pathlib.Path,
            default=PARAMS / "kws.safetensors",
            help="kws: parameter file of the wake-up network that finds the syllables inside words (default: %(default)s)",
        )
        parser.add_argument(
            "--phrase",
            action=Once,
            type=linter.checked,
            help="kws: another wake phrase, in syllables: fine-tunes the shipped network with configs/kws_phrase.toml",
        )
        parser.add_argument(
            "--voices",
            type=pathlib.Path,
            help="kws: what ./run voices has made, beside the corpus (another phrase: made there if it is missing)",
        )

    @staticmethod
    def recorded(arguments: argparse.Namespace) -> dict[str, str]:
        return {"phrase": arguments.phrase} if arguments.phrase else {}

    @staticmethod
    def settle(arguments: argparse.Namespace) -> str:
        """Another phrase has a recipe, a beginning and folders of its own."""
        name = "kws"
        if arguments.phrase:
            name = f"kws-{arguments.phrase.replace(' ', '_')}"
            arguments.config = arguments.config or ROOT / "training/configs/kws_phrase.toml"
            arguments.start = arguments.start or PARAMS / "kws.safetensors"
            arguments.voices = arguments.voices or arguments.out / f"voices-{arguments.phrase.replace(' ', '_')}"
            arguments.params = arguments.params or arguments.out / f"params-{name}{'-smoke' if arguments.smoke else ''}"
        return name

    @functools.cached_property
    def corpus(self) -> Corpus:
        voices = self.arguments.voices
        if voices and not (voices / "manifest.csv").exists():
            if "phrase" not in self.config:
                raise SystemExit(f"training: --voices {voices}: no manifest.csv there")
            voices = None
        return open_corpus(self.arguments.data, self.arguments.out / "corpus", data.SEED, voices=voices)

    def sources(self) -> collections.Counter[tuple[str, str]]:
        sources = super().sources()
        if self.config["data"].get("test_voices"):
            sources += self.corpus.sources(("mandarin",), ("test",))
        return sources

    def make_echo_clips(self) -> None:
        if self.library:
            super().make_echo_clips()

    def say(self) -> None:
        """Has the synthesiser's voices say another phrase, in an environment of their own (./run voices)."""
        lines, folder = self.config["data"].get("voice_lines", 0), self.arguments.voices
        if not lines or (folder / "manifest.csv").exists():
            return
        command = [ROOT / "run", "voices", folder.resolve(), "--phrase", self.phrase.text, "--lines", str(lines)]
        if self.arguments.data:
            command += ["--texts", open_corpus(self.arguments.data, self.arguments.out / "corpus", data.SEED).root.resolve()]
        subprocess.run(command, check=True)

    def prepare(self) -> None:
        self.say()
        super().prepare()
        cutter = cutting.Cutter(self.library, self.arguments.cutter, inventory()) if self.library else None
        synthetic = self.config["data"]["synthetic_voices"]
        for split in SPLITS:
            with data.Progress(f"voices, {split}") as progress:
                voices.build(
                    self.corpus,
                    self.folder("syllables") / "voices" / split,
                    split,
                    data.SEED,
                    synthetic,
                    cutter,
                    self.phrase,
                    progress,
                )
            with data.Progress(f"backgrounds, {split}") as progress:
                folder = self.folder("syllables") / "backgrounds" / split
                backgrounds.build(self.corpus, self.bank, self.remainders(split), folder, split, progress)

    def remainders(self, split: str) -> cache.AecCache | None:
        """Runs of the canceller, of which the wake-up network hears what is left of playback; None without a library."""
        return self.echo_clips(split) if self.library else None

    def voices_folder(self, split: str) -> pathlib.Path:
        cutter = cutting.made_from(self.library, self.arguments.cutter) if self.library else None
        made_from = voices.made_from(
            self.corpus, split, data.SEED, self.config["data"]["synthetic_voices"], cutter, self.phrase
        )
        return cache_keys.folder(self.folder("syllables") / "voices" / split, made_from)

    def backgrounds_folder(self, split: str) -> pathlib.Path:
        made_from = backgrounds.made_from(self.corpus, self.bank, self.remainders(split), split)
        return cache_keys.folder(self.folder("syllables") / "backgrounds" / split, made_from)

    @functools.cache
    def syllables(self, split: str) -> tuple[voices.Voices, backgrounds.Backgrounds]:
        splits = [split, "test"] if split == "train" and self.config["data"]["test_voices"] else [split]
        mined = self.confusions if split == "train" else None
        spoken = voices.Voices(*map(self.voices_folder, splits), phrase=self.phrase, confusions=mined)
        return spoken, backgrounds.Backgrounds(self.backgrounds_folder(split))

    def batch(self, rng: np.random.Generator, batch: int, seconds: float, split: str, progress: float) -> dict[str, np.ndarray]:
        return batches.batch(*self.syllables(split), rng, batch, seconds, progress)


class Stub(ForPhrase, data.Stub):
    """Strings of "syllables", one pair of tones per class, the wake phrase among them, as syllables/batch.py has them."""

    def batch(self, rng: np.random.Generator, batch: int, seconds: float, split: str, progress: float) -> dict[str, np.ndarray]:
        blocks = round(seconds * RATE) // BLOCK
        count = max(4, int(seconds / 0.4) - 1)
        phrase = self.phrase.said
        count = max(count, len(phrase))
        waves, labels = 0.003 * rng.standard_normal((batch, blocks * BLOCK)), rng.integers(1, BLANK, (batch, count))
        labels[0, : len(phrase)], kind = phrase, np.full(batch, batches.KINDS.index("string"))
        kind[0] = batches.KINDS.index("phrase")
        t = np.arange(round(0.25 * RATE)) / RATE
        starts = np.round(np.linspace(0.1, blocks * BLOCK / RATE - 0.4, count) * RATE).astype(int)
        for wave, row in zip(waves, labels):
            for start, label in zip(starts, row):
                tones = sum(np.sin(2 * np.pi * f * t) for f in (300 + 60 * (label % 12), 1300 + 200 * (label // 12)))
                wave[start : start + len(t)] += 0.05 * tones * np.hanning(len(t)) * 10 ** rng.uniform(-0.5, 0.5)
        end = np.tile((starts + len(t)) // BLOCK, (batch, 1))
        heard = torch.from_numpy(np.float32(np.round(FULL_SCALE * np.clip(waves, -0.99, 0.99))))
        return {
            "features": kws.inputs(heard).numpy(),
            "labels": np.float32(labels),
            "first": np.float32(end - batches.EARLY),
            "last": np.float32(end + batches.LATE),
            "middle": np.float32(end - 4),
            "certain": np.ones(batch, np.float32),
            "kind": np.float32(kind),
            "progress": np.array(progress, np.float32),
        }
