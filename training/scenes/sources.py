"""Dry signals of a scene: somebody talking, noises, babble, music, tones. float32, 16 kHz."""

from __future__ import annotations

import math

import numpy as np
from scipy import signal

from training.corpus import Corpus
from training.scenes.audio import LEVEL_FRAME, RATE, active_dbfs, fade, gain

PAUSE = (0.05, 0.7)  # s between utterances
SPEEDS = ((8, 9), (9, 10), (10, 9), (9, 8))  # resampling: tempo, pitch and formants together
BABBLE_TALKERS = (4, 9)
EDGE = 0.005  # s, faded ends of clips


def levelled(x: np.ndarray, dbfs: float = -26.0) -> np.ndarray:
    """x at an active level of `dbfs`; silence and clicks of less than a frame stay."""
    if len(x) < LEVEL_FRAME or not np.any(x):
        return x
    return x * np.float32(gain(dbfs - active_dbfs(x)))


def coloured(rng: np.random.Generator, x: np.ndarray) -> np.ndarray:
    """x through a random second-order section: other microphones, other mouths."""
    centre = 2 * np.pi * 100.0 * 60.0 ** rng.random() / RATE
    boost, width = 10 ** (rng.uniform(-8, 8) / 40), rng.uniform(0.4, 1.2)
    alpha = math.sin(centre) / (2 * width)  # peaking equaliser of the audio EQ cookbook
    b = np.array([1 + alpha * boost, -2 * math.cos(centre), 1 - alpha * boost], np.float32)
    a = np.array([1 + alpha / boost, -2 * math.cos(centre), 1 - alpha / boost], np.float32)
    return signal.lfilter(b / a[0], a / a[0], x).astype(np.float32)


def talk(corpus: Corpus, rng: np.random.Generator, role: str, split: str, samples: int, lead: float = 0.3) -> np.ndarray:
    """Somebody talking for `samples`: utterances of one speaker with pauses between them.

    `lead`: the longest silence at the beginning, s. Tempo and colour vary from call to call.
    """
    clips = corpus.draw_speaker(rng, role, split)
    up, down = SPEEDS[rng.integers(len(SPEEDS))] if rng.random() < 0.4 else (1, 1)
    track = np.zeros(samples, np.float32)
    at = int(rng.uniform(0, lead) * RATE)
    while at < samples:
        clip = clips[rng.integers(len(clips))]
        x = corpus.read(clip, 0, 2 * samples)
        if up != down:
            x = signal.resample_poly(x, up, down).astype(np.float32)
        x = levelled(fade(x, EDGE), rng.normal(-26.0, 1.5))[: samples - at]
        track[at : at + len(x)] += x
        at += len(x) + int(rng.uniform(*PAUSE) * RATE)
    if rng.random() < 0.25:
        track = coloured(rng, track)
    return levelled(track)


def babble(corpus: Corpus, rng: np.random.Generator, split: str, samples: int) -> np.ndarray:
    talkers = [
        talk(corpus, rng, "far", split, samples) * gain(rng.uniform(-8, 0)) for _ in range(rng.integers(*BABBLE_TALKERS))
    ]
    return np.sum(talkers, axis=0, dtype=np.float32)


def excerpts(corpus: Corpus, rng: np.random.Generator, role: str, split: str, samples: int, count: int = 1) -> np.ndarray:
    """[count, samples] from different places of one clip of a role."""
    clip = corpus.draw(rng, role, split)
    x = np.stack([corpus.excerpt(rng, clip, samples) for _ in range(count)])
    return coloured(rng, x) if rng.random() < 0.25 else x


def tones(rng: np.random.Generator, samples: int) -> np.ndarray:
    """Dings and beeps of a device, with pauses."""
    track = np.zeros(samples, np.float32)
    at = int(rng.uniform(0, 0.5) * RATE)
    while at < samples:
        n = min(int(rng.uniform(0.1, 1.2) * RATE), samples - at)
        t = np.arange(n) / RATE
        pitch = rng.uniform(300, 2500) * np.array([1.0, rng.choice((1.25, 1.5, 2.0))])
        x = np.sin(2 * np.pi * np.outer(pitch, t)).sum(0) * np.exp(-t / rng.uniform(0.05, 0.6))
        track[at : at + n] += fade(x.astype(np.float32), EDGE)
        at += n + int(rng.uniform(0.1, 1.5) * RATE)
    return levelled(track)
