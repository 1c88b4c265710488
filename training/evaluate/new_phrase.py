"""What a network that was trained for another phrase still needs: its operating point, and the figures of its card.

The operating point is chosen on validation voices, rooms and noises, which neither the training nor the card's figures have
heard: of those with few enough false wakes the one at which the share of phrases heard exceeds that of near misses by most
(Youden 1950).
"""

from __future__ import annotations

import pathlib
from collections.abc import Callable

import numpy as np

from training.corpus import Corpus
from training.device_facts import RATE
from training.evaluate import intervals, listening
from training.evaluate.material import Material
from training.scenes.bank import RoomBank
from training.shared import Config, Record
from training.syllables import linter
from training.tuning import scores

Wakes = Callable[[np.ndarray], list[list[float]]]  # wave -> per operating point the seconds at which the device wakes


def rows(kept: dict[str, listening.Kept], nats: list[float], wakes: Wakes) -> list[Record]:
    """Per operating point {nats, heard: share, nearly: share or None, false_wakes: rate}."""
    counts = {name: np.zeros(len(nats), int) for name in ("heard", "nearly", "without")}
    of = dict.fromkeys(counts, 0.0)  # utterances, hours
    for what, waves in kept.items():
        name = "without" if what == "without" else "heard" if what in listening.HEARD else "nearly"
        for wave, row in waves:
            times = wakes(wave)
            if name == "without":
                counts[name] += [len(t) for t in times]
                of[name] += len(wave) / RATE / 3600
            else:
                counts[name] += [any(s > row["end"] - listening.SOONEST for s in t) for t in times]
                of[name] += 1
    return [
        {
            "nats": value,
            "heard": intervals.share(int(counts["heard"][i]), int(of["heard"])),
            "nearly": intervals.share(int(counts["nearly"][i]), int(of["nearly"])),
            "false_wakes": intervals.rate(int(counts["without"][i]), of["without"]) | {"hours": of["without"]},
        }
        for i, value in enumerate(nats)
    ]


def best(found: list[Record], most: float) -> int:
    """At most so many false wakes per hour, or as few as can be had; of equals the one nearest to what is there."""
    most = max(most, min(r["false_wakes"]["value"] for r in found))
    gain = lambda r: r["heard"]["value"] - (r["nearly"]["value"] if r["nearly"] else 0.0)
    allowed = [i for i, r in enumerate(found) if r["false_wakes"]["value"] <= most]
    return max(allowed, key=lambda i: (gain(found[i]), -abs(found[i]["nats"])))


def table(found: list[Record], chosen: int) -> str:
    """As Markdown: about every half nat, and the chosen one."""
    hours = found[0]["false_wakes"]["hours"]
    lines = [f"| nats | phrases heard | near misses that wake | wakes in {hours:.1f} h without |", "|---:|---|---|---:|"]
    nats = [r["nats"] for r in found]
    shown = {int(np.argmin(np.abs(np.array(nats) - n))) for n in np.arange(-4.0, 4.1, 0.5)} | {chosen}
    for i in sorted(shown):
        r, mark = found[i], "**" if i == chosen else ""
        nearly = listening.percent(r["nearly"]) if r["nearly"] else ""
        lines.append(f"| {mark}{r['nats']:+.2f}{mark} | {listening.percent(r['heard'])} | {nearly} | {r['false_wakes']['n']} |")
    return "\n".join(lines)


def settle(library: pathlib.Path, folder: pathlib.Path, corpus: Corpus, bank: RoomBank, cache: pathlib.Path, c: Config) -> str:
    """Chooses the operating point of a folder of parameters and writes it into its wake-up network. Returns the table.
    c: `share` of listen's utterances, `hours` without the phrase, `false_wakes` per hour at most."""
    of = Material(library, folder, corpus, bank, "valid")
    kept = listening.kept_of(of, cache, c["hours"], c["share"])
    parameters = scores.Parameters.of(folder)
    codes, so = parameters.operating_points(), parameters.load(library)
    wakes = lambda wave: scores.wakes(scores.Trace.of(wave, parameters, so), parameters, codes)
    found = rows(kept, [float(n) * parameters.nats for n in codes], wakes)
    chosen = best(found, c["false_wakes"])
    parameters.moved(int(codes[chosen])).write(folder, int(codes[chosen]))
    return table(found, chosen)


def heard(library: pathlib.Path, folder: pathlib.Path, corpus: Corpus, bank: RoomBank, cache: pathlib.Path, c: Config) -> str:
    """What `listen` prints of a folder of parameters, on test material."""
    of = Material(library, folder, corpus, bank)
    return listening.table(
        {"engine": listening.summary(listening.kept_of(of, cache, c["hours"], c["share"]), listening.EngineListener(of))}
    )


def card(phrase: str, operating_points: str, figures: str, training: str) -> str:
    return f"""# "{phrase}"

A wake phrase of its own: the shipped network, fine-tuned by `./run train kws --phrase "{phrase}"`.

What was known of it beforehand (`./run phrase`):

```
{linter.report(phrase)}
```

**Operating point**, on validation voices, rooms and noises, which the training has not heard; all conditions together:

{operating_points}

**Heard**, on test voices, rooms and noises, which nothing above has heard (`python -m training listen`; 95 % intervals):

```
{figures}
```

{training}"""
