"""Noisy speech at three microphones, mixed for each batch anew."""

from __future__ import annotations

import numpy as np

from training import data
from training.data import stub_signals
from training.device_facts import RATE
from training.scenes import noisy


class Scenes(data.Scenes):
    def batch(self, rng: np.random.Generator, batch: int, seconds: float, split: str) -> dict[str, np.ndarray]:
        return noisy.ns_batch(self.corpus, self.bank, rng, batch, seconds, split)


class Stub(data.Stub):
    def batch(self, rng: np.random.Generator, batch: int, seconds: float, split: str) -> dict[str, np.ndarray]:
        samples = round(seconds * RATE)
        mics, target, snr = [], [], rng.uniform(-5, 20, batch)
        for db in snr:
            speech, level = stub_signals.harmonic_speech(rng, samples), 10 ** rng.uniform(-1, 0.5)
            delayed = np.stack([np.roll(speech, d) for d in rng.integers(0, 5, 3)]) * level
            noise = np.stack([stub_signals.coloured_noise(rng, samples) for _ in range(3)]) * level * 10 ** (-db / 20)
            target.append(delayed)
            mics.append(delayed + noise)
        return {"mics": np.float32(mics), "target": np.float32(target), "snr": np.float32(snr)}
