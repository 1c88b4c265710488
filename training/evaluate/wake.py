"""Section 3: said, heard, pointed.

Each phrase goes through the whole front end: that gives recall, latency and the reported angle as
the device has them. Beside it, on the same cancelled microphones:
- the wake-up engine's cost of every step, for recall and false accepts at any threshold (DET);
- the direction asked for at the end of every phrase, heard or not, and SRP-PHAT's.
"""

from __future__ import annotations

import typing

import numpy as np

from training.corpus import Corpus
from training.device_facts import BLOCK, RATE, THRESHOLD
from training.evaluate import device as devices
from training.evaluate import direction, intervals, scenes, sets
from training.evaluate.device import Device
from training.evaluate.scenes import TestRooms
from training.shared import Record

if typing.TYPE_CHECKING:
    from training.evaluate.work import Opened

LATE = 1.5  # s: a wake later than this after the phrase is not counted as hearing it
THRESHOLDS = np.round(np.arange(0.05, 4.61, 0.05), 2)
STRETCH = 60.0  # s of one scene without the phrase
REFRACTORY = 1.0  # s in which a second false accept is not counted
STEP = BLOCK / RATE
NO_STEP = 99.0  # the lowest cost where no step could have woken the device


def numbers(opened: Opened) -> range:
    """Phrases, and behind them the stretches without one."""
    sizes = opened.sizes
    return range(sizes.wake + round(sizes.silence_minutes)) if scenes.phrases(opened.corpus, opened.phrase) else range(0)


def rows(opened: Opened, number: int) -> list[Record]:
    """One per condition; or a stretch's costs."""
    device, rooms, phrases = opened.device, opened.rooms, opened.sizes.wake
    if number >= phrases:
        return [without_phrase(device, opened.others, rooms, number - phrases)]
    return [
        {"scene": number, "condition": condition, **measure(device, scene)}
        for condition, scene in scenes.spoken_phrase(opened.corpus, opened.others, rooms, number, opened.phrase)
    ]


def result(opened: Opened, heard: list[Record]) -> Record:
    clips = scenes.phrases(opened.corpus, opened.phrase)
    if not clips:
        return {"left_out": f"no test speaker in the data says {opened.phrase.text!r}"}
    silence = [r for r in heard if "costs" in r]
    said = [r for r in heard if "costs" not in r]
    return {
        "rows": said,
        "summary": summarise(said, silence),
        "voices": sorted({r["speaker"] for r in said}),
        "clips": len(clips),
    }


def measure(device: Device, scene: scenes.WakeScene) -> Record:
    cancelled, events = device.front_end(scene.mics, scene.ref)
    heard = [e for e in events if scene.begin <= e[0] <= scene.end + LATE]
    costs = device.wake_costs(cancelled)
    part = slice(int(scene.begin / STEP), int((scene.end + LATE) / STEP))
    lowest = float(costs[part].min())
    return {
        "speaker": scene.speaker,
        "heading": scene.heading,
        "rt60": scene.rt60,
        "heard": bool(heard),
        "latency": heard[0][0] - scene.end if heard else None,
        "angle": heard[0][1] if heard else None,
        "also_heard": len(events) - bool(heard),
        "lowest_cost": lowest if np.isfinite(lowest) else NO_STEP,
        "pointed": direction.pointed(device, cancelled, scene.begin, scene.end),
    }


def without_phrase(device: Device, corpus: Corpus, rooms: TestRooms, number: int) -> Record:
    """Costs of a stretch in which nobody says the phrase: talk in noise and playback in turns."""
    if number % 2 == 0:
        mics = devices.to_int16(scenes.noisy_talk(corpus, rooms, number, STRETCH))
        return {"kind": "talk", "costs": device.wake_costs(mics)}
    mics, ref = scenes.playback_alone(corpus, rooms, number, STRETCH)
    cancelled = np.stack([devices.to_int16(device.cancel(mic, ref)) for mic in mics])
    return {"kind": "playback", "costs": device.wake_costs(cancelled)}


def accepts(costs: np.ndarray, threshold: float) -> int:
    """Wakes in a run of costs, at most one per REFRACTORY."""
    count, next_step = 0, 0
    for step in np.flatnonzero(costs < threshold):
        if step >= next_step:
            count, next_step = count + 1, step + REFRACTORY / STEP
    return count


def summarise(rows: list[Record], silence: list[Record]) -> Record:
    conditions = {name: [r for r in rows if r["condition"] == name] for name in sets.WAKE_CONDITIONS}
    hours = sum(len(s["costs"]) for s in silence) * STEP / 3600
    false = [sum(accepts(s["costs"], t) for s in silence) for t in THRESHOLDS]
    at_work = sum(accepts(s["costs"], THRESHOLD) for s in silence)
    return {
        "conditions": {name: _condition(chosen) for name, chosen in conditions.items()},
        "false_accepts": intervals.rate(at_work, hours),
        "hours": hours,
        "det": {
            "threshold": THRESHOLDS.tolist(),
            "false_per_hour": [f / hours for f in false] if hours else [],
            "missed": {
                name: [float(np.mean([r["lowest_cost"] >= t for r in chosen])) for t in THRESHOLDS]
                for name, chosen in conditions.items()
            },
        },
    }


def _condition(rows: list[Record]) -> Record:
    heard = [r for r in rows if r["heard"]]
    pointed = [r for r in heard if direction.off(r["angle"], r["heading"]) <= direction.POINTED]
    return {
        "said": len(rows),
        "heard": intervals.share(len(heard), len(rows)),
        "pointed": intervals.share(len(pointed), len(rows)),
        "also_heard": sum(r["also_heard"] for r in rows),
        "latency": intervals.bootstrap([r["latency"] for r in heard], np.median),
        "direction": direction.directions(rows),
    }
