"""Noise without end, by formula: what rooms sound like when nothing happens in them.

Every call draws another fan, another hiss: levels, slopes, pitches and speeds of its own. Recordings
have what formulas lack; formulas have the numbers that recordings lack.
"""

from __future__ import annotations

import math

import numpy as np
import scipy.fft

from training.scenes.audio import RATE

KINDS = {
    "coloured": 0.28,  # white to brown
    "speech": 0.10,  # the long-term spectrum of speech
    "fan": 0.22,  # broad band with the tones of blades
    "air": 0.12,  # low, broad, slowly coming and going
    "hum": 0.08,  # mains with harmonics
    "hiss": 0.07,
    "rain": 0.07,  # many small clicks
    "knocks": 0.06,
}
OCTAVES = np.arange(9)  # from 40 Hz on
MAINS = (50.0, 60.0, 100.0, 120.0)


def steady(rng: np.random.Generator, samples: int, count: int = 1, kinds: dict[str, float] = KINDS) -> np.ndarray:
    """[count, samples] float32 of unit power: one noise at as many places, alike but not the same."""
    shares = np.array(list(kinds.values()))
    kind = rng.choice(list(kinds), p=shares / shares.sum())
    x = MAKERS[kind](rng, samples, count)
    wander = slow(rng, samples, abs(rng.normal(0.0, 1.5)), rng.uniform(0.1, 2.0))
    x = x * wander
    return np.float32(x / np.sqrt((x**2).mean() + 1e-20))


def shaped(rng: np.random.Generator, samples: int, count: int, points: np.ndarray) -> np.ndarray:
    """Gaussian noise [count, samples] of unit power; points: its spectrum, dB per octave from 40 Hz on."""
    size = scipy.fft.next_fast_len(samples, real=True)
    gain = response(points, scipy.fft.rfftfreq(size, 1.0 / RATE))
    x = scipy.fft.irfft(scipy.fft.rfft(rng.standard_normal((count, size))) * gain, size)
    return x[:, :samples] / np.sqrt((x**2).mean())


def response(points: np.ndarray, hz: np.ndarray) -> np.ndarray:
    return 10 ** (np.interp(np.log2(np.maximum(hz, 20.0) / 40.0), OCTAVES, points) / 20)


def slope(rng: np.random.Generator, low: float, high: float, spread: float) -> np.ndarray:
    """A spectrum of `low` to `high` dB per octave, each octave off by up to about `spread` dB."""
    return rng.uniform(low, high) * OCTAVES + rng.normal(0.0, rng.uniform(0.0, spread), len(OCTAVES))


def slow(rng: np.random.Generator, samples: int, depth: float, hz: float) -> np.ndarray:
    """A gain that wanders by about `depth` dB within 1 / `hz` s."""
    points = rng.normal(0.0, depth, int(samples / RATE * hz) + 3)
    return 10 ** (np.interp(np.arange(samples) / RATE * hz, np.arange(len(points)), points) / 20)


def tones(rng: np.random.Generator, samples: int, fundamental: float, count: int, fall: float) -> np.ndarray:
    """Harmonics of unit power that fall by `fall` dB per octave, each off by a few dB."""
    wander = slow(rng, samples, rng.uniform(0.0, 0.1), 1.0)
    phase = 2 * np.pi * np.cumsum(fundamental * wander) / RATE
    x = np.zeros(samples)
    for k in range(1, min(count, int(0.45 * RATE / fundamental)) + 1):
        level = 10 ** ((fall * math.log2(k) + rng.normal(0.0, 5.0)) / 20)
        x += level * np.sin(k * phase + rng.uniform(0, 2 * np.pi))
    return x / np.sqrt((x**2).mean() + 1e-20)


def coloured(rng: np.random.Generator, samples: int, count: int) -> np.ndarray:
    return shaped(rng, samples, count, slope(rng, -7.0, 0.5, 3.0))


def white_or_coloured(rng: np.random.Generator, samples: int, count: int) -> np.ndarray:
    if rng.random() < 0.3:
        return shaped(rng, samples, count, 0.0 * OCTAVES)
    return coloured(rng, samples, count)


def speech_shaped(rng: np.random.Generator, samples: int, count: int) -> np.ndarray:
    fall = rng.uniform(-12.0, -7.0)
    points = np.where(OCTAVES < 4, 3.0 * (OCTAVES - 4), fall * (OCTAVES - 4))
    x = shaped(rng, samples, count, points + rng.normal(0.0, 2.0, len(OCTAVES)))
    return x * slow(rng, samples, rng.uniform(0.0, 4.0), rng.uniform(2.0, 6.0))


def fan(rng: np.random.Generator, samples: int, count: int) -> np.ndarray:
    x = shaped(rng, samples, count, slope(rng, -6.0, -0.5, 4.0))
    blades = tones(rng, samples, rng.uniform(50.0, 400.0), int(rng.integers(2, 12)), rng.uniform(-9, -3))
    x = x + 10 ** (rng.uniform(-20.0, 3.0) / 20) * blades
    # Blades pass at some rate, which is heard as a flutter.
    flutter = rng.uniform(0.0, 0.3) * np.sin(2 * np.pi * rng.uniform(3.0, 30.0) * np.arange(samples) / RATE)
    return x * (1 + flutter)


def air(rng: np.random.Generator, samples: int, count: int) -> np.ndarray:
    x = shaped(rng, samples, count, slope(rng, -9.0, -4.0, 3.0))
    compressor = tones(rng, samples, rng.choice(MAINS) * rng.uniform(0.9, 1.0), 10, rng.uniform(-12, -4))
    return x + 10 ** (rng.uniform(-25.0, 0.0) / 20) * compressor


def hum(rng: np.random.Generator, samples: int, count: int) -> np.ndarray:
    floor = shaped(rng, samples, count, slope(rng, -6.0, 0.0, 3.0))
    mains = tones(rng, samples, rng.choice(MAINS), int(rng.integers(5, 25)), rng.uniform(-9, -1))
    return mains + 10 ** (rng.uniform(-25.0, 0.0) / 20) * floor


def hiss(rng: np.random.Generator, samples: int, count: int) -> np.ndarray:
    return shaped(rng, samples, count, slope(rng, 0.5, 5.0, 2.0))


def rain(rng: np.random.Generator, samples: int, count: int) -> np.ndarray:
    """Drops of very different sizes, 20 to 2000 per second."""
    drops = rng.standard_normal((count, samples)) ** 3
    drops *= rng.random((count, samples)) < 10 ** rng.uniform(1.3, 3.3) / RATE
    gain = response(slope(rng, -4.0, 2.0, 4.0), scipy.fft.rfftfreq(samples, 1.0 / RATE))
    x = scipy.fft.irfft(scipy.fft.rfft(drops) * gain, samples)
    x /= np.sqrt((x**2).mean() + 1e-20)
    return x + 10 ** (rng.uniform(-25.0, 0.0) / 20) * coloured(rng, samples, count)


def knocks(rng: np.random.Generator, samples: int, count: int) -> np.ndarray:
    """Short decaying resonances on a quiet floor."""
    x = 10 ** (rng.uniform(-35.0, -10.0) / 20) * coloured(rng, samples, 1)[0]
    t = np.arange(round(0.3 * RATE)) / RATE
    for _ in range(rng.poisson(rng.uniform(0.5, 4.0) * samples / RATE) + 1):
        start = int(rng.integers(0, samples))
        hit = np.sin(2 * np.pi * np.outer(rng.uniform(100, 5000, 3), t)).sum(0)
        hit = (hit + rng.standard_normal(len(t))) * np.exp(-t / rng.uniform(0.003, 0.06))
        n = min(len(t), samples - start)
        x[start : start + n] += 10 ** (rng.uniform(-20.0, 10.0) / 20) * hit[:n]
    return np.repeat(x[None], count, 0)


MAKERS = {
    "coloured": white_or_coloured,
    "speech": speech_shaped,
    "fan": fan,
    "air": air,
    "hum": hum,
    "hiss": hiss,
    "rain": rain,
    "knocks": knocks,
}
