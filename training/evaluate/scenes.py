"""The fixed scenes: test speakers, test noises, test rooms. Scene i is a function of seed, section,
i and the number of rooms.
"""

from __future__ import annotations

import dataclasses
import functools
from collections.abc import Iterator

import numpy as np

from training.corpus import Clip, Corpus
from training.device_facts import FRAME
from training.evaluate import sets
from training.scenes import bank as banks
from training.scenes import direction, echo, mixing, noisy, sources
from training.scenes.audio import LEVEL_FRAME, RATE, active_power, gain
from training.scenes.bank import RoomBank
from training.scenes.room import SIMULATOR_DELAY
from training.syllables.inventory import Phrase

SPLIT = "test"

NOISY_FRAMES = 144  # 9.2 s: what DNSMOS listens to at once
FAR_FRAMES, DOUBLE_FRAMES, NEAR_FRAMES = 125, 125, 94  # 8 s, 8 s, 6 s
CHANGE_FRAME = 62  # of the change of path: 4 s
LEAD_FRAMES = 94  # 6 s before the wake phrase
AFTER = 2.0  # s behind it
ECHO_LEVEL = (-30.0, -18.0)  # dBFS of the louder of talker and echo
QUIET_ROOM = 40.0  # dB between echo and noise: what limits the echo reduction that can be seen
SELF_NOISE = -80.0  # dBFS
PEAK = 0.98

CALL_LEAD_FRAMES, CALL_AFTER = 62, 0.5  # 4 s before a call, s behind it
CALL_LEVEL = (-35.0, -20.0)  # dBFS of talker or, if louder, echo

ANOTHER_ROOM = 10**6  # added to a room's number
SECTIONS = ("noise", "echo", "wake", "talk", "playback", "direction", "points")


def generator(section: str, number: int) -> np.random.Generator:
    return np.random.default_rng([sets.SEED, SECTIONS.index(section), number])


class TestRooms:
    """The first test rooms of a bank, however many rooms it has grown to; or those of another split in their place."""

    __test__ = False  # not a test case

    def __init__(self, bank: RoomBank, rooms: int, split: str = SPLIT) -> None:
        self._bank, self._numbers = bank, [n for n in bank.numbers(split) if n < rooms]
        self.rooms = bank.rooms

    def draw(self, rng: np.random.Generator, split: str) -> int:
        return self._numbers[rng.integers(len(self._numbers))]

    def responses(self, room: int, source: str) -> np.ndarray:
        return self._bank.responses(room, source)

    def rt60(self, room: int) -> float:
        return float(self.rooms["rt60"][room])


def noisy_speech(corpus: Corpus, rooms: TestRooms, number: int) -> Iterator[tuple[str, np.ndarray, np.ndarray]]:
    """Yields (condition, mics [3, n], target [3, n]) of one scene."""
    rng, samples = generator("noise", number), NOISY_FRAMES * FRAME
    scene = noisy.draw_scene(corpus, rooms, rng, samples, SPLIT, sets.NOISE_KINDS)
    for snr in sets.SNRS:
        mics, target = noisy.mix([{**scene, "snr": snr}], lambda x: x)
        yield f"{snr:g} dB", mics[0], target[0]
    for name in sets.STEADY:
        dry = scene["dry"].copy()
        dry[1:] = steady(corpus, rng, name, samples)
        other = {**scene, "dry": dry, "field": np.zeros_like(scene["field"]), "snr": sets.STEADY_SNR}
        mics, target = noisy.mix([other], lambda x: x)
        yield f"{name}, {sets.STEADY_SNR:g} dB", mics[0], target[0]


def steady(corpus: Corpus, rng: np.random.Generator, name: str, samples: int) -> np.ndarray:
    """[2, samples], what sounds at the two places of noise."""
    point = np.zeros((2, samples), np.float32)
    if name == "babble of six":
        for talker in range(6):
            point[talker % 2] += sources.talk(corpus, rng, "far", SPLIT, samples)
    elif name == "white":
        point[0] = rng.standard_normal(samples)
    else:
        point[0] = fan(rng, samples)
    return point


def fan(rng: np.random.Generator, samples: int) -> np.ndarray:
    """Pink air, and the tones of blades 5 dB below it."""
    hz = np.maximum(np.fft.rfftfreq(samples, 1.0 / RATE), 40.0)
    air = np.fft.irfft(np.fft.rfft(rng.standard_normal(samples)) / np.sqrt(hz), samples)
    blade, t = rng.uniform(80.0, 200.0), np.arange(samples) / RATE
    tones = sum(np.sin(2 * np.pi * k * blade * t + rng.uniform(0, 2 * np.pi)) / k for k in range(1, 7))
    return air / air.std() + gain(-5.0) * tones / tones.std()


@dataclasses.dataclass(frozen=True)
class EchoScene:
    mic: np.ndarray  # [n], microphone 1
    ref: np.ndarray
    near: np.ndarray  # the talker in it
    far_end: slice  # playback alone
    double_talk: slice
    near_end: slice  # the talker alone, once playback has rung out


def playback(corpus: Corpus, rooms: TestRooms, number: int) -> Iterator[tuple[str, EchoScene]]:
    """Yields (condition, EchoScene) of one scene: the device plays, somebody talks over it, the
    device stops. The loudspeaker bends the signal, nothing drifts or is lost."""
    rng = generator("echo", number)
    samples = (FAR_FRAMES + DOUBLE_FRAMES + NEAR_FRAMES) * FRAME
    talk_at, stop_at = FAR_FRAMES * FRAME, (FAR_FRAMES + DOUBLE_FRAMES) * FRAME
    room, other = rooms.draw(rng, SPLIT), rooms.draw(rng, SPLIT)
    path = still_path(rng)
    ref = echo.far_end(corpus, rng, SPLIT, samples)
    ref[stop_at:] = 0.0
    responses = [rooms.responses(r, "loudspeaker")[:1] for r in (room, other)]
    echoes = {
        False: echo.echo(path, ref, *responses)[0],
        True: echo.echo(dataclasses.replace(path, change_at=CHANGE_FRAME * FRAME), ref, *responses)[0],
    }
    near = np.zeros(samples, np.float32)
    dry = sources.talk(corpus, rng, "near", SPLIT, samples - talk_at)
    near[talk_at:] = mixing.convolve(dry, rooms.responses(room, "talker")[:1])[0]
    noise = ambience(corpus, rng, rooms, room, samples)[0]
    hiss = gain(SELF_NOISE) * rng.standard_normal(samples, np.float32)
    level = rng.uniform(*ECHO_LEVEL)

    conditions = [(f"{ser:g} dB", ser, False) for ser in sets.SERS]
    conditions.append((f"{sets.CHANGED_SER:g} dB, path changes", sets.CHANGED_SER, True))
    for name, ser, changes in conditions:
        y = echoes[changes]
        louder = level - max(0.0, -ser)
        parts = [
            at_power(near, active_power(near), louder),
            at_power(y, active_power(y[:stop_at]), louder - ser),
            at_power(noise, mixing.power(noise), louder - ser - QUIET_ROOM),
        ]
        mic = sum(parts) + hiss
        down = np.float32(min(1.0, PEAK / np.abs(mic).max()))
        yield (
            name,
            EchoScene(
                echo.quantised(mic * down),
                ref,
                parts[0] * down,
                slice(0, talk_at),
                slice(talk_at, stop_at),
                slice(stop_at + RATE // 2, samples),
            ),
        )


@dataclasses.dataclass(frozen=True)
class WakeScene:
    mics: np.ndarray  # [3, n], whole frames
    ref: np.ndarray
    begin: float  # s, the phrase as microphone 1 hears it
    end: float
    heading: float  # degrees
    rt60: float  # s
    speaker: str


def phrases(corpus: Corpus, phrase: Phrase) -> list[Clip]:
    """The wake phrase's clips by test speakers."""
    return [c for c in corpus.clips("mandarin", SPLIT) if c.pinyin == phrase.text]


def without_phrases(corpus: Corpus, phrase: Phrase) -> Corpus:
    return corpus.where(lambda clip: not phrase.is_said_in(clip.pinyin))


def spoken_phrase(
    corpus: Corpus, others: Corpus, rooms: TestRooms, number: int, phrase: Phrase
) -> Iterator[tuple[str, WakeScene]]:
    """Yields (condition, WakeScene) of one phrase said after LEAD_FRAMES of whatever else is heard.

    others: the corpus for everything but the phrase.
    """
    rng = generator("wake", number)
    clips = phrases(corpus, phrase)
    # Joined from isolated syllables and fluent ones in turns.
    clips = [c for c in clips if bool(c.ends) == bool(number % 2)] or clips
    clip = clips[rng.integers(len(clips))]
    room = rooms.draw(rng, SPLIT)
    start = LEAD_FRAMES * FRAME
    phrase = sources.levelled(corpus.read(clip))
    samples = -(-(start + len(phrase) + round(AFTER * RATE)) // FRAME) * FRAME
    dry = np.zeros(samples, np.float32)
    dry[start : start + len(phrase)] = phrase
    near = mixing.convolve(dry, rooms.responses(room, "talker"))
    way = int(rooms.rooms["onset"][room][0][0]) - SIMULATOR_DELAY
    first, last = _active(phrase)

    ref = echo.far_end(others, rng, SPLIT, samples)
    responses = rooms.responses(room, "loudspeaker")
    echoes = echo.echo(still_path(rng), ref, responses, responses)
    noise = ambience(others, rng, rooms, room, samples)
    hiss = gain(SELF_NOISE) * rng.standard_normal((3, samples), np.float32)
    level = rng.uniform(*ECHO_LEVEL)
    for name, (snr, ser) in sets.WAKE_CONDITIONS.items():
        louder = level - max(0.0, -(ser or 0.0))
        mics = at_power(near, active_power(near[0]), louder) + hiss
        mics = mics + at_power(noise, mixing.power(noise[0]), louder - snr)
        if ser is not None:
            mics = mics + at_power(echoes, active_power(echoes[0]), louder - ser)
        mics = mics * np.float32(min(1.0, PEAK / np.abs(mics).max()))
        yield (
            name,
            WakeScene(
                mics,
                np.zeros_like(ref) if ser is None else ref,
                (start + way + first) / RATE,
                (start + way + last) / RATE,
                float(rooms.rooms["heading"][room][0]),
                rooms.rt60(room),
                clip.speaker,
            ),
        )


@dataclasses.dataclass(frozen=True)
class Call:
    mics: np.ndarray  # [3, n], whole frames
    ref: np.ndarray | None  # None: nothing is played
    begin: float  # s, as microphone 1 hears it
    end: float
    heading: float  # degrees


def called(corpus: Corpus, number: int) -> Iterator[tuple[str, Call]]:
    """Yields (condition, Call) of one call, heard in every condition of the direction section.

    The rooms belong to this section: at every reverberation time the same box, device and talker,
    as far as a box of that size can be that dry.
    """
    rng = generator("direction", number)
    call = direction.phrase(corpus, rng, SPLIT, int(rng.uniform(*direction.PHRASE_SECONDS) * RATE))
    call = sources.levelled(call)
    start = CALL_LEAD_FRAMES * FRAME
    samples = -(-(start + len(call) + round(CALL_AFTER * RATE)) // FRAME) * FRAME
    dry = np.zeros(samples, np.float32)
    dry[start : start + len(call)] = call
    first, last = _active(call)
    music = sources.excerpts(corpus, rng, "music", SPLIT, samples)[0]
    ref, path = echo.at_reference_level(rng, music), still_path(rng)
    point, field = noisy.dry_noise(corpus, rng, SPLIT, samples, direction.CLIP_NOISES)
    hiss = gain(SELF_NOISE) * rng.standard_normal((3, samples), np.float32)
    level = rng.uniform(*CALL_LEVEL)
    points = direction.point_noises(corpus, generator("points", number), SPLIT, samples, direction.MOST_POINTS)

    def conditions() -> Iterator[tuple[str, float, float, float | None, np.ndarray]]:
        for name, (rt60, snr, ser) in sets.DIRECTION_CONDITIONS.items():
            yield name, rt60, snr, ser, _noise_in(point, field, _room(number, rt60)[0])
        here = _room(number, sets.POINTS_RT60)[0]
        # The third one's place is another room's, as alike as rooms of that reverberation time are.
        places = here["noise 1"], here["noise 2"], _room(number + ANOTHER_ROOM, sets.POINTS_RT60)[0]["noise 1"]
        heard = [mixing.convolve(x, place) for x, place in zip(points, places)]
        for name, (count, snr) in sets.POINT_NOISES.items():
            yield name, sets.POINTS_RT60, snr, None, sum(heard[:count])

    for name, rt60, snr, ser, noise in conditions():
        responses, room = _room(number, rt60)
        near = mixing.convolve(dry, responses["talker"])
        louder = level - max(0.0, -(ser or 0.0))
        mics = at_power(near, active_power(near[0]), louder) + hiss
        mics = mics + at_power(noise, mixing.power(noise[0]), louder - snr)
        if ser is not None:
            echoes = echo.echo(path, ref, responses["loudspeaker"], responses["loudspeaker"])
            mics = mics + at_power(echoes, active_power(echoes[0]), louder - ser)
        way = int(room["onset"][0][0]) - SIMULATOR_DELAY
        yield (
            name,
            Call(
                mics * np.float32(min(1.0, PEAK / np.abs(mics).max())),
                None if ser is None else ref,
                (start + way + first) / RATE,
                (start + way + last) / RATE,
                float(room["heading"][0]),
            ),
        )


@functools.lru_cache(1 + len({rt60 for rt60, _, _ in sets.DIRECTION_CONDITIONS.values()}))
def _room(number: int, rt60: float) -> tuple[dict[str, np.ndarray], np.ndarray]:
    """Responses by source and record of a room with that reverberation time."""
    recipe = banks.Recipe(rt60_seconds=(rt60,) * len(banks.Recipe.rt60_seconds))
    responses, record = banks.simulate_room(sets.SEED, number, recipe)
    return dict(zip(banks.SOURCES, responses.astype(np.float32))), record


def noisy_talk(corpus: Corpus, rooms: TestRooms, number: int, seconds: float) -> np.ndarray:
    """[3, n] of talk, noise and music without the phrase."""
    samples = round(seconds * RATE) // FRAME * FRAME
    scene = noisy.draw_scene(corpus, rooms, generator("talk", number), samples, SPLIT)
    return noisy.mix([scene], lambda x: x)[0][0]


def playback_alone(corpus: Corpus, rooms: TestRooms, number: int, seconds: float) -> tuple[np.ndarray, np.ndarray]:
    """(mics [3, n], ref [n]): the device plays, nobody talks."""
    rng = generator("playback", number)
    samples = round(seconds * RATE) // FRAME * FRAME
    room = rooms.draw(rng, SPLIT)
    ref = echo.far_end(corpus, rng, SPLIT, samples)
    responses = rooms.responses(room, "loudspeaker")
    y = echo.echo(still_path(rng), ref, responses, responses)
    level = rng.uniform(*ECHO_LEVEL)
    noise = ambience(corpus, rng, rooms, room, samples)
    mics = at_power(y, active_power(y[0]), level)
    mics = mics + at_power(noise, mixing.power(noise[0]), level - QUIET_ROOM)
    return mics * np.float32(min(1.0, PEAK / np.abs(mics).max())), ref


def at_power(x: np.ndarray, power: np.ndarray | float, level: float) -> np.ndarray:
    """x, of which `power` is the power that counts, at `level` dBFS."""
    return x * np.float32(gain(level) / np.sqrt(power + 1e-20))


def still_path(rng: np.random.Generator) -> echo.Path:
    loudspeaker = echo.draw_loudspeaker(rng)
    return echo.Path(loudspeaker, rng.uniform(*echo.DRIVE), round(rng.uniform(*echo.DELAY) * RATE))


def ambience(corpus: Corpus, rng: np.random.Generator, rooms: TestRooms, room: int, samples: int) -> np.ndarray:
    point, field = noisy.dry_noise(corpus, rng, SPLIT, samples)
    places = {place: rooms.responses(room, place) for place in ("noise 1", "noise 2")}
    return _noise_in(point, field, places)


def _noise_in(point: np.ndarray, field: np.ndarray | None, responses: dict[str, np.ndarray]) -> np.ndarray:
    noise = sum(mixing.convolve(x, responses[place]) for x, place in zip(point, ("noise 1", "noise 2")))
    return noise if field is None else noise + field


def _active(x: np.ndarray) -> tuple[int, int]:
    """First and last sample of the frames within 30 dB of the loudest."""
    frames = (x[: len(x) // LEVEL_FRAME * LEVEL_FRAME].reshape(-1, LEVEL_FRAME) ** 2).mean(1)
    loud = np.flatnonzero(frames > frames.max() * 1e-3)
    return int(loud[0]) * LEVEL_FRAME, int(loud[-1] + 1) * LEVEL_FRAME
