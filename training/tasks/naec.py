"""Echo suppressor: what the library's canceller leaves in, near-end speech with a little noise out."""

from __future__ import annotations

from collections.abc import Sequence

import numpy as np
import torch

from .. import data, losses, tasks
from ..data import naec as scenes
from ..device_facts import RATE
from ..models import spectrum
from ..models.naec import LOW_BINS, LOW_FACTOR, EchoSuppressor
from ..shared import Config


class Task(tasks.Task):
    data: scenes.Scenes | scenes.Stub

    def __init__(self, config: Config, source: data.Stub | data.Scenes) -> None:
        super().__init__(config, source)
        self.low_factors = spectrum.low_bin_factors(LOW_BINS, LOW_FACTOR)

    def model(self) -> EchoSuppressor:
        return EchoSuppressor(**self.config["model"])

    def sample(self, rng: np.random.Generator, split: str, progress: float = 1.0) -> dict[str, np.ndarray]:
        """Pieces of cached clips; a share of them starts with the clip, when the canceller has not converged."""
        c = self.config["data"]
        clips, length = self.data.echo_clips(split), round(c["seconds"] * RATE) // spectrum.HOP * spectrum.HOP
        batch = {"mic": [], "echo": [], "target": []}
        for _ in range(c["batch"]):
            clip = clips[int(rng.integers(len(clips)))]
            room = len(clip["mic"]) - length
            start = 0 if rng.random() < c["from_start"] else int(rng.integers(room + 1))
            gain = 10 ** (rng.uniform(*c["gain_db"]) / 20)
            for name, pieces in batch.items():
                pieces.append(np.float32(clip[name][start : start + length] * gain))
        return {name: np.stack(pieces) for name, pieces in batch.items()}

    def outputs(self, model: torch.nn.Module, batch: tasks.Batch) -> tuple[torch.Tensor, ...]:
        """Spectra: the estimate, the target, what the canceller leaves, the microphone."""
        estimate = model(batch["mic"], batch["echo"])
        target, error, mic = (
            spectrum.analyse(x)[:, : estimate.shape[1]] for x in (batch["target"], batch["mic"] - batch["echo"], batch["mic"])
        )
        return estimate, target, error, mic

    def suppression(
        self,
        batch: tasks.Batch,
        estimate: torch.Tensor,
        target: torch.Tensor,
        error: torch.Tensor,
        sizes: Sequence[int] | np.ndarray = losses.RESOLUTIONS,
    ) -> torch.Tensor:
        c = self.config["loss"]
        # Bins where echo is left count more: there the network earns its keep. Where the talker is what there is, taking
        # it away counts more.
        left, speech = (error - target).abs(), target.abs()
        near = speech / (left + speech + 1e-6)
        weight = 1 + c["echo_weight"] * (1 - near)
        level = batch["mic"].pow(2).mean(-1).sqrt()
        return losses.suppression(estimate, target, level, c, self.low_factors.to(level.device), weight, near, sizes)

    def loss(
        self, model: torch.nn.Module, batch: tasks.Batch, rng: np.random.Generator
    ) -> tuple[torch.Tensor, dict[str, float]]:
        estimate, target, error, _ = self.outputs(model, batch)
        return self.suppression(batch, estimate, target, error, rng.choice(losses.RESOLUTIONS, 1)), {}

    def validate(self, model: torch.nn.Module, batch: tasks.Batch) -> dict[str, float]:
        estimate, target, error, mic = self.outputs(model, batch)
        loss = self.suppression(batch, estimate, target, error).item()
        estimate, target, error, mic = map(spectrum.synthesise, (estimate, target, error, mic))
        near = target.pow(2).mean(-1) > 1e-2 * mic.pow(2).mean(-1)  # else only echo: reduction is what counts
        metrics = {"loss": loss}
        if near.any():
            after, before = (losses.si_sdr(x[near], target[near]) for x in (estimate, error))
            metrics |= {"si_sdr": after.mean().item(), "si_sdr_improvement": (after - before).mean().item()}
        if (~near).any():
            ratio = mic[~near].pow(2).mean(-1) / estimate[~near].pow(2).mean(-1).clamp_min(1e-12)
            metrics["echo_reduction"] = (10 * torch.log10(ratio)).mean().item()
        return metrics
