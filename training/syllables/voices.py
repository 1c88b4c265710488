"""Recorded and synthetic Mandarin as spectra, cut to where the voice is: what utterances are put together from.

They lie in a folder for one split, named by what it was made from (cache_keys.py):
  voices.json    per piece: speaker, first frame, frames, classes of its syllables (0 = another one),
                 where each ends (shares of the frames) or null
  spectra.f16    [frames, 257] float16, log power spectra every HOP samples; every clip's active power is 1
"""

from __future__ import annotations

import collections
import json
import pathlib
from collections.abc import Callable, Iterator

import numpy as np

from .. import cache_keys, synthetic
from .. import corpus as corpora
from ..corpus import Corpus
from ..device_facts import RATE
from ..shared import Record
from . import spectra, splicing
from .confusions import Confusions
from .cutting import Cutter
from .inventory import LIKE_DANG, LIKE_LING, Phrase, classes_of, inventory, shipped

HOP = 80
ACTIVE = 1e-3  # of the loudest frame's power: 30 dB
EDGE = 2  # frames kept on either side of what is active
LONGEST = 5.0  # s
JOINED = "joined_from_syllables"  # flag of phrases that are not natural speech
SYNTHETIC = "synthetic/"  # folder of what the synthesiser says, which says single syllables when asked
SYNTHETIC_TONES = 2
SPLICED_SHARE = 0.5  # of the syllables that can be spliced
# Beside the phrase's own syllables every synthetic voice says its neighbours and some others.
SYNTHETIC_OTHERS = 40
FLOOR = 1e-3  # power below int16 steps
SHORTEST = 10  # frames of a syllable
RECIPE = ("models.features", "syllables.cutting", "syllables.inventory", "syllables.spectra", "syllables.voices")

Said = tuple[str, list[str], np.ndarray, list[int] | None]  # speaker, syllables, samples, ends


def pieces(corpus: Corpus, split: str, cutter: Cutter | None = None) -> Iterator[Said]:
    """Yields (speaker, syllables, samples, samples at which each syllable ends or None); of words and sentences in which
    nobody says that, their syllables, too, if there is a cutter."""
    for clip in corpus.clips("mandarin", split):
        if clip.pinyin and JOINED not in clip.flags:
            x, said = corpus.read(clip), clip.pinyin.split()
            ends = [round(float(s) * RATE) for s in clip.ends.split()] or None
            if len(x) < LONGEST * RATE:
                yield clip.speaker, said, x, ends
            if cutter and not ends and len(said) > 1 and not clip.path.startswith(SYNTHETIC):
                for syllable, begin, end in cutter.cut(x, said):
                    yield clip.speaker, [syllable], x[begin:end], None


def synthetic_pieces(split: str, seed: int, voices: int, phrase: Phrase) -> Iterator[Said]:
    """The synthesiser's isolated syllables, by the voices of a split."""
    names = list(inventory())
    for number, variant in enumerate(synthetic.SPEAKERS):
        speaker = f"espeak-ng {variant}"
        if corpora.hashed_split(seed, speaker) != split or variant == "whisper":
            continue
        rng = np.random.default_rng([seed, number])
        chosen = own_syllables(phrase) + list(rng.choice(names, SYNTHETIC_OTHERS, replace=False))
        for name in chosen:
            for tone in rng.choice(4, SYNTHETIC_TONES, replace=False) + 1:
                x = synthetic.syllable(variant, f"{name}{tone}", int(rng.integers(130, 200)), int(rng.integers(20, 80)))
                yield speaker, [name], x, None
        voices -= 1
        if voices == 0:
            return


def own_syllables(phrase: Phrase) -> list[str]:
    """Those of the phrase, and what is like them."""
    if phrase == shipped:
        return ["ling", "dang"] * 2 + LIKE_LING + LIKE_DANG
    names = {c: name for name, c in inventory().items()}
    said = list(dict.fromkeys(phrase.said))
    like = dict.fromkeys(c for place in map(phrase.said.index, said) for c in phrase.like(place))
    return [names[c] for c in [*said, *said, *like]]


def active(x: np.ndarray) -> tuple[np.ndarray, int] | None:
    """Log spectra of the part of a clip in which somebody speaks, its active power brought to 1, and its first frame;
    None if there is none."""
    p = spectra.power(x, HOP)
    loud = p @ spectra.mel() @ spectra.level_weights()
    if loud.max() < 1e-9:
        return None
    on = np.flatnonzero(loud > ACTIVE * loud.max())
    first = max(0, on[0] - EDGE)
    p = p[first : on[-1] + 1 + EDGE] / loud[on].mean()
    return np.log(np.maximum(p, FLOOR)), int(first)


def made_from(
    corpus: Corpus, split: str, seed: int, synthetic_voices: int, cutter: dict[str, str] | None, phrase: Phrase = shipped
) -> Record:
    """What the voices of a split are a function of; cutter: what cutting.made_from() says of it, or None."""
    return {
        "seed": seed,
        "split": split,
        "synthetic_voices": synthetic_voices,
        "cutter": cutter,
        "corpus": corpus.used(("mandarin",), split),
        "synthesiser": synthetic.made_from("speech"),
        "classes": cache_keys.digest(inventory()),
        "recipe": cache_keys.constants(*RECIPE),
    } | ({} if phrase == shipped else {"phrase": phrase.text})


def build(
    corpus: Corpus,
    parent: pathlib.Path,
    split: str,
    seed: int,
    synthetic_voices: int = 100,
    cutter: Cutter | None = None,
    phrase: Phrase = shipped,
    progress: Callable[[int, int], object] = lambda done, of: None,
) -> pathlib.Path:
    """Makes those of a split in the folder `parent`, unless it is there. Returns its own folder."""
    path = cache_keys.begin(parent, made_from(corpus, split, seed, synthetic_voices, cutter and cutter.made_from, phrase))
    file = path / "voices.json"
    if file.exists():
        return path
    rows, at = [], 0
    total = len(corpus.clips("mandarin", split))
    with open(path / "spectra.f16", "wb") as f:
        sources = [pieces(corpus, split, cutter)]
        if synthetic.available():
            sources.append(synthetic_pieces(split, seed, synthetic_voices, phrase))
        for source in sources:
            for speaker, said, x, ends in source:
                found, said = active(x), classes_of(said)
                if found is not None:
                    spectrum, first = found
                    f.write(spectrum.astype(np.float16).tobytes())
                    frames = len(spectrum)
                    places = ends and [min(frames, max(0, e // HOP - first)) for e in ends]
                    rows.append([speaker, at, frames, said, ends and [p / frames for p in places]])
                    if ends:
                        rows += [
                            [speaker, at + begin, end - begin, [c], None]
                            for c, begin, end in zip(said, [0, *places], places)
                            if end - begin >= SHORTEST
                        ]
                    at += frames
                progress(len(rows), max(total, len(rows)))
    file.write_text(json.dumps({"frames": at, "pieces": rows}))
    return path


class Voices:
    """What was built in several folders, as one."""

    def __init__(self, *paths: pathlib.Path, phrase: Phrase = shipped, confusions: Confusions | None = None) -> None:
        self.phrase, self.confusions = phrase, confusions
        self.pieces, self.spectra = [], []  # pieces: speaker, first frame, frames, classes, ends, folder
        for path in paths:
            description = json.loads((path / "voices.json").read_text())
            self.pieces += [[*piece, len(self.spectra)] for piece in description["pieces"]]
            shape = description["frames"], spectra.BINS
            self.spectra.append(np.memmap(path / "spectra.f16", np.float16, "r", shape=shape))
        self.syllables = collections.defaultdict(lambda: collections.defaultdict(list))  # speaker -> class -> pieces
        self.words = collections.defaultdict(list)  # speaker -> pieces of several syllables
        # The same for the phrase and for what is nearly it, said as people say it.
        self.phrases, self.near_misses = collections.defaultdict(list), collections.defaultdict(list)
        count = np.zeros(len(inventory()) + 1)
        for i, (speaker, _, _, said, _, _) in enumerate(self.pieces):
            if len(said) == 1:
                self.syllables[speaker][said[0]].append(i)
            elif tuple(said) == phrase.said:
                self.phrases[speaker].append(i)
            elif phrase.is_nearly(said):
                self.near_misses[speaker].append(i)
            elif not phrase.is_in(said):
                self.words[speaker].append(i)
                np.add.at(count, said, 1)
        # Syllables are drawn half by their frequency in words and sentences, half evenly; class 0 apart.
        count[0] = 0
        self.frequency = 0.5 * count / max(1.0, count.sum()) + 0.5 * (np.arange(len(count)) > 0) / (len(count) - 1)
        # Somebody with one sentence is not heard as often as somebody with hundreds, nor is he forgotten.
        self.word_speakers = {s: sum(map(self.seconds, pieces)) ** 0.5 for s, pieces in self.words.items()}
        # Who can say the phrase, and how often he does: more often with more syllables, but not in proportion.
        self.speakers = {
            s: sum(map(len, said.values())) ** 0.25 for s, said in self.syllables.items() if set(phrase.said) <= set(said)
        }
        self.splices = splicing.Splices(self, inventory())

    def choose(self, rng: np.random.Generator, speaker: str, syllable: int) -> int | splicing.Splice:
        """A piece in which the speaker says the class: a recorded one, or one spliced from two."""
        recorded = self.syllables[speaker][syllable]
        spliced = rng.random() < SPLICED_SHARE and self.splices.choose(rng, speaker, syllable)
        return spliced or int(recorded[rng.integers(len(recorded))])

    def rows(self, piece: int | splicing.Splice, u: np.ndarray) -> np.ndarray:
        """Log spectra of a piece at u, which runs from 0 to 1 over it."""
        if isinstance(piece, splicing.Splice):
            return self.splices.rows(piece, u)
        return self.at(piece, u * self.pieces[piece][2])

    def at(self, piece: int, frames: np.ndarray) -> np.ndarray:
        """Log spectra of a recorded piece at fractional frames."""
        _, first, count, _, _, folder = self.pieces[piece]
        frames = np.clip(frames, 0, count - 1.001)
        low = frames.astype(int)
        part = np.float32(frames - low)[:, None]
        rows = self.spectra[folder]
        return rows[first + low] * (1 - part) + rows[first + low + 1] * part

    def seconds(self, piece: int) -> float:
        return self.pieces[piece][2] * HOP / RATE
