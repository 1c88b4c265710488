"""Section: pointed. Somebody calls, as long as a wake phrase takes; where does the device point?

No wake is needed: the direction estimator is asked a moment after the call, through the library's
own calls, behind its cancellers and noise suppressors. Beside it the same without suppressors, and
SRP-PHAT.
"""

from __future__ import annotations

import typing

import numpy as np

from training.device_facts import RATE, SUPPRESSOR_DELAY
from training.evaluate import device as devices
from training.evaluate import intervals, metrics, scenes, sets
from training.evaluate.device import Device
from training.evaluate.peers import srp_phat
from training.shared import Record

if typing.TYPE_CHECKING:
    from training.evaluate.work import Opened

ASKED = 0.1  # s after the call
LOOK_BACK = 0.45  # s of the estimator's decision
POINTED = 15.0  # degrees within which the device has pointed at the talker
LATE = SUPPRESSOR_DELAY / RATE  # what the suppressors put between talker and estimator


def numbers(opened: Opened) -> range:
    return range(opened.sizes.direction)


def rows(opened: Opened, number: int) -> list[Record]:
    """One per condition."""
    return [
        {"scene": number, "condition": condition, **measure(opened.device, scene)}
        for condition, scene in scenes.called(opened.others, number)
    ]


def result(opened: Opened, heard: list[Record]) -> Record:
    conditions = {
        name: [r for r in heard if r["condition"] == name] for name in (*sets.DIRECTION_CONDITIONS, *sets.POINT_NOISES)
    }
    return {
        "rows": heard,
        "summary": {name: directions(chosen) for name, chosen in conditions.items() if chosen},
    }


def measure(device: Device, scene: scenes.Call) -> Record:
    mics = scene.mics
    if scene.ref is not None:
        mics = np.stack([device.cancel(mic, scene.ref) for mic in mics])
    mics = devices.to_int16(mics)
    asked = scene.end + ASKED
    headings = pointed(device, mics, scene.begin, scene.end)
    headings["Quibo, without noise suppressor"] = device.heading(mics, asked - LATE, suppress=False)
    if scene.ref is not None:
        called = slice(round(scene.begin * RATE), round(scene.end * RATE))
        headings["SRP-PHAT, whole phrase, not cancelled"] = srp_phat.heading(scene.mics[:, called])
    return {"heading": scene.heading, "pointed": headings}


def pointed(device: Device, mics: np.ndarray, begin: float, end: float) -> dict[str, float | None]:
    """Headings of the talker who speaks from begin to end (s) in int16 [3, n] cancelled
    microphones."""
    asked = end + ASKED
    stop = round((asked - LATE) * RATE)
    window = slice(stop - round(LOOK_BACK * RATE), stop)
    phrase = slice(round(begin * RATE), round(end * RATE))
    return {
        "Quibo": device.heading(mics, asked),
        "SRP-PHAT, same 0.45 s": srp_phat.heading(devices.to_float(mics[:, window])),
        "SRP-PHAT, whole phrase": srp_phat.heading(devices.to_float(mics[:, phrase])),
    }


def directions(rows: list[Record]) -> Record:
    """System -> its errors' median, 90th percentile and share within POINTED degrees."""
    systems = {}
    for name in rows[0]["pointed"] if rows else ():
        errors = [off(r["pointed"][name], r["heading"]) for r in rows]
        systems[name] = {
            "median": intervals.bootstrap(errors, np.median),
            "p90": intervals.bootstrap(errors, intervals.percentile(90)),
            "within": intervals.share(sum(e <= POINTED for e in errors), len(errors)),
        }
    return systems


def off(heading: float | None, truth: float) -> float:
    """Degrees from the talker; a device that points nowhere is as wrong as can be."""
    return 180.0 if heading is None else metrics.angle_error(heading, truth)
