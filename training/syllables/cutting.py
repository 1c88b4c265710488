"""Words and sentences cut into their syllables: along the way an earlier wake-up network takes through them.

Isolated syllables are few and slow. Those inside words are many, of more speakers, and as people say them.
"""
import numpy as np

from .. import engine
from ..models import kws
from . import spectra

LEVEL = 0.06  # RMS at which the network listens, of full scale 1.0
LEAD, TAIL = 4, 14  # steps of near silence around a clip
QUIETEST = 1e-4  # of that near silence
SMALLEST = 1e-6
SURE = 0.3  # posterior of a syllable at its best step, at least
SHORTEST, LONGEST = 0.08, 0.6  # s of a syllable
SEARCH = 0.04  # s around a boundary
STEP = engine.BLOCK / spectra.RATE


def posteriors(library, x):
    """Per step of the wave and of what is put around it, as the decoder has them [steps, 146]."""
    rms = np.sqrt((x**2).mean()) + 1e-9
    noise = np.random.default_rng(len(x)).standard_normal(len(x) + (LEAD + TAIL) * engine.BLOCK) * QUIETEST
    noise[LEAD * engine.BLOCK:LEAD * engine.BLOCK + len(x)] += x * (LEVEL / rms)
    wave = np.int16(np.clip(noise, -0.99, 0.99) * spectra.FULL_SCALE)
    return np.float64([p for p in engine.posteriors(library, wave[:len(wave) // engine.BLOCK * engine.BLOCK])])


def last_steps(p, classes):
    """The best way through posteriors [steps, 146] that says the classes in their order, blanks between: last step and
    best posterior of each class; None if there is no way."""
    states = np.full(2 * len(classes) + 1, kws.BLANK)
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


def boundary(log_mel, seconds):
    """Where the spectrum changes most, in s, near where a boundary should be. log_mel: frames of 5 ms."""
    at, width = round(seconds / 0.005), round(SEARCH / 0.005)
    low, high = max(3, at - width), min(len(log_mel) - 3, at + width + 1)
    if high <= low:
        return seconds
    change = [np.abs(log_mel[i:i + 3].mean(0) - log_mel[i - 3:i].mean(0)).mean() - 0.002 * abs(i - at) for i in range(low, high)]
    return (low + int(np.argmax(change))) * 0.005


def cut(library, x, said, classes, late):
    """Yields (syllable, begin, end) in samples for those whose both ends are known. said: syllables; classes: {syllable:
    class}; late: s by which the network says a syllable before (below 0) or after its end."""
    known = [classes[s] for s in said if s in classes]
    found = last_steps(posteriors(library, x), known) if known else None
    if found is None:
        return
    log_mel = np.log(spectra.power(x, 80) @ spectra.mel() + 1.0)
    found, end_before = iter(found), None
    for i, s in enumerate(said):
        if s not in classes:
            end_before = None
            continue
        step, posterior = next(found)
        end = (step + 1 - LEAD) * STEP - late
        last = i + 1 == len(said)
        end = min(end, len(x) / spectra.RATE) if last else boundary(log_mel, end)
        begin = 0.0 if i == 0 else end_before
        end_before = end
        if posterior < SURE or begin is None:
            continue
        if i == 0 or last or SHORTEST <= end - begin <= LONGEST:
            yield s, round(max(0.0, begin) * spectra.RATE), len(x) if last else round(end * spectra.RATE)
