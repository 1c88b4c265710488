#!/usr/bin/env python3
"""Draws what tools/demo_report.py found: what was said and when, microphone 1 and the output, and
from where the wake phrases came beside the angles reported. Needs matplotlib."""

import argparse
import json
import sys
import textwrap
import wave

try:
    import matplotlib

    matplotlib.use("Agg")
    import numpy as np
    from matplotlib import pyplot
except ImportError as error:
    sys.exit(f"demo_picture: no picture without matplotlib ({error})")

KINDS = {  # colour behind a stretch, and what it is called
    "far_end": ("#d7e3f4", "the device plays"),
    "double_talk": ("#e6dcf2", "the device plays and people talk"),
    "near_end": ("#f7f7f2", "people talk"),
}
HEARD, MISSED, OTHER, FALSE = "#1a7f37", "#b8860b", "#8c959f", "#cf222e"
COLUMNS = 2400  # a waveform is drawn by the extremes of so many pieces


def read_wav(path):
    with wave.open(path) as f:
        samples = np.frombuffer(f.readframes(f.getnframes()), "<i2")
        return samples / 32768.0, f.getframerate()


def wakes(found):
    """Rows of the wakes by a wake phrase, and of all others."""
    woke = [row for row in found["spoken"] if row["woke_s"] is not None]
    false = [row for row in woke if not row["wake_phrase"]] + found["stray_wakes"]
    return [row for row in woke if row["wake_phrase"]], false


def draw_said(axes, found):
    """Three lanes: the wake phrases, everything else that is said, when the device woke."""
    for stretch in found["stretches"]:
        middle = (stretch["start"] + stretch["end"]) / 2
        width = int(2.6 * (stretch["end"] - stretch["start"]))
        axes.text(middle, 4.0, textwrap.fill(stretch["what"], width), ha="center", va="top", size=8.5)
    number = 0
    for row in found["spoken"]:
        length = row["end"] - row["start"]
        woke = row["woke_s"] is not None
        if row["wake_phrase"]:
            number += 1
            axes.barh(2, length, 0.4, row["start"], color=HEARD if woke else MISSED)
            text = f"{number}: {row['heading_deg']:.0f}°" + ("" if woke else "\nmissed")
            axes.text(row["start"] - 0.1, 2.28, text, size=9, weight="bold")
        else:
            axes.barh(1, length, 0.4, row["start"], color=FALSE if woke else OTHER)
            text = textwrap.shorten(row.get("pinyin") or row["text"], 26, placeholder=" ...")
            axes.text(row["start"] - 0.1, 1.28, text, size=8)
    for rows, colour in zip(wakes(found), (HEARD, FALSE)):
        for row in rows:
            axes.plot(row["woke_s"], 0.1, "v", color=colour, ms=8)
            if row["angle_deg"] is not None and colour == HEARD:
                axes.text(row["woke_s"] - 0.4, 0.1, f"{row['angle_deg']}°", size=9, ha="right", va="center")
    axes.set(ylim=(-0.3, 4.15), yticks=(2, 1, 0.1), yticklabels=("wake phrase", "other speech", "device wakes"))


def draw_wave(axes, samples, rate, limit, title):
    piece = max(1, len(samples) // COLUMNS)
    pieces = samples[: len(samples) // piece * piece].reshape(-1, piece)
    time = np.arange(len(pieces)) * piece / rate
    axes.fill_between(time, pieces.min(1), pieces.max(1), color="#30475e", linewidth=0.3)
    axes.set(ylim=(-limit, limit), ylabel=title)


def draw_directions(axes, found):
    """From above, as docs/array.md counts headings: 0 is towards microphone 1, clockwise."""
    axes.set_theta_zero_location("N")
    axes.set_theta_direction(-1)
    phrases = [row for row in found["spoken"] if row["wake_phrase"]]
    for number, row in enumerate(phrases, 1):
        woke, true = row["woke_s"] is not None, np.deg2rad(row["heading_deg"])
        colour = HEARD if woke else MISSED
        face = colour if woke else "white"
        axes.plot(true, row["distance_m"], "o", ms=17, mec=colour, mfc=face, clip_on=False, zorder=3)
        axes.text(
            true, row["distance_m"], number, ha="center", va="center", weight="bold",
            color="white" if woke else colour, zorder=4,
        )  # fmt: skip
        if row["angle_deg"] is not None:
            reported = np.deg2rad(row["angle_deg"])
            axes.plot([reported] * 2, [0, row["distance_m"]], color=colour, lw=2)
            way = np.deg2rad((row["heading_deg"] - row["angle_deg"] + 180) % 360 - 180)
            arc = np.linspace(reported, reported + way, 30)
            axes.plot(arc, np.full(30, row["distance_m"]), ":", color=colour, lw=1.5)
    farthest = max((row["distance_m"] for row in phrases), default=1.0)
    axes.set(rlim=(0, farthest + 0.3), rticks=np.arange(1.0, farthest + 0.3))
    axes.set_xticks(np.deg2rad(np.arange(0, 360, 30)))
    axes.set_yticklabels([f"{r:.0f} m" for r in axes.get_yticks()], size=8, color="#57606a")
    axes.set_rlabel_position(180)
    axes.set_title("Where the wake phrases came from", size=11, pad=14)
    axes.text(
        0.5, -0.13, "circles: the talkers, hollow where missed\nlines: the angles reported",
        transform=axes.transAxes, ha="center", va="top", size=9,
    )  # fmt: skip


def draw(found, before, after, rate):
    figure = pyplot.figure(figsize=(15, 7), layout="constrained")
    grid = figure.add_gridspec(3, 2, width_ratios=(3.1, 1), height_ratios=(1.9, 1, 1))
    said, mic, out = rows = [figure.add_subplot(grid[k, 0]) for k in range(3)]
    draw_said(said, found)
    limit = 1.05 * max(np.abs(before).max(), np.abs(after).max(), 1e-3)
    draw_wave(mic, before, rate, limit, "microphone 1")
    draw_wave(out, after, rate, limit, "output")
    heard, false = wakes(found)
    for axes in rows:
        axes.set_xlim(0, found["stretches"][-1]["end"])
        for stretch in found["stretches"]:
            axes.axvspan(stretch["start"], stretch["end"], color=KINDS[stretch["kind"]][0], lw=0, zorder=-2)
            axes.axvline(stretch["start"], color="white", lw=2, zorder=-1)
        axes.label_outer()
    for axes in (mic, out):
        for woke, colour in ((heard, HEARD), (false, FALSE)):
            for row in woke:
                axes.axvline(row["woke_s"], color=colour, lw=1.3)
    out.set_xlabel("seconds")
    handles = [pyplot.Rectangle((0, 0), 1, 1, color=colour) for colour, _ in KINDS.values()]
    labels = [label for _, label in KINDS.values()]
    handles += [pyplot.Line2D([], [], color=colour) for colour in (HEARD, FALSE)]
    labels += ["wake", "false wake"]
    out.legend(handles, labels, loc="upper center", bbox_to_anchor=(0.5, -0.38), ncols=5, frameon=False)
    draw_directions(figure.add_subplot(grid[:, 1], projection="polar"), found)
    phrases = sum(row["wake_phrase"] for row in found["spoken"])
    figure.suptitle(f"{len(heard)} of {phrases} wake phrases heard, false wakes: {len(false)}", size=13, weight="bold")
    return figure


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--found", required=True, help="what demo_report.py --json wrote")
    parser.add_argument("--before", required=True, help="WAV file of microphone 1")
    parser.add_argument("--after", required=True, help="WAV file of the output, lined up with it")
    parser.add_argument("--picture", required=True, help="PNG file to write")
    args = parser.parse_args()
    with open(args.found, encoding="utf-8") as f:
        found = json.load(f)
    before, rate = read_wav(args.before)
    after, _ = read_wav(args.after)
    draw(found, before, after, rate).savefig(args.picture, dpi=100)
    print(f"See:\n  {args.picture}")


if __name__ == "__main__":
    main()
