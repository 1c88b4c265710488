"""Utterances joined as waves, from one speaker's own syllables: what is listened to, not what is trained on."""

from __future__ import annotations

import collections
from collections.abc import Sequence

import numpy as np

from ..corpus import Corpus
from ..scenes import sources
from ..scenes.audio import RATE, fade, gain
from .inventory import inventory
from .texts import Piece
from .voices import ACTIVE

FRAME, SEARCH = 400, 120  # samples of the time scaling
ACTIVE_FRAME = 80


class Clips:
    """A speaker's syllables, as texts.joined() draws them."""

    def __init__(self, corpus: Corpus, speaker: str, split: str) -> None:
        self.corpus, self.clips = corpus, []
        self.syllables = {speaker: collections.defaultdict(list)}
        classes = inventory()
        for clip in corpus.clips("mandarin", split):
            if clip.speaker == speaker and clip.pinyin and " " not in clip.pinyin:
                self.syllables[speaker][classes.get(clip.pinyin, 0)].append(len(self.clips))
                self.clips.append(clip)

    def choose(self, rng: np.random.Generator, speaker: str, syllable: int) -> int:
        return int(rng.choice(self.syllables[speaker][syllable]))

    def read(self, number: int) -> np.ndarray:
        return trimmed(self.corpus.read(self.clips[number]))


def trimmed(x: np.ndarray) -> np.ndarray:
    """The part of a clip between its first and last frame within 30 dB of the loudest."""
    power = (x[: len(x) // ACTIVE_FRAME * ACTIVE_FRAME].reshape(-1, ACTIVE_FRAME) ** 2).mean(1)
    on = np.flatnonzero(power > ACTIVE * power.max())
    return x[on[0] * ACTIVE_FRAME : (on[-1] + 1) * ACTIVE_FRAME]


def time_scaled(x: np.ndarray, samples: int) -> np.ndarray:
    """x at another tempo, its pitch kept: overlapping frames taken from where they continue the last one best (WSOLA,
    Verhelst and Roelands 1993)."""
    hop, ratio = FRAME // 2, len(x) / samples
    padded = np.pad(x, (SEARCH, 2 * FRAME + SEARCH))
    window = np.float32(np.hanning(FRAME + 1)[:-1])
    y, last = np.zeros(samples + 2 * FRAME, np.float32), None
    for out in range(0, samples + hop, hop):
        at = min(int(out * ratio), len(x))
        if last is not None:
            around = padded[at : at + FRAME + 2 * SEARCH]
            at += int(np.correlate(around, padded[last + hop : last + hop + FRAME], "valid").argmax())
        else:
            at += SEARCH
        y[out : out + FRAME] += window * padded[at : at + FRAME]
        last = min(at, len(padded) - FRAME - hop)
    return y[hop : hop + samples]


def say(clips: Clips, pieces: Sequence[Piece], samples: int) -> np.ndarray:
    """The pieces of an utterance as a wave [samples]."""
    y = np.zeros(samples, np.float32)
    for piece in pieces:
        x = time_scaled(np.pad(clips.read(piece.number), (FRAME // 2, 0)), round(piece.frames / 100 * RATE) + FRAME // 2)
        x = sources.levelled(fade(x, 0.005)) * np.float32(gain(piece.decibels))
        start = round(piece.begin / 100 * RATE)
        part = y[start : start + len(x)]
        part += x[: len(part)]
    return y
