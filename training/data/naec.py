"""What the library's canceller leaves in, in clips that are made once and kept."""

from __future__ import annotations

import functools

import numpy as np

from training import cache_keys, data
from training.corpus import SPLITS
from training.data import stub_signals
from training.device_facts import MIC_DELAY, RATE
from training.scenes import cache


class Scenes(data.Scenes):
    def prepare(self) -> None:
        super().prepare()
        self.make_echo_clips()

    def make_echo_clips(self) -> None:
        c = self.config["data"]
        for split in SPLITS:
            with data.Progress(f"echo clips, {split}") as progress:
                cache.aec_cache(
                    self.corpus,
                    self.bank,
                    self.folder("aec") / split,
                    self.clips(split),
                    c["clip_seconds"],
                    data.SEED,
                    split,
                    self.built(),
                    c["workers"],
                    progress=progress,
                )

    @functools.cache
    def echo_clips(self, split: str) -> cache.AecCache:
        seconds = self.config["data"]["clip_seconds"]
        made_from = cache.made_from(self.corpus, self.bank, self.built(), seconds, data.SEED, split)
        return cache.AecCache(cache_keys.folder(self.folder("aec") / split, made_from), self.clips(split))


class Stub(data.Stub):
    @functools.cache
    def echo_clips(self, split: str) -> StubClips:
        c = self.config["data"]
        clips = c["clips"] if split == "train" else c["valid_clips"]
        return StubClips(clips, c["clip_seconds"], seed=SPLITS.index(split))


class StubClips:
    """What a canceller might leave, as cache.AecCache has it."""

    def __init__(self, clips: int, seconds: float, seed: int) -> None:
        self.clips = [self.make(np.random.default_rng([seed, i]), round(seconds * RATE)) for i in range(clips)]

    @staticmethod
    def make(rng: np.random.Generator, samples: int) -> dict[str, np.ndarray | str]:
        scenario = rng.choice(["double_talk", "far_end", "near_end"], p=[0.75, 0.15, 0.1])
        far = stub_signals.harmonic_speech(rng, samples) * (scenario != "near_end")
        near = stub_signals.harmonic_speech(rng, samples) * (scenario != "far_end")
        path = rng.standard_normal(200) * np.exp(-np.arange(200) / 40)
        played = stub_signals.scale(np.convolve(far, path)[:samples], 0.1) if far.any() else far
        echo_estimate = played * rng.uniform(0.7, 1)
        noise = 0.05 * stub_signals.coloured_noise(rng, samples)
        target = near + 0.2 * noise
        late = lambda x: np.float32(np.concatenate([np.zeros(MIC_DELAY), x[:-MIC_DELAY]]))
        return {
            "mic": late(near + np.tanh(2 * played) / 2 + noise),
            "echo": late(echo_estimate),
            "target": late(target),
            "scenario": str(scenario),
        }

    def __len__(self) -> int:
        return len(self.clips)

    def __getitem__(self, i: int) -> dict[str, np.ndarray | str]:
        return self.clips[i]
