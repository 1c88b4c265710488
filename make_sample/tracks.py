"""The scene's sounds: what the loudspeaker plays, what the talkers say, the tap, each at the microphones."""

from __future__ import annotations

import dataclasses

import numpy as np
from scipy import signal

from make_sample import codec
from make_sample.recordings import Recordings, to_int16
from make_sample.scene import (
    ECHO_LEVEL,
    LOUDSPEAKER,
    MIC_GAIN_DB,
    PLAYBACK_DELAY,
    PLAYS,
    REFERENCE_LEVEL,
    ROOM,
    SAMPLES,
    SEED,
    SELF_NOISE_LEVEL,
    TALKER_LEVEL,
    TALKERS,
    TAP,
    TAP_LEVEL,
    TAP_OFFSET,
    TAP_OPEN,
    TAP_OPEN_LEVEL,
)
from training.device_facts import FULL_SCALE, RATE
from training.scenes import array_geometry
from training.scenes.audio import active_dbfs, dbfs, fade, gain
from training.scenes.room import SIMULATOR_DELAY
from training.shared import Record


def hear(response: np.ndarray, x: np.ndarray, delay: int = SIMULATOR_DELAY) -> np.ndarray:
    """x through [3, taps] responses, `delay` samples late in all: [3, len(x)].

    SIMULATOR_DELAY samples of it are in the responses already, less is not possible.
    """
    y = signal.fftconvolve(x[None, :], response, axes=1)
    return np.pad(y, ((0, 0), (delay - SIMULATOR_DELAY, 0)))[:, : len(x)]


def at(start: float, x: np.ndarray) -> np.ndarray:
    """A track of the sample's length with x from `start` s on."""
    track = np.zeros(SAMPLES)
    n = round(start * RATE)
    track[n : n + len(x)] = x
    return track


def reference(recordings: Recordings) -> tuple[np.ndarray, list[float]]:
    """Loudspeaker signal, every piece at REFERENCE_LEVEL; also the gain of each piece in dB."""
    track, gains = np.zeros(SAMPLES), []
    for play in PLAYS:
        x = recordings.clip(play["file"], play["from"], play["end"] - play["start"])
        gains.append(REFERENCE_LEVEL - active_dbfs(x))
        track += at(play["start"], fade(x * gain(gains[-1]), 0.01))
    return track, gains


def say(recordings: Recordings, talker: Record) -> tuple[np.ndarray, list[float]]:
    """The talker's pieces one after the other, each as loud as the first; their gains in dB."""
    pieces = [recordings.clip(file, start, None if end is None else end - start) for file, start, end in talker["pieces"]]
    gains = [active_dbfs(pieces[0]) - active_dbfs(x) for x in pieces]
    return np.concatenate([fade(x * gain(g), 0.01) for x, g in zip(pieces, gains)]), gains


def near_end(recordings: Recordings, responses: dict[str, np.ndarray]) -> tuple[np.ndarray, list[list[float]], list[float]]:
    """Talkers at the microphones [3, SAMPLES], each at TALKER_LEVEL; for each talker the gains of
    the pieces in dB and the end of the last one in s."""
    track, gains, ends = np.zeros((3, SAMPLES)), [], []
    for k, talker in enumerate(TALKERS):
        x, of_pieces = say(recordings, talker)
        heard = hear(responses[f"talker {k}"], at(talker["start"], x))
        volume = TALKER_LEVEL - active_dbfs(heard[0])
        gains.append([g + volume for g in of_pieces])
        ends.append(talker["start"] + len(x) / RATE)
        track += heard * gain(volume)
    return track, gains, ends


def running_tap(recordings: Recordings, response: np.ndarray) -> tuple[np.ndarray, float]:
    """The tap at the microphones [3, SAMPLES] and its gain in dB while it is open."""
    heard = hear(response, recordings.clip(TAP["file"], TAP["from"], SAMPLES / RATE))
    start, end = TAP_OPEN
    levels = [TAP_LEVEL, TAP_OPEN_LEVEL, TAP_OPEN_LEVEL, TAP_LEVEL]
    edges = [start, start + 0.2, end - 0.2, end]
    level = np.interp(np.arange(SAMPLES) / RATE, edges, levels)
    loudness = dbfs(heard[0])
    return heard * gain(level - loudness), TAP_OPEN_LEVEL - loudness


@dataclasses.dataclass(frozen=True)
class Recording:
    """The recording and what its description is made of. Gains in dB, times in s."""

    channels: np.ndarray  # int16 [6, SAMPLES]
    responses: dict  # source -> impulse responses [3, taps]
    ref: np.ndarray  # float [SAMPLES]; its int16 steps are channel 4
    echo: np.ndarray  # at the microphones [3, SAMPLES], like the following
    near: np.ndarray
    tap: np.ndarray
    mics: np.ndarray
    volume: float
    play_gains: list
    talker_gains: list  # of each talker's pieces
    tap_gain: float
    ends: list  # of the talkers


def record(recordings: Recordings) -> Recording:
    """The scene as the device records it."""
    random = np.random.default_rng(SEED)
    offsets = {
        f"talker {k}": array_geometry.offset(t["heading"], t["distance"], t["height"] - ROOM.array[2])
        for k, t in enumerate(TALKERS)
    }
    offsets |= {"loudspeaker": array_geometry.loudspeaker_offset(), "tap": TAP_OFFSET}
    responses = ROOM.impulse_responses(offsets)

    ref, play_gains = reference(recordings)
    played = LOUDSPEAKER.play(to_int16(ref) / FULL_SCALE)
    echo = hear(responses["loudspeaker"], played, PLAYBACK_DELAY)
    volume = ECHO_LEVEL - dbfs(echo[0, ref != 0.0])
    echo *= gain(volume)

    near, talker_gains, ends = near_end(recordings, responses)
    tap, tap_gain = running_tap(recordings, responses["tap"])
    self_noise = random.standard_normal((3, SAMPLES)) * gain(SELF_NOISE_LEVEL)

    mics = echo + near + tap + self_noise
    mics *= gain(np.array(MIC_GAIN_DB))[:, None]
    scrambled = codec.scramble(to_int16(mics))
    channels = np.stack(
        [*scrambled, to_int16(near[0]), to_int16(ref), to_int16(echo[0])]  # MIC_GAIN_DB[0] is 0 dB
    )
    return Recording(channels, responses, ref, echo, near, tap, mics, volume, play_gains, talker_gains, tap_gain, ends)
