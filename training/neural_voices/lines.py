"""What the voices say: groups of syllables to a line, three where the wake phrase has four syllables, a pause between them.

All lines have the same number of syllables and pauses, so that they can be spoken as one batch.
"""

from __future__ import annotations

import csv
import pathlib
import typing
from collections.abc import Sequence

import numpy as np

from training.syllables import texts
from training.syllables.inventory import DANG, LING, PHRASE, Phrase, inventory, shipped

SYLLABLES = 12  # of a line, at most
SHORTEST, LONGEST = 2, 6  # syllables of a group
PHRASE_LINES, WORD_LINES = 0.38, 0.42  # shares; the rest are strings of syllables
OTHER_PHRASE_LINES = 0.8  # of another phrase than the shipped one: the rest is for what else the corpus has
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

    def __init__(self, rng: np.random.Generator, recorded: list[list[str]], known: list[str], phrase: Phrase = shipped) -> None:
        self.rng, self.known, self.wake_phrase = rng, known, phrase
        self.groups = SYLLABLES // len(phrase.said)
        self.syllables = self.groups * len(phrase.said)
        self.phrase_lines = PHRASE_LINES if phrase == shipped else OTHER_PHRASE_LINES
        self.recorded = [said for said in recorded if all(s[:-1] in known for s in said)]
        self.names = {c: name for name, c in inventory().items() if name in known}

    def line(self) -> list[list[str]]:
        kind = self.rng.random()
        if kind < self.phrase_lines:
            return [self.phrase() if self.rng.random() < PHRASE_SHARE else self.near_miss() for _ in range(self.groups)]
        words = WORD_LINES * (1 - self.phrase_lines) / (1 - PHRASE_LINES)
        if kind < self.phrase_lines + words and self.recorded:
            return self.grouped(self.run_of_words())
        return self.grouped([self.toned(self.syllable()) for _ in range(self.syllables)])

    def phrase(self) -> list[str]:
        if self.wake_phrase != shipped:  # with whatever tones
            return [self.toned(self.names[c]) for c in self.wake_phrase.said]
        tones = self.any_of(TONES) if self.rng.random() < USUAL_TONES else self.rng.integers(1, 6, 4)
        return [f"{self.names[c]}{t}" for c, t in zip(PHRASE, tones)]

    def near_miss(self) -> list[str]:
        """As many syllables that are nearly the phrase."""
        if self.wake_phrase != shipped:
            return [self.toned(self.names[c]) for c in self.nearly(self.wake_phrase)]
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

    def nearly(self, phrase: Phrase) -> list[int]:
        said = list(phrase.said)
        while len(said) != len(phrase.said) or phrase.is_in(said):
            nearly = texts.disordered if self.rng.random() < 0.3 else texts.one_off
            said = nearly(self.rng, list(self.names), phrase)
        return said

    def run_of_words(self) -> list[str]:
        """Recorded texts one behind the other; of a long one any stretch."""
        said = []
        while len(said) < self.syllables:
            text = self.any_of(self.recorded)
            start = self.rng.integers(max(1, len(text) - self.syllables + 1))
            said += text[start:]
        return said[: self.syllables]

    def grouped(self, said: list[str]) -> list[list[str]]:
        while True:
            ends = sorted(self.rng.choice(np.arange(1, len(said)), self.groups - 1, replace=False))
            groups = [said[i:j] for i, j in zip([0, *ends], [*ends, len(said)])]
            if self.groups == 1 or all(SHORTEST <= len(g) <= LONGEST for g in groups):
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
