"""The compiled library as an application uses it: int16 recordings in, what it heard out.

Networks keep recurrent states at module level, so every run has a copy of the library of its own.
"""

from __future__ import annotations

import contextlib
import ctypes
import os
import pathlib
import shutil
import tempfile
from _ctypes import dlclose
from collections.abc import Iterator

import numpy as np

from training import engine
from training.device_facts import (
    BLANK,
    BLOCK,
    DIRECTION_FLOOR,
    FRAME,
    FULL_SCALE,
    HEADING_OFFSET,
    MEAN_FACTOR,
    MIC_DELAY,
    RATE,
    SILENT,
    SMALLEST_SCORE,
    SUPPRESSOR_DELAY,
)
from training.evaluate.alignment import advance
from training.library import Library, WakeUp, pointer

FLUSH = 3 * FRAME  # appended silence that brings the last sample out of any of the chains


def to_int16(x: np.ndarray) -> np.ndarray:
    return np.int16(np.clip(np.round(x * FULL_SCALE), -32768, 32767))


def to_float(x: np.ndarray) -> np.ndarray:
    return x.astype(np.float32) / np.float32(FULL_SCALE)


def mean(mics: np.ndarray) -> np.ndarray:
    """int16 [3, n] -> what the wake-up engine hears of them."""
    return (mics.astype(np.float32).sum(0) * np.float32(MEAN_FACTOR)).astype(np.int16)


@contextlib.contextmanager
def quiet() -> Iterator[None]:
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


class Device:
    def __init__(self, path: pathlib.Path | str) -> None:
        self.path = pathlib.Path(path).resolve()

    @contextlib.contextmanager
    def _fresh(self) -> Iterator[tuple[Library, ctypes.CDLL]]:
        with tempfile.TemporaryDirectory() as folder, quiet():
            copy = pathlib.Path(folder) / "library.so"
            shutil.copy(self.path, copy)
            library = Library(copy)
            yield library, library.so
            dlclose(library.so._handle)

    def suppress_noise(self, mics: np.ndarray, floor: float) -> np.ndarray:
        """[M, n] float -> [M, n] float, aligned with the input; the microphones take turns."""
        n = mics.shape[1]
        with self._fresh() as (_, so):
            out = engine.suppress_noise(so, _flushed(to_int16(mics)), floor)
        return advance(to_float(out), SUPPRESSOR_DELAY, n)

    def cancel(self, mic: np.ndarray, ref: np.ndarray) -> np.ndarray:
        """The linear canceller of one microphone [n], aligned with it."""
        with self._fresh() as (library, _):
            run = library.cancel(_flushed(to_int16(mic)), _flushed(to_int16(ref)))
        return advance(run["out"], MIC_DELAY, len(mic))

    def cancel_echo(self, mic: np.ndarray, ref: np.ndarray) -> tuple[np.ndarray, np.ndarray]:
        """One microphone [n] and its reference: aligned outputs (linear, suppressed) [n]."""
        n = len(mic)
        with self._fresh() as (library, so):
            run = library.cancel(_flushed(to_int16(mic)), _flushed(to_int16(ref)))
            suppressed = engine.suppress_echo(so, run["mic"], run["echo"])
        return (
            advance(run["out"], MIC_DELAY, n),
            advance(to_float(suppressed), MIC_DELAY + SUPPRESSOR_DELAY, n),
        )

    def front_end(self, mics: np.ndarray, ref: np.ndarray) -> tuple[np.ndarray, list[tuple[float, int | None]]]:
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
                so.Quibo_wakeup_three_write_data(handle, *map(pointer, [*inputs, ref[part], *outputs, clean]))
                angle = so.Quibo_doa_three_write_data(handle, ctypes.byref(wake), *map(pointer, [*outputs, clean]), FRAME)
                cancelled[:, part] = outputs
                if wake.value >= 0:
                    events.append(((start + FRAME) / RATE, angle if angle >= 0 else None))
            so.Quibo_wakeup_unit(handle)
        return cancelled, events

    def wake_costs(self, mics: np.ndarray) -> np.ndarray:
        """The wake-up engine alone on the mix of int16 [3, n]: per 30 ms step the cost that the
        decoder compares with its threshold, infinite where a step cannot wake.

        The engine is kept from waking, so that one run serves every threshold. What that leaves out:
        after a wake the device starts listening afresh.
        """
        costs = []
        with self._fresh() as (_, so), WakeUp(so) as listening:
            listening.word.thres = -np.inf
            for _ in listening.steps(mean(mics)):
                score = max(0.0, listening.word.score())
                silent = listening.data.posteriors()[BLANK] > SILENT
                cost = -np.log(score + SMALLEST_SCORE) / listening.word.div
                costs.append(np.inf if silent else cost)
                listening.word.thres = -np.inf  # the decoder sets its own from time to time
        return np.array(costs)

    def heading(self, mics: np.ndarray, seconds: float, suppress: bool = True) -> float | None:
        """What the direction path says when asked `seconds` into int16 [3, n] cancelled microphones
        (a wake at that moment): degrees, or None. suppress: with the noise suppressors."""
        whole = -(-mics.shape[1] // FRAME) * FRAME
        mics = np.pad(mics, ((0, 0), (0, whole - mics.shape[1])))
        with self._fresh() as (_, so):
            if suppress:
                mics = engine.suppress_noise(so, mics, DIRECTION_FLOOR)
            handle = ctypes.c_void_p()
            if so.kesto_customs_doa_init(ctypes.byref(handle)) != 0:
                raise MemoryError("kesto_customs_doa_init")
            last = round(seconds * RATE) // BLOCK
            for block in range(last + 1):
                part = slice(block * BLOCK, (block + 1) * BLOCK)
                inputs = [np.ascontiguousarray(m[part]) for m in mics]
                angle = so.kesto_customs_doa_write(handle, *map(pointer, inputs), None, int(block == last))
            so.kesto_customs_doa_unit(handle)
        return None if angle < 0 else float((angle + HEADING_OFFSET) % 360)


def _flushed(x: np.ndarray) -> np.ndarray:
    """x [..., n] with silence behind it, in whole frames."""
    n = x.shape[-1]
    whole = -(-(n + FLUSH) // FRAME) * FRAME
    return np.pad(x, [(0, 0)] * (x.ndim - 1) + [(0, whole - n)])
