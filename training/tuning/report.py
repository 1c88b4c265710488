"""Recall and false wakes over the operating point: as a table, as data and as a picture."""

from __future__ import annotations

import dataclasses
import pathlib
from collections.abc import Sequence
from typing import Any

from training.evaluate import intervals

Row = dict[str, Any]


@dataclasses.dataclass(frozen=True)
class Found:
    """Of one recording: wakes per operating point, hours."""

    path: str
    wakes: list[list[float]]
    hours: float


def rows(nats: Sequence[float], positive: Sequence[Found], negative: Sequence[Found]) -> list[Row]:
    """Per operating point {nats, recall, false_wakes} with 95 % intervals; recall: the share of the recordings in which the
    device wakes at all."""
    hours = sum(r.hours for r in negative)
    return [
        {
            "nats": round(value, 4),
            "recall": intervals.share(sum(bool(r.wakes[i]) for r in positive), len(positive)),
            "false_wakes": intervals.rate(sum(len(r.wakes[i]) for r in negative), hours),
        }
        for i, value in enumerate(nats)
    ]


def best(found: Sequence[Row], most: float) -> int | None:
    """The operating point that hears most of those with at most so many false wakes per hour; of equals, the one with the
    fewest false wakes, then the one nearest to what is there."""
    allowed = [i for i, row in enumerate(found) if row["false_wakes"]["value"] <= most]
    key = lambda i: (-found[i]["recall"]["value"], found[i]["false_wakes"]["value"], abs(found[i]["nats"]))
    return min(allowed, key=key, default=None)


def line(row: Row, mark: str = " ") -> str:
    recall, false = row["recall"], row["false_wakes"]
    return (
        f"{mark} {row['nats']:+6.2f}  {100 * recall['value']:5.1f} % ({100 * recall['low']:.0f} to {100 * recall['high']:.0f})"
        f"{'':4}{false['n']:5d}  {false['value']:8.3f} per hour ({false['low']:.3f} to {false['high']:.3f})"
    )


def table(found: Sequence[Row], chosen: int | None) -> str:
    """A row where something changes; the parameters' own and the chosen one always."""
    figures = lambda row: (row["recall"], row["false_wakes"])
    lines = ["    nats  heard (95 %)          false wakes"]
    for i, row in enumerate(found):
        if i == 0 or figures(row) != figures(found[i - 1]) or row["nats"] == 0 or i == chosen:
            lines.append(line(row, "*" if i == chosen else " "))
    return "\n".join(lines)


def picture(found: Sequence[Row], chosen: int | None, path: pathlib.Path) -> None:
    from training.evaluate import plots  # wants matplotlib

    plt = plots.plt
    figure, at = plt.subplot_mosaic(
        [["heard", "trade"], ["false", "trade"]], figsize=(10, 4.6), layout="constrained", facecolor="white"
    )
    nats, colours = [row["nats"] for row in found], {"heard": "#1f5fd1", "false": "#c8701b"}
    recall, false = ([row[name] for row in found] for name in ("recall", "false_wakes"))
    for name, rates, factor in (("heard", recall, 100), ("false", false, 1)):
        low, middle, high = ([factor * r[of] for r in rates] for of in ("low", "value", "high"))
        at[name].step(nats, middle, where="mid", color=colours[name])
        at[name].fill_between(nats, low, high, step="mid", color=colours[name], alpha=0.15, linewidth=0)
    at["heard"].set(ylabel="heard, %", ylim=(0, 102), title="Over the operating point, with 95 % intervals")
    at["false"].set(xlabel="nats from the parameters' own operating point", ylabel="false wakes per hour", ylim=(0, None))
    at["false"].sharex(at["heard"])
    trade = at["trade"]
    trade.plot([r["value"] for r in false], [100 * r["value"] for r in recall], ".-", color=colours["heard"], clip_on=False)
    trade.set(xlabel="false wakes per hour", ylabel="heard, %", ylim=(0, 102), title="One for the other")
    trade.set_xlim(0, 1.05 * max(max(r["value"] for r in false), 1e-3))
    if chosen is not None:
        for name in ("heard", "false"):
            at[name].axvline(nats[chosen], color="#3a3f47", linewidth=1, linestyle=":")
        point = false[chosen]["value"], 100 * recall[chosen]["value"]
        trade.plot(*point, "o", color="#3a3f47", clip_on=False, label=f"chosen: {nats[chosen]:+.2f} nats")
        trade.legend(loc="lower right")
    figure.savefig(path, dpi=120)
    plt.close(figure)
