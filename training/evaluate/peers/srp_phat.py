"""Steered response power with phase transform: the plain way to a heading.

J. DiBiase, "A high-accuracy, low-latency technique for talker localization in reverberant
environments", 2000. Far field, in the plane of the microphones, every degree.
"""

import numpy as np
from scipy import signal

from training.scenes import array_geometry
from training.scenes.audio import RATE
from training.scenes.bank import SPEED_OF_SOUND

WINDOW = 1024
BAND = (300.0, 6000.0)  # Hz
HEADINGS = np.arange(360)


def heading(mics):
    """Degrees from [3, n]."""
    frequencies, _, spectra = signal.stft(mics, RATE, nperseg=WINDOW)
    inside = (frequencies >= BAND[0]) & (frequencies <= BAND[1])
    frequencies, spectra = frequencies[inside], spectra[:, inside]
    towards = np.stack([array_geometry.offset(h, 1.0) for h in HEADINGS])
    # A microphone that lies further towards the talker hears him earlier.
    early = towards @ array_geometry.mic_offsets().T / SPEED_OF_SOUND
    response = np.zeros(len(HEADINGS))
    for a in range(3):
        for b in range(a):
            cross = spectra[a] * spectra[b].conj()
            cross = (cross / (np.abs(cross) + 1e-20)).sum(1)
            lead = early[:, a] - early[:, b]
            steer = np.exp(-2j * np.pi * np.outer(lead, frequencies))
            response += (steer @ cross).real
    return float(HEADINGS[response.argmax()])
