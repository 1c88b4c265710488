"""Section 2: the echo path of microphone 1."""

from __future__ import annotations

import functools
import typing
from collections.abc import Callable

import numpy as np

from training.evaluate import intervals, metrics, peers, scenes
from training.scenes.audio import RATE
from training.shared import Record

if typing.TYPE_CHECKING:
    from training.evaluate.work import Opened

END = 2.0  # s: the last part of the far-end-only stretch
MEASURES = (
    "erle_end",
    "echo_far_end",
    "si_sdr",
    "estoi",
    "echo_double_talk",
    "deg_double_talk",
    "near_si_sdr",
    "near_estoi",
    "deg_near_end",
)

# (mic, ref) -> an output [n] for each of its names.
Process = Callable[[np.ndarray, np.ndarray], tuple[np.ndarray, ...]]


@functools.lru_cache(1)
def systems(opened: Opened) -> tuple[list[tuple[tuple[str, ...], Process]], dict[str, int], list[str]]:
    """[(names, function of (mic, ref) giving an output [n] per name)]; the peers' delays; lines about absent ones."""
    table = [
        (("unprocessed",), lambda mic, ref: (mic,)),
        (("Quibo, linear canceller", "Quibo, with neural suppressor"), opened.device.cancel_echo),
    ]
    installed, absent = peers.echo_cancellers()
    delays = {}
    for peer in installed:
        process = peers.Aligned(peer.cancel_echo, opened.speech)
        delays[peer.name] = process.delay
        table.append(((peer.name,), lambda mic, ref, process=process: (process(mic, ref),)))
    return table, delays, absent


def measure(scene: scenes.EchoScene, output: np.ndarray, opinions: bool) -> Record:
    far, both, near = scene.far_end, scene.double_talk, scene.near_end
    end = slice(far.stop - round(END * RATE), far.stop)

    def opinion(kind: str, part: slice) -> tuple[float | None, float | None]:
        if not opinions:
            return None, None
        return metrics.aecmos(kind, scene.ref[part], scene.mic[part], output[part])

    echo_far, _ = opinion("far_end", far)
    echo_both, deg_both = opinion("double_talk", both)
    _, deg_near = opinion("near_end", near)
    return {
        "erle_end": metrics.erle(scene.mic[end], output[end]),
        "erle_over_time": metrics.erle_over_time(scene.mic[far], output[far]),
        "echo_far_end": echo_far,
        "si_sdr": metrics.si_sdr(output[both], scene.near[both]),
        "estoi": metrics.estoi(output[both], scene.near[both]),
        "echo_double_talk": echo_both,
        "deg_double_talk": deg_both,
        "near_si_sdr": metrics.si_sdr(output[near], scene.near[near]),
        "near_estoi": metrics.estoi(output[near], scene.near[near]),
        "deg_near_end": deg_near,
    }


def numbers(opened: Opened) -> range:
    return range(opened.sizes.echo)


def rows(opened: Opened, number: int) -> list[Record]:
    """One per condition and system."""
    table = [(names, process) for names, process in systems(opened)[0] if any(map(opened.sizes.asks, names))]
    return [
        {
            "scene": number,
            "condition": condition,
            "system": name,
            **measure(scene, output, number < opened.sizes.opinions),
        }
        for condition, scene in scenes.playback(opened.others, opened.rooms, number)
        if opened.sizes.hears(condition)
        for names, process in table
        for name, output in zip(names, process(scene.mic, scene.ref))
    ]


def result(opened: Opened, heard: list[Record]) -> Record:
    _, delays, absent = systems(opened)
    return {"rows": heard, "summary": summarise(heard), "delays": delays, "absent": absent}


def summarise(rows: list[Record]) -> Record:
    """condition -> system -> measure -> figure; erle_over_time: the mean curve."""
    summary = {}
    for condition in dict.fromkeys(r["condition"] for r in rows):
        for system in dict.fromkeys(r["system"] for r in rows):
            chosen = [r for r in rows if (r["condition"], r["system"]) == (condition, system)]
            figures = {m: intervals.bootstrap([r[m] for r in chosen]) for m in MEASURES}
            figures["erle_over_time"] = np.mean([r["erle_over_time"] for r in chosen], 0).tolist()
            summary.setdefault(condition, {})[system] = figures
    return summary
