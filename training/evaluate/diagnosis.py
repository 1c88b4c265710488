"""What is lost of the wake phrase, and where: per voice and condition, per place in the phrase.

On the waves that `listen` hears. The engine is kept from waking and its posteriors are looked at along the best way through the
phrase's syllables. What was not heard is put down to one of

    outside   the score was enough, but too early (on what came before, or on a part of the phrase) or too late
    gate      the score was enough, but only in steps that count as silent, which never wake
    decoder   the network said every syllable, and the score came to too little all the same
    network   it did not: per place what it said instead, or that it said nothing ("blank")
"""

from __future__ import annotations

import argparse
import collections
import dataclasses
import json
import pathlib
from collections.abc import Iterator, Sequence

import numpy as np

from params.syllable_names import class_names
from training.device_facts import BLANK, BLOCK, RATE, SILENT, SMALLEST_SCORE, THRESHOLD
from training.evaluate import intervals, listening, material
from training.evaluate.material import Material
from training.library import WakeUp
from training.shared import Record
from training.syllables import cutting
from training.syllables.inventory import Phrase

SAID = 0.5  # posterior from which on a syllable was said
AROUND = (4, 2)  # steps before and behind a syllable's last one, in which something else may have been said
LATEST = 0.6  # s behind the phrase's end, from which on a wake is too late
FEWEST = 10  # utterances of one of several voices in a condition, from which on it has a row of its own
OUTCOMES = ("heard", "outside", "gate", "decoder", "network")
SETS = ("phrase", "fluent phrase")


@dataclasses.dataclass(frozen=True)
class Heard:
    """Of one wave, per step: posteriors [steps, 146] and costs; seconds at which the phrase ends."""

    posteriors: np.ndarray
    costs: np.ndarray
    end: float

    @staticmethod
    def of(so: object, wave: np.ndarray, end: float, phrase: Phrase) -> Heard:
        posteriors, costs = [], []
        with WakeUp(so, phrase.keyword) as listened:
            listened.word.thres = -np.inf
            for _ in listened.steps(wave):
                posteriors.append(listened.data.posteriors())
                costs.append(-np.log(max(0.0, listened.word.score()) + SMALLEST_SCORE) / listened.word.div)
                listened.word.thres = -np.inf  # the decoder sets its own
        return Heard(np.float64(posteriors), np.float64(costs), end)


def outcome(heard: Heard, said: Sequence[int]) -> tuple[str, list[int]]:
    """Which of OUTCOMES, and per place the class that was said there."""
    since_end = np.arange(1, len(heard.costs) + 1) * BLOCK / RATE - heard.end
    inside = (since_end > -listening.SOONEST) & (since_end < LATEST)
    enough = heard.costs < THRESHOLD
    silent = heard.posteriors[:, BLANK] > SILENT
    instead = spoken(heard.posteriors, said)
    if (enough & inside & ~silent).any():
        return "heard", instead
    if (enough & inside).any():
        return "gate", instead
    if (enough & ~silent).any():
        return "outside", instead
    return "decoder" if instead == list(said) else "network", instead


def spoken(posteriors: np.ndarray, said: Sequence[int]) -> list[int]:
    """Per place the class itself where it was said; else the likeliest other one there, or BLANK."""
    places = cutting.last_steps(posteriors, list(said))
    if places is None:
        return [BLANK] * len(said)
    found = []
    for c, (step, best) in zip(said, places):
        if best > SAID:
            found.append(c)
            continue
        near = posteriors[max(0, step - AROUND[0]) : step + AROUND[1] + 1].copy()
        near[:, [0, BLANK, c]] = 0  # the filler is part of the blank
        other = int(near.max(0).argmax())
        found.append(other if near[:, other].max() > max(best, SAID / 2) else c if best > SAID / 2 else BLANK)
    return found


def summary(rows: Sequence[Record]) -> Record:
    """{n, heard, lost: {outcome: share}, places: [{lost, instead: {name: count}}]} of some utterances."""
    n, names = len(rows), class_names().split()
    counts = collections.Counter(r["outcome"] for r in rows)
    places = []
    for place, right in enumerate(rows[0]["said"]):
        others = collections.Counter(names[r["spoken"][place]] for r in rows if r["spoken"][place] != right)
        places.append({"lost": sum(others.values()) / n, "instead": dict(others.most_common(4))})
    return {
        "n": n,
        "heard": intervals.share(counts["heard"], n),
        "lost": {name: counts[name] / n for name in OUTCOMES[1:]},
        "places": places,
    }


def table(summaries: dict[tuple[str, str], Record]) -> str:
    """As Markdown."""
    lines = ["| voice | condition | n | heard | outside | gate | decoder | network | lost in each place, and to what |"]
    lines.append("|---|---|---:|---:|---:|---:|---:|---:|---|")
    for (voice, condition), s in summaries.items():
        places = "; ".join(
            f"{100 * p['lost']:.0f} %"
            + (f" ({', '.join(f'{k} {v}' for k, v in p['instead'].items())})" if p["instead"] else "")
            for p in s["places"]
        )
        share = s["heard"]
        lines.append(
            f"| {voice} | {condition} | {s['n']} | {100 * share['value']:.0f} % ({100 * share['low']:.0f} to "
            f"{100 * share['high']:.0f}) | " + " | ".join(f"{100 * v:.0f} %" for v in s["lost"].values()) + f" | {places} |"
        )
    return "\n".join(lines)


def by_voice(rows: Sequence[Record]) -> dict[tuple[str, str], Record]:
    """{(voice, condition): summary}; where several voices say a set, they are summed up before, and those who say little of it
    are only in the sum."""
    voices_of, found = {}, collections.defaultdict(list)
    for r in rows:
        voices_of.setdefault(r["set"], set()).add(r["voice"])
    for r in rows:
        for voice in {"", r["voice"]} if len(voices_of[r["set"]]) > 1 else {r["voice"]}:
            found[r["set"], voice, r["condition"]].append(r)
    name = lambda what, voice: voice or f"{what}, {len(voices_of[what])} voices"
    shown = lambda what, voice: not voice or len(voices_of[what]) == 1
    return {
        (name(what, voice), condition): summary(some)
        for (what, voice, condition), some in sorted(found.items())
        if len(some) >= FEWEST or shown(what, voice)
    }


def utterances(arguments: argparse.Namespace) -> Iterator[Record]:
    """Of the waves that `listen` hears."""
    of = Material.of(arguments)
    so = of.engine()
    kept = listening.kept_of(of, arguments.cache / "listening", 0, arguments.share, SETS)
    wanted = arguments.conditions.split(";")
    for what, waves in kept.items():
        for wave, row in waves:
            if row["condition"] in wanted:
                result, instead = outcome(Heard.of(so, wave, row["end"], of.phrase), row["said"])
                kinds = {"set": what, "voice": row["speaker"], "condition": row["condition"], "said": row["said"]}
                yield kinds | {"outcome": result, "spoken": instead}


def add_options(parser: argparse.ArgumentParser) -> None:
    material.add_options(parser)
    parser.add_argument("--share", type=float, default=0.3, help="of listen's utterances (default: %(default)s)")
    parser.add_argument(
        "--conditions", default=";".join(c[0] for c in listening.CONDITIONS), help="of listen's, semicolons between them"
    )
    parser.add_argument("--out", type=pathlib.Path, help="JSON to write, a row per utterance")


def run(arguments: argparse.Namespace) -> None:
    try:
        rows = list(utterances(arguments))
    except listening.Unsaid as reason:
        raise SystemExit(f"diagnose: {reason}") from None
    if not rows:
        raise SystemExit(f"diagnose: none of the conditions {arguments.conditions}")
    print(table(by_voice(rows)))
    if arguments.out:
        arguments.out.write_text(json.dumps(rows))
