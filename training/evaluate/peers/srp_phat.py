"""Steered response power with phase transform: the plain way to a heading.

J. DiBiase, "A high-accuracy, low-latency technique for talker localization in reverberant
environments", 2000. Far field; every degree of heading at several elevations, of which the strongest
counts: talkers nearby stand well above a device.
"""

from __future__ import annotations

import functools

import numpy as np
from scipy import signal

from training.scenes import array_geometry
from training.scenes.audio import RATE
from training.scenes.bank import SPEED_OF_SOUND

WINDOW = 1024
BAND = (300.0, 6000.0)  # Hz
HEADINGS = np.arange(360)
ELEVATIONS = (0.0, 15.0, 30.0, 45.0, 60.0)  # degrees
PAIRS = ((1, 0), (2, 0), (2, 1))


def heading(mics: np.ndarray) -> float:
    """Degrees from [3, n]."""
    frequencies, _, spectra = signal.stft(mics, RATE, nperseg=WINDOW)
    inside = (frequencies >= BAND[0]) & (frequencies <= BAND[1])
    spectra = spectra[:, inside]
    response = 0.0
    for (a, b), steer in zip(PAIRS, _steering(tuple(frequencies[inside]))):
        cross = spectra[a] * spectra[b].conj()
        response = response + (steer @ (cross / (np.abs(cross) + 1e-20)).sum(1)).real
    return float(HEADINGS[response.reshape(len(ELEVATIONS), -1).max(0).argmax()])


@functools.cache
def _steering(frequencies: tuple[float, ...]) -> list[np.ndarray]:
    """Per pair, [elevations x headings, frequencies]: what brings a wave's phases in line."""
    towards = np.concatenate(
        [[array_geometry.offset(h, np.cos(e), np.sin(e)) for h in HEADINGS] for e in np.deg2rad(ELEVATIONS)]
    )
    # A microphone that lies further towards the talker hears him earlier.
    early = towards @ array_geometry.mic_offsets().T / SPEED_OF_SOUND
    leads = [early[:, a] - early[:, b] for a, b in PAIRS]
    return [np.exp(-2j * np.pi * np.outer(lead, frequencies)) for lead in leads]
