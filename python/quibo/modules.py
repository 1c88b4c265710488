"""The front end's modules alone, for experiments of one's own.

Each takes chunks of any length, like the front end: outputs come in whole frames, and last=True ends a
recording. Samples are int16, or floats of full scale 1.0.
"""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _arrays, _quibo
from ._quibo import BLOCK, FRAME, RATE
from ._stream import Stream
from .front_end import THRESHOLD


def scramble(samples: ArrayLike) -> NDArray[np.int16]:
    """Plain samples [n] -> as the device's capture has its microphones."""
    return _quibo.scramble(_arrays.int16("samples", samples, (None,)))


def unscramble(samples: ArrayLike) -> NDArray[np.int16]:
    return _quibo.unscramble(_arrays.int16("samples", samples, (None,)))


@dataclass(frozen=True)
class Cancelled:
    """The linear canceller's signals, float32 [n] of full scale 1.0, all OUTPUT_DELAY samples late."""

    out: NDArray[np.float32]
    """The microphone less the echo, after the residual-echo gain."""
    mic: NDArray[np.float32]
    """The microphone as the canceller has it."""
    echo: NDArray[np.float32]
    """Its estimate of the echo in that."""


class LinearCanceller(Stream[_quibo.LinearCanceller]):
    """Adaptive filter of 192 ms with a residual-echo gain, for one microphone."""

    def __init__(self) -> None:
        super().__init__(_quibo.LinearCanceller(), FRAME)

    def process(self, mic: ArrayLike, ref: ArrayLike, *, last: bool = False) -> Cancelled:
        """mic, ref: [n]; the reference is what the loudspeaker plays."""
        chunks = [_arrays.int16("mic", mic, (None,)), _arrays.int16("ref", ref, (None,))]
        _arrays.same_length(mic=chunks[0], ref=chunks[1])
        signals, n = self._run(_quibo.LinearCanceller.process, list(chunks), last)
        return Cancelled(*(x[:n] for x in signals))


class EchoSuppressor(Stream[_quibo.EchoSuppressor]):
    """The network behind the linear canceller. One at a time in a process, and none beside a FrontEnd,
    which has its own: their states are the library's."""

    def __init__(self) -> None:
        super().__init__(_quibo.EchoSuppressor(), FRAME)

    def process(self, mic: ArrayLike, echo: ArrayLike, *, last: bool = False) -> NDArray[np.int16]:
        """mic, echo: [n], LinearCanceller's. Returns [n], SUPPRESSOR_DELAY samples late."""
        chunks = [_arrays.float32("mic", mic, (None,)), _arrays.float32("echo", echo, (None,))]
        _arrays.same_length(mic=chunks[0], echo=chunks[1])
        out, n = self._run(_quibo.EchoSuppressor.process, list(chunks), last)
        return out[:n]


class NoiseSuppressor(Stream[_quibo.NoiseSuppressor]):
    """Mask network for one or more microphones of one scene, which share its recurrent states, as the
    front end's three do.

    floor: the smallest gain, 0 to 1. The front end has 0.3.
    """

    def __init__(self, channels: int = 1, floor: float = 0.3) -> None:
        if channels < 1:
            raise ValueError(f"channels: {channels}, expected at least 1")
        if not 0 <= floor <= 1:
            raise ValueError(f"floor: {floor}, expected a gain of 0 to 1")
        super().__init__(_quibo.NoiseSuppressor(channels, floor), FRAME)
        self._channels = channels

    def process(self, samples: ArrayLike, *, last: bool = False) -> NDArray[np.int16]:
        """samples: [channels, n]. Returns [channels, n], SUPPRESSOR_DELAY samples late."""
        chunks = [_arrays.int16("samples", samples, (self._channels, None))]
        out, n = self._run(_quibo.NoiseSuppressor.process, list(chunks), last)
        return out[:, :n]


@dataclass(frozen=True)
class Heard:
    """What the wake-up engine made of a chunk."""

    costs: NDArray[np.float32]
    """[blocks]: per BLOCK of samples the cost of the phrase; infinite where nothing was said."""
    wakes: tuple[int, ...]
    """Samples that had been processed at each wake: the end of its block."""


class WakeUp(Stream[_quibo.WakeUp]):
    """The wake-up engine on one channel.

    threshold: the cost below which the phrase counts. With a tiny one it never does, and the costs
    serve every threshold.
    """

    def __init__(self, threshold: float = THRESHOLD) -> None:
        super().__init__(_quibo.WakeUp(_arrays.positive("threshold", threshold)), BLOCK)

    def process(self, samples: ArrayLike, *, last: bool = False) -> Heard:
        """samples: [n]. The front end has it listen to the mean of three microphones."""
        start = self._done
        chunks = [_arrays.int16("samples", samples, (None,))]
        (costs, blocks), _ = self._run(_quibo.WakeUp.process, list(chunks), last)
        return Heard(costs, tuple(start + (block + 1) * BLOCK for block in blocks))


class Direction(Stream[_quibo.Direction]):
    """The direction estimator on three microphones."""

    def __init__(self) -> None:
        super().__init__(_quibo.Direction(), BLOCK)

    def process(self, mics: ArrayLike, *, last: bool = False) -> NDArray[np.float32]:
        """mics: [3, n]; the front end has it listen to the noise suppressors' outputs.

        Returns [blocks, 2]: per BLOCK of samples a vector (x, y). Its length says how sure the network
        is, its heading where the talker is: atan2(x, y) + 30° in the device's degrees.
        """
        vectors, _ = self._run(_quibo.Direction.process, [_arrays.int16("mics", mics, (3, None))], last)
        return vectors

    def decide(self) -> int | None:
        """The direction of the longest vector of the last 15 blocks (0.45 s), which are forgotten:
        degrees, 0 to 359, as the front end says them; None for a vector exactly along -x."""

        def decide(engine: _quibo.Direction, _: NDArray[np.int16]) -> int | None:
            return engine.decide()

        return self._run(decide, [np.empty((3, 0), np.int16)], False)[0]


class Limiter(Stream[_quibo.Limiter]):
    """Make-up gain and a peak limiter with a look-ahead of 15 samples; the front end leaves it to the
    application.

    gain_db: make-up gain; level_db: the largest output level in dBFS. Whole numbers.
    """

    def __init__(self, gain_db: int = 20, level_db: int = -3, *, rate: int = RATE) -> None:
        if rate < 1:
            raise ValueError(f"rate: {rate} Hz, expected a sample rate")
        super().__init__(_quibo.Limiter(rate, gain_db, level_db), 1)

    def process(self, samples: ArrayLike, *, last: bool = False) -> NDArray[np.float32]:
        """samples: [n]. Returns floats [n] of full scale 1.0, 15 samples late."""
        chunks = [_arrays.float32("samples", samples, (None,))]
        out, _ = self._run(_quibo.Limiter.process, list(chunks), last)
        return out
