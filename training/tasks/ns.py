"""Noise suppressor: three microphones of noisy rooms in, speech with its early reflections out."""

from __future__ import annotations

import numpy as np
import torch

from .. import data, losses, tasks
from ..data import ns as scenes
from ..device_facts import MICROPHONES
from ..models import spectrum
from ..models.ns import LOW_BINS, LOW_FACTOR, NoiseSuppressor
from ..shared import Config

VALIDATION_FLOOR = 0.1


class Task(tasks.Task):
    data: scenes.Scenes | scenes.Stub

    def __init__(self, config: Config, source: data.Stub | data.Scenes) -> None:
        super().__init__(config, source)
        self.low_factors = spectrum.low_bin_factors(LOW_BINS, LOW_FACTOR)

    def model(self) -> NoiseSuppressor:
        return NoiseSuppressor(**self.config["model"])

    def sample(self, rng: np.random.Generator, split: str, progress: float = 1.0) -> dict[str, np.ndarray]:
        c = self.config["data"]
        batch = self.data.batch(rng, c["batch"], c["seconds"], split)
        return {name: batch[name].reshape(-1, batch[name].shape[-1]) for name in ("mics", "target")}

    def loss(
        self, model: torch.nn.Module, batch: tasks.Batch, rng: np.random.Generator
    ) -> tuple[torch.Tensor, dict[str, float]]:
        c = self.config["loss"]
        floor = float(rng.choice(c["floors"]))
        microphones = MICROPHONES
        if rng.random() >= c["interleaved"]:  # one of each scene's microphones, which are much alike
            microphones, one = 1, int(rng.integers(MICROPHONES))
            batch = {name: batch[name][one::MICROPHONES] for name in ("mics", "target")}
        estimate = model(batch["mics"], microphones, floor)
        target = spectrum.analyse(batch["target"])[:, : estimate.shape[1]]
        level = batch["mics"].pow(2).mean(-1).sqrt()
        sizes = rng.choice(losses.RESOLUTIONS, 1)
        return losses.suppression(estimate, target, level, c, self.low_factors.to(level.device), sizes=sizes), {}

    def validate(self, model: torch.nn.Module, batch: tasks.Batch) -> dict[str, float]:
        estimate = model(batch["mics"], MICROPHONES, VALIDATION_FLOOR)
        frames = estimate.shape[1]
        target, noisy = (spectrum.analyse(batch[name])[:, :frames] for name in ("target", "mics"))
        level = batch["mics"].pow(2).mean(-1).sqrt()
        loss = losses.suppression(estimate, target, level, self.config["loss"], self.low_factors.to(level.device))
        estimate, target, noisy = map(spectrum.synthesise, (estimate, target, noisy))
        before, after = losses.si_sdr(noisy, target), losses.si_sdr(estimate, target)
        return {"loss": loss.item(), "si_sdr": after.mean().item(), "si_sdr_improvement": (after - before).mean().item()}
