"""Runs the library's linear echo canceller on the sample and prints what it achieves.

Echo return loss enhancement (ERLE), far-end-only stretches after --converge seconds, per microphone:
    10 log10( sum d^2 / sum e^2 ),
d = the descrambled microphone delayed by the canceller's 20 samples, e = the canceller's output
(residual-echo gain included), so the room's noise is part of both.

Near-end-only stretches, per microphone: SI-SDR of e, that is with a = <e, s> / <s, s>
    10 log10( sum (a s)^2 / sum (e - a s)^2 )
against s = d (what the canceller changes when nothing plays), and for microphone 1 also against
s = the talkers alone, delayed by 20 samples (so that the room's noise counts as error), beside the
SI-SDR of d against the same.

Double talk, microphone 1: SI-SDR of d and of e against the talkers alone.
"""

from __future__ import annotations

import argparse
import json
import pathlib

import numpy as np
import soundfile

from training.device_facts import FRAME, FULL_SCALE, MIC_DELAY
from training.library import Library


def late(x: np.ndarray) -> np.ndarray:
    """x as full-scale-1.0 floats, MIC_DELAY samples late."""
    return np.concatenate([np.zeros(MIC_DELAY), x[:-MIC_DELAY] / FULL_SCALE])


def erle_db(d: np.ndarray, e: np.ndarray) -> float:
    return 10.0 * np.log10((d @ d) / (e @ e))


def si_sdr_db(e: np.ndarray, s: np.ndarray) -> float:
    target = s * (e @ s) / (s @ s)
    rest = e - target
    return 10.0 * np.log10((target @ target) / (rest @ rest))


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--scene", default="samples/living_room.json")
    parser.add_argument("--library", default="build-release/libquibo.so")
    parser.add_argument("--converge", type=float, default=5.0, help="seconds left out at the start")
    args = parser.parse_args()

    scene_path = pathlib.Path(args.scene)
    scene = json.loads(scene_path.read_text(encoding="utf-8"))
    channels, rate = soundfile.read(scene_path.with_name(scene["file"]), dtype="int16")
    channels = channels[: len(channels) // FRAME * FRAME].T
    ref, talkers = channels[4], late(channels[3])
    library = Library(args.library)

    mics = [library.unscramble(channels[m]) for m in range(3)]
    outputs = [library.cancel(mic, ref)["out"].astype(np.float64) for mic in mics]
    for stretch in scene["stretches"]:
        start, end = stretch["start"], stretch["end"]
        if stretch["kind"] == "far_end":
            start = max(start, args.converge)
        span = slice(round(start * rate) + MIC_DELAY, round(end * rate))
        if span.start >= span.stop:
            continue
        print(f"{stretch['kind']:<12} {start:5.1f} - {end:4.1f} s  {stretch['what']}")
        for m, (mic, out) in enumerate(zip(mics, outputs)):
            d, e, s = late(mic)[span], out[span], talkers[span]
            line = f"    microphone {m + 1}:"
            if stretch["kind"] == "far_end":
                print(f"{line} ERLE {erle_db(d, e):5.1f} dB")
                continue
            if stretch["kind"] == "near_end":
                line += f" SI-SDR against the microphone {si_sdr_db(e, d):5.1f} dB"
            if m == 0:
                line += f" SI-SDR against the talkers alone: before {si_sdr_db(d, s):5.1f} dB, after {si_sdr_db(e, s):5.1f} dB"
            if stretch["kind"] == "near_end" or m == 0:
                print(line)


if __name__ == "__main__":
    main()
