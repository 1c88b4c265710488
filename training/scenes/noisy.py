"""Somebody talking in a noisy room: what the noise suppressor learns from.

All levels are taken at microphone 1. A talker's level is that of the frames within 30 dB of the
loudest, a noise's that of the whole clip.
"""

from __future__ import annotations

import math
import typing
from collections.abc import Callable

import numpy as np

from training.corpus import Corpus
from training.scenes import array_geometry, mixing, sources, steady
from training.scenes.audio import RATE, active_power, gain
from training.scenes.bank import Rooms, diffuse
from training.shared import Record

if typing.TYPE_CHECKING:
    import torch

LEVEL = (-42.0, -12.0)  # dBFS of talker and noise together
PEAK = 0.98  # louder scenes are turned down to it, as whoever sets up the converter does
SNR = (-5.0, 20.0)  # dB
CLEAN_SNR, CLEAN_SHARE = (30.0, 50.0), 0.1
MIC_GAIN = 1.5  # dB, either way
SELF_NOISE = (-85.0, -68.0)  # dBFS, of each microphone
EARLY = 0.05  # s, reflections the target keeps
LATE_DB = (6.0, 10.0)  # how much weaker than heard the target's late reverberation is

NOISES = {"recorded": 0.22, "steady": 0.3, "babble": 0.12, "talker": 0.06, "music": 0.14, "two": 0.16}
STEADY_OF_TWO = 0.6  # share of two noises each of which is one by formula
DIFFUSE_SHARE = 0.3
MIC_SPACING = math.sqrt(3.0) * array_geometry.MIC_RADIUS


def dry_noise(
    corpus: Corpus, rng: np.random.Generator, split: str, samples: int, kinds: dict[str, float] = NOISES
) -> tuple[np.ndarray, np.ndarray | None]:
    """What makes the noise: dry signals for the room's noise places, then for the field around.

    Returns float32 [2, samples] and [3, samples] or None. Relative levels are set, absolute ones
    are not.
    """
    shares = np.array(list(kinds.values()))
    kind = rng.choice(list(kinds), p=shares / shares.sum())
    point, field = np.zeros((2, samples), np.float32), None
    if kind == "talker":
        point[0] = sources.talk(corpus, rng, "far", split, samples)
    elif kind == "babble":
        for place in point:
            place[:] = sources.babble(corpus, rng, split, samples)
    elif kind == "music":
        point[0] = sources.excerpts(corpus, rng, "music", split, samples)[0]
    else:
        around = rng.random() < DIFFUSE_SHARE
        noise = background(corpus, rng, split, samples, kind, 3 if around else 1)
        if around:
            field = diffuse(noise, MIC_SPACING)
        else:
            point[0] = noise[0]
    if kind == "two":
        second = background(corpus, rng, split, samples, kind)[0]
        level = mixing.power(point[0] if field is None else field[0])
        second *= np.sqrt(level / (mixing.power(second) + 1e-20)) * gain(rng.uniform(-10, 0))
        point[1] = second
    return point, field


def background(corpus: Corpus, rng: np.random.Generator, split: str, samples: int, kind: str, count: int = 1) -> np.ndarray:
    """[count, samples]: a recording, a noise by formula, or for two of them either."""
    if kind == "steady" or kind == "two" and rng.random() < STEADY_OF_TWO:
        return steady.steady(rng, samples, count)
    return sources.excerpts(corpus, rng, "noise", split, samples, count)


def draw_scene(
    corpus: Corpus, bank: Rooms, rng: np.random.Generator, samples: int, split: str, kinds: dict[str, float] = NOISES
) -> Record:
    """Everything random of one scene, dry."""
    room = bank.draw(rng, split)
    speech = bank.responses(room, "talker")
    onset = bank.rooms["onset"][room][0]
    early = mixing.early_part(speech, onset, EARLY)
    late_gain = gain(-rng.uniform(*LATE_DB))
    point, field = dry_noise(corpus, rng, split, samples, kinds)
    lead = 1.5 if rng.random() < 0.1 else 0.3
    return {
        "dry": np.concatenate([sources.talk(corpus, rng, "near", split, samples, lead)[None], point]),
        "field": np.zeros((3, samples), np.float32) if field is None else field,
        "responses": np.stack(
            [
                speech,
                early + np.float32(late_gain) * (speech - early),
                bank.responses(room, "noise 1"),
                bank.responses(room, "noise 2"),
            ]
        ),
        "snr": rng.uniform(*(CLEAN_SNR if rng.random() < CLEAN_SHARE else SNR)),
        "level": rng.uniform(*LEVEL),
        "mic_gain": gain(rng.uniform(-MIC_GAIN, MIC_GAIN, (3, 1))).astype(np.float32),
        "self_noise": np.float32(gain(rng.uniform(*SELF_NOISE))) * rng.standard_normal((3, samples), np.float32),
    }


def mix(scenes: list[Record], to_array: Callable[[np.ndarray], np.ndarray]) -> tuple[np.ndarray, np.ndarray]:
    """Scenes of draw_scene(), as arrays of a kind: mics and target [B, 3, T]."""
    taps = max(s["responses"].shape[-1] for s in scenes)

    def stack(name: str, extend: int = 0) -> np.ndarray:
        parts = [np.asarray(s[name], np.float32) for s in scenes]
        if extend:
            parts = [np.pad(p, ((0, 0), (0, 0), (0, extend - p.shape[-1]))) for p in parts]
        return to_array(np.stack(parts))

    dry, responses = stack("dry"), stack("responses", taps)
    samples = dry.shape[-1]
    size = mixing.transform_size(samples, taps)
    x = mixing.spectrum(dry, size)
    h = mixing.spectrum(responses, size)
    speech, target = (mixing.heard(x[:, :1] * h[:, k], size, samples) for k in (0, 1))
    noise = mixing.heard(x[:, 1:2] * h[:, 2] + x[:, 2:3] * h[:, 3], size, samples)
    noise = noise + stack("field")

    mic_gain = stack("mic_gain")
    talker = active_power(speech[:, 0])
    snr = mixing.from_decibels(stack("snr"))
    noise = noise * ((talker / snr / (mixing.power(noise[:, 0]) + 1e-20)) ** 0.5)[:, None, None]
    # Gain of the whole scene: level asked for, but no clipping.
    both = talker * (1.0 + 1.0 / snr)
    scale = (mixing.from_decibels(stack("level")) / both) ** 0.5
    mics = (speech + noise) * mic_gain * scale[:, None, None] + stack("self_noise")
    target = target * mic_gain * scale[:, None, None]
    peak = abs(mics).reshape(len(scenes), -1).max(-1)
    peak = getattr(peak, "values", peak)
    down = 1.0 / (1.0 + (peak / PEAK - 1.0) * (peak > PEAK))
    return mics * down[:, None, None], target * down[:, None, None]


def ns_batch(
    corpus: Corpus, bank: Rooms, rng: np.random.Generator, batch: int, seconds: float, split: str, device: str | None = None
) -> dict[str, np.ndarray] | dict[str, torch.Tensor]:
    """Noisy microphones and what the noise suppressor should make of them.

    Returns mics and target, [batch, 3, T] float32, and snr [batch] in dB: numpy arrays, or torch
    tensors mixed on `device` when one is given. The target is the talker at the same microphone
    with the reflections of the first EARLY s, later ones LATE_DB weaker than they are heard.
    """
    samples = round(seconds * RATE)
    scenes = [draw_scene(corpus, bank, rng, samples, split) for _ in range(batch)]
    snr = np.array([s["snr"] for s in scenes], np.float32)
    if device is None:
        # One by one: a scene's spectra stay in the cache, and short rooms get short transforms.
        mixed = [mix([s], lambda x: x) for s in scenes]
        mics, target = (np.concatenate(parts) for parts in zip(*mixed))
        return {"mics": mics, "target": target, "snr": snr}
    import torch

    mics, target = mix(scenes, lambda x: torch.from_numpy(x).to(device))
    return {"mics": mics, "target": target, "snr": torch.from_numpy(snr).to(device)}
