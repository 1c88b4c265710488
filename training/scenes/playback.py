"""The device playing, and somebody talking to it or not: what goes into the echo canceller.

Levels as in noisy.py.
"""

from __future__ import annotations

import math

import numpy as np

from training.corpus import Corpus
from training.device_facts import FRAME
from training.scenes import echo, mixing, sources
from training.scenes.audio import RATE, active_power, gain
from training.scenes.bank import RoomBank
from training.scenes.noisy import LEVEL, MIC_GAIN, PEAK, SELF_NOISE, dry_noise
from training.shared import Record

SCENARIOS = {"double_talk": 0.73, "far_end": 0.12, "near_end": 0.15}
SER = (-25.0, 10.0)  # dB, talker against echo
USUAL_SER, USUAL_SHARE = (-15.0, 0.0), 0.6
ECHO_SNR, ECHO_NOISY_SNR, ECHO_NOISY_SHARE = (10.0, 30.0), (-5.0, 10.0), 0.2
COLD_START_SHARE = 0.3  # double talk from the beginning, before the canceller has converged
LEARNING = (3.0, 8.0)  # s of far end alone otherwise
TURN, LISTENING = (2.0, 8.0), (0.5, 4.0)  # s: how long somebody speaks, and does not
FAR_PAUSE, FAR_PAUSE_SHARE = (2.0, 5.0), 0.3  # playback interrupted once in double talk
MIC_CLIP_SHARE = 0.1
FADE = 0.02  # s, ends of stretches


def _turns(rng: np.random.Generator, samples: int, start: int) -> list[tuple[int, int]]:
    """Stretches [start, end) in which somebody speaks, from sample `start` on."""
    turns = []
    while start < samples - RATE:
        end = min(samples, start + int(rng.uniform(*TURN) * RATE))
        turns.append((start, end))
        start = end + int(rng.uniform(*LISTENING) * RATE)
    return turns


def _gate(samples: int, stretches: list[tuple[int, int]]) -> np.ndarray:
    """1 inside the stretches, 0 outside, with faded ends."""
    gate = np.zeros(samples, np.float32)
    for start, end in stretches:
        t = np.arange(end - start)
        gate[start:end] = np.clip(np.minimum(t, t[::-1]) / (FADE * RATE), 0.0, 1.0)
    return gate


def _spans(far: np.ndarray, near: np.ndarray) -> list[tuple[str, int, int]]:
    """Runs of equal state as (kind, start, end) from two boolean tracks."""
    kinds = np.array(["silence", "far_end", "near_end", "double_talk"])
    state = far + 2 * near
    edges = np.flatnonzero(np.diff(state)) + 1
    bounds = [0, *edges.tolist(), len(state)]
    return [(str(kinds[state[a]]), a, b) for a, b in zip(bounds[:-1], bounds[1:])]


def _rings(stretches: list[tuple[int, int]], samples: int, late: int) -> np.ndarray:
    """Samples in which the stretches sound, `late` samples of delay and decay included."""
    track = np.zeros(samples, bool)
    for start, end in stretches:
        track[start : end + late] = True
    return track


def aec_clip(corpus: Corpus, bank: RoomBank, rng: np.random.Generator, seconds: float, split: str, scenario: str) -> Record:
    """A stretch of device life with playback; clips are rounded up to whole frames
    of the canceller.

    scenario: "double_talk" (playback nearly all the time, somebody speaks now and then),
    "far_end" (playback alone) or "near_end" (the reference is silent). Returns a dict of
      ref            [T] reference, on int16 steps
      mics           [3, T] on int16 steps: near + noise + echo, clipped softly in some clips
      near, noise, echo  [3, T] what the microphones are made of
      spans          list of (kind, start, end) in samples: far_end, double_talk, near_end, silence
      scenario, ser and snr (dB), room, path (echo.Path)
    """
    samples = math.ceil(seconds * RATE / FRAME) * FRAME
    room, other_room = bank.draw(rng, split), bank.draw(rng, split)
    ser = rng.uniform(*(USUAL_SER if rng.random() < USUAL_SHARE else SER))
    noisy = rng.random() < ECHO_NOISY_SHARE
    snr = rng.uniform(*(ECHO_NOISY_SNR if noisy else ECHO_SNR))

    far_stretches = [] if scenario == "near_end" else [(0, samples)]
    near_stretches = []
    if scenario != "far_end":
        cold = scenario == "near_end" or rng.random() < COLD_START_SHARE
        start = rng.uniform(0.0, 1.0) if cold else min(rng.uniform(*LEARNING), seconds / 3)
        near_stretches = _turns(rng, samples, int(start * RATE))
    if scenario == "double_talk" and rng.random() < FAR_PAUSE_SHARE:
        pause = rng.integers(samples // 4, 3 * samples // 4)
        resume = min(samples - RATE, pause + int(rng.uniform(*FAR_PAUSE) * RATE))
        if resume > pause:
            far_stretches = [(0, int(pause)), (int(resume), samples)]

    path = echo.draw_path(rng, samples)
    reference = np.zeros(samples, np.float32)
    if far_stretches:
        reference = echo.far_end(corpus, rng, split, samples)
        reference = echo.quantised(reference * _gate(samples, far_stretches))
    echoes = echo.echo(
        path,
        reference,
        bank.responses(room, "loudspeaker"),
        bank.responses(other_room, "loudspeaker"),
    )
    near = np.zeros((3, samples), np.float32)
    if near_stretches:
        dry = sources.talk(corpus, rng, "near", split, samples, lead=0.0)
        dry = dry * _gate(samples, near_stretches)
        near = mixing.convolve(dry, bank.responses(room, "talker"))
    point, field = dry_noise(corpus, rng, split, samples)
    noise = sum(mixing.convolve(x, bank.responses(room, place)) for x, place in zip(point, ("noise 1", "noise 2")))
    noise = noise if field is None else noise + field

    # Talker at 0 dB, echo at -SER, noise at -SNR; the louder of the speech and the echo at LEVEL.
    parts = [near, echoes, noise]
    relative = [0.0, -ser, -snr]
    powers = [*(active_power(x[0]) for x in (near, echoes)), mixing.power(noise[0])]
    present = [ratio for x, ratio in ((near, 0.0), (echoes, -ser)) if x.any()]
    level = rng.uniform(*LEVEL) - max(present)
    mic_gain = gain(rng.uniform(-MIC_GAIN, MIC_GAIN, (3, 1)))
    parts = [
        x * np.float32(mic_gain * gain(level + ratio) / np.sqrt(power + 1e-20))
        for x, ratio, power in zip(parts, relative, powers)
    ]
    parts[2] += gain(rng.uniform(*SELF_NOISE)) * rng.standard_normal((3, samples), np.float32)
    mics = sum(parts)
    down = np.float32(min(1.0, PEAK / np.abs(mics).max()))
    mics, (near, echoes, noise) = mics * down, (x * down for x in parts)
    if rng.random() < MIC_CLIP_SHARE:
        knee = rng.uniform(0.5, 1.0) * np.abs(mics).max()
        mics = np.float32(knee) * np.tanh(mics / np.float32(knee))

    decay = int(0.5 * bank.rooms["rt60"][room] * RATE)
    spans = _spans(_rings(far_stretches, samples, path.delay + decay), _rings(near_stretches, samples, decay))
    return {
        "ref": reference,
        "mics": echo.quantised(mics),
        "near": near,
        "noise": noise,
        "echo": echoes,
        "spans": spans,
        "scenario": scenario,
        "ser": float(ser),
        "snr": float(snr),
        "room": int(room),
        "path": path,
    }
