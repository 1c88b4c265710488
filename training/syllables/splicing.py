"""More of a syllable than was recorded: the beginning of one syllable and the rest of another, both by one speaker.

"ling" from "li" and "ming", "dang" from "dao" and "fang", and their neighbours likewise: of a few recordings of a syllable
become hundreds, and none of them stands out as the wake phrase's. The two meet in their vowel, where their spectra are
most alike.

Many speakers, most of all in the north, say "-ing" with a schwa before the nasal, others do not: the former is made of
"li" and "feng", one going over into the other.
"""

from __future__ import annotations

import collections
import dataclasses
import typing

import numpy as np

from . import spectra
from .phonetics import parts

if typing.TYPE_CHECKING:
    from .voices import Voices

FADE = 4  # frames of 5 ms in which one goes over into the other
CONTEXT = 2  # frames compared on either side of the joint
VOICED = 0.1  # of the loudest frame's power: what belongs to the vowel
EARLIEST, LATEST = 0.1, 0.55  # of a syllable, where the joint may be
TOO_DIFFERENT = 2.0  # nats of mean difference, above which two do not go together
ATTEMPTS = 3
SCHWA_SHARE = 0.3  # of the spliced syllables in "-ing"
SCHWA_LEAVE, SCHWA_ENTER = (0.2, 0.5), (0.35, 0.5)  # of a syllable, where the joint with the schwa may be
SCHWA_FADE = (8, 20)  # frames


@dataclasses.dataclass(frozen=True)
class Splice:
    """Frames 0..leave of piece `head`, then of piece `tail` from `enter` on."""

    head: int
    tail: int
    leave: int
    enter: int
    raised: float  # nats added to the head, so that the levels meet
    frames: int
    fade: int = FADE


class Splices:
    """classes: {syllable: class}."""

    def __init__(self, voices: Voices, classes: dict[str, int]) -> None:
        self.voices, self.kept, self.places, self.donors = voices, {}, {}, {}
        self.parts = {c: parts(name) for name, c in classes.items()}

    def of_speaker(self, speaker: str) -> dict[int, tuple[list[int], list[int], list[int]]]:
        """{class: (pieces to begin with, pieces to end with, pieces to end with after a schwa)}; class 0 has no name to go
        by."""
        if speaker not in self.donors:
            heads, tails = collections.defaultdict(list), collections.defaultdict(list)
            for c, pieces in self.voices.syllables[speaker].items():
                if c:
                    initial, final, vowel = self.parts[c]
                    heads[initial, vowel] += pieces
                    tails[final, vowel] += pieces
            self.donors[speaker] = {
                c: (heads[i, v], tails[f, v], tails["eng", "e"] if f == "ing" else [])
                for c, (i, f, v) in self.parts.items()
                if i
            }
        return self.donors[speaker]

    def choose(self, rng: np.random.Generator, speaker: str, syllable: int) -> Splice | None:
        """A Splice, or None where there is nothing that goes together."""
        heads, tails, schwas = self.of_speaker(speaker).get(syllable, ((), (), ()))
        if len(heads) and len(schwas) and rng.random() < SCHWA_SHARE:
            return self.with_schwa(rng, int(heads[rng.integers(len(heads))]), int(schwas[rng.integers(len(schwas))]))
        for _ in range(ATTEMPTS if len(heads) and len(tails) else 0):
            found = self.joined(int(heads[rng.integers(len(heads))]), int(tails[rng.integers(len(tails))]))
            if found:
                return found
        return None

    def joined(self, head: int, tail: int) -> Splice | None:
        if head == tail:
            return None
        if (head, tail) not in self.kept:
            self.kept[head, tail] = self.search(head, tail)
        return self.kept[head, tail]

    def place(self, piece: int) -> tuple[np.ndarray, np.ndarray]:
        if piece not in self.places:
            self.places[piece] = self.candidates(piece)
        return self.places[piece]

    def with_schwa(self, rng: np.random.Generator, head: int, tail: int) -> Splice | None:
        (a, at_a), (b, at_b) = self.place(head), self.place(tail)
        at_a = at_a[(at_a >= SCHWA_LEAVE[0] * len(a)) & (at_a < SCHWA_LEAVE[1] * len(a))]
        at_b = at_b[(at_b >= SCHWA_ENTER[0] * len(b)) & (at_b < SCHWA_ENTER[1] * len(b))]
        if not len(at_a) or not len(at_b):
            return None
        leave, enter = int(rng.choice(at_a)), int(rng.choice(at_b))
        raised = float(b[enter].mean() - a[leave].mean())
        return Splice(head, tail, leave, enter, raised, leave + len(b) - enter, int(rng.integers(*SCHWA_FADE)))

    def search(self, head: int, tail: int) -> Splice | None:
        (a, at_a), (b, at_b) = self.place(head), self.place(tail)
        if not len(at_a) or not len(at_b):
            return None
        around = np.arange(-CONTEXT, CONTEXT + 1)
        left, right = a[at_a[:, None] + around].reshape(len(at_a), -1), b[at_b[:, None] + around].reshape(len(at_b), -1)
        # Levels may differ: their means are put together.
        left, right = left - left.mean(1, keepdims=True), right - right.mean(1, keepdims=True)
        distance = (left**2).mean(1)[:, None] + (right**2).mean(1) - 2 / left.shape[1] * left @ right.T
        i, j = np.unravel_index(distance.argmin(), distance.shape)
        if distance[i, j] > TOO_DIFFERENT**2:
            return None
        leave, enter = int(at_a[i]), int(at_b[j])
        raised = float(b[enter + around].mean() - a[leave + around].mean())
        return Splice(head, tail, leave, enter, raised, leave + len(b) - enter)

    def candidates(self, piece: int) -> tuple[np.ndarray, np.ndarray]:
        """Log mel energies of a piece, and the frames at which it may be joined."""
        count = self.voices.pieces[piece][2]
        power = np.exp(self.voices.at(piece, np.arange(count))) @ spectra.mel()
        loud = power @ spectra.level_weights()
        at = np.arange(max(CONTEXT, int(EARLIEST * count)), min(count - CONTEXT - 1, int(LATEST * count)))
        return np.log(power + 1e-9), at[loud[at] > VOICED * loud.max()]

    def rows(self, splice: Splice, u: np.ndarray) -> np.ndarray:
        """Log spectra at u, which runs from 0 to 1 over the splice."""
        at = u * splice.frames
        share = np.float32(np.clip((at - splice.leave) / splice.fade + 0.5, 0, 1))[:, None]
        head = self.voices.at(splice.head, at) + np.float32(splice.raised)
        return head * (1 - share) + self.voices.at(splice.tail, at - splice.leave + splice.enter) * share
