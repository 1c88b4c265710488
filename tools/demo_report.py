#!/usr/bin/env python3
"""Says what the demonstration driver did to the sample recording, stretch by stretch.

Compares microphone 1 of the capture with the driver's output, prints a table and writes both as
WAV files beside the output, lined up in time. Needs nothing but Python and the built library,
whose own dec_data descrambles the microphone.
"""

import argparse
import array
import ctypes
import json
import math
import operator
import pathlib
import sys
import wave

CHANNELS = 6
MIC_1, TALKERS = 0, 3  # channels of the capture; 3 is the scene's ground truth
FRAME = 1024  # the driver drops an incomplete last frame
MAX_DELAY = 4096  # samples searched for the output's delay
PATTERN = 4096  # samples of speech compared in the search
ALIKE = 0.3  # normalised correlation below which the search has found nothing
FULL_SCALE = 32768.0
LABELS = {"far_end": "device plays", "near_end": "people talk", "double_talk": "both at once"}


class ReportError(Exception):
    """One line for the user."""


def read_pcm(path):
    """Host-order int16 samples of a headerless file."""
    samples = array.array("h")
    try:
        data = pathlib.Path(path).read_bytes()
    except OSError as error:
        raise ReportError(f"cannot read {path}: {error.strerror}") from None
    samples.frombytes(data[: len(data) // 2 * 2])
    return samples


def read_scene(path):
    try:
        return json.loads(pathlib.Path(path).read_text(encoding="utf-8"))
    except OSError as error:
        raise ReportError(f"cannot read {path}: {error.strerror}") from None
    except ValueError as error:
        raise ReportError(f"{path} is not a scene description: {error}") from None


def descramble(samples, library):
    """Decodes the samples in place with the library's dec_data."""
    try:
        dec_data = ctypes.CDLL(str(pathlib.Path(library).resolve())).dec_data
    except (OSError, AttributeError) as error:
        raise ReportError(f"no sample codec in {library}: {error}") from None
    dec_data.argtypes = [ctypes.POINTER(ctypes.c_int16), ctypes.c_int32]
    dec_data.restype = None
    dec_data((ctypes.c_int16 * len(samples)).from_buffer(samples), len(samples))


def dot(a, b):
    return sum(map(operator.mul, a, b))


def dbfs(x):
    """Mean power in dB, 0 dBFS = a constant at full scale."""
    power = dot(x, x) / max(1, len(x)) / FULL_SCALE**2
    return 10.0 * math.log10(max(power, 1e-20))


def find_delay(mic, output, start, end):
    """(delay, likeness) of output against mic, from the loudest speech in samples start..end.

    Exhaustive normalised cross-correlation of PATTERN samples over 0..MAX_DELAY. A likeness
    (correlation, at most 1) below ALIKE means that the delay is not to be trusted.
    """
    starts = range(start, end - PATTERN - MAX_DELAY, PATTERN // 4)
    at = max(starts, key=lambda n: dot(mic[n : n + PATTERN], mic[n : n + PATTERN]))
    pattern = mic[at : at + PATTERN]
    heard = output[at : at + MAX_DELAY + PATTERN]
    energy = dot(heard[:PATTERN], heard[:PATTERN])
    best, best_delay = 0.0, 0
    for delay in range(MAX_DELAY):
        match = dot(pattern, heard[delay : delay + PATTERN])
        if match > 0 and match * match > best * energy:
            best, best_delay = match * match / energy, delay
        energy += heard[delay + PATTERN] ** 2 - heard[delay] ** 2
    return best_delay, math.sqrt(best / max(1, dot(pattern, pattern)))


def talker_margin_db(x, talkers):
    """Power of the talkers in x over the power of all else in x, dB.

    The talkers' part is the least-squares projection of x on their clean signal; whatever of their
    voices was changed in more than loudness counts as all else.
    """
    own = dot(talkers, talkers)
    shared = dot(x, talkers)
    wanted = shared * shared / max(1, own)
    return 10.0 * math.log10(max(wanted, 1.0) / max(dot(x, x) - wanted, 1.0))


def write_wav(path, samples, rate):
    try:
        with wave.open(str(path), "wb") as f:
            f.setparams((1, 2, rate, 0, "NONE", ""))
            f.writeframes(samples.tobytes())
    except OSError as error:
        raise ReportError(f"cannot write {path}: {error.strerror}") from None


def result(kind, before, after, talkers):
    """What a stretch of this kind is judged by, as text."""
    if kind == "far_end":
        return f"echo {dbfs(before) - dbfs(after):.1f} dB down"
    was, now = talker_margin_db(before, talkers), talker_margin_db(after, talkers)
    return f"talkers to rest {was:+.1f} -> {now:+.1f} dB"


def table(scene, before, after, talkers):
    """Lines of the per-stretch table; the three signals are lined up in time."""
    rate = scene["sample_rate"]
    width = max(len(stretch["what"]) for stretch in scene["stretches"])
    yield f"  {'time':<14}{'':<14}{'what happens':<{width + 2}}{'level, dBFS':<18}result"
    for stretch in scene["stretches"]:
        span = slice(round(stretch["start"] * rate), round(stretch["end"] * rate))
        mic, out = before[span], after[span]
        yield (
            f"  {stretch['start']:4.1f} - {stretch['end']:4.1f} s {LABELS[stretch['kind']]:<14}"
            f"{stretch['what']:<{width + 2}}{dbfs(mic):5.1f} -> {dbfs(out):5.1f}    "
            f"{result(stretch['kind'], mic, out, talkers[span])}"
        )


def report(args):
    scene = read_scene(args.scene)
    capture, output = read_pcm(args.capture), read_pcm(args.output)
    frames = scene["samples"] // FRAME
    for path, samples, channels in ((args.capture, capture, CHANNELS), (args.output, output, 1)):
        if len(samples) < frames * FRAME * channels:
            raise ReportError(
                f"{path} is too short: {len(samples) // channels} samples per channel, "
                f"{frames * FRAME} expected"
            )

    before, talkers = capture[MIC_1::CHANNELS], capture[TALKERS::CHANNELS]
    descramble(before, args.codec)

    notes, delay = [], args.delay
    if delay is None:
        rate = scene["sample_rate"]
        quiet = next((s for s in scene["stretches"] if s["kind"] == "near_end"), None)
        if quiet is None:
            raise ReportError(f"{args.scene} has no near_end stretch to find the delay in: --delay")
        span = (round(quiet["start"] * rate), round(quiet["end"] * rate))
        delay, likeness = find_delay(before, output, *span)
        if likeness < ALIKE:
            delay = 0
            notes.append("The output resembles the microphone nowhere: no delay is assumed.")
    after = output[delay:]

    print(f"\n{scene['title']}\n")
    print("\n".join(table(scene, before, after, talkers)))
    print(
        "\n  echo down: level of microphone 1 over level of the output while only the device plays"
        "\n  talkers to rest: power of the talkers' clean voices over echo, noise and distortion"
        f"\n  The output is {delay} samples ({1000.0 * delay / scene['sample_rate']:.2f} ms) late;"
        " the table and the files are lined up."
    )
    for note in notes:
        print(f"  {note}")
    print("\nListen:")
    folder = pathlib.Path(args.output).parent
    for name, samples in (("before.wav", before), ("after.wav", after)):
        write_wav(folder / name, samples, scene["sample_rate"])
        print(f"  {folder / name}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--scene", required=True, help="scene description (JSON)")
    parser.add_argument("--capture", required=True, help="six-channel PCM the driver read")
    parser.add_argument("--output", required=True, help="PCM the driver wrote")
    parser.add_argument("--codec", required=True, help="libquibo.so, for dec_data")
    parser.add_argument("--delay", type=int, help="the output's delay in samples (default: found)")
    try:
        report(parser.parse_args())
    except ReportError as error:
        sys.exit(f"demo_report: {error}")


if __name__ == "__main__":
    main()
