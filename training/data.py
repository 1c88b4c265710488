"""What the tasks draw from: corpus, rooms and cached canceller runs, or the stand-ins of stub_scenes.py."""

import functools
import os

import tqdm

from . import cache_keys
from .corpus import SPLITS

SEED = 1  # of splits and rooms, which all networks share


class StubData:
    """Needs no audio."""

    def __init__(self, config):
        from . import stub_scenes  # which wants PyTorch, and not everybody here has it

        self.config, self.scenes = config, stub_scenes

    def prepare(self, network):
        pass

    def digest(self):
        return "stub"

    def sources(self):
        return {("none", "signals from formulas"): 0.0}

    def ns_batch(self, rng, batch, seconds, split):
        return self.scenes.ns_batch(None, None, rng, batch, seconds, split)

    def doa_batch(self, rng, batch, seconds, split):
        import torch

        from .models import doa

        scenes = self.scenes.doa_batch(None, None, rng, batch, seconds, split)
        return scenes | {"features": doa.inputs(torch.from_numpy(scenes.pop("mics"))).numpy()}

    def kws_batch(self, rng, batch, seconds, split, progress):
        return self.scenes.kws_batch(None, None, rng, batch, seconds, split, progress)

    @functools.cache
    def echo_clips(self, split):
        c = self.config["data"]
        clips = c["clips"] if split == "train" else c["valid_clips"]
        return self.scenes.EchoClips(clips, c["clip_seconds"], seed=["train", "valid", "test"].index(split))


class SceneData:
    """Everything is opened on first use, so that worker processes open their own."""

    def __init__(self, config, audio, folder, library, suppressor, cutter, smoke):
        self.config, self.audio, self.folder, self.library = config, audio, folder, library
        self.suppressor, self.cutter = suppressor, cutter
        suffix = "-smoke" if smoke else ""
        self.bank_path = folder / f"bank{suffix}"
        self.aec_path = folder / f"aec{suffix}"
        self.direction_path = folder / f"direction{suffix}"
        self.syllables_path = folder / f"syllables{suffix}"

    @functools.cached_property
    def corpus(self):
        from .corpus import open_corpus

        return open_corpus(self.audio, self.folder / "corpus", SEED)

    @functools.cached_property
    def bank(self):
        from .scenes import bank

        return bank.load_bank(self.bank_path)

    def digest(self):
        return self.corpus.digest()

    def sources(self):
        sources = self.corpus.sources(splits=("train",))
        if self.config["data"].get("test_voices"):
            sources += self.corpus.sources(("mandarin",), ("test",))
        return sources

    def prepare(self, network):
        """Builds what is missing: rooms, and what the networks behind others hear."""
        from .scenes import bank

        c = self.config["data"]
        with Progress("rooms") as progress:
            bank.build_bank(self.bank_path, c["rooms"], SEED, c["workers"], progress=progress)
        make = {"naec": self.make_echo_clips, "doa": self.make_direction_clips, "kws": self.make_echo_clips}.get(network)
        if make and (self.library or network != "kws"):
            for split in SPLITS:
                with Progress(f"{network} clips, {split}") as progress:
                    make(split, c["workers"], progress)
        if network == "kws":
            self.prepare_syllables()

    def make_echo_clips(self, split, workers, progress):
        from .scenes import simulate

        simulate.aec_cache(
            self.corpus,
            self.bank,
            self.aec_path / split,
            self.clips(split),
            self.config["data"]["clip_seconds"],
            SEED,
            split,
            self.built(),
            workers,
            progress=progress,
        )

    def make_direction_clips(self, split, workers, progress):
        from .scenes import direction

        direction.direction_clips(
            self.corpus,
            self.bank,
            self.direction_path / split,
            self.clips(split),
            SEED,
            split,
            self.built(),
            self.suppressor,
            workers,
            progress=progress,
        )

    def prepare_syllables(self):
        from .syllables import backgrounds, cutting, voices
        from .syllables.inventory import inventory

        cutter = cutting.Cutter(self.library, self.cutter, inventory()) if self.library else None
        for split in SPLITS:
            with Progress(f"voices, {split}") as progress:
                voices.build(
                    self.corpus,
                    self.syllables_path / "voices" / split,
                    split,
                    SEED,
                    self.config["data"]["synthetic_voices"],
                    cutter,
                    progress,
                )
            with Progress(f"backgrounds, {split}") as progress:
                backgrounds.build(
                    self.corpus, self.bank, self.remainders(split), self.syllables_path / "backgrounds" / split, split, progress
                )

    def remainders(self, split):
        """Runs of the canceller, of which the wake-up network hears what is left of playback; None without a library."""
        return self.echo_clips(split) if self.library else None

    def voices_folder(self, split):
        from .syllables import cutting, voices

        cutter = cutting.made_from(self.library, self.cutter) if self.library else None
        made_from = voices.made_from(self.corpus, split, SEED, self.config["data"]["synthetic_voices"], cutter)
        return cache_keys.folder(self.syllables_path / "voices" / split, made_from)

    def backgrounds_folder(self, split):
        from .syllables import backgrounds

        made_from = backgrounds.made_from(self.corpus, self.bank, self.remainders(split), split)
        return cache_keys.folder(self.syllables_path / "backgrounds" / split, made_from)

    @functools.cache
    def syllables(self, split):
        from .syllables import backgrounds, voices

        splits = [split, "test"] if split == "train" and self.config["data"]["test_voices"] else [split]
        return voices.Voices(*map(self.voices_folder, splits)), backgrounds.Backgrounds(self.backgrounds_folder(split))

    def kws_batch(self, rng, batch, seconds, split, progress):
        from .syllables import batch as batches

        return batches.batch(*self.syllables(split), rng, batch, seconds, progress)

    def ns_batch(self, rng, batch, seconds, split):
        from .scenes import simulate

        return simulate.ns_batch(self.corpus, self.bank, rng, batch, seconds, split)

    def doa_batch(self, rng, batch, seconds, split):
        from .scenes import direction

        c = self.config["data"]
        return direction.batch(self.direction_clips(split), rng, batch, seconds, c["raw"], c["gain_db"])

    def clips(self, split):
        return self.config["data"]["clips" if split == "train" else "valid_clips"]

    @functools.cache
    def direction_clips(self, split):
        from .scenes import direction

        made_from = direction.made_from(self.corpus, self.bank, self.built(), SEED, split)
        return direction.DirectionClips(
            cache_keys.folder(self.direction_path / split, made_from), self.suppressor, self.clips(split)
        )

    @functools.cache
    def echo_clips(self, split):
        from .scenes import cache

        seconds = self.config["data"]["clip_seconds"]
        made_from = cache.made_from(self.corpus, self.bank, self.built(), seconds, SEED, split)
        return cache.AecCache(cache_keys.folder(self.aec_path / split, made_from), self.clips(split))

    def built(self):
        if self.library is None:
            raise SystemExit("training: these scenes go through the built library: --library PATH")
        return self.library


class Progress:
    """A bar for the makers of rooms and caches, which report (done, of)."""

    def __init__(self, what):
        self.bar = tqdm.tqdm(desc=what, mininterval=1 if os.isatty(2) else 60)

    def __call__(self, done, of):
        self.bar.total = of
        self.bar.update(done - self.bar.n)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.bar.close()


def open_data(config, arguments):
    if arguments.stub:
        return StubData(config)
    return SceneData(
        config, arguments.data, arguments.out, arguments.library, arguments.suppressor, arguments.cutter, arguments.smoke
    )
