"""Batches of utterances as the wake-up engine's features, with their alignment.

Speech is warped, put through rooms and mixed as mel energies: powers add, phases are not modelled. That is hundreds of
times faster than on waves and lets every utterance have a voice, a room and noises of its own.
"""

from __future__ import annotations

from collections.abc import Sequence

import numpy as np

from ..device_facts import FRAMES_PER_BLOCK, RATE
from . import spectra, texts
from .backgrounds import Backgrounds
from .texts import FRAMES_PER_SECOND, Piece
from .voices import Voices

FORMANTS, PITCH = (0.87, 1.15), (0.65, 1.4)  # factors
FAR_FORMANTS, FAR_PITCH, FAR_SHARE = (0.80, 1.22), (0.5, 1.6), 0.3  # now and then: children, very low and high voices
# A mouth is not another one's enlargement: formants move by factors of their own, known at these frequencies.
BEND_HZ, BEND = (0, 800, 1700, 2700, 4500, 8000), 0.035  # standard deviation of their logarithm
VOICING = (0.6, 1.1)
LOUDEST = 40.0  # log power, active speech being at about 30: a limit to what a warp can make
LEVEL = (-52.0, -14.0)  # dBFS, active speech: the features are not normalised
SELF_NOISE = (-90.0, -72.0)  # dBFS of the mean of three microphones
ROOM_SHARE = 0.75
NOISES = {"none": 0.25, "noise": 0.25, "music": 0.12, "babble": 0.06, "far": 0.06, "residual": 0.26}
SNR, TALKER_SNR, SER = (0.0, 25.0), (4.0, 22.0), (-14.0, 6.0)  # dB
INAUDIBLE = 1e-4  # -40 dB: where a room's decay ends
MASK_SHARE, MASK_FRAMES, MASK_BANDS = 0.15, 9, 7
JOINT = 2.0  # frames over which syllables fade into each other
# Steps around a syllable's end in which the network may say it: not before it has been heard. A slow one may also be said
# for half of what it takes longer than SLOW steps: the decoder takes a long silence for the end of the phrase.
EARLY, LATE, SLOW = 1, 4, 10

EASY_UNTIL = 0.2  # of the training: rooms, noise and masks come in little by little

# Shares of the kinds of utterances, at the beginning and in the last third.
KINDS = ("phrase", "near miss", "string", "words", "far", "noise", "music", "residual")
FIRST = np.array([0.12, 0.08, 0.38, 0.34, 0.03, 0.03, 0.02, 0.00])
LAST = np.array([0.19, 0.24, 0.20, 0.15, 0.14, 0.02, 0.03, 0.03])
WITHOUT_SPEECH = KINDS[4:]


def shares(progress: float) -> np.ndarray:
    later = np.clip((progress - 0.45) / 0.15, 0, 1)
    return (1 - later) * FIRST + later * LAST


def colour(rng: np.random.Generator) -> np.ndarray:
    """Factors of the bands' energies: another microphone, another mouth."""
    x = np.linspace(0, 1, 40)
    decibels = rng.normal(0, 4.0) * (x - 0.5)
    for k in range(1, 5):
        decibels = decibels + rng.normal(0, 1.6) * np.cos(np.pi * (k * x + rng.uniform(0, 2)))
    return np.float32(10 ** (decibels / 10))


def speak(rng: np.random.Generator, voices: Voices, pieces: Sequence[Piece], frames: int) -> np.ndarray:
    """Mel energies [frames, 40] of an utterance, active power about 1, in a voice of its own."""
    bins = np.arange(spectra.BINS) * (RATE / 2 / (spectra.BINS - 1))
    far = rng.random() < FAR_SHARE
    formants = rng.uniform(*(FAR_FORMANTS if far else FORMANTS))
    formants = formants * np.exp(np.interp(bins, BEND_HZ, rng.normal(0, BEND, len(BEND_HZ))))
    pitch = np.exp(rng.uniform(*np.log(FAR_PITCH if far else PITCH)))
    warp = spectra.voice(formants, pitch, rng.uniform(*VOICING))
    mel = spectra.mel()
    used = slice(4, 218)
    rows, places, weights = [], [], []
    for piece in pieces:
        begin, end = piece.begin, piece.begin + piece.frames
        at = np.arange(max(0, int(np.ceil(begin - JOINT / 2))), min(frames, int(end + JOINT / 2) + 1))
        # Time within a syllable runs a little unevenly.
        u = np.clip((at - begin) / piece.frames, 0, 1) ** (np.exp(rng.normal(0, 0.2)) if len(piece.said) == 1 else 1.0)
        rows.append(voices.rows(piece.number, u))
        places.append(at)
        ramp = np.clip(np.minimum(at - begin, end - at) / JOINT + 0.5, 0, 1)
        weights.append(ramp * 10 ** (piece.decibels / 10))
    log_power = np.concatenate(rows) @ warp[:, used]
    energy = np.exp(np.minimum(log_power, LOUDEST)) @ mel[used] * np.float32(np.concatenate(weights))[:, None]
    heard = np.zeros((frames, 40), np.float32)
    np.add.at(heard, np.concatenate(places), energy)
    return heard


def reverberant(energies: np.ndarray, decay: np.ndarray) -> np.ndarray:
    """Energies through a room's decay, band by band."""
    y = decay[0] * energies
    audible = np.flatnonzero(decay.max(1) > INAUDIBLE)[-1]
    for k in range(1, min(audible + 1, len(energies))):
        y[k:] += decay[k] * energies[:-k]
    return y


def active_level(energies: np.ndarray) -> float:
    """Mean power of the frames within 30 dB of the loudest."""
    loud = energies @ spectra.level_weights()
    return loud[loud > 1e-3 * loud.max()].mean() + 1e-12


def noise(rng: np.random.Generator, backgrounds: Backgrounds, frames: int, present: float) -> tuple[np.ndarray | None, float]:
    """Mel energies of unit power, or for playback of the canceller's remainder at a playback of unit power; decibels
    below speech. present: share of the utterances that have any."""
    kinds = [k for k in NOISES if k in ("none", "babble") or k in backgrounds.pieces]
    p = np.array([NOISES[k] for k in kinds])
    kind = kinds[rng.choice(len(kinds), p=p / p.sum())]
    if kind == "none" or rng.random() >= present or kind == "babble" and "far" not in backgrounds.pieces:
        return None, 0.0
    if kind == "residual":
        return backgrounds.energies(rng, kind, frames), rng.uniform(*SER)
    if kind == "babble":
        x = sum(unit(backgrounds.energies(rng, "far", frames)) for _ in range(rng.integers(3, 7)))
    else:
        x = backgrounds.energies(rng, kind, frames) * colour(rng)
    return unit(x), rng.uniform(*(TALKER_SNR if kind == "far" else SNR))


def unit(energies: np.ndarray) -> np.ndarray:
    return energies / np.float32((energies @ spectra.level_weights()).mean() + 1e-12)


def features(
    rng: np.random.Generator,
    voices: Voices,
    backgrounds: Backgrounds,
    kind: str,
    pieces: Sequence[Piece] | None,
    frames: int,
    hard: float = 1.0,
) -> np.ndarray:
    """Log mel energies [frames, 40] as the engine computes them. hard: factor of the shares of rooms, noise and masks."""
    if pieces is None:
        x = backgrounds.energies(rng, kind, frames)
        if kind == "far" and rng.random() < 0.5:
            x = reverberant(x, backgrounds.rooms[rng.integers(len(backgrounds.rooms))])
    else:
        x = speak(rng, voices, pieces, frames)
        if rng.random() < ROOM_SHARE * hard:
            x = reverberant(x, backgrounds.rooms[rng.integers(len(backgrounds.rooms))])
    x = x * colour(rng)
    x = x / np.float32(active_level(x))
    if pieces is not None or kind == "far" and rng.random() < 0.5:
        other, decibels = noise(rng, backgrounds, frames, hard)
        if other is not None:
            x = x + other * np.float32(10 ** (-decibels / 10))
    x = x * np.float32(10 ** (rng.uniform(*LEVEL) / 10))
    hiss = unit(backgrounds.energies(rng, "hiss", frames))
    y = np.log(x + hiss * np.float32(10 ** (rng.uniform(*SELF_NOISE) / 10)))
    if rng.random() < MASK_SHARE * hard:
        start, band = rng.integers(frames - MASK_FRAMES), rng.integers(40 - MASK_BANDS)
        low = y.min()
        y[start : start + rng.integers(1, MASK_FRAMES)] = low
        y[:, band : band + rng.integers(1, MASK_BANDS)] = low
    return y


def alignment(pieces: Sequence[Piece] | None, steps: int) -> tuple[list[int], list[int], list[int], list[int], bool]:
    """Classes of the syllables that have one, the steps in which they may be said, the steps of their middles, whether
    all that is certain."""
    labels, first, last, middle, certain = [], [], [], [], True
    for piece in pieces or ():
        ends = piece.ends or [(i + 1) / len(piece.said) for i in range(len(piece.said))]
        for i, (c, begin, end) in enumerate(zip(piece.said, [0.0, *ends], ends)):
            if c == 0:
                continue
            length = (end - begin) * piece.frames / FRAMES_PER_BLOCK
            end = (piece.begin + piece.frames * end) / FRAMES_PER_BLOCK
            inside = not piece.ends and len(piece.said) > 1 and (i + 1 < len(piece.said) or len(piece.said) > 4)
            doubt = (0.4 if len(piece.said) <= 4 else 3.0) * length + 1 if inside else 0.0  # sentences have pauses
            slow = max(0, int(length - SLOW) // 2)
            certain &= len(piece.said) == 1 or piece.ends is not None
            labels.append(c)
            first.append(max(0, int(end - doubt) - slow - EARLY))
            last.append(min(steps - 1, int(end + doubt) + LATE))
            middle.append(int(end - length / 2))
    return labels, first, last, middle, certain


def draw(
    rng: np.random.Generator, voices: Voices, backgrounds: Backgrounds, kind: str, frames: int
) -> tuple[str, list[Piece] | None]:
    if kind in WITHOUT_SPEECH and kind not in backgrounds.pieces:
        kind = "string"
    while True:
        pieces = None
        if kind not in WITHOUT_SPEECH:
            # The last syllable is to be heard and said before the end.
            pieces = texts.utterance(rng, voices, kind, frames - (LATE + 1) * FRAMES_PER_BLOCK)
            if pieces is None:
                continue
        return kind, pieces


def batch(
    voices: Voices, backgrounds: Backgrounds, rng: np.random.Generator, size: int, seconds: float, progress: float
) -> dict[str, np.ndarray]:
    """features [B, frames, 40]; labels [B, L] with 0 behind the last, first, last and middle step of each (alignment());
    certain [B]; kind [B] of KINDS; progress."""
    frames = round(seconds * FRAMES_PER_SECOND) // FRAMES_PER_BLOCK * FRAMES_PER_BLOCK
    rows = []
    for _ in range(size):
        kind, pieces = draw(rng, voices, backgrounds, KINDS[rng.choice(len(KINDS), p=shares(progress))], frames)
        x = features(rng, voices, backgrounds, kind, pieces, frames, min(1.0, progress / EASY_UNTIL))
        rows.append((x, *alignment(pieces, frames // FRAMES_PER_BLOCK), KINDS.index(kind)))
    longest = max(1, max(len(row[1]) for row in rows))
    pad = lambda values: np.pad(np.float32(values), (0, longest - len(values)))
    return {
        "features": np.float32([row[0] for row in rows]),
        "labels": np.stack([pad(row[1]) for row in rows]),
        "first": np.stack([pad(row[2]) for row in rows]),
        "last": np.stack([pad(row[3]) for row in rows]),
        "middle": np.stack([pad(row[4]) for row in rows]),
        "certain": np.float32([row[5] for row in rows]),
        "kind": np.float32([row[6] for row in rows]),
        "progress": np.array(progress, np.float32),
    }
