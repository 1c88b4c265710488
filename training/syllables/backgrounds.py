"""What else the wake-up engine hears, kept as features: noise, music, speech in other languages, what the canceller
leaves of playback; and rooms as decays of mel energies.

A folder for one split, named by what it was made from (cache_keys.py): backgrounds.json, features.f16 [frames, 40] log mel
energies (level of their recordings), rooms.npy.
"""

from __future__ import annotations

import json
import pathlib
import typing
from collections.abc import Callable, Iterator

import numpy as np

from .. import cache_keys
from ..corpus import Clip, Corpus
from ..scenes.audio import RATE
from ..scenes.bank import RoomBank
from ..scenes.cache import AecCache
from ..shared import Record
from . import spectra

DECAY_FRAMES = 64  # 0.64 s of a room's decay
ROOMS = 400
PIECE = 20.0  # s of a recording read at once
SELF_NOISE_SECONDS = 60.0
RECIPE = ("models.features", "scenes.audio", "syllables.backgrounds", "syllables.spectra")


def log_mel(x: np.ndarray) -> np.ndarray:
    return np.log(np.maximum(spectra.power(x, spectra.FEATURE_HOP) @ spectra.mel(), 1e-3))


def room_decay(responses: np.ndarray) -> np.ndarray:
    """Responses [3, taps] to the microphones -> energy in each band and each 10 ms of what the engine hears, their mean."""
    h = responses.mean(0)
    start = max(0, int(np.abs(h).argmax()) - 16)
    h = h[start : start + DECAY_FRAMES * spectra.FEATURE_HOP]
    h = np.pad(h, (0, DECAY_FRAMES * spectra.FEATURE_HOP - len(h))).reshape(DECAY_FRAMES, -1)
    spectrum = np.abs(np.fft.rfft(h, 512)) ** 2
    energy = spectrum @ spectra.mel() / spectra.mel().sum(0)
    return np.float32(energy / energy.mean(1).sum())


def clips_of(corpus: Corpus, split: str) -> dict[str, list[Clip]]:
    """{role: clips}. Other languages come from recordings, if there are any."""
    clips = {role: corpus.clips(role, split) for role in ("noise", "music", "far")}
    foreign = [c for c in clips["far"] if "mandarin" not in c.roles]
    clips["far"] = [c for c in foreign if not c.path.startswith("synthetic/")] or foreign
    return clips


def recordings(corpus: Corpus, split: str) -> Iterator[tuple[str, np.ndarray]]:
    """Yields (role, log mel) in pieces of at most PIECE s."""
    for role, chosen in clips_of(corpus, split).items():
        for clip in chosen:
            for start in range(0, corpus.length(clip), int(PIECE * RATE)):
                x = corpus.read(clip, start, int(PIECE * RATE))
                if len(x) > RATE // 4:
                    yield role, log_mel(x)


def residual(clips: AecCache | tuple[()]) -> Iterator[tuple[str, np.ndarray]]:
    """Yields what the canceller leaves of playback alone, relative to a power of the playback of 1."""
    for i in range(len(clips)):
        clip = clips[i]
        for kind, start, end in clip["spans"]:
            if kind != "far_end" or end - start < RATE:
                continue
            played = float((clip["mic"][start:end] ** 2).mean())
            left = clip["mic"][start:end] - clip["echo"][start:end]
            if played > 1e-9:
                yield "residual", log_mel(left / np.sqrt(played))


def made_from(corpus: Corpus, bank: RoomBank, clips: AecCache | None, split: str) -> Record:
    """What the backgrounds of a split are a function of."""
    return {
        "split": split,
        "corpus": {role: corpus.contents(chosen) for role, chosen in clips_of(corpus, split).items()},
        "bank": bank.contents(bank.numbers(split)[:ROOMS]),
        "canceller": clips and [clips.path.name, len(clips)],
        "recipe": cache_keys.constants(*RECIPE),
    }


def build(
    corpus: Corpus,
    bank: RoomBank,
    clips: AecCache | None,
    parent: pathlib.Path,
    split: str,
    progress: Callable[[int, int], object] = lambda done, of: None,
) -> pathlib.Path:
    """Makes the backgrounds of a split in the folder `parent`, unless they are there. clips: runs of the canceller
    (scenes/cache.py), or None. Returns their own folder."""
    path = cache_keys.begin(parent, made_from(corpus, bank, clips, split))
    file = path / "backgrounds.json"
    if file.exists():
        return path
    pieces, at = [], 0

    def keep(f: typing.BinaryIO, role: str, energies: np.ndarray) -> None:
        nonlocal at
        f.write(energies.astype(np.float16).tobytes())
        pieces.append([role, at, len(energies)])
        at += len(energies)
        progress(len(pieces), len(pieces))

    with open(path / "features.f16", "wb") as f:
        for role, energies in recordings(corpus, split):
            keep(f, role, energies)
        for role, energies in residual(clips or ()):
            keep(f, role, energies)
        hiss = np.random.default_rng(0).standard_normal(int(SELF_NOISE_SECONDS * RATE))
        keep(f, "hiss", log_mel(hiss))
    rooms = bank.numbers(split)[:ROOMS]
    np.save(path / "rooms.npy", np.stack([room_decay(bank.responses(r, "talker")) for r in rooms]))
    file.write_text(json.dumps({"frames": at, "pieces": pieces}))
    return path


class Backgrounds:
    def __init__(self, path: pathlib.Path) -> None:
        description = json.loads((path / "backgrounds.json").read_text())
        self.features = np.memmap(path / "features.f16", np.float16, "r", shape=(description["frames"], 40))
        self.rooms = np.load(path / "rooms.npy")
        self.pieces = {}
        for role, start, frames in description["pieces"]:
            self.pieces.setdefault(role, []).append((start, frames))
        # Drawn by length, not by piece.
        self.shares = {}
        for role, pieces in self.pieces.items():
            lengths = np.array([n for _, n in pieces], float)
            self.shares[role] = np.cumsum(lengths / lengths.sum())

    def energies(self, rng: np.random.Generator, role: str, frames: int) -> np.ndarray:
        """Mel energies [frames, 40] from anywhere in a role's recordings, short ones one after the other; for
        "residual" time runs from a recording's beginning in a third of the draws, before the canceller has learnt."""
        found, missing = [], frames
        while missing > 0:
            start, length = self.pieces[role][min(np.searchsorted(self.shares[role], rng.random()), len(self.shares[role]) - 1)]
            first = int(rng.integers(max(1, length - missing + 1)))
            if role == "residual" and rng.random() < 1 / 3:
                first = 0
            part = self.features[start + first : start + min(length, first + missing)]
            found.append(part)
            missing -= len(part)
        return np.exp(np.concatenate(found).astype(np.float32))
