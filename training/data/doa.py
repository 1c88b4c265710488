"""Calls from known headings as the direction network hears them, behind the canceller and the noise suppressor."""

from __future__ import annotations

import argparse
import functools
import pathlib

import numpy as np
import torch

from training import cache_keys, data
from training.corpus import SPLITS
from training.data import stub_signals
from training.device_facts import BLOCK, FULL_SCALE, MICROPHONES, RATE
from training.models import doa
from training.scenes import array_geometry, bank, direction
from training.shared import PARAMS


class Scenes(data.Scenes):
    @staticmethod
    def add_options(parser: argparse.ArgumentParser) -> None:
        parser.add_argument(
            "--suppressor",
            type=pathlib.Path,
            default=PARAMS / "ns.safetensors",
            help="doa: parameter file of the noise suppressor to listen through (default: %(default)s)",
        )

    @staticmethod
    def recorded(arguments: argparse.Namespace) -> dict[str, str]:
        return {"suppressor": cache_keys.file_digest(arguments.suppressor)}

    def prepare(self) -> None:
        super().prepare()
        for split in SPLITS:
            with data.Progress(f"doa clips, {split}") as progress:
                direction.direction_clips(
                    self.corpus,
                    self.bank,
                    self.folder("direction") / split,
                    self.clips(split),
                    data.SEED,
                    split,
                    self.built(),
                    self.arguments.suppressor,
                    self.config["data"]["workers"],
                    progress=progress,
                )

    @functools.cache
    def direction_clips(self, split: str) -> direction.DirectionClips:
        made_from = direction.made_from(self.corpus, self.bank, self.built(), data.SEED, split)
        return direction.DirectionClips(
            cache_keys.folder(self.folder("direction") / split, made_from), self.arguments.suppressor, self.clips(split)
        )

    def batch(self, rng: np.random.Generator, batch: int, seconds: float, split: str) -> dict[str, np.ndarray]:
        c = self.config["data"]
        return direction.batch(self.direction_clips(split), rng, batch, seconds, c["raw"], c["gain_db"])


class Stub(data.Stub):
    """Plane waves in free field."""

    def batch(self, rng: np.random.Generator, batch: int, seconds: float, split: str) -> dict[str, np.ndarray]:
        blocks = round(seconds * RATE) // BLOCK
        samples = blocks * BLOCK
        positions = array_geometry.mic_offsets()[:, :2]
        mics, headings, active = [], rng.uniform(0, 360, batch), []
        for heading in headings:
            on = np.repeat(rng.random(blocks // 10 + 1) > 0.3, 10)[:blocks]
            speech = np.fft.rfft(stub_signals.coloured_noise(rng, samples) * np.repeat(on, BLOCK))
            towards = array_geometry.offset(heading, 1.0, 0.0)[:2]
            delays = -positions @ towards / bank.SPEED_OF_SOUND
            turn = np.exp(-2j * np.pi * np.fft.rfftfreq(samples, 1 / RATE) * delays[:, None])
            noise = 0.002 * rng.standard_normal((MICROPHONES, samples))
            mics.append(np.fft.irfft(speech * turn, samples) + noise)
            active.append(on)
        waves = np.float32(np.round(FULL_SCALE * np.clip(mics, -0.99, 0.99)))
        return {
            "heading": np.float32(headings),
            "active": np.float32(active),
            "features": doa.inputs(torch.from_numpy(waves)).numpy(),
        }
