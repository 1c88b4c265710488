#!/usr/bin/env python3
"""Says what the demonstration driver did to the sample recording.

Sets the wakes and angles that the driver printed beside what was said and from where; compares
microphone 1 of the capture with the driver's output, stretch by stretch, and writes both as WAV
files beside the output, lined up in time. Needs nothing but Python and the built library, whose own
dec_data descrambles the microphone.
"""

import argparse
import array
import ctypes
import json
import math
import operator
import pathlib
import re
import sys
import textwrap
import wave

CHANNELS = 6
MIC_1, TALKERS = 0, 3  # channels of the capture; 3 is the scene's ground truth
FRAME = 1024  # the driver drops an incomplete last frame
MAX_DELAY = 4096  # samples searched for the output's delay
PATTERN = 4096  # samples of speech compared in the search
ALIKE = 0.3  # normalised correlation below which the search has found nothing
FULL_SCALE = 32768.0
LATE = 1.5  # s after the end of a phrase until which a wake is its own
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


def read_events(path):
    """(time in s, angle in degrees or None) of every wake in what the driver printed.

    The angle of a wake stands in the line before it. The driver does not print an angle of 0.
    """
    try:
        lines = pathlib.Path(path).read_text(encoding="utf-8").splitlines()
    except (OSError, UnicodeDecodeError) as error:
        raise ReportError(f"cannot read {path}: {error}") from None
    if not any(line.startswith("---end(") for line in lines):
        raise ReportError(f"{path} is not what the driver prints to its end")
    events, angle = [], None
    for line in lines:
        if heading := re.fullmatch(r"-+>Doa:(\d+)", line):
            angle = int(heading[1])
        elif wake := re.fullmatch(r"-+>is_wakeup:\d+ \(time:(\d+) m,(\d+) s,(\d+) ms\)", line):
            minutes, seconds, milliseconds = map(int, wake.groups())
            events.append((60 * minutes + seconds + milliseconds / 1000, angle))
            angle = None
    return events


def match(spoken, events):
    """Gives every wake to what was being said: rows of what was said, with `woke_s`, `angle_deg`
    and `angle_error_deg` (None: no wake); and the wakes that are nobody's, or came twice."""
    rows = [{**s, "woke_s": None, "angle_deg": None, "angle_error_deg": None} for s in spoken]
    strays = []
    for time, angle in events:
        meant = [r for r in rows if r["start"] <= time <= r["end"] + LATE and r["woke_s"] is None]
        if not meant:
            strays.append({"woke_s": time, "angle_deg": angle})
            continue
        row = max(meant, key=lambda r: (r["wake_phrase"], r["start"]))
        row["woke_s"], row["angle_deg"] = time, angle
        if angle is not None:
            off = abs(angle - row["heading_deg"]) % 360
            row["angle_error_deg"] = min(off, 360 - off)
    return rows, strays


def degrees(angle):
    return "no angle, or 0" if angle is None else f"{angle} deg"


def verdict(row):
    if row["woke_s"] is None:
        return "MISSED" if row["wake_phrase"] else "stayed asleep"
    if not row["wake_phrase"]:
        return f"FALSE wake at {row['woke_s']:.2f} s"
    error = row["angle_error_deg"]
    off = "" if error is None else f" ({error:.0f} off)"
    return f"heard at {row['woke_s']:.2f} s, {degrees(row['angle_deg'])}{off}"


def wake_table(rows, strays):
    """Lines: what was said when and from where, whether it woke the device, the angle beside."""
    said = [textwrap.shorten(r.get("pinyin") or r["text"], 30, placeholder=" ...") for r in rows]
    says = max(map(len, ["said", *said])) + 2
    around = max(len(r["around"]) for r in [{"around": "over"}, *rows]) + 2
    yield f"  {'time':<15}{'said':<{says}}{'from':<16}{'over':<{around}}the device"
    for row, text in zip(rows, said):
        yield (
            f"  {row['start']:4.1f} - {row['end']:4.1f} s  {text:<{says}}{row['heading_deg']:3.0f} deg, "
            f"{row['distance_m']:.1f} m  {row['around']:<{around}}{verdict(row)}"
        )
    for stray in strays:
        yield f"  {stray['woke_s']:4.1f} s: FALSE wake, {degrees(stray['angle_deg'])}"
    phrases = [r for r in rows if r["wake_phrase"]]
    heard = [r for r in phrases if r["woke_s"] is not None]
    false = len(strays) + sum(r["woke_s"] is not None for r in rows) - len(heard)
    errors = [r["angle_error_deg"] for r in heard if r["angle_error_deg"] is not None]
    mean = f", angle {sum(errors) / len(errors):.0f} degrees off on average" if errors else ""
    yield f"\n  {len(heard)} of {len(phrases)} wake phrases heard, false wakes: {false}{mean}"


def measure(scene, before, after, talkers):
    """Levels and gains of every stretch; the three signals are lined up in time."""
    rate = scene["sample_rate"]
    for stretch in scene["stretches"]:
        span = slice(round(stretch["start"] * rate), round(stretch["end"] * rate))
        mic, out = before[span], after[span]
        row = {k: stretch[k] for k in ("kind", "start", "end", "what")}
        row |= {"before_dbfs": dbfs(mic), "after_dbfs": dbfs(out)}
        if stretch["kind"] == "far_end":
            row["echo_down_db"] = row["before_dbfs"] - row["after_dbfs"]
        else:
            row["talkers_to_rest_db"] = [talker_margin_db(x, talkers[span]) for x in (mic, out)]
        yield row


def level_table(rows):
    width = max(len(row["what"]) for row in rows) + 2
    yield f"  {'time':<15}{'':<14}{'what happens':<{width}}{'level, dBFS':<18}result"
    for row in rows:
        if "echo_down_db" in row:
            result = f"echo {row['echo_down_db']:.1f} dB down"
        else:
            result = "talkers to rest {:+.1f} -> {:+.1f} dB".format(*row["talkers_to_rest_db"])
        yield (
            f"  {row['start']:4.1f} - {row['end']:4.1f} s  {LABELS[row['kind']]:<14}{row['what']:<{width}}"
            f"{row['before_dbfs']:5.1f} -> {row['after_dbfs']:5.1f}    {result}"
        )


def everything_said(scene):
    """What is said, with what is heard around it."""
    return [
        {**speech, "around": " and ".join(dict.fromkeys(stretch["plays"] + stretch["noise"])) or "quiet"}
        for stretch in scene["stretches"]
        for speech in stretch["speaks"]
    ]


def report(args):
    scene = read_scene(args.scene)
    events = read_events(args.events)
    capture, output = read_pcm(args.capture), read_pcm(args.output)
    frames = scene["samples"] // FRAME
    for path, samples, channels in ((args.capture, capture, CHANNELS), (args.output, output, 1)):
        if len(samples) < frames * FRAME * channels:
            raise ReportError(f"{path} is too short: {len(samples) // channels} samples per channel, {frames * FRAME} expected")

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

    spoken, strays = match(everything_said(scene), events)
    stretches = list(measure(scene, before, after, talkers))
    print(f"\n{scene['title']}\n")
    print("\n".join(wake_table(spoken, strays)))
    print("\n  The time of a wake is the end of its frame of 64 ms. Angles clockwise, 0 = microphone 1.\n")
    print("\n".join(level_table(stretches)))
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
    if args.json:
        found = {
            "title": scene["title"],
            "delay_samples": delay,
            "spoken": spoken,
            "stray_wakes": strays,
            "stretches": stretches,
        }
        try:
            pathlib.Path(args.json).write_text(json.dumps(found, indent=2) + "\n", encoding="utf-8")
        except OSError as error:
            raise ReportError(f"cannot write {args.json}: {error.strerror}") from None


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--scene", required=True, help="scene description (JSON)")
    parser.add_argument("--capture", required=True, help="six-channel PCM the driver read")
    parser.add_argument("--output", required=True, help="PCM the driver wrote")
    parser.add_argument("--events", required=True, help="what the driver printed")
    parser.add_argument("--codec", required=True, help="libquibo.so, for dec_data")
    parser.add_argument("--delay", type=int, help="the output's delay in samples (default: found)")
    parser.add_argument("--json", help="file to write everything found to")
    try:
        report(parser.parse_args())
    except ReportError as error:
        sys.exit(f"demo_report: {error}")


if __name__ == "__main__":
    main()
