"""What the wake-up network says of a recording, kept so that every operating point can be tried on it.

The operating point is what is added to the scores of the phrase's syllables. In the network's last layer a score is a code of
8 bits, so operating points are taken in whole codes: then what is kept of one run gives every one of them as the engine would
compute it. One thing is left out: after a wake the device's network listens afresh, here only the decoder does.
"""

from __future__ import annotations

import ctypes
import dataclasses
import pathlib

import numpy as np
from numpy.typing import NDArray

from params import keyword_table, safetensors_file, syllable_names
from training import engine
from training.device_facts import (
    BLANK,
    BLANK_GAIN,
    BLOCK,
    DECAY,
    DECAY_AFTER,
    FILLER,
    FILLER_GAIN,
    RATE,
    RESET_AFTER,
    SILENT,
    SMALLEST_SCORE,
    THRESHOLD,
)
from training.library import WakeUp

STRICT_AFTER, STRICT_THRESHOLD = 20000, 1.0  # steps without a wake, from which on the threshold is that
CHUNK = 4096  # steps of which all operating points' posteriors are held at once
LARGEST_CODE = 255
WIDEST = 4.0  # nats
DTYPES = {"F32": np.float32, "I8": np.int8, "I16": np.int16, "I32": np.int32}
NETWORK = "kws.safetensors"
# Of the packed table: the last five are M0, M1, zero point of the codes, nats of a code, zero point of the scores.
MULTIPLIER, SHIFT, SCALE, ZERO_POINT = -5, -4, -2, -1


@dataclasses.dataclass(frozen=True)
class Parameters:
    """A folder's wake-up network and what it listens for."""

    folder: pathlib.Path
    tables: dict[str, NDArray[np.generic]]
    metadata: dict[str, str]
    phrase: str
    threshold: float
    divisor: float

    @staticmethod
    def of(folder: pathlib.Path) -> Parameters:
        entries, metadata = safetensors_file.read(folder / NETWORK)
        tables = {n: np.frombuffer(data, DTYPES[dtype]).reshape(shape) for n, (dtype, shape, data) in entries.items()}
        first = keyword_table.read(folder / keyword_table.FILE, syllable_names.classes())[0]
        return Parameters(folder, tables, metadata, first["phrase"], first["threshold"], first["divisor"])

    @property
    def classes(self) -> list[int]:
        of = syllable_names.classes()
        return [of[syllable] for syllable in self.phrase.split()]

    @property
    def nats(self) -> float:
        """Of one code of the last layer."""
        return float(self.tables["chinese_fix_param"][SCALE])

    def operating_points(self) -> NDArray[np.int64]:
        """In codes, WIDEST nats either way."""
        most = int(WIDEST / self.nats)
        return np.arange(-most, most + 1)

    def moved(self, codes: int) -> Parameters:
        """Another operating point."""
        packed = np.float64(self.tables["chinese_fix_param"])
        bias = self.tables["chinese_fc_bias"].copy()
        bias[sorted(set(self.classes))] += round(codes / (packed[MULTIPLIER] * 2.0 ** -packed[SHIFT]))
        return dataclasses.replace(self, tables=self.tables | {"chinese_fc_bias": bias})

    def load(self, library: pathlib.Path) -> ctypes.CDLL:
        """The library with this network."""
        return engine.load(library, {n: values for n, values in self.tables.items() if n != "fbank_filter1"})

    def listening(self, so: ctypes.CDLL) -> WakeUp:
        listening = WakeUp(so, (self.classes, self.divisor))
        listening.word.thres = self.threshold
        return listening

    def write(self, folder: pathlib.Path, codes: int) -> None:
        """The network's file with this operating point, moved by that many codes, beside all other files."""
        folder.mkdir(parents=True, exist_ok=True)
        for path in self.folder.iterdir():
            if path.suffix in (".safetensors", ".json") and path.name != "manifest.json":
                (folder / path.name).write_bytes(path.read_bytes())
        entries, _ = safetensors_file.read(self.folder / NETWORK)
        dtype, shape, _ = entries["chinese_fc_bias"]
        entries["chinese_fc_bias"] = (dtype, shape, self.tables["chinese_fc_bias"].astype("<i4").tobytes())
        moved = float(self.metadata.get("tuned_nats", 0)) + codes * self.nats
        safetensors_file.write(folder / NETWORK, entries, self.metadata | {"tuned_nats": f"{moved:.4f}"})


@dataclasses.dataclass(frozen=True)
class Trace:
    """Of a recording, per step: codes [steps, distinct syllables of the phrase], logarithms of the sums of the exponential
    scores of blank and filler [steps] and of all other syllables [steps]."""

    codes: NDArray[np.uint8]
    blank: NDArray[np.float64]
    others: NDArray[np.float64]

    @staticmethod
    def of(wave: NDArray[np.int16], parameters: Parameters, so: ctypes.CDLL) -> Trace:
        packed, phrase = parameters.tables["chinese_fix_param"], sorted(set(parameters.classes))
        rows = []
        with parameters.listening(so) as listening:
            listening.word.thres = -np.inf  # it is not to begin afresh
            for _ in listening.steps(wave):
                rows.append(listening.data.scores())
                listening.word.thres = -np.inf
        codes = np.array(rows, np.uint8).reshape(-1, BLANK + 1)
        scores = (codes - np.float64(packed[ZERO_POINT])) * packed[SCALE]
        for c, gain in (FILLER, FILLER_GAIN), (BLANK, BLANK_GAIN):
            scores[:, c] = np.where(scores[:, c] > 0, scores[:, c] * gain, scores[:, c])
        blank = np.logaddexp(scores[:, FILLER], scores[:, BLANK])
        others = np.delete(scores, [FILLER, BLANK, *phrase], axis=1)
        return Trace(codes[:, phrase], blank, np.logaddexp.reduce(others, axis=1))

    def posteriors(self, parameters: Parameters, shifts: NDArray[np.int64], part: slice) -> NDArray[np.float64]:
        """[steps, operating points, distinct syllables and the blank]"""
        zero = float(parameters.tables["chinese_fix_param"][ZERO_POINT])
        codes = np.clip(self.codes[part, None] + shifts[:, None], 0, LARGEST_CODE)
        phrase = (codes - zero) * parameters.nats
        blank = np.broadcast_to(self.blank[part, None, None], (*phrase.shape[:2], 1))
        own = np.concatenate([phrase, blank], 2)
        everything = np.logaddexp(np.logaddexp.reduce(own, axis=2), self.others[part, None])
        return np.exp(own - everything[..., None])


def wakes(trace: Trace, parameters: Parameters, shifts: NDArray[np.int64]) -> list[list[float]]:
    """Per operating point the seconds at which the device wakes: the decoder's rules (wakeup/decoder.cpp)."""
    distinct, phrase = sorted(set(parameters.classes)), parameters.classes
    states = 2 * len(phrase) + 1
    of_state = np.array([distinct.index(phrase[j // 2]) if j % 2 else len(distinct) for j in range(states)])
    skips = np.array([j > 1 and j % 2 == 1 and phrase[j // 2] != phrase[j // 2 - 1] for j in range(states)], np.float64)
    scores = np.zeros((len(shifts), states))
    silent_steps, quiet = np.zeros(len(shifts), int), np.zeros(len(shifts), int)
    threshold = np.full(len(shifts), parameters.threshold)
    found: list[list[float]] = [[] for _ in shifts]
    for start in range(0, len(trace.blank), CHUNK):
        for step, p in enumerate(trace.posteriors(parameters, shifts, slice(start, start + CHUNK)), start):
            silent = p[:, -1] > SILENT
            silent_steps = np.where(silent, silent_steps + 1, 0)
            forgotten = silent_steps > RESET_AFTER
            if forgotten.any():
                scores[forgotten], silent_steps[forgotten] = 0.0, 0
            before = np.pad(scores, ((0, 0), (2, 0)))
            scores = np.minimum((scores + before[:, 1:-1] + skips * before[:, :-2]) * p[:, of_state], 1.0)
            scores[:, 0] = 1.0
            decay = np.where(silent_steps > DECAY_AFTER[1], DECAY[1], np.where(silent_steps > DECAY_AFTER[0], DECAY[0], 1.0))
            scores[:, 1:-1] *= decay[:, None]
            cost = -np.log(scores[:, -2] + SMALLEST_SCORE) / parameters.divisor
            woke = (cost < threshold) & ~silent
            quiet = np.where(woke, 0, np.minimum(quiet + 1, STRICT_AFTER + 1))
            threshold = np.where(quiet > STRICT_AFTER, STRICT_THRESHOLD, THRESHOLD)
            for i in np.flatnonzero(woke):
                found[i].append((step + 1) * BLOCK / RATE)
                scores[i], silent_steps[i] = 0.0, 0
    return found


def engine_wakes(wave: NDArray[np.int16], parameters: Parameters, so: ctypes.CDLL) -> list[float]:
    """Seconds at which the engine itself wakes."""
    with parameters.listening(so) as listening:
        return [(step + 1) * BLOCK / RATE for step, woke in enumerate(listening.steps(wave)) if woke]
