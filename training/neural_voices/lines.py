"""What the voices say: three groups of syllables to a line, a pause between them.

All lines have the same number of syllables and pauses, so that they can be spoken as one batch.
"""

from __future__ import annotations

import csv
import pathlib
import typing
from collections.abc import Sequence

import numpy as np

from training.syllables import texts
from training.syllables.inventory import DANG, LING, PHRASE, inventory

SYLLABLES, GROUPS = 12, 3
SHORTEST, LONGEST = 2, 6  # syllables of a group
PHRASE_LINES, WORD_LINES = 0.38, 0.42  # shares; the rest are strings of syllables
PHRASE_SHARE = 0.45  # of the groups of a phrase line; the others are nearly the phrase
TONES = ((2, 1, 2, 1), (2, 5, 2, 5), (2, 1, 2, 5), (2, 4, 2, 4))
USUAL_TONES = 0.7

Choice = typing.TypeVar("Choice")


def words(folder: pathlib.Path) -> list[list[str]]:
    """Texts with tones of a corpus' recorded words and sentences, as lists of syllables ("ling2")."""
    found = []
    for manifest in sorted(folder.glob("*/manifest.csv")):
        with open(manifest, newline="", encoding="utf-8") as f:
            for row in csv.DictReader(f):
                said = (row.get("pinyin_tones") or "").lower().split()
                if said and all(s[-1] in "12345" for s in said):
                    found.append(said)
    return found


class Lines:
    """rng: numpy's; known: syllables the synthesiser can say."""

    def __init__(self, rng: np.random.Generator, recorded: list[list[str]], known: list[str]) -> None:
        self.rng, self.known = rng, known
        self.recorded = [said for said in recorded if all(s[:-1] in known for s in said)]
        self.names = {c: name for name, c in inventory().items() if name in known}

    def line(self) -> list[list[str]]:
        kind = self.rng.random()
        if kind < PHRASE_LINES:
            return [self.phrase() if self.rng.random() < PHRASE_SHARE else self.near_miss() for _ in range(GROUPS)]
        if kind < PHRASE_LINES + WORD_LINES and self.recorded:
            return self.grouped(self.run_of_words())
        return self.grouped([self.toned(self.syllable()) for _ in range(SYLLABLES)])

    def phrase(self) -> list[str]:
        tones = self.any_of(TONES) if self.rng.random() < USUAL_TONES else self.rng.integers(1, 6, 4)
        return [f"{self.names[c]}{t}" for c, t in zip(PHRASE, tones)]

    def near_miss(self) -> list[str]:
        """Four syllables that are nearly the phrase."""
        a, b, x = LING, DANG, self.syllable_class()
        orders = (
            [b, a, b, a],
            [a, b, b, a],
            [a, a, b, b],
            [a, b, a, x],
            [x, a, b, a],
            [x, b, a, b],
            [a, b, x, a],
            [a, x, a, b],
            [a, b, a, a],
            [b, b, a, b],
            [x, x, a, b],
            [a, b, x, x],
        )
        said = self.any_of(orders) if self.rng.random() < 0.3 else list(PHRASE)
        while tuple(said) == PHRASE:
            said = texts.one_off(self.rng, list(self.names))
        return [self.toned(self.names[c]) for c in said]

    def run_of_words(self) -> list[str]:
        """Recorded texts one behind the other; of a long one any stretch."""
        said = []
        while len(said) < SYLLABLES:
            text = self.any_of(self.recorded)
            start = self.rng.integers(max(1, len(text) - SYLLABLES + 1))
            said += text[start:]
        return said[:SYLLABLES]

    def grouped(self, said: list[str]) -> list[list[str]]:
        while True:
            ends = sorted(self.rng.choice(np.arange(1, SYLLABLES), GROUPS - 1, replace=False))
            groups = [said[i:j] for i, j in zip([0, *ends], [*ends, SYLLABLES])]
            if all(SHORTEST <= len(g) <= LONGEST for g in groups):
                return groups

    def any_of(self, choices: Sequence[Choice]) -> Choice:
        return choices[self.rng.integers(len(choices))]

    def syllable_class(self) -> int:
        return self.any_of(list(self.names))

    def syllable(self) -> str:
        """Of those the network has a class for, or of all."""
        return self.names[self.syllable_class()] if self.rng.random() < 0.85 else self.any_of(self.known)

    def toned(self, name: str) -> str:
        return f"{name}{self.rng.integers(1, 5)}"
