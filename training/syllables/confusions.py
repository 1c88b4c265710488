"""Which wrong syllables wake the network that is being trained, in each place of the phrase: near misses are drawn by it, so
that those which pass are heard more often than those which no longer do."""

from __future__ import annotations

from collections.abc import Sequence

import numpy as np
import torch

from ..device_facts import CLASSES
from .inventory import Phrase

LIKELY, SELDOM = 0.3, 0.01  # share of near misses that wake, before any was heard: of neighbours, of all others
LEAST = 0.01  # so often a near miss is drawn that never wakes, compared with one that always does
MEMORY = 0.95  # of a share, at every near miss that is heard


class Confusions:
    """Lies in memory which the processes that mix share with the one that learns."""

    def __init__(self, phrase: Phrase) -> None:
        self.phrase = phrase
        self.rates = torch.full((len(phrase.said), CLASSES), SELDOM).share_memory_()
        for place in range(len(phrase.said)):
            self.rates[place, phrase.like(place)] = LIKELY

    def draw(self, rng: np.random.Generator, place: int, among: Sequence[int]) -> int:
        p = LEAST + self.rates[place].numpy()[among]
        return int(rng.choice(among, p=p / p.sum()))

    def heard(self, said: Sequence[int], woke: bool) -> None:
        """said: classes of an utterance; nothing is learnt from one without the phrase but for one syllable."""
        for place, wrong in self.wrong(said):
            self.rates[place, wrong] = MEMORY * self.rates[place, wrong] + (1 - MEMORY) * woke

    def wrong(self, said: Sequence[int]) -> list[tuple[int, int]]:
        """Places and wrong classes of the first part of an utterance that is the phrase with one syllable wrong, in one
        place or wherever it stands."""
        n = len(self.phrase.said)
        for start in range(len(said) - n + 1):
            pairs = list(zip(self.phrase.said, said[start : start + n]))
            off = {pair for pair in pairs if pair[0] != pair[1]}
            if len(off) == 1:
                return [(place, wrong) for place, (right, wrong) in enumerate(pairs) if right != wrong]
        return []
