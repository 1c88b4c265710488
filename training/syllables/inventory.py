"""The syllables the network has classes for, the wake phrase made of them, and what sounds like its syllables."""

import functools

from params import syllable_names

LING, DANG = 125, 2
PHRASE = (LING, DANG, LING, DANG)
LIKE_LING = "li lie lin ning leng lang liang ding ming ping ting bing ying xing qing jing long yin nin".split()
LIKE_DANG = "bang deng dong fang da dan dai tang gang zhang lang mang pang ang cang zang nang hang kang dao dou".split()


@functools.cache
def inventory():
    """{syllable: class}"""
    return syllable_names.classes()


def classes_of(syllables):
    """0 for those the network has no class for."""
    return [inventory().get(s, 0) for s in syllables]


def holds_phrase(said):
    return any(tuple(said[i : i + 4]) == PHRASE for i in range(len(said) - 3))


def is_near_miss(said):
    return sum(c in PHRASE for c in said) > 1 and not holds_phrase(said)
