"""The compiled library, bound: its calls, its records, and the echo canceller over whole recordings.

Audio is int16 on the way in, as the product's, and float32 of full scale 1.0 on the way out.
"""

from __future__ import annotations

import ctypes
import pathlib
from collections.abc import Callable, Iterator, Sequence
from ctypes import c_float, c_int16, c_int32, c_uint8, c_void_p

import numpy as np

from training.device_facts import BLANK, BLOCK, CLASSES, FRAME, FRAMES_PER_BLOCK

# name -> (result, arguments); handles, records and samples are addresses.
CALLS = {
    "enc_data": (None, [c_void_p, c_int32]),
    "dec_data": (None, [c_void_p, c_int32]),
    "Quibo_wakeup_init": (c_int32, [c_void_p, c_int32]),
    "Quibo_wakeup_three_write_data": (c_int32, [c_void_p] * 9),
    "Quibo_doa_three_write_data": (c_int32, [c_void_p] * 6 + [c_int32]),
    "Quibo_wakeup_unit": (c_int32, [c_void_p]),
    "kesto_Laec_Post_init": (c_void_p, []),
    "kesto_Laec_Post_write": (c_int32, [c_void_p] * 4),
    "kesto_Laec_Post_unit": (c_int32, [c_void_p]),
    "kesto_laec_micdata": (ctypes.POINTER(c_float), [c_void_p]),
    "kesto_laec_yn": (ctypes.POINTER(c_float), [c_void_p]),
    "QuibAncInit": (c_int32, [c_void_p, c_float]),
    "QuibAncRun": (c_int32, [c_void_p] * 3),
    "QuibAncUnit": (c_int32, [c_void_p]),
    "QuibNAecInit": (c_int32, [c_void_p]),
    "QuibNAecRun": (c_int32, [c_void_p] * 4),
    "QuibNAecUnit": (c_int32, [c_void_p]),
    "QuibWakeupInit": (c_int32, [c_void_p, c_int32]),
    "QuibWakeupWriteData": (c_int32, [c_void_p] * 2),
    "QuibWakeupUnit": (c_int32, [c_void_p]),
    "kesto_customs_doa_init": (c_int32, [c_void_p]),
    "kesto_customs_doa_write": (c_int32, [c_void_p] * 5 + [c_int32]),
    "kesto_customs_doa_unit": (None, [c_void_p]),
    "init_doa_net": (c_int32, [c_void_p]),
    "proc_one_frame": (c_int32, [c_void_p] * 4 + [c_int32]),
    "destroy_doa_net": (None, [c_void_p]),
}


def load(path: pathlib.Path | str) -> ctypes.CDLL:
    """The library as ctypes has it, with the types of its calls."""
    so = ctypes.CDLL(str(pathlib.Path(path).resolve()))
    for name, (result, arguments) in CALLS.items():
        function = getattr(so, name)
        function.restype, function.argtypes = result, arguments
    return so


def pointer(array: np.ndarray) -> ctypes.c_void_p:
    assert array.flags.c_contiguous
    return c_void_p(array.ctypes.data)


# ---- records -------------------------------------------------------------------------------------
# Named after the library's and declared up to the last field that is read; a trailing _ keeps a name
# off Python's own words. A test compares sizes and places with the library's headers.


class Q_CONV_LEFT(ctypes.Structure):
    """The wake-up network's streaming state (wakeup/ChineseConv.h)."""

    _fields_ = [
        ("conv1_left", c_uint8 * 40),
        ("conv2_left", c_uint8 * (19 * 16)),
        ("conv3_left", c_uint8 * (8 * 48)),
        ("hid", c_uint8 * 128),
        *((f"qleft{i}", c_uint8 * (164 * 8)) for i in (1, 2, 3, 4)),
    ]


class LAYER_DATA(ctypes.Structure):
    """The wake-up engine's working record."""

    _fields_ = [
        ("in_", c_float * 720),
        ("micfft", c_float * 1024),
        ("afreq", c_float * 400),
        ("out1", c_uint8 * 3600),
        ("out2", c_uint8 * 3600),
        ("qleft", Q_CONV_LEFT),
        ("in_feat", c_float * 1024),
    ]

    def posteriors(self) -> list[float]:
        """[CLASSES] as the decoder has them, the filler's share in the blank's."""
        return self.afreq[:CLASSES]

    def features(self) -> np.ndarray:
        """Copy of the block's features [3, 40]."""
        return np.array(self.in_feat[: FRAMES_PER_BLOCK * 40], np.float32).reshape(-1, 40)

    def scores(self) -> np.ndarray:
        """Copy of the block's score codes [CLASSES]."""
        return np.array(self.out2[:CLASSES], np.uint8)

    def state(self) -> np.ndarray:
        """Copy of the recurrent state's codes [128]."""
        return np.array(self.qleft.hid, np.uint8)

    def memories(self) -> np.ndarray:
        """Copy of the memory blocks' codes [4, 164, 8], oldest step first."""
        return np.array([getattr(self.qleft, f"qleft{i}") for i in (1, 2, 3, 4)], np.uint8).reshape(4, 164, 8)


MOST_STATES = 78  # of a keyword, KWS_MAX_STATES + 1


class WORD_ITEM(ctypes.Structure):
    """One keyword of the decoder."""

    _fields_ = [
        ("wd_idx", c_int16),
        ("seqLen", c_int16),
        ("thres", c_float),
        ("div", c_float),
        ("dp", ctypes.POINTER(c_float)),
        ("pseq", c_int16 * MOST_STATES),
    ]

    def score(self) -> float:
        """Of the last syllable, which decides."""
        return self.dp[self.seqLen - 2]


class DECODER(ctypes.Structure):
    _fields_ = [("word_num", c_int32), ("pWords", ctypes.POINTER(WORD_ITEM))]


class EWordNet(ctypes.Structure):
    """The start of the wake-up engine behind its handle."""

    _fields_ = [("dlayer", ctypes.POINTER(LAYER_DATA)), ("pdec", ctypes.POINTER(DECODER))]


class Q_DOA_LEFT(ctypes.Structure):
    """What one block of the direction network hands to the next (doa/ring_doa.h)."""

    _fields_ = [
        ("conv1_left", c_float * 160),
        ("conv2_left", c_float * (19 * 16)),
        ("conv3_left", c_float * (8 * 28)),
        ("hid", c_float * 64),
        *((f"qleft{i}", c_float * (108 * 6)) for i in (1, 2, 3, 4)),
    ]


class LAYER_DATA_DOA(ctypes.Structure):
    """The direction network's working record."""

    _fields_ = [
        ("in_", c_int16 * 832 * 3),
        ("mic_fft", c_float * 2 * 513 * 9),
        ("rfft", c_float * 2 * 1024),
        ("qleft", Q_DOA_LEFT),
        ("micfft", c_float * 512),
        ("afreq", c_float * 400),
        ("out1", c_float * 2048),
        ("out2", c_float * 2048),
        ("doa_win_buff", c_float * 4 * 25),
        ("xy", c_float * 2),
    ]


class DoaNet(ctypes.Structure):
    """The record and its ten layers."""

    _fields_ = [("dlayer", ctypes.POINTER(LAYER_DATA_DOA)), ("layers", c_void_p * 10)]


class WakeUp:
    """A wake-up engine, its insides open: `data` (LAYER_DATA) and `word`, its first keyword.

    keyword: (classes of its syllables, divisor) to listen for instead of the one compiled in.
    """

    def __init__(self, so: ctypes.CDLL, keyword: tuple[Sequence[int], float] | None = None) -> None:
        self._so, self._handle = so, c_void_p()
        if so.QuibWakeupInit(ctypes.byref(self._handle), 0) != 0:
            raise MemoryError("QuibWakeupInit")
        engine = ctypes.cast(self._handle, ctypes.POINTER(ctypes.POINTER(EWordNet)))[0][0]
        self.data, self.word = engine.dlayer[0], engine.pdec[0].pWords[0]
        self._own_scores = ctypes.cast(self.word.dp, c_void_p).value  # an address: the field's pointer would change with it
        if keyword:
            self._listen_for(*keyword)

    def _listen_for(self, classes: Sequence[int], divisor: float) -> None:
        states = 2 * len(classes) + 1
        self.word.seqLen, self.word.div = states, divisor
        self.word.pseq[:states] = [classes[j // 2] if j % 2 else BLANK for j in range(states)]
        self._scores = (c_float * states)()
        self.word.dp = self._scores

    def __enter__(self) -> WakeUp:
        return self

    def __exit__(self, *_: object) -> None:
        self.word.dp = ctypes.cast(self._own_scores, ctypes.POINTER(c_float))  # the engine releases them
        self._so.QuibWakeupUnit(self._handle)

    def steps(self, wave: np.ndarray) -> Iterator[bool]:
        """Runs int16 samples; yields per block whether the phrase was heard, which clears all state."""
        for start in range(0, len(wave) - BLOCK + 1, BLOCK):
            block = np.ascontiguousarray(wave[start : start + BLOCK], np.int16)
            yield self._so.QuibWakeupWriteData(self._handle, pointer(block)) == 0


class Library:
    """Sample codec and linear echo canceller; `so` has all calls."""

    def __init__(self, path: pathlib.Path | str) -> None:
        self.path = pathlib.Path(path).resolve()
        self.so = load(self.path)

    def scramble(self, samples: np.ndarray) -> np.ndarray:
        """int16 samples -> as they reach the front end, a new array."""
        return self._in_place(self.so.enc_data, samples)

    def unscramble(self, samples: np.ndarray) -> np.ndarray:
        return self._in_place(self.so.dec_data, samples)

    @staticmethod
    def _in_place(function: Callable[[int, int], object], samples: np.ndarray) -> np.ndarray:
        x = np.array(samples, np.int16, order="C")
        function(x.ctypes.data, x.size)
        return x

    def cancel(self, mic: np.ndarray, ref: np.ndarray) -> dict[str, np.ndarray]:
        """The linear echo canceller of one microphone over a recording, from a fresh state.

        mic, ref: int16 [n], n a multiple of FRAME. Returns float32 arrays [n]:
        out   the canceller's output, residual-echo gain included
        mic   the microphone as the canceller has it, MIC_DELAY samples late
        echo  its estimate of the echo in that
        """
        mic, ref = (np.ascontiguousarray(x, np.int16) for x in (mic, ref))
        if mic.ndim != 1 or mic.shape != ref.shape or mic.size % FRAME:
            raise ValueError(f"{mic.shape} and {ref.shape}: not two recordings of whole frames")
        handle = self.so.kesto_Laec_Post_init()
        if not handle:
            raise MemoryError("kesto_Laec_Post_init")
        result = {name: np.empty(mic.size, np.float32) for name in ("out", "mic", "echo")}
        delayed = np.ctypeslib.as_array(self.so.kesto_laec_micdata(handle), (FRAME,))
        echo = np.ctypeslib.as_array(self.so.kesto_laec_yn(handle), (FRAME,))
        for n in range(0, mic.size, FRAME):
            frame = slice(n, n + FRAME)
            pointers = [x[frame].ctypes.data for x in (mic, ref, result["out"])]
            if self.so.kesto_Laec_Post_write(handle, *pointers) != FRAME:
                raise RuntimeError("kesto_Laec_Post_write")
            result["mic"][frame], result["echo"][frame] = delayed, echo
        self.so.kesto_Laec_Post_unit(handle)
        return result
