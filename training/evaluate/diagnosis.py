"""What is lost of the wake phrase, and where: per voice and condition, per place in the phrase.

The engine is kept from waking and its posteriors are looked at along the best way through the phrase's syllables. What was not
heard is put down to one of

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
from training import engine, export
from training.corpus import open_corpus
from training.data import SEED as SEED_OF_SPLITS
from training.device_facts import BLANK, BLOCK, RATE, SILENT, SMALLEST_SCORE, THRESHOLD
from training.evaluate import device as devices
from training.evaluate import intervals, listening, scenes
from training.library import WakeUp
from training.scenes.bank import load_bank
from training.shared import ROOT, Record
from training.syllables import cutting

SAID = 0.5  # posterior from which on a syllable was said
AROUND = (4, 2)  # steps before and behind a syllable's last one, in which something else may have been said
OUTCOMES = ("heard", "gate", "decoder", "network")
SETS = ("phrase", "fluent phrase")


@dataclasses.dataclass(frozen=True)
class Heard:
    """Of one wave, per step: posteriors [steps, 146] and costs; seconds at which the phrase ends."""

    posteriors: np.ndarray
    costs: np.ndarray
    end: float

    @staticmethod
    def of(so: object, wave: np.ndarray, end: float) -> Heard:
        posteriors, costs = [], []
        with WakeUp(so) as listened:
            listened.word.thres = -np.inf
            for _ in listened.steps(wave):
                posteriors.append(listened.data.posteriors())
                costs.append(-np.log(max(0.0, listened.word.score()) + SMALLEST_SCORE) / listened.word.div)
                listened.word.thres = -np.inf  # the decoder sets its own
        return Heard(np.float64(posteriors), np.float64(costs), end)


def outcome(heard: Heard, said: Sequence[int]) -> tuple[str, list[int]]:
    """Which of OUTCOMES, and per place the class that was said there."""
    late_enough = np.arange(1, len(heard.costs) + 1) * BLOCK / RATE > heard.end - listening.SOONEST
    enough = (heard.costs < THRESHOLD) & late_enough
    silent = heard.posteriors[:, BLANK] > SILENT
    instead = spoken(heard.posteriors, said)
    if (enough & ~silent).any():
        return "heard", instead
    if enough.any():
        return "gate", instead
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
    lines = ["| voice | condition | n | heard | gate | decoder | network | lost in each place, and to what |"]
    lines.append("|---|---|---:|---:|---:|---:|---:|---|")
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
    keys = dict.fromkeys((r["voice"], r["condition"]) for r in rows)
    return {key: summary([r for r in rows if (r["voice"], r["condition"]) == key]) for key in sorted(keys)}


def utterances(arguments: argparse.Namespace) -> Iterator[Record]:
    corpus = open_corpus(arguments.data, arguments.cache / "corpus", SEED_OF_SPLITS)
    bank, device = load_bank(arguments.cache / "bank"), devices.Device(arguments.library)
    rooms, others = scenes.TestRooms(bank, len(bank.rooms)), scenes.without_phrases(corpus)
    tables = export.read(arguments.params) if arguments.params else {}
    so = engine.load(arguments.library, {name: values for name, values in tables.items() if name != "fbank_filter1"})
    wanted = [c for c in listening.CONDITIONS if c[0] in arguments.conditions.split(",")]
    for what in SETS:
        sayings = listening.Sayings(corpus, what)
        for speaker in sayings.speakers:
            for number in range(arguments.count):
                for name, wave, end, said in listening.heard(device, others, rooms, sayings, speaker, number, wanted):
                    result, instead = outcome(Heard.of(so, wave, end), said)
                    yield {
                        "voice": speaker,
                        "condition": name,
                        "said": list(said),
                        "outcome": result,
                        "spoken": instead,
                    }


def add_options(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("--library", type=pathlib.Path, required=True, help="built libquibo.so")
    parser.add_argument("--params", type=pathlib.Path, help="kws.safetensors to listen with instead of the built-in one")
    parser.add_argument("--data", type=pathlib.Path, required=True, help="folder of audio as for training")
    parser.add_argument("--cache", type=pathlib.Path, default=ROOT / "build-training", help="rooms, audio")
    parser.add_argument("--count", type=int, default=60, help="utterances of each voice")
    parser.add_argument(
        "--conditions", default=",".join(c[0] for c in listening.CONDITIONS if c[2] is None), help="of listen's, by commas"
    )
    parser.add_argument("--out", type=pathlib.Path, help="JSON to write, a row per utterance")


def run(arguments: argparse.Namespace) -> None:
    rows = list(utterances(arguments))
    if not rows:
        raise SystemExit(f"diagnose: no test speaker, or none of the conditions {arguments.conditions}")
    print(table(by_voice(rows)))
    if arguments.out:
        arguments.out.write_text(json.dumps(rows))
