"""Toneless pinyin as sounds: initial, final, and which syllables are easily taken for each other."""

from __future__ import annotations

from collections.abc import Iterable

INITIALS = "zh ch sh b p m f d t n l g k h j q x r z c s".split()
# Initials that differ in one feature (breath, place by a little, nasal for liquid), finals that differ in the nasal, the medial
# or the end of a diphthong: what listeners in noise and the network confuse.
LIKE_INITIALS = "bp dt gk zc jq zhch zzh cch ssh sx jz qc nl lr hf mn bd pt kt mb nd".split()
LIKE_FINALS = (
    "in ing|ing eng|en eng|an ang|ian iang|ian in|iang ing|uan uang|un ong|ong eng|iong ong|ian ie|iang ang|ian an|uang ang|"
    "uan an|ai ei|ao ou|iao ao|iao iu|iu ou|uai ai|ui ei|uo ou|uo o|ie ei|ve ie|van ian|vn in|a ai|a ao|a an|e en|i ing|i in|"
    "i ie|ua a|ia a|ua uai|u ou|v i|e o|o ou"
)


def parts(name: str) -> tuple[str, str, str]:
    """Initial, final and the vowel the final begins with, of a toneless syllable: "liang" -> ("l", "iang", "i")."""
    if name[0] in "yw":
        final = {
            "yi": "i",
            "yin": "in",
            "ying": "ing",
            "wu": "u",
            "you": "iu",
            "wei": "ui",
            "wen": "un",
            "yu": "v",
            "yue": "ve",
            "yuan": "van",
            "yun": "vn",
            "yong": "iong",
        }.get(name)
        final = final or {"y": "i", "w": "u"}[name[0]] + name[1:]
        return "", final, final[0]
    initial = next((i for i in INITIALS if name.startswith(i)), "")
    final = name[len(initial) :]
    if initial in ("j", "q", "x") and final[0] == "u":
        final = "v" + final[1:]
    # The vowel of "shi" and "zi" is another than that of "li".
    return initial, final, "-" if final == "i" and initial in ("zh", "ch", "sh", "r", "z", "c", "s") else final[0]


def _pairs() -> tuple[set[frozenset[str]], set[frozenset[str]]]:
    initials = set()
    for text in LIKE_INITIALS:
        cut = next(i for i in range(1, len(text)) if text[:i] in INITIALS and text[i:] in INITIALS)
        initials.add(frozenset((text[:cut], text[cut:])))
    return initials, {frozenset(pair.split()) for pair in LIKE_FINALS.split("|")}


_LIKE_INITIALS, _LIKE_FINALS = _pairs()


def distance(a: str, b: str) -> int:
    """0 for the same syllable, 1 or 2 for those that are easily confused."""
    (initial_a, final_a, _), (initial_b, final_b, _) = parts(a), parts(b)
    apart = lambda x, y, like: 0 if x == y else 1 if frozenset((x, y)) in like else 2
    finals = apart(final_a, final_b, _LIKE_FINALS)
    return apart(initial_a, initial_b, _LIKE_INITIALS) + (3 if finals == 2 else finals)


def neighbours(name: str, among: Iterable[str], most: int = 24) -> list[str]:
    """Those at a distance of 1 or 2, the nearest first."""
    near = sorted((distance(name, other), other) for other in among if other != name)
    return [other for apart, other in near if apart <= 2][:most]
