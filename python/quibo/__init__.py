"""Quibo: a speech front end for three microphones and one loudspeaker.

    import quibo
    result = quibo.FrontEnd().process(mics, ref, last=True)    # int16 [3, n] and [n], 16 kHz
    for wake in result.events:
        print(wake.seconds, wake.angle)

Whole recordings: read, check, run.
The modules alone: LinearCanceller, EchoSuppressor, NoiseSuppressor, WakeUp, Direction, Limiter.
"""

from importlib.metadata import PackageNotFoundError, version

from ._quibo import BLOCK, FRAME, RATE
from .front_end import THRESHOLD, FrontEnd, Result, Wake
from .modules import (
    Cancelled,
    Direction,
    EchoSuppressor,
    Heard,
    Limiter,
    LinearCanceller,
    NoiseSuppressor,
    WakeUp,
    scramble,
    unscramble,
)
from .recordings import Check, Finding, Recording, Run, about, check, read, run

OUTPUT_DELAY = 20
"""Samples by which the cancelled microphones are late."""
SUPPRESSOR_DELAY = 2560
"""Samples by which a neural suppressor's output is late."""
CLEAN_DELAY = OUTPUT_DELAY + SUPPRESSOR_DELAY

try:
    __version__ = version("quibo")
except PackageNotFoundError:  # run from a build folder
    __version__ = "0"

__all__ = [
    "BLOCK",
    "CLEAN_DELAY",
    "FRAME",
    "OUTPUT_DELAY",
    "RATE",
    "SUPPRESSOR_DELAY",
    "THRESHOLD",
    "Cancelled",
    "Check",
    "Direction",
    "EchoSuppressor",
    "Finding",
    "FrontEnd",
    "Heard",
    "Limiter",
    "LinearCanceller",
    "NoiseSuppressor",
    "Recording",
    "Result",
    "Run",
    "Wake",
    "WakeUp",
    "about",
    "check",
    "read",
    "run",
    "scramble",
    "unscramble",
]
