"""The syllables the network has classes for, the wake phrase made of them, and what sounds like its syllables."""

from __future__ import annotations

import dataclasses
import functools
import pathlib
from collections.abc import Iterable, Sequence

from params import keyword_table, syllable_names

from .phonetics import neighbours

LING, DANG = 125, 2
PHRASE = (LING, DANG, LING, DANG)
LIKE_LING = "li lie lin ning leng lang liang ding ming ping ting bing ying xing qing jing long yin nin".split()
LIKE_DANG = "bang deng dong fang da dan dai tang gang zhang lang mang pang ang cang zang nang hang kang dao dou".split()


@functools.cache
def inventory() -> dict[str, int]:
    """{syllable: class}"""
    return syllable_names.classes()


def classes_of(syllables: Iterable[str]) -> list[int]:
    """0 for those the network has no class for."""
    return [inventory().get(s, 0) for s in syllables]


@dataclasses.dataclass(frozen=True)
class Phrase:
    """What the device is to wake on."""

    said: tuple[int, ...] = PHRASE

    @staticmethod
    def of(text: str) -> Phrase:
        return Phrase(tuple(inventory()[name] for name in text.split()))

    @staticmethod
    def in_folder(params: pathlib.Path) -> Phrase:
        """What a folder of parameters listens for: its first keyword."""
        return Phrase.of(keyword_table.read(params / keyword_table.FILE, inventory())[0]["phrase"])

    @property
    def text(self) -> str:
        return " ".join(_names()[c] for c in self.said)

    def is_in(self, said: Sequence[int]) -> bool:
        n = len(self.said)
        return any(tuple(said[i : i + n]) == self.said for i in range(len(said) - n + 1))

    def is_said_in(self, pinyin: str) -> bool:
        return f" {self.text} " in f" {pinyin} "

    @property
    def keyword(self) -> tuple[tuple[int, ...], float]:
        """As the engine has it: classes, and what its score's logarithm is divided by, one per syllable."""
        return self.said, float(len(self.said))

    def is_nearly(self, said: Sequence[int]) -> bool:
        """Half of its syllables, not itself."""
        return sum(c in self.said for c in said) >= max(2, len(self.said) // 2) and not self.is_in(said)

    def like(self, place: int) -> list[int]:
        """What is easily taken for the syllable in a place."""
        name = _names()[self.said[place]]
        chosen = {"ling": LIKE_LING, "dang": LIKE_DANG}.get(name) or neighbours(name, inventory())
        return [inventory()[other] for other in chosen]


shipped = Phrase()


@functools.cache
def _names() -> dict[int, str]:
    return {c: name for name, c in inventory().items()}
