"""Muon: AdamW for what is no matrix; matrices move along their momentum made orthogonal, so that every direction of a layer
learns at the same rate (K. Jordan et al. 2024, "Muon: an optimizer for hidden layers in neural networks"; size of the step
and weight decay after J. Liu et al. 2025, "Muon is scalable for LLM training")."""

from __future__ import annotations

import torch

from training.shared import Record

MOMENTUM = 0.95
BETAS, EPSILON = (0.9, 0.99), 1e-8
POLYNOMIAL, ROUNDS = (3.4445, -4.7750, 2.0315), 5  # bring singular values to 0.7..1.2
LIKE_ADAM = 0.2  # root mean square of an update, in learning rates
SMALLEST = 8  # columns of a matrix


def orthogonal(m: torch.Tensor) -> torch.Tensor:
    """[rows, columns] with all singular values about 1, by Newton-Schulz rounds."""
    a, b, c = POLYNOMIAL
    x = m.T if m.shape[0] > m.shape[1] else m
    x = x / (x.norm() + 1e-7)
    for _ in range(ROUNDS):
        gram = x @ x.T
        x = a * x + (b * gram + c * gram @ gram) @ x
    return x.T if m.shape[0] > m.shape[1] else x


class Muon(torch.optim.Optimizer):
    """groups: a list of two, {"params", "parts"} for matrices, so many on top of each other in each, and {"params"} for the
    rest."""

    def __init__(self, groups: list[Record], weight_decay: float) -> None:
        super().__init__([{"parts": None} | group for group in groups], {"lr": 0.0, "weight_decay": weight_decay})

    @torch.no_grad()
    def step(self) -> None:
        for group in self.param_groups:
            for i, p in enumerate(group["params"]):
                if p.grad is None:
                    continue
                if group["parts"]:
                    p.mul_(1 - group["lr"] * group["weight_decay"])
                    update = self.matrices(p, self.state[p], group["parts"][i])
                else:
                    update = self.adam(p, self.state[p])
                p.sub_(update, alpha=group["lr"])

    @staticmethod
    def matrices(p: torch.Tensor, state: Record, parts: int) -> torch.Tensor:
        average = state.setdefault("average", torch.zeros_like(p))
        average.lerp_(p.grad, 1 - MOMENTUM)
        ahead = p.grad.lerp(average, MOMENTUM).flatten(1)
        return torch.cat([LIKE_ADAM * max(m.shape) ** 0.5 * orthogonal(m) for m in ahead.chunk(parts)]).view_as(p)

    @staticmethod
    def adam(p: torch.Tensor, state: Record) -> torch.Tensor:
        average, square = (state.setdefault(name, torch.zeros_like(p)) for name in ("average", "square"))
        state["step"] = n = state.get("step", 0) + 1
        average.lerp_(p.grad, 1 - BETAS[0])
        square.lerp_(p.grad.square(), 1 - BETAS[1])
        return average / (1 - BETAS[0] ** n) / ((square / (1 - BETAS[1] ** n)).sqrt() + EPSILON)


def muon(model: torch.nn.Module, weight_decay: float) -> Muon:
    """Of a model: weights of dense, recurrent and full convolutional layers are matrices, those of the output are not."""
    matrices, parts = [], []
    for name, module in model.named_modules():
        full = isinstance(module, (torch.nn.Linear, torch.nn.GRU, torch.nn.Conv2d)) and getattr(module, "groups", 1) == 1
        if full and not name.startswith("output"):
            own = [p for p in module.parameters(recurse=False) if p.ndim > 1 and p[0].numel() >= SMALLEST]
            matrices += own
            parts += [3 if isinstance(module, torch.nn.GRU) else 1] * len(own)
    taken = set(matrices)
    return Muon(
        [{"params": matrices, "parts": parts}, {"params": [p for p in model.parameters() if p not in taken]}], weight_decay
    )
