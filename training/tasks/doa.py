"""Direction network: a vector towards the talker while he speaks, none while nobody does."""
import torch

from ..models import doa

FRONT_END_DEGREES = 30  # the front end adds this to the network's heading
LENGTH = 0.9            # of a speaking talker's vector: the tangent need not saturate


class Task:
    def __init__(self, config, data):
        self.config, self.data = config, data

    def model(self):
        return doa.DirectionNetwork(**self.config["model"])

    def sample(self, rng, split, progress=1.0):
        c = self.config["data"]
        return self.data.doa_batch(rng, c["batch"], c["seconds"], split)

    def vectors(self, model, batch):
        with torch.no_grad():
            features = doa.inputs(batch["mics"])
        angle = torch.deg2rad(batch["heading"] - FRONT_END_DEGREES)
        target = LENGTH * torch.stack([angle.sin(), angle.cos()], -1)[:, None] * batch["active"][..., None]
        return model(features), target

    def loss(self, model, batch, rng):
        estimate, target = self.vectors(model, batch)
        active = batch["active"]
        weight = active + self.config["loss"]["silence"] * (1 - active)
        distance = (weight * (estimate - target).pow(2).sum(-1)).mean()
        cosine = torch.nn.functional.cosine_similarity(estimate, target, -1, 1e-4)
        return distance + (active * (1 - cosine)).mean(), {}

    def validate(self, model, batch):
        """Error of the decision: the longest vector of each clip, as at a wake."""
        estimate, target = self.vectors(model, batch)
        longest = estimate.norm(dim=-1).argmax(1)
        x, y = estimate[torch.arange(len(estimate)), longest].unbind(-1)
        error = torch.rad2deg(torch.atan2(x, y)) + FRONT_END_DEGREES - batch["heading"]
        error = ((error + 180) % 360 - 180).abs()
        return {"loss": self.loss(model, batch, None)[0].item(), "median_degrees": error.median().item(),
                "p90_degrees": error.quantile(0.9).item()}
