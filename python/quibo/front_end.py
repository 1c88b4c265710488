"""The whole front end."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Literal

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _arrays, _quibo
from ._quibo import FRAME, RATE
from ._stream import Stream

THRESHOLD = 1.2
"""Cost below which the phrase counts, as shipped."""

Encoding = Literal["plain", "scrambled"]
_Wake = tuple[int, float, float, float, int | None, float | None]


@dataclass(frozen=True)
class Wake:
    """The wake phrase was heard."""

    sample: int
    """Samples that had been processed then: the end of the frame in which it was heard."""
    angle: int | None
    """Where the talker is: degrees, 0 to 359, or None where no direction could be told."""
    cost: float
    """What the decoder compared with the threshold; smaller is surer."""
    start: float
    """Estimated start of the phrase, in seconds."""
    end: float
    """Its estimated end."""
    angle_length: float | None
    """How sure the angle is, 0 to about 1; None without an angle."""

    @property
    def seconds(self) -> float:
        return self.sample / RATE


@dataclass(frozen=True)
class Result:
    """What came out of a chunk."""

    outputs: NDArray[np.int16]
    """[3, n]: the microphones without echo, OUTPUT_DELAY samples late."""
    clean: NDArray[np.int16]
    """[n]: microphone 1 with the rest of the echo suppressed, CLEAN_DELAY samples late."""
    events: tuple[Wake, ...]
    restarts: tuple[int, int, int]
    """How often the echo canceller of each microphone has started anew, because it had diverged, since the front end
    was made. 0 in ordinary use; a number that grows says that the reference holds tones, or that a microphone falls
    silent or changes while the loudspeaker plays."""


class FrontEnd(Stream[_quibo.FrontEnd]):
    """Three microphones and the loudspeaker's reference in, echo-free microphones and wakes out.

    There is one at a time in a process, and it starts with no memory of an earlier one. The GIL is
    released while it computes.

    encoding: of the microphones; "scrambled" as the device's capture has them, "plain" otherwise.
    threshold: the cost below which the phrase counts; larger hears more, and more that was not said.
    rate: of the samples; here so that a wrong one is an error.
    """

    def __init__(self, *, encoding: Encoding = "plain", threshold: float = THRESHOLD, rate: int = RATE) -> None:
        _arrays.choice("encoding", encoding, ("plain", "scrambled"))
        if rate != RATE:
            raise ValueError(f"rate: {rate} Hz, expected {RATE}: resample first")
        super().__init__(_quibo.FrontEnd(_arrays.positive("threshold", threshold)), FRAME)
        self._scrambled = encoding == "scrambled"

    def process(self, mics: ArrayLike, ref: ArrayLike, *, last: bool = False) -> Result:
        """One chunk, of any length: the same samples in any chunks give the same bits.

        mics: [3, n]; ref: [n], what the loudspeaker plays. int16, or floats of full scale 1.0.
        last: ends the recording: the samples that do not fill a frame are processed too, and the front
        end is closed. Without it they wait for the next chunk, so that the outputs are whole frames of
        FRAME samples.
        """
        chunks = [_arrays.int16("mics", mics, (3, None)), _arrays.int16("ref", ref, (None,))]
        _arrays.same_length(mics=chunks[0], ref=chunks[1])
        (outputs, clean, wakes, restarts), n = self._run(self._step, chunks, last)
        events = tuple(Wake(sample, angle, cost, start, end, length) for sample, start, end, cost, angle, length in wakes)
        return Result(outputs[:, :n], clean[:n], events, restarts)

    def _step(
        self, engine: _quibo.FrontEnd, mics: NDArray[np.int16], ref: NDArray[np.int16]
    ) -> tuple[NDArray[np.int16], NDArray[np.int16], list[_Wake], tuple[int, int, int]]:
        return engine.process(mics, ref, self._scrambled)
