"""speexdsp, through the system's libspeexdsp: preprocessor, and echo canceller with preprocessor."""

from __future__ import annotations

import ctypes
import ctypes.util

import numpy as np

from training.evaluate.device import to_float, to_int16
from training.evaluate.peers import Absent
from training.scenes.audio import RATE

FRAME = 256  # 16 ms
TAIL = 3072  # 192 ms, as the product's canceller
PREPROCESS_SET_ECHO_STATE, ECHO_SET_SAMPLING_RATE = 24, 24  # requests of speex_*_ctl


class Speex:
    name = "speexdsp"
    about = "libspeexdsp; preprocessor with its defaults (15 dB), canceller of 192 ms in front in the echo section"

    def __init__(self) -> None:
        library = ctypes.util.find_library("speexdsp")
        if not library:
            raise Absent("install libspeexdsp1")
        self._so = ctypes.CDLL(library)
        for name in ("speex_preprocess_state_init", "speex_echo_state_init"):
            getattr(self._so, name).restype = ctypes.c_void_p

    def suppress_noise(self, x: np.ndarray) -> np.ndarray:
        return self._run(x, None)

    def cancel_echo(self, mic: np.ndarray, ref: np.ndarray) -> np.ndarray:
        return self._run(mic, ref)

    def _run(self, mic: np.ndarray, ref: np.ndarray | None) -> np.ndarray:
        so = self._so
        denoiser = ctypes.c_void_p(so.speex_preprocess_state_init(FRAME, RATE))
        canceller = None
        if ref is not None:
            canceller = ctypes.c_void_p(so.speex_echo_state_init(FRAME, TAIL))
            so.speex_echo_ctl(canceller, ECHO_SET_SAMPLING_RATE, ctypes.byref(ctypes.c_int(RATE)))
            so.speex_preprocess_ctl(denoiser, PREPROCESS_SET_ECHO_STATE, canceller)
            played = to_int16(ref)
        heard = to_int16(mic)
        out = np.zeros_like(heard)
        frame = np.zeros(FRAME, np.int16)
        for start in range(0, len(heard) - FRAME + 1, FRAME):
            part = slice(start, start + FRAME)
            frame[:] = heard[part]
            if canceller:
                so.speex_echo_cancellation(canceller, _address(heard[part]), _address(played[part]), _address(frame))
            so.speex_preprocess_run(denoiser, _address(frame))
            out[part] = frame
        so.speex_preprocess_state_destroy(denoiser)
        if canceller:
            so.speex_echo_state_destroy(canceller)
        return to_float(out)


def _address(x: np.ndarray) -> ctypes.c_void_p:
    return ctypes.c_void_p(x.ctypes.data)
