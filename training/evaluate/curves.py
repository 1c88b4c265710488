"""python -m training.evaluate.curves train-naec/log.csv --out params/naec.svg: validation figures over a training's steps."""

from __future__ import annotations

import argparse
import collections
import csv
import pathlib

from training.evaluate import plots

NAMES = {
    "si_sdr": "SI-SDR, dB",
    "si_sdr_improvement": "SI-SDR gained, dB",
    "echo_reduction": "echo reduction, dB",
    "loss": "loss",
}


def read(path: pathlib.Path) -> dict[str, list[tuple[int, float]]]:
    """name -> [(step, value)] of the validation rows; of a step that was validated twice the later one."""
    curves = collections.defaultdict(dict)
    with open(path, newline="", encoding="utf-8") as f:
        for row in csv.DictReader(f):
            if row["split"] == "valid" and row["name"] in NAMES:
                curves[row["name"]][int(row["step"])] = float(row["value"])
    return {name: sorted(points.items()) for name, points in curves.items()}


def draw(curves: dict[str, list[tuple[int, float]]], started: dict[str, float] | None = None) -> str:
    """A panel per figure; started: name -> value of the network that the training began with."""
    names = [name for name in NAMES if name in curves]
    figure, axes = plots.plt.subplots(1, len(names), figsize=(3 * len(names), 2.6), squeeze=False, layout="constrained")
    for axis, name in zip(axes[0], names):
        axis.plot(*zip(*curves[name]), "o-", color="#1f5fd1", markersize=4)
        if started and name in started:
            axis.axhline(started[name], color="#8a8f98", linestyle=":", linewidth=1.4)
        axis.set(title=NAMES[name], xlabel="steps")
    return plots.svg(figure)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("log", type=pathlib.Path)
    parser.add_argument("--out", type=pathlib.Path, required=True)
    parser.add_argument("--started", default="", help="figures of the network it began with: si_sdr=8.05,loss=0.06; dotted")
    arguments = parser.parse_args()
    started = dict(pair.split("=") for pair in arguments.started.split(",") if pair)
    drawing = draw(read(arguments.log), {name: float(value) for name, value in started.items()})
    arguments.out.write_text(drawing, encoding="utf-8")


if __name__ == "__main__":
    main()
