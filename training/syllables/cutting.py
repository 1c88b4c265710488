"""Words and sentences cut into their syllables: along the way an earlier wake-up network takes through them.

Isolated syllables are few and slow. Those inside words are many, of more speakers, and as people say them.
"""

from __future__ import annotations

import pathlib
from collections.abc import Iterator, Sequence

import numpy as np

from .. import cache_keys, engine, export
from ..device_facts import BLANK, BLOCK, FULL_SCALE, RATE
from . import spectra

LEVEL = 0.06  # RMS at which the network listens, of full scale 1.0
LEAD, TAIL = 4, 14  # steps of near silence around a clip
QUIETEST = 1e-4  # of that near silence
SMALLEST = 1e-6
LATE = 0.04  # s behind a syllable's end at which the network has said it
SURE = 0.1  # posterior at a syllable's best step, above which the way through it is trusted
SHORTEST, LONGEST = 0.08, 0.6  # s of a syllable
SEARCH = 0.04  # s around a boundary
AUDIBLE = 0.01  # of the loudest frame's power: where words begin and end
FRAME, SIDE = 80, 3  # samples; frames compared on either side of a boundary


def made_from(library: pathlib.Path, params: pathlib.Path) -> dict[str, str]:
    """What a Cutter's cuts come from, beside the clip (cache_keys.py)."""
    return {"library": cache_keys.file_digest(library), "parameters": cache_keys.file_digest(params)}


class Cutter:
    """library: built libquibo.so; params: the network's exported file; classes: {syllable: class}."""

    def __init__(self, library: pathlib.Path, params: pathlib.Path, classes: dict[str, int]) -> None:
        tables = export.read(params)
        tables.pop("fbank_filter1")
        self.library, self.classes = engine.load(library, tables), classes
        self.made_from = made_from(library, params)

    def posteriors(self, x: np.ndarray) -> np.ndarray:
        """Per step of the wave and of what is put around it, as the decoder has them [steps, 146]."""
        noise = np.random.default_rng(len(x)).standard_normal(len(x) + (LEAD + TAIL) * BLOCK) * QUIETEST
        noise[LEAD * BLOCK : LEAD * BLOCK + len(x)] += x * (LEVEL / (np.sqrt((x**2).mean()) + 1e-9))
        wave = np.int16(np.clip(noise, -0.99, 0.99) * FULL_SCALE)
        return np.float64(list(engine.posteriors(self.library, wave[: len(wave) // BLOCK * BLOCK])))

    def cut(self, x: np.ndarray, said: Sequence[str]) -> Iterator[tuple[str, int, int]]:
        """Yields (syllable, begin, end) in samples for those whose both ends are known."""
        known = [self.classes[s] for s in said if s in self.classes]
        found = last_steps(self.posteriors(x), known) if known else None
        if found is None:
            return
        power = spectra.power(x, FRAME) @ spectra.mel()
        loud = power @ spectra.level_weights()
        spoken = np.flatnonzero(loud > AUDIBLE * loud.max()) * FRAME / RATE
        log_mel = np.log(power + 1.0)
        found, begin = iter(found), spoken[0]
        for i, syllable in enumerate(said):
            if syllable not in self.classes:  # nobody knows where it ends
                begin = None
                continue
            step, posterior = next(found)
            end = spoken[-1]
            if i + 1 < len(said):
                end = boundary(log_mel, (step + 1 - LEAD) * BLOCK / RATE - LATE)
            sure = posterior > SURE
            if begin is not None and sure and SHORTEST <= end - begin <= LONGEST:
                yield syllable, round(begin * RATE), round(end * RATE)
            begin = end if sure else None


def last_steps(p: np.ndarray, classes: Sequence[int]) -> list[tuple[int, float]] | None:
    """The best way through posteriors [steps, 146] that says the classes in their order, blanks between: last step and
    best posterior of each class; None if there is no way."""
    states = np.full(2 * len(classes) + 1, BLANK)
    states[1::2] = classes
    scores = np.log(p[:, states] + SMALLEST)
    skips = np.zeros(len(states), bool)
    skips[3::2] = states[3::2] != states[1:-2:2]
    best = np.full(len(states), -np.inf)
    best[:2] = scores[0, :2]
    origins = []
    for row in scores[1:]:
        stay, before = best, np.concatenate([[-np.inf], best[:-1]])
        over = np.where(skips, np.concatenate([[-np.inf] * 2, best[:-2]]), -np.inf)
        choices = np.stack([stay, before, over])
        origin = choices.argmax(0)
        best = choices[origin, np.arange(len(states))] + row
        origins.append(origin)
    state = len(states) - 1 if best[-1] >= best[-2] else len(states) - 2
    if not np.isfinite(best[state]):
        return None
    way = [state]
    for origin in reversed(origins):
        state -= origin[state]
        way.append(state)
    way = np.array(way[::-1])
    found = []
    for i, c in enumerate(classes):
        steps = np.flatnonzero(way == 2 * i + 1)
        found.append((int(steps[-1]), float(p[steps, c].max())))
    return found


def boundary(log_mel: np.ndarray, seconds: float) -> float:
    """Where the spectrum changes most, in s, near where a boundary should be. log_mel: every FRAME samples."""
    per_second = RATE / FRAME
    at, around = round(seconds * per_second), round(SEARCH * per_second)
    low, high = max(SIDE, at - around), min(len(log_mel) - SIDE, at + around + 1)
    if high <= low:
        return seconds
    change = [np.abs(log_mel[i : i + SIDE].mean(0) - log_mel[i - SIDE : i].mean(0)).mean() for i in range(low, high)]
    return (low + int(np.argmax(change))) / per_second
