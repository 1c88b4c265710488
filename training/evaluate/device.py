"""The compiled library as an application uses it: int16 recordings in, what it heard out.

Networks keep recurrent states at module level, so every run has a copy of the library of its own.
"""

import contextlib
import ctypes
import os
import pathlib
import shutil
import tempfile
from _ctypes import dlclose

import numpy as np

from training import engine
from training.evaluate.alignment import advance
from training.library import MIC_DELAY, Library
from training.scenes.audio import FULL_SCALE, RATE

FRAME, BLOCK = engine.FRAME, engine.BLOCK
SUPPRESSOR_DELAY = engine.SUPPRESSOR_DELAY
FLUSH = 3 * FRAME  # appended silence that brings the last sample out of any of the chains
ANGLE_OFFSET = 30  # degrees from the direction network's zero to the device's, docs/direction.md
THIRD = np.float32(0.3333333)  # of the front end's mix
KWS_BLANK = 145
SILENT_STEP = 0.95  # blank posterior above which a step never wakes


def to_int16(x):
    return np.int16(np.clip(np.round(x * FULL_SCALE), -32768, 32767))


def to_float(x):
    return x.astype(np.float32) / np.float32(FULL_SCALE)


@contextlib.contextmanager
def quiet():
    """Keeps the library's own lines off standard output."""
    libc = ctypes.CDLL(None)
    libc.fflush(None)
    kept = os.dup(1)
    with open(os.devnull, "w") as nowhere:
        os.dup2(nowhere.fileno(), 1)
    try:
        yield
    finally:
        libc.fflush(None)
        os.dup2(kept, 1)
        os.close(kept)


class _Word(ctypes.Structure):
    """The start of WORD_ITEM (wakeup/ChineseConv.h)."""

    _fields_ = [
        ("index", ctypes.c_int16),
        ("states", ctypes.c_int16),
        ("threshold", ctypes.c_float),
        ("divisor", ctypes.c_float),
        ("scores", ctypes.POINTER(ctypes.c_float)),
    ]


class _Decoder(ctypes.Structure):
    """The start of DECODER."""

    _fields_ = [("count", ctypes.c_int32), ("words", ctypes.POINTER(_Word))]


class Device:
    def __init__(self, path):
        self.path = pathlib.Path(path).resolve()

    @contextlib.contextmanager
    def _fresh(self):
        with tempfile.TemporaryDirectory() as folder, quiet():
            copy = pathlib.Path(folder) / "library.so"
            shutil.copy(self.path, copy)
            library = Library(copy)
            yield library, library._so
            dlclose(library._so._handle)

    def suppress_noise(self, mics, floor):
        """[M, n] float -> [M, n] float, aligned with the input; the microphones take turns."""
        n = mics.shape[1]
        with self._fresh() as (_, so):
            out = engine.suppress_noise(so, _flushed(to_int16(mics)), floor)
        return advance(to_float(out), SUPPRESSOR_DELAY, n)

    def cancel(self, mic, ref):
        """The linear canceller of one microphone [n], aligned with it."""
        with self._fresh() as (library, _):
            run = library.cancel(_flushed(to_int16(mic)), _flushed(to_int16(ref)))
        return advance(run["out"], MIC_DELAY, len(mic))

    def cancel_echo(self, mic, ref):
        """One microphone [n] and its reference: aligned outputs (linear, suppressed) [n]."""
        n = len(mic)
        with self._fresh() as (library, so):
            run = library.cancel(_flushed(to_int16(mic)), _flushed(to_int16(ref)))
            suppressed = engine.suppress_echo(so, run["mic"], run["echo"])
        return (
            advance(run["out"], MIC_DELAY, n),
            advance(to_float(suppressed), MIC_DELAY + SUPPRESSOR_DELAY, n),
        )

    def front_end(self, mics, ref):
        """The two calls per frame over [3, n] and [n], whole frames.

        Returns cancelled int16 [3, n] (not aligned) and events: (s at which the call returned, angle
        in degrees or None).
        """
        cancelled = np.zeros(mics.shape, np.int16)
        events = []
        with self._fresh() as (library, so):
            handle = ctypes.c_void_p()
            if so.Quibo_wakeup_init(ctypes.byref(handle), 0) != 0:
                raise MemoryError("Quibo_wakeup_init")
            scrambled, ref = library.scramble(to_int16(mics)), to_int16(ref)
            clean, wake = np.zeros(FRAME, np.int16), ctypes.c_int32()
            for start in range(0, mics.shape[1], FRAME):
                part = slice(start, start + FRAME)
                inputs = [np.ascontiguousarray(m[part]) for m in scrambled]
                outputs = [np.zeros(FRAME, np.int16) for _ in inputs]
                so.Quibo_wakeup_three_write_data(
                    handle, *map(engine.pointer, [*inputs, ref[part], *outputs, clean])
                )
                angle = so.Quibo_doa_three_write_data(
                    handle, ctypes.byref(wake), *map(engine.pointer, [*outputs, clean]), FRAME
                )
                cancelled[:, part] = outputs
                if wake.value >= 0:
                    events.append(((start + FRAME) / RATE, angle if angle >= 0 else None))
            so.Quibo_wakeup_unit(handle)
        return cancelled, events

    def wake_costs(self, mics):
        """The wake-up engine alone on the mix of int16 [3, n]: per 30 ms step the cost that the
        decoder compares with its threshold, infinite where a step cannot wake.

        The engine is kept from waking, so that one run serves every threshold. What that leaves out:
        after a wake the device starts listening afresh.
        """
        mix = (mics.astype(np.float32).sum(0) * THIRD).astype(np.int16)
        costs = []
        with self._fresh() as (_, so):
            handle = ctypes.c_void_p()
            if so.QuibWakeupInit(ctypes.byref(handle), 0) != 0:
                raise MemoryError("QuibWakeupInit")
            engine_ = _pointers(_pointers(handle)[0])
            state = ctypes.cast(engine_[0], ctypes.POINTER(engine.WakeState)).contents
            word = ctypes.cast(engine_[1], ctypes.POINTER(_Decoder)).contents.words[0]
            for start in range(0, len(mix) - BLOCK + 1, BLOCK):
                word.threshold = -np.inf
                so.QuibWakeupWriteData(handle, engine.pointer(mix[start : start + BLOCK]))
                score = max(0.0, word.scores[word.states - 2])
                silent = state.posteriors[KWS_BLANK] > SILENT_STEP
                costs.append(np.inf if silent else -np.log(score + 1e-8) / word.divisor)
            so.QuibWakeupUnit(handle)
        return np.array(costs)

    def heading(self, mics, seconds, suppress=True):
        """What the direction path says when asked `seconds` into int16 [3, n] cancelled microphones
        (a wake at that moment): degrees, or None. suppress: with the noise suppressors."""
        whole = -(-mics.shape[1] // FRAME) * FRAME
        mics = np.pad(mics, ((0, 0), (0, whole - mics.shape[1])))
        with self._fresh() as (_, so):
            if suppress:
                mics = engine.suppress_noise(so, mics, engine.DIRECTION_FLOOR)
            handle = ctypes.c_void_p()
            if so.kesto_customs_doa_init(ctypes.byref(handle)) != 0:
                raise MemoryError("kesto_customs_doa_init")
            last = round(seconds * RATE) // BLOCK
            for block in range(last + 1):
                part = slice(block * BLOCK, (block + 1) * BLOCK)
                inputs = [np.ascontiguousarray(m[part]) for m in mics]
                angle = so.kesto_customs_doa_write(
                    handle, *map(engine.pointer, inputs), None, int(block == last)
                )
            so.kesto_customs_doa_unit(handle)
        return None if angle < 0 else float((angle + ANGLE_OFFSET) % 360)


def _flushed(x):
    """x [..., n] with silence behind it, in whole frames."""
    n = x.shape[-1]
    whole = -(-(n + FLUSH) // FRAME) * FRAME
    return np.pad(x, [(0, 0)] * (x.ndim - 1) + [(0, whole - n)])


def _pointers(address):
    return ctypes.cast(address, ctypes.POINTER(ctypes.c_void_p))
