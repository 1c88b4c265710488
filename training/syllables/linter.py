"""How good a wake phrase is, said before anything is trained for it: python -m training.syllables.linter "xiao bai ni hao"."""

from __future__ import annotations

import argparse
import dataclasses
import sys

from params import keyword_table

from . import phonetics
from .inventory import inventory

SHORTEST, LONGEST = 2, 8  # syllables
ENOUGH = 4  # below that everyday talk comes too near
MANY_LIKE = 14  # neighbours of one syllable, from which on it is easily taken for another
SEVERITIES = ("fault", "warning", "note")
# Said every day: what wakes a device that listens for it, or for all of it but one syllable.
EVERYDAY = (
    "ni hao|nin hao|zai jian|xie xie|xie xie ni|bu ke qi|dui bu qi|mei guan xi|mei you|bu shi|shi de|bu yao|bu dui|bu xing|"
    "hao de|hao ba|hao le|ke yi|bu ke yi|zen me|zen me yang|zen me ban|shen me|wei shen me|na li|zhe li|na ge|zhe ge|zhe yang|"
    "na yang|wo men|ni men|ta men|da jia|xian zai|jin tian|ming tian|zuo tian|hou tian|shi hou|shi jian|zao shang|wan shang|"
    "xia wu|zhong wu|xia ci|shang ci|yi ge|yi xia|yi qi|yi dian|yi ding|yi yang|yi jing|deng yi xia|deng deng|kan kan|"
    "shi shi|xiang xiang|zou ba|lai le|lai ba|guo lai|hui lai|chu lai|jin lai|qi lai|shang lai|xia lai|chu qu|hui qu|jin qu|"
    "hui jia|zai jia|chi fan|he shui|shui jiao|qi chuang|da kai|guan shang|kai deng|guan deng|dian hua|da dian hua|dian shi|"
    "kan dian shi|yin yue|ting yin yue|tian qi|jin tian tian qi|xiao shi|fen zhong|ji dian|ji dian le|duo shao|duo shao qian|"
    "xi huan|wo xi huan|zhi dao|bu zhi dao|wo zhi dao|ming bai|ting shuo|jue de|ren wei|yin wei|suo yi|dan shi|ke shi|ru guo|"
    "ran hou|hai shi|huo zhe|bi jiao|fei chang|te bie|zhen de|dang ran|ying gai|ke neng|bi xu|xu yao|bang wo|gei wo|gao su wo|"
    "ma ma|ba ba|ge ge|jie jie|di di|mei mei|ye ye|nai nai|lao shi|peng you|xiao peng you|hai zi|bao bao|bao bei|gong zuo|"
    "xian sheng|xue xi|xue xiao|shang ban|xia ban|shang ke|xia ke|zhong guo|bei jing|shang hai|yi er san|er san si|da da"
).split("|")


@dataclasses.dataclass(frozen=True)
class Finding:
    severity: str
    what: str


def check(phrase: str) -> list[Finding]:
    """The worst first. A fault is what cannot be trained."""
    said, found = phrase.split(), []
    add = lambda severity, what: found.append(Finding(severity, what))
    for syllable in dict.fromkeys(said):
        if syllable not in inventory():
            add("fault", f"the network knows no syllable {ascii(syllable)[:40]}; the nearest: {', '.join(nearest(syllable))}")
    if not SHORTEST <= len(said) <= LONGEST:
        add("fault", f"{len(said)} syllables: expected {SHORTEST} to {LONGEST}")
    if any(f.severity == "fault" for f in found):
        return found
    if len(said) < ENOUGH:
        add("warning", f"{len(said)} syllables are in much of what is said: false wakes; take {ENOUGH} or more")
    for a, b in zip(said, said[1:]):
        if a == b:
            add(
                "warning", f'"{a} {b}": the same syllable twice in a row needs a gap between them, which fast talkers leave out'
            )
        elif phonetics.distance(a, b) == 1:
            add("note", f'"{a} {b}": two that are alike, side by side')
    if len(set(said)) == 1:
        add("warning", "one syllable over and over: a hum or a clatter comes near it")
    for syllable in dict.fromkeys(said):
        like = phonetics.neighbours(syllable, inventory(), len(inventory()))
        near = [other for other in like if phonetics.distance(syllable, other) == 1]
        if len(like) >= MANY_LIKE:
            add("note", f'"{syllable}" has {len(like)} neighbours; the nearest: {", ".join(near or like[:4])}')
        if not phonetics.parts(syllable)[0]:
            add("note", f'"{syllable}" begins with a vowel, where it runs into what is said before')
    text = f" {phrase} "
    for word in EVERYDAY:
        words = word.split()
        if text in f" {word} " or phrase == word:
            add("warning", f'"{phrase}" is said every day' + ("" if phrase == word else f', in "{word}"'))
        elif f" {word} " in text:
            rest = len(said) - len(words)
            add("warning" if rest < 2 else "note", f'"{word}", said every day, is in it: {rest} syllables tell it apart')
    return sorted(found, key=lambda f: SEVERITIES.index(f.severity))


def nearest(syllable: str) -> list[str]:
    """Known syllables in place of an unknown one: by sound, or by letters where it is no syllable at all."""
    known = inventory()
    try:
        near = sorted((phonetics.distance(syllable, other), other) for other in known)
        by_sound = [other for apart, other in near if apart <= 2][:3]
    except IndexError:
        by_sound = []
    return list(dict.fromkeys(by_sound + keyword_table.nearest(syllable, known, 3)))[:4] or ["none"]


def verdict(found: list[Finding]) -> str:
    severities = [f.severity for f in found]
    if "fault" in severities:
        return "cannot be trained"
    return {0: "good", 1: "fair"}.get(severities.count("warning"), "poor")


def report(phrase: str) -> str:
    found = check(phrase)
    return "\n".join([f'"{phrase}": {verdict(found)}', *(f"  {f.severity}: {f.what}" for f in found)])


def checked(text: str) -> str:
    """A phrase from the command line: one that can be trained."""
    phrase = " ".join(text.lower().split())
    faults = [f.what for f in check(phrase) if f.severity == "fault"]
    if faults:
        raise argparse.ArgumentTypeError("; ".join(faults))
    return phrase


def main(argv: list[str] | None = None) -> int:
    parser = argparse.ArgumentParser(prog="./run phrase", description=__doc__)
    parser.add_argument("phrase", help='syllables without tones: "xiao bai ni hao"')
    phrase = " ".join(parser.parse_args(argv).phrase.lower().split())
    print(report(phrase))
    return int(any(f.severity == "fault" for f in check(phrase)))


if __name__ == "__main__":
    sys.exit(main())
