"""Direction network: a vector towards the talker while he speaks, none while nobody does."""

from __future__ import annotations

import numpy as np
import torch

from .. import tasks
from ..data import doa as scenes
from ..device_facts import DECISION_BLOCKS, HEADING_OFFSET
from ..models import doa

LENGTH = 0.9  # of a speaking talker's vector: the tangent need not saturate
CHORD_ROUNDING = 0.03  # of the heading's loss near zero, radians


class Task(tasks.Task):
    data: scenes.Scenes | scenes.Stub

    def model(self) -> doa.DirectionNetwork:
        return doa.DirectionNetwork(**self.config["model"])

    def sample(self, rng: np.random.Generator, split: str, progress: float = 1.0) -> dict[str, np.ndarray]:
        c = self.config["data"]
        return self.data.batch(rng, c["batch"], c["seconds"], split)

    def vectors(self, model: torch.nn.Module, batch: tasks.Batch) -> tuple[torch.Tensor, torch.Tensor]:
        """Estimate and target [B, blocks, 2]."""
        angle = torch.deg2rad(batch["heading"] - HEADING_OFFSET)
        target = LENGTH * torch.stack([angle.sin(), angle.cos()], -1)[:, None] * batch["active"][..., None]
        return model(batch["features"]), target

    def loss(
        self, model: torch.nn.Module, batch: tasks.Batch, rng: np.random.Generator | None
    ) -> tuple[torch.Tensor, dict[str, float]]:
        estimate, target = self.vectors(model, batch)
        active = batch["active"]
        weight = active + self.config["loss"]["silence"] * (1 - active)
        distance = (weight * (estimate - target).pow(2).sum(-1)).mean()
        cosine = torch.nn.functional.cosine_similarity(estimate, target, -1, 1e-4)
        # The chord between the headings, not its square: many small errors weigh as much as few large ones.
        chord = (2 - 2 * cosine + CHORD_ROUNDING**2).sqrt()
        return distance + self.config["loss"]["heading"] * (active * chord).mean(), {}

    def validate(self, model: torch.nn.Module, batch: tasks.Batch) -> dict[str, float]:
        """Error of the decision on clips in which somebody speaks: the longest vector of the blocks up to the last
        in which he does, as at a wake."""
        estimate, target = self.vectors(model, batch)
        loss = self.loss(model, batch, None)[0].item()
        spoken = batch["active"].sum(1) > 0
        estimate, active, heading = estimate[spoken], batch["active"][spoken], batch["heading"][spoken]
        block = torch.arange(active.shape[1], device=active.device)
        last = (active * block).argmax(1, keepdim=True)
        heard = (block <= last) & (block > last - DECISION_BLOCKS)
        longest = (estimate.norm(dim=-1) * heard).argmax(1)
        x, y = estimate[torch.arange(len(estimate)), longest].unbind(-1)
        error = torch.rad2deg(torch.atan2(x, y)) + HEADING_OFFSET - heading
        error = ((error + 180) % 360 - 180).abs()
        return {
            "loss": loss,
            "median_degrees": error.median().item(),
            "p90_degrees": error.quantile(0.9).item(),
            "within_15_degrees": (error <= 15).float().mean().item(),
        }
