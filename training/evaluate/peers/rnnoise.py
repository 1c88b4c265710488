"""RNNoise, as pyrnnoise's wheel carries it; it works at 48 kHz."""

from __future__ import annotations

import ctypes
import importlib.util
import pathlib

import numpy as np
from scipy import signal

from training.device_facts import FULL_SCALE
from training.evaluate.peers import Absent

UP = 3
FRAME = 480


class RNNoise:
    name = "RNNoise"
    about = "RNNoise 0.2 in the pyrnnoise wheel, at 48 kHz, resampled on both sides"

    def __init__(self) -> None:
        package = importlib.util.find_spec("pyrnnoise")
        if package is None:
            raise Absent("pip install pyrnnoise")
        self._so = ctypes.CDLL(str(pathlib.Path(package.origin).parent / "librnnoise.so"))
        self._so.rnnoise_create.restype = ctypes.c_void_p

    def suppress_noise(self, x: np.ndarray) -> np.ndarray:
        n = len(x)
        wide = signal.resample_poly(np.pad(x, (0, -n % (FRAME // UP))), UP, 1)
        wide = (wide * FULL_SCALE).astype(np.float32)
        state = ctypes.c_void_p(self._so.rnnoise_create(None))
        for start in range(0, len(wide), FRAME):
            address = ctypes.c_void_p(wide[start:].ctypes.data)
            self._so.rnnoise_process_frame(state, address, address)
        self._so.rnnoise_destroy(state)
        return (signal.resample_poly(wide, 1, UP)[:n] / FULL_SCALE).astype(np.float32)
