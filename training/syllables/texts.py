"""What is said, and when: the wake phrase, what is nearly it, strings of syllables, words, sentences."""

from __future__ import annotations

import dataclasses
import math
import typing
from collections.abc import Iterator, Sequence

import numpy as np

from .confusions import Confusions
from .inventory import Phrase, shipped
from .voices import Voices

FRAMES_PER_SECOND = 100
SYLLABLE = (0.13, 0.6)  # s, limits of the mean length of an utterance's syllables
TYPICAL, SPREAD = 0.26, 0.5  # s; standard deviation of its logarithm
OUTSIDE_SHARE = 0.15  # of the syllables of a string, those the network has no class for
LONGEST = 20  # syllables of a string
NEUTRAL_SHARE = 0.12  # syllables said short and weak
TOO_LONG = (0.95, 1.5)  # s between the halves of what is no longer the phrase
FASTEST = 1.35  # by which a sentence is sped up to fit
TEMPO_FACTORS = (0.6, 1.7)  # times the tempo in which something was said
CLOSE_SHARE = 0.7  # of the phrases with one syllable wrong, those where it is easily taken for the right one
CONNECTED_SHARE = 0.5  # of the phrases and near misses, those that were said as a whole
BEFORE_SHARE, BEHIND_SHARE = 0.2, 0.3  # of those, how often something else is said before and behind
# How often recordings, a neural synthesiser's and a formant synthesiser's voices are heard, by how their names begin.
GROUPS = {"espeak-ng ": 0.15, "neural ": 0.45, "": 0.4}


@dataclasses.dataclass
class Piece:
    number: object  # of the voices: what its choose() gave, or one of its pieces
    begin: float  # frames of 10 ms
    frames: float
    said: tuple[int, ...]  # classes
    decibels: float = 0.0
    ends: tuple = None  # shares of the frames at which each ends; None: they are evenly spread, as far as is known


class Saying(typing.Protocol):
    """What joined() takes syllables from: Voices, or the waves of listening tests."""

    def choose(self, rng: np.random.Generator, speaker: str, syllable: int) -> object: ...


def one_off(
    rng: np.random.Generator, known: list[int], phrase: Phrase = shipped, confusions: Confusions | None = None
) -> list[int]:
    """The phrase with one syllable wrong, in one place or wherever it stands. known: classes to choose from; confusions:
    what of them is taken for the right ones, else it is its neighbours."""
    said, place = list(phrase.said), int(rng.integers(len(phrase.said)))
    close = [c for c in phrase.like(place) if c in known]
    right, likely = said[place], rng.random() < CLOSE_SHARE
    if likely and confusions:
        wrong = confusions.draw(rng, place, [c for c in known if c not in (0, right)])
    else:
        wrong = int(rng.choice(close if close and likely else known))
    said[place] = wrong
    if rng.random() < 0.3:
        said = [wrong if c == right else c for c in said]
    return said


def disordered(rng: np.random.Generator, known: list[int], phrase: Phrase = shipped) -> list[int]:
    """The phrase's syllables in another order, some of them, others among them."""
    x, n = int(rng.choice(known)), len(phrase.said)
    if n == 4 and phrase.said[:2] == phrase.said[2:]:
        orders = twice(*phrase.said[:2], x)
        return list(orders[rng.integers(len(orders))])
    said, place = list(phrase.said), int(rng.integers(n))
    kind = int(rng.integers(7))
    if kind == 0:  # one left away
        return said[:place] + said[place + 1 :]
    if kind == 1:  # one too many
        return [*said[: place + 1], x, *said[place + 1 :]]
    if kind == 2:  # one twice
        return [*said[: place + 1], *said[place:]]
    if kind == 3:  # a half
        return said[: (n + 1) // 2] if rng.random() < 0.5 else said[n // 2 :]
    if kind == 4:  # two change places
        other = (place + 1) % n
        said[place], said[other] = said[other], said[place]
        return said
    if kind == 5:  # another end
        return said[:-1] + [x]
    return said[place:] + said[:place]


def twice(a: int, b: int, x: int) -> tuple[list[int], ...]:
    """Of a phrase that is the same two syllables twice."""
    return (
        [a, b, a],
        [b, a, b],
        [b, a, b, a],
        [a, b, b, a],
        [a, a, b, b],
        [b, a, a, b],
        [a, b],
        [a, b, x, a, b],
        [a, x, b, a, b],
        [a, b, a, x, b],
        [a, b, a, a],
        [a, a, a, b],
        [a, b, b, b],
    )


def near_miss(
    rng: np.random.Generator, known: list[int], phrase: Phrase = shipped, confusions: Confusions | None = None
) -> tuple[list[int], int | None]:
    """Classes and the place behind which there is a pause too long for the phrase, or None."""
    kind = rng.random()
    while True:
        said, pause = one_off(rng, known, phrase, confusions) if kind < 0.6 else disordered(rng, known, phrase), None
        if kind > 0.92:
            said, pause = list(phrase.said), (len(phrase.said) - 1) // 2
        if pause is not None or not phrase.is_in(said):
            return said, pause


def some(rng: np.random.Generator, voices: Voices, speaker: str, count: int) -> list[int]:
    """Classes of syllables that the speaker has said, drawn by frequency; 0 for those that have no class."""
    mine = voices.syllables[speaker]
    p = voices.frequency * np.isin(np.arange(len(voices.frequency)), list(mine))
    said = rng.choice(len(p), count, p=p / p.sum())
    return [0 if u < OUTSIDE_SHARE and 0 in mine else int(c) for c, u in zip(said, rng.random(count))]


def tempo(rng: np.random.Generator, slowest: float = SYLLABLE[1]) -> float:
    return float(np.clip(TYPICAL * math.exp(rng.normal(0, SPREAD)), SYLLABLE[0], slowest))


def gap(rng: np.random.Generator) -> float:
    """s to the next syllable; below 0 they overlap."""
    kind = rng.random()
    low, high = (-0.035, 0.01) if kind < 0.62 else (0.0, 0.08) if kind < 0.82 else (0.08, 0.25)
    return rng.uniform(low, high)


def joined(
    rng: np.random.Generator,
    voices: Saying,
    speaker: str,
    said: Sequence[int],
    frames: float,
    pause: int | None = None,
    length: float | None = None,
    cut: bool = False,
) -> list[Piece] | None:
    """Isolated syllables of one speaker joined to an utterance that ends within `frames`; None if it does not fit. cut:
    what does not fit is left away. length: mean s per syllable."""
    mean = length or tempo(rng)
    lengths = mean * np.exp(rng.normal(0, 0.15, len(said)))
    weak = (rng.random(len(said)) < NEUTRAL_SHARE) & (np.arange(len(said)) > 0)
    lengths = np.maximum(lengths * np.where(weak, 0.65, 1.0), 0.1)
    gaps = [gap(rng) for _ in said]
    if pause is not None:
        gaps[pause] = rng.uniform(*TOO_LONG)
    fits = frames / FRAMES_PER_SECOND
    pieces, at, end = [], 0.0, 0.0
    for c, seconds, space, quiet in zip(said, lengths, gaps, weak):
        if cut and at + seconds > fits:
            break
        level = rng.normal(0, 1.5) - 5.0 * quiet
        pieces.append(Piece(voices.choose(rng, speaker, c), at * FRAMES_PER_SECOND, seconds * FRAMES_PER_SECOND, (c,), level))
        end = at + seconds
        at = end + space
    spare = fits - end
    if spare < 0:
        return None
    return placed(rng, pieces, spare * FRAMES_PER_SECOND)


def placed(rng: np.random.Generator, pieces: list[Piece], spare: float) -> list[Piece]:
    """Moved to a random place, which often is the very beginning: the engine starts afresh after every wake."""
    start = rng.uniform(0, spare) if rng.random() < 0.8 else rng.uniform(0, min(spare, 10))
    for piece in pieces:
        piece.begin += start
    return pieces


def words(rng: np.random.Generator, voices: Voices, speaker: str, frames: int, core: int | None = None) -> list[Piece] | None:
    """Words and sentences as somebody said them, one after the other; around the piece `core`, if there is one."""
    available, speed = frames / FRAMES_PER_SECOND, Speed(rng, voices)
    pieces, at, said = [], 0.0, []
    for number in sequence(rng, voices.words[speaker], core):
        _, _, _, classes, ends, _ = voices.pieces[number]
        seconds = speed(number, classes, ends, None if pieces else available)
        if at + seconds > available:
            if number == core:
                return None
            if pieces or len(classes) > 4:
                break
            continue
        pieces.append(
            Piece(
                number,
                at * FRAMES_PER_SECOND,
                seconds * FRAMES_PER_SECOND,
                tuple(classes),
                rng.normal(0, 1),
                ends and tuple(ends),
            )
        )
        said += classes
        at += seconds + rng.uniform(0.0, 0.3)
    if not pieces or voices.phrase.is_in(said) != (core is not None and voices.phrase.is_in(voices.pieces[core][3])):
        return None
    return placed(rng, pieces, frames - pieces[-1].begin - pieces[-1].frames)


def sequence(rng: np.random.Generator, others: list[int], core: int | None) -> Iterator[int]:
    """Others without end; or the core, now and then among a few of them."""
    while core is None:
        yield int(rng.choice(others))
    if others and rng.random() < BEFORE_SHARE:
        yield int(rng.choice(others))
    yield core
    while others and rng.random() < BEHIND_SHARE:
        yield int(rng.choice(others))


class Speed:
    """Seconds a recorded piece takes in an utterance of one tempo."""

    def __init__(self, rng: np.random.Generator, voices: Voices) -> None:
        self.rng, self.voices, self.citation, self.length = rng, voices, rng.uniform(1.0, 1.8), tempo(rng)

    def __call__(self, number: int, classes: Sequence[int], ends: Sequence[float] | None, fits: float | None) -> float:
        """fits: s into which a sentence is to be brought, if a little haste does it."""
        seconds = self.voices.seconds(number)
        if ends:  # spoken fluently
            return seconds / np.clip(seconds / len(classes) / self.length, *TEMPO_FACTORS)
        if len(classes) <= 4:  # citation forms
            return seconds / self.citation
        seconds /= self.rng.uniform(0.9, 1.15)
        return 0.99 * fits if fits and fits < seconds < fits * FASTEST else seconds


def speaker_of(rng: np.random.Generator, speakers: dict[str, float]) -> str:
    """speakers: {name: weight}."""
    groups = {}
    for name in speakers:
        groups.setdefault(next(g for g in GROUPS if name.startswith(g)), []).append(name)
    p = np.array([GROUPS[g] for g in groups])
    chosen = list(groups.values())[rng.choice(len(p), p=p / p.sum())]
    p = np.array([speakers[s] for s in chosen])
    return chosen[rng.choice(len(chosen), p=p / p.sum())]


def said_as_a_whole(rng: np.random.Generator, voices: Voices, whole: dict[str, list[int]], frames: int) -> list[Piece] | None:
    """whole: {speaker: pieces}, one of which is said."""
    speaker = speaker_of(rng, dict.fromkeys(whole, 1.0))
    return words(rng, voices, speaker, frames, int(rng.choice(whole[speaker])))


def utterance(rng: np.random.Generator, voices: Voices, kind: str, frames: int) -> list[Piece] | None:
    """Pieces of an utterance of a kind: "phrase", "near miss", "string" or "words"; None if it came out too long."""
    if kind == "words" and voices.words:
        return words(rng, voices, speaker_of(rng, voices.word_speakers), frames)
    whole = {"phrase": voices.phrases, "near miss": voices.near_misses}.get(kind)
    if whole and rng.random() < CONNECTED_SHARE:
        return said_as_a_whole(rng, voices, whole, frames)
    speaker, pause = speaker_of(rng, voices.speakers), None
    if kind in ("phrase", "near miss"):
        said, pause = list(voices.phrase.said), None
        if kind == "near miss":
            said, pause = near_miss(rng, list(voices.syllables[speaker]), voices.phrase, voices.confusions)
        if rng.random() < 0.4:
            before, after = some(rng, voices, speaker, rng.integers(3)), some(rng, voices, speaker, rng.integers(3))
            longer = before + said + after
            if kind == "phrase" or pause is not None or not voices.phrase.is_in(longer):
                said, pause = longer, None if pause is None else pause + len(before)
    else:
        # Most strings fill their time: there are many classes to learn.
        said = some(rng, voices, speaker, LONGEST if rng.random() < 0.75 else int(rng.integers(3, 9)))
        if voices.phrase.is_in(said):
            return None
    return joined(rng, voices, speaker, said, frames, pause, cut=kind == "string")
