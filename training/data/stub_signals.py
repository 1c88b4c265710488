"""Stand-ins for recordings, from formulas alone: harmonic "speech" and coloured noise. For the tests and the smoke runs of a
machine that has neither corpus nor speech synthesiser."""

from __future__ import annotations

import numpy as np

from training.device_facts import RATE


def harmonic_speech(rng: np.random.Generator, samples: int) -> np.ndarray:
    """Syllables of 0.2 s: a glottal series under a moving envelope, with pauses."""
    t = np.arange(samples) / RATE
    pitch = rng.uniform(90, 250) * (1 + 0.1 * np.sin(2 * np.pi * rng.uniform(0.5, 2) * t + rng.uniform(0, 6)))
    phase = 2 * np.pi * np.cumsum(pitch) / RATE
    formants = rng.uniform([300, 900, 2000], [800, 2000, 3500])
    wave = np.zeros(samples)
    for k in range(1, 25):
        gain = sum(np.exp(-(((k * pitch - f) / 250) ** 2)) for f in formants) + 0.02
        wave += gain * np.sin(k * phase)
    syllables = (rng.random(samples // 3200 + 2) > 0.3) * rng.uniform(0.3, 1, samples // 3200 + 2)
    envelope = np.interp(t * 5, np.arange(len(syllables)), syllables) * np.abs(np.sin(np.pi * 5 * t))
    wave *= envelope
    return scale(wave, 0.05)


def coloured_noise(rng: np.random.Generator, samples: int) -> np.ndarray:
    spectrum = np.fft.rfft(rng.standard_normal(samples))
    tilt = np.maximum(np.fft.rfftfreq(samples, 1 / RATE), 50) ** -rng.uniform(0, 1)
    return scale(np.fft.irfft(spectrum * tilt, samples), 0.05)


def scale(wave: np.ndarray, rms: float) -> np.ndarray:
    return wave * (rms / np.sqrt(np.mean(wave**2) + 1e-12))
