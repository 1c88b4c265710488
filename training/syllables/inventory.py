"""The syllables the network has classes for, the wake phrase made of them, and what sounds like its syllables."""

from __future__ import annotations

import functools
from collections.abc import Iterable, Sequence

from params import syllable_names

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


def holds_phrase(said: Sequence[int]) -> bool:
    return any(tuple(said[i : i + 4]) == PHRASE for i in range(len(said) - 3))


def is_near_miss(said: Sequence[int]) -> bool:
    return sum(c in PHRASE for c in said) > 1 and not holds_phrase(said)
