"""WebRTC's audio processing, as pywebrtc-audio's wheel carries it: noise suppression, and AEC3."""

from __future__ import annotations

import numpy as np

from training.evaluate.device import to_float, to_int16
from training.evaluate.peers import Absent
from training.scenes.audio import RATE


class WebRtc:
    name = "WebRTC"
    about = "WebRTC audio processing in the pywebrtc-audio wheel, its defaults; noise suppressor, or AEC3 in the echo section"

    def __init__(self) -> None:
        try:
            import pywebrtc_audio
        except ImportError:
            raise Absent("pip install pywebrtc-audio") from None
        self._module = pywebrtc_audio

    def suppress_noise(self, x: np.ndarray) -> np.ndarray:
        suppressor = self._module.NoiseSuppressor(sample_rate=RATE)
        return to_float(suppressor.process(to_int16(x)))

    def cancel_echo(self, mic: np.ndarray, ref: np.ndarray) -> np.ndarray:
        canceller = self._module.EchoCanceller(sample_rate=RATE)
        return to_float(canceller.process(to_int16(mic), to_int16(ref)))
