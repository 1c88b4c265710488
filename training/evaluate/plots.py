"""The report's figures, as SVG text to be set into the page."""

from __future__ import annotations

import io
from collections.abc import Sequence

import matplotlib
from matplotlib.axes import Axes
from matplotlib.figure import Figure

from training.shared import Record

matplotlib.use("Agg")
matplotlib.rcParams.update(
    {
        "font.family": "sans-serif",
        "font.size": 9.5,
        "axes.spines.top": False,
        "axes.spines.right": False,
        "axes.edgecolor": "#8a8f98",
        "axes.labelcolor": "#3a3f47",
        "xtick.color": "#3a3f47",
        "ytick.color": "#3a3f47",
        "axes.grid": True,
        "grid.color": "#e8eaed",
        "axes.axisbelow": True,
        "axes.titlesize": 10.5,
        "axes.titleweight": "bold",
        "axes.titlelocation": "left",
        "legend.frameon": False,
        "svg.fonttype": "none",
        "figure.facecolor": "none",
    }
)

import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402

# System -> (colour, line, marker). The product is blue, what it gets is grey.
STYLES = {
    "noisy": ("#8a8f98", ":", "s"),
    "unprocessed": ("#8a8f98", ":", "s"),
    "Quibo, floor 0.1": ("#1f5fd1", "-", "o"),
    "Quibo, floor 0.3, three microphones": ("#7aa7f0", "--", "o"),
    "Quibo, linear canceller": ("#7aa7f0", "--", "o"),
    "Quibo, with neural suppressor": ("#1f5fd1", "-", "o"),
    "speexdsp": ("#c8701b", "-", "^"),
    "WebRTC": ("#2f8a57", "-", "D"),
    "RNNoise": ("#a0409a", "-", "v"),
    "GTCRN": ("#b3343a", "-", "P"),
}
CONDITION_COLOURS = ("#1f5fd1", "#2f8a57", "#c8701b", "#a0409a")
DIRECTION_COLOURS = {"Quibo": "#1f5fd1", "SRP-PHAT, whole phrase": "#c8701b"}


def svg(figure: Figure) -> str:
    text = io.StringIO()
    figure.savefig(text, format="svg", bbox_inches="tight")
    plt.close(figure)
    return text.getvalue()[text.getvalue().index("<svg") :]


def legend(figure: Figure, axes: Axes, columns: int) -> None:
    handles, labels = axes.get_legend_handles_labels()
    figure.legend(handles, labels, loc="upper center", bbox_to_anchor=(0.5, 0.0), ncols=columns)


def noise(summary: Record) -> str:
    """SI-SDR gained, ESTOI and DNSMOS against SNR."""
    figure, axes = plt.subplots(1, 3, figsize=(11, 3.1), layout="constrained")
    panels = (("si_sdr_gain", "SI-SDR gained, dB"), ("estoi", "ESTOI"), ("ovrl", "DNSMOS overall"))
    conditions = [c for c in summary if "," not in c]  # the steady noises have one ratio only
    systems = [s for s in STYLES if s in summary[conditions[0]]]
    spread = np.linspace(-0.5, 0.5, len(systems))  # dB beside each other, so that all are seen
    for axis, (measure, title) in zip(axes, panels):
        for system, shift in zip(systems, spread):
            x = [float(c.split()[0]) + shift for c in conditions]
            _line(axis, x, [summary[c][system][measure] for c in conditions], system)
        axis.set(title=title, xlabel="SNR, dB", xticks=[float(c.split()[0]) for c in conditions])
    legend(figure, axes[0], 6)
    return svg(figure)


def _line(axis: Axes, x: Sequence[float], figures: Sequence[Record | None], system: str) -> None:
    colour, line, marker = STYLES[system]
    figures = [f or dict.fromkeys(("value", "low", "high"), np.nan) for f in figures]
    values = np.array([f["value"] for f in figures])
    low, high = (np.array([f[end] for f in figures]) for end in ("low", "high"))
    axis.errorbar(
        x,
        values,
        np.abs([values - low, high - values]),
        color=colour,
        linestyle=line,
        marker=marker,
        markersize=4.5,
        linewidth=1.4,
        elinewidth=0.8,
        label=system,
    )


def echo_over_time(summary: Record, window: float) -> str:
    """ERLE while the device plays alone, a panel per condition."""
    figure, axes = plt.subplots(1, len(summary), figsize=(9.5, 3.0), sharey=True, layout="constrained")
    for axis, (condition, systems) in zip(np.atleast_1d(axes), summary.items()):
        for system, (colour, line, _) in STYLES.items():
            if system in systems and system != "unprocessed":
                curve = systems[system]["erle_over_time"]
                t = window * (np.arange(len(curve)) + 0.5)
                axis.plot(t, curve, color=colour, linestyle=line, linewidth=1.6, label=system)
        axis.set(
            title=condition,
            xlabel="seconds of playback",
            ylim=(min(-1.0, axis.get_ylim()[0]), None),
        )
    figure.axes[0].set_ylabel("ERLE, dB")
    legend(figure, figure.axes[0], 4)
    return svg(figure)


def levels(rows: list[Record], window: float) -> str:
    """Level over time of every recording, a panel each."""
    recordings = list(dict.fromkeys(r["recording"] for r in rows))
    columns = 2
    lines = -(-len(recordings) // columns)
    figure, axes = plt.subplots(lines, columns, figsize=(11, 2.2 * lines), sharey=True, squeeze=False, layout="constrained")
    for axis, recording in zip(axes.ravel(), recordings):
        for row in (r for r in rows if r["recording"] == recording):
            colour, line, _ = STYLES[row["system"]]
            t = window * (np.arange(len(row["levels"])) + 0.5)
            axis.plot(t, row["levels"], color=colour, linestyle=line, linewidth=1.3, label=row["system"])
        axis.set_title(recording, fontsize=8.5)
        axis.set_ylim(-80, None)
    for axis in axes.ravel()[len(recordings) :]:
        axis.set_visible(False)
    figure.supxlabel("s", fontsize=9)
    figure.supylabel("dBFS", fontsize=9)
    legend(figure, figure.axes[0], 5)
    return svg(figure)


def double_talk(summary: Record) -> str:
    """Echo removed against speech kept; up and to the right is better."""
    figure, axes = plt.subplots(1, len(summary), figsize=(11, 2.9), sharey=True, sharex=True, layout="constrained")
    for axis, (condition, systems) in zip(np.atleast_1d(axes), summary.items()):
        for system, (colour, _, marker) in STYLES.items():
            if system not in systems:
                continue
            x, y = systems[system]["echo_double_talk"], systems[system]["deg_double_talk"]
            if x is None:
                continue
            axis.errorbar(
                x["value"],
                y["value"],
                [[y["value"] - y["low"]], [y["high"] - y["value"]]],
                [[x["value"] - x["low"]], [x["high"] - x["value"]]],
                color=colour,
                marker=marker,
                linestyle="",
                markersize=6,
                elinewidth=0.8,
                label=system,
            )
        axis.set(title=condition, xlabel="AECMOS echo", xlim=(1, 5), ylim=(1, 5))
    figure.axes[0].set_ylabel("AECMOS other degradation")
    legend(figure, figure.axes[0], 5)
    return svg(figure)


def det(summary: Record, operating_point: float) -> str:
    """Missed phrases against false accepts, a curve per condition, the decoder's threshold marked."""
    curves = summary["det"]
    figure, axis = plt.subplots(figsize=(5.2, 3.6), layout="constrained")
    at = int(np.argmin(np.abs(np.array(curves["threshold"]) - operating_point)))
    for (name, missed), colour in zip(curves["missed"].items(), CONDITION_COLOURS):
        axis.plot(
            curves["false_per_hour"],
            100 * np.array(missed),
            color=colour,
            label=name,
            linewidth=1.6,
        )
        axis.plot(
            curves["false_per_hour"][at],
            100 * missed[at],
            "o",
            color=colour,
            markersize=5,
            clip_on=False,
        )
    axis.set_xscale("symlog", linthresh=1.0)
    axis.xaxis.set_major_formatter(lambda x, _: f"{x:g}")
    axis.set(
        xlabel="false accepts per hour",
        ylabel="phrases missed, %",
        ylim=(0, 103),
        xlim=(0, max(10.0, 1.1 * max(curves["false_per_hour"]))),
    )
    axis.legend(loc="center left", bbox_to_anchor=(1.0, 0.5))
    return svg(figure)


def directions(rows: list[Record], conditions: Sequence[str]) -> str:
    """Rose of the signed error per condition: 0 is where the talker is."""
    columns = 4
    lines = -(-len(conditions) // columns)
    figure, axes = plt.subplots(
        lines,
        columns,
        figsize=(11, 3.0 * lines),
        layout="constrained",
        subplot_kw={"projection": "polar"},
    )
    axes = axes.ravel()
    edges = np.deg2rad(np.arange(-180, 181, 15) - 7.5)
    for axis, condition in zip(axes, conditions):
        chosen = [r for r in rows if r["condition"] == condition]
        for name, colour in DIRECTION_COLOURS.items():
            errors = [
                (r["pointed"][name] - r["heading"] + 187.5) % 360 - 187.5 for r in chosen if r["pointed"][name] is not None
            ]
            counts, _ = np.histogram(np.deg2rad(errors), edges)
            share = 100 * counts / max(1, len(chosen))
            axis.bar(
                edges[:-1],
                share,
                np.diff(edges),
                align="edge",
                color=colour,
                alpha=0.55,
                label=name,
                linewidth=0,
            )
        axis.set_theta_zero_location("N")
        axis.set_theta_direction(-1)
        axis.set_thetagrids(range(0, 360, 45), ["0°", "45°", "90°", "135°", "180°", "-135°", "-90°", "-45°"])
        axis.set_ylim(0, 100)
        axis.set_yticks([25, 50, 75, 100], ["", "50 %", "", "100 %"], fontsize=7)
        axis.set_title(condition, loc="center")
        axis.tick_params(labelsize=8, pad=-1)
    legend(figure, axes[0], 2)
    return svg(figure)
