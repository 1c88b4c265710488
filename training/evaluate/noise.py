"""Section 1: the noise suppressor. Microphone 1 is judged."""

from __future__ import annotations

import functools
import typing
from collections.abc import Callable

import numpy as np

from training.evaluate import intervals, metrics, peers, scenes
from training.shared import Record

if typing.TYPE_CHECKING:
    from training.evaluate.work import Opened

MEASURES = ("si_sdr", "estoi", "ovrl", "sig", "bak")


@functools.lru_cache(1)
def systems(opened: Opened) -> tuple[dict[str, Callable[[np.ndarray], np.ndarray]], dict[str, int], list[str]]:
    """name -> function of mics [3, n] giving microphone 1 [n]; the peers' delays; lines about absent ones."""
    device, speech = opened.device, opened.speech
    ours = {
        "Quibo, floor 0.1": lambda mics: device.suppress_noise(mics[:1], 0.1)[0],
        "Quibo, floor 0.3": lambda mics: device.suppress_noise(mics[:1], 0.3)[0],
        "Quibo, floor 0.1, three microphones": lambda mics: device.suppress_noise(mics, 0.1)[0],
        "Quibo, floor 0.3, three microphones": lambda mics: device.suppress_noise(mics, 0.3)[0],
    }
    installed, absent = peers.noise_suppressors(opened.gtcrn)
    theirs, delays = {}, {}
    for peer in installed:
        process = peers.Aligned(peer.suppress_noise, speech)
        delays[peer.name] = process.delay
        theirs[peer.name] = lambda mics, process=process: process(mics[0])
    return {"noisy": lambda mics: mics[0], **ours, **theirs}, delays, absent


def measure(output: np.ndarray, target: np.ndarray, opinion: bool) -> Record:
    return {
        "si_sdr": metrics.si_sdr(output, target),
        "estoi": metrics.estoi(output, target),
        **(metrics.dnsmos(output) if opinion else {}),
    }


def numbers(opened: Opened) -> range:
    return range(opened.sizes.noise)


def rows(opened: Opened, number: int) -> list[Record]:
    """One per condition and system."""
    table = {name: process for name, process in systems(opened)[0].items() if opened.sizes.asks(name)}
    return [
        {
            "scene": number,
            "condition": condition,
            "system": name,
            **measure(process(mics), target[0], number < opened.sizes.opinions),
        }
        for condition, mics, target in scenes.noisy_speech(opened.others, opened.rooms, number)
        if opened.sizes.hears(condition)
        for name, process in table.items()
    ]


def result(opened: Opened, heard: list[Record]) -> Record:
    _, delays, absent = systems(opened)
    return {"rows": heard, "summary": summarise(heard), "delays": delays, "absent": absent}


def summarise(rows: list[Record]) -> Record:
    """condition -> system -> measure -> figure; also the improvement of SI-SDR over the noisy one."""
    noisy = {(r["scene"], r["condition"]): r["si_sdr"] for r in rows if r["system"] == "noisy"}
    summary = {}
    for condition in dict.fromkeys(r["condition"] for r in rows):
        for system in dict.fromkeys(r["system"] for r in rows):
            chosen = [r for r in rows if (r["condition"], r["system"]) == (condition, system)]
            figures = {m: intervals.bootstrap([r.get(m) for r in chosen]) for m in MEASURES}
            gained = [r["si_sdr"] - noisy[r["scene"], condition] for r in chosen]
            figures["si_sdr_gain"] = intervals.bootstrap(gained)
            summary.setdefault(condition, {})[system] = figures
    return summary
