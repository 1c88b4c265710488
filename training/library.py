"""The compiled library, for the scenes: what a network gets to see in the product, numpy in and out.

Audio is int16 on the way in, as the product's, and float32 of full scale 1.0 on the way out.
"""

import ctypes
import pathlib

import numpy as np

FRAME = 1024  # samples per channel and call
MIC_DELAY = 20  # samples by which the canceller delays its microphone


class Library:
    def __init__(self, path):
        self.path = pathlib.Path(path).resolve()
        self._so = ctypes.CDLL(str(self.path))
        for name in ("enc_data", "dec_data"):
            getattr(self._so, name).argtypes = [ctypes.c_void_p, ctypes.c_int32]
        self._so.kesto_Laec_Post_init.restype = ctypes.c_void_p
        self._so.kesto_Laec_Post_write.argtypes = [ctypes.c_void_p] * 4
        self._so.kesto_Laec_Post_unit.argtypes = [ctypes.c_void_p]
        for name in ("kesto_laec_micdata", "kesto_laec_yn"):
            getattr(self._so, name).argtypes = [ctypes.c_void_p]
            getattr(self._so, name).restype = ctypes.POINTER(ctypes.c_float)

    def has(self, name):
        """Whether the library exports `name`."""
        return hasattr(self._so, name)

    def scramble(self, samples):
        """int16 samples -> as they reach the front end, a new array."""
        return self._in_place(self._so.enc_data, samples)

    def unscramble(self, samples):
        return self._in_place(self._so.dec_data, samples)

    @staticmethod
    def _in_place(function, samples):
        x = np.array(samples, np.int16, order="C")
        function(x.ctypes.data, x.size)
        return x

    def cancel(self, mic, ref):
        """The linear echo canceller of one microphone over a recording, from a fresh state.

        mic, ref: int16 [n], n a multiple of FRAME. Returns float32 arrays [n]:
        out   the canceller's output, residual-echo gain included
        mic   the microphone as the canceller has it, MIC_DELAY samples late
        echo  its estimate of the echo in that
        """
        mic, ref = (np.ascontiguousarray(x, np.int16) for x in (mic, ref))
        if mic.ndim != 1 or mic.shape != ref.shape or mic.size % FRAME:
            raise ValueError(f"{mic.shape} and {ref.shape}: not two recordings of whole frames")
        handle = self._so.kesto_Laec_Post_init()
        if not handle:
            raise MemoryError("kesto_Laec_Post_init")
        result = {name: np.empty(mic.size, np.float32) for name in ("out", "mic", "echo")}
        delayed = np.ctypeslib.as_array(self._so.kesto_laec_micdata(handle), (FRAME,))
        echo = np.ctypeslib.as_array(self._so.kesto_laec_yn(handle), (FRAME,))
        for n in range(0, mic.size, FRAME):
            frame = slice(n, n + FRAME)
            pointers = [x[frame].ctypes.data for x in (mic, ref, result["out"])]
            if self._so.kesto_Laec_Post_write(handle, *pointers) != FRAME:
                raise RuntimeError("kesto_Laec_Post_write")
            result["mic"][frame], result["echo"][frame] = delayed, echo
        self._so.kesto_Laec_Post_unit(handle)
        return result
