"""The decoder's score of the wake phrase (wakeup/decoder.cpp), differentiable: what decides is trained and measured itself."""

from __future__ import annotations

from collections.abc import Sequence

import torch

from ..device_facts import BLANK, DECAY, DECAY_AFTER, DIVISOR, FILLER, RESET_AFTER, SILENT, SMALLEST_SCORE
from .inventory import PHRASE


def merged(log_posteriors: torch.Tensor) -> torch.Tensor:
    """Log posteriors with the filler's share added to the blank's, as the decoder has them."""
    blank = torch.logaddexp(log_posteriors[..., BLANK], log_posteriors[..., FILLER])
    return torch.cat([log_posteriors[..., :BLANK], blank[..., None]], -1)


def silent_runs(blank: torch.Tensor) -> tuple[torch.Tensor, torch.Tensor]:
    """Per step the number of silent steps up to it, and whether all scores are cleared there. blank [B, T]."""
    count, runs, cleared = torch.zeros_like(blank[:, 0]), [], []
    for step in (blank > SILENT).unbind(1):
        count = torch.where(step, count + 1, torch.zeros_like(count))
        cleared.append(count > RESET_AFTER)
        count = torch.where(cleared[-1], torch.zeros_like(count), count)
        runs.append(count)
    return torch.stack(runs, 1), torch.stack(cleared, 1)


def scores(log_posteriors: torch.Tensor, phrase: Sequence[int] = PHRASE) -> tuple[torch.Tensor, torch.Tensor]:
    """[B, T, 146] merged -> the score of the phrase's last syllable [B, T], and where a step may wake."""
    classes = [BLANK, *(c for syllable in phrase for c in (syllable, BLANK))]
    p = log_posteriors[..., classes].exp()
    blank = p[..., 0]
    runs, cleared = silent_runs(blank.detach())
    decay = torch.where(runs > DECAY_AFTER[1], DECAY[1], torch.where(runs > DECAY_AFTER[0], DECAY[0], 1.0))
    states, found = torch.zeros_like(p[:, 0]), []
    # A state may be entered from the one two before, over the blank between two different syllables.
    skips = p.new_tensor([float(j > 1 and j % 2 == 1 and c != classes[j - 2]) for j, c in enumerate(classes)])
    inner = torch.zeros(len(classes), dtype=torch.bool, device=p.device)
    inner[1:-1] = True
    one = torch.ones_like(states[:, :1])
    for t in range(p.shape[1]):
        states = torch.where(cleared[:, t, None], torch.zeros_like(states), states)
        before = torch.nn.functional.pad(states, (2, 0))
        states = states + before[:, 1:-1] + skips * before[:, :-2]
        states = (states * p[:, t]).clamp(max=1.0)
        states = torch.cat([one, states[:, 1:]], 1)
        states = torch.where(inner, states * decay[:, t, None], states)
        found.append(states[:, -2])
    return torch.stack(found, 1), blank <= SILENT


def cost(score: torch.Tensor, divisor: float = DIVISOR) -> torch.Tensor:
    return -torch.log(score + SMALLEST_SCORE) / divisor
