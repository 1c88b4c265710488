"""The room bank: impulse responses of a few thousand simulated rooms, made once, used by every network.

Each room holds four sources, SOURCES, heard by the three microphones of an array that stands
anywhere in it, turned anyhow. A response is built in two parts:

- up to MIXING_TIME the image-source method (pyroomacoustics), with the room's absorption;
- then exponentially decaying noise at the level the image sources have reached there on average,
  each octave with its own decay, coherent between the microphones as a diffuse field is. That costs
  a hundredth of following the images to the end, and gives the reverberation time asked for.

A bank is a folder:
  bank.json       seed, Recipe, digests of the simulation's constants, number of rooms, digest of these
  responses.f16   [rooms, SOURCES, microphones, TAPS] float16, each source's peak at 1
  rooms.npy       a record per room, see ROOM_DTYPE
Room i is a function of seed, i, Recipe and constants; building goes on where it stopped.
"""

from __future__ import annotations

import argparse
import dataclasses
import hashlib
import json
import math
import os
import pathlib
import time
import typing
from collections.abc import Callable
from concurrent.futures import ProcessPoolExecutor

import numpy as np
import pyroomacoustics as pra
import scipy.fft

from training import cache_keys
from training.scenes import array_geometry
from training.scenes.audio import RATE
from training.scenes.room import SIMULATOR_DELAY, Room
from training.shared import Record

SPEED_OF_SOUND = 343.0
SOURCES = ("talker", "loudspeaker", "noise 1", "noise 2")
TAPS = 16384  # 1.02 s; the longest reverberation has fallen by 38 dB there
MIXING_TIME = 0.06  # s: later, images are too many and too weak to be told apart
CROSSFADE = 0.01  # s, around MIXING_TIME
DECAY_FLOOR_DB = 60.0  # responses end when they have decayed this much

OCTAVES = (250.0, 500.0, 1000.0, 2000.0, 4000.0)  # crossovers of the tail's bands, Hz


@dataclasses.dataclass(frozen=True)
class Recipe:
    """What rooms are drawn from; pairs are ranges of uniform distributions, lengths in metres."""

    # RT60 in seconds at cumulative probabilities: the spread measured on rooms in which voice
    # devices stand (published echo-cancellation corpora), its tails cut to what a home can have.
    rt60_probability: tuple = (0.0, 0.25, 0.5, 0.75, 0.95, 1.0)
    rt60_seconds: tuple = (0.11, 0.18, 0.28, 0.60, 1.35, 1.6)
    smallest_room: tuple = (3.0, 3.0, 2.5)
    largest_room: tuple = (10.0, 8.0, 4.0)
    device_height: tuple = (0.3, 1.2)
    talker_distance: tuple = (0.5, 5.0)
    talker_height: tuple = (1.0, 1.8)
    noise_distance: tuple = (0.5, 7.0)
    noise_height: tuple = (0.1, 2.2)
    loudspeaker_depth: tuple = (0.03, 0.09)
    mic_tolerance: float = 0.002  # of each coordinate, either way
    wall_margin: float = 0.3  # of sources and array


ROOM_DTYPE = np.dtype(
    [
        ("done", bool),
        ("rt60", "f4"),  # s, broadband, as asked for
        ("taps", "i4"),  # length of the responses
        ("size", "f4", 3),  # m
        ("array", "f4", 3),  # m, room coordinates
        ("microphones", "f4", (3, 3)),  # m, array frame
        ("position", "f4", (len(SOURCES), 3)),  # m, array frame
        ("heading", "f4", len(SOURCES)),  # degrees, docs/array.md
        ("onset", "i4", (len(SOURCES), 3)),  # tap of the direct sound
        ("scale", "f4", len(SOURCES)),  # response = scale x stored; direct sound 1 at 1 m
    ]
)

SPLITS = ("train", "valid", "test")


def split_of(room: int) -> str:
    """Split of room number `room`: 80 % train, 10 % valid, 10 % test, whatever the bank's size."""
    return SPLITS[max(0, room % 10 - 7)]


def draw_rt60(rng: np.random.Generator, recipe: Recipe) -> float:
    quantiles = np.log(recipe.rt60_seconds)
    return float(np.exp(np.interp(rng.random(), recipe.rt60_probability, quantiles)))


def draw_room(rng: np.random.Generator, recipe: Recipe) -> Room:
    """Room with its array; walls absorb unequally, within what walls can."""
    rt60 = draw_rt60(rng, recipe)
    while True:
        size = rng.uniform(recipe.smallest_room, recipe.largest_room)
        array = rng.uniform(recipe.wall_margin, size - recipe.wall_margin)
        array[2] = rng.uniform(*recipe.device_height)
        room = Room(tuple(size), tuple(array), rt60, tuple(rng.uniform(0.5, 1.0, 6)))
        try:
            if max(room.absorption().values()) < 0.97:
                return room
        except ValueError:
            pass  # this box cannot be that dead


def draw_position(
    rng: np.random.Generator, room: Room, distances: tuple[float, float], heights: tuple[float, float], margin: float
) -> np.ndarray:
    """Array-frame offset of a source inside the room; headings are uniform where the room allows."""
    while True:
        height = rng.uniform(*heights) - room.array[2]
        offset = array_geometry.offset(rng.uniform(0, 360), rng.uniform(*distances), height)
        place = room.place(offset)
        if np.all(place > margin) and np.all(place < np.array(room.size) - margin):
            return offset


def early_responses(room: Room, microphones: np.ndarray, sources: np.ndarray) -> np.ndarray:
    """Image-source responses [sources, 3, taps] that are complete until the crossfade ends."""
    reach = SPEED_OF_SOUND * (MIXING_TIME + CROSSFADE)
    shoebox = pra.ShoeBox(
        room.size,
        fs=RATE,
        materials={wall: pra.Material(a) for wall, a in room.absorption().items()},
        max_order=math.ceil(reach / min(room.size)),
        air_absorption=True,
    )
    shoebox.add_microphone_array(np.stack([room.place(m) for m in microphones], axis=1))
    for source in sources:
        shoebox.add_source(room.place(source))
    shoebox.compute_rir()
    taps = round((MIXING_TIME + CROSSFADE) * RATE) + SIMULATOR_DELAY
    early = np.zeros((len(sources), len(microphones), taps))
    for m, responses in enumerate(shoebox.rir):
        for s, response in enumerate(responses):
            part = response[:taps]
            early[s, m, : len(part)] = part
    return early


def diffuse(noise: np.ndarray, spacing: float) -> np.ndarray:
    """Independent noises [..., 3, n] mixed to the coherence a diffuse field has between microphones
    `spacing` m apart, sin(kd) / (kd)."""
    n = noise.shape[-1]
    s = np.sinc(2.0 * scipy.fft.rfftfreq(n, 1.0 / RATE) * spacing / SPEED_OF_SOUND)
    # Square root of the matrix with ones on its diagonal and s elsewhere.
    own = np.sqrt(1.0 - s)
    shared = (np.sqrt(1.0 + 2.0 * s) - own) / 3.0
    spectrum = scipy.fft.rfft(noise)
    mixed = own * spectrum + shared * spectrum.sum(axis=-2, keepdims=True)
    return scipy.fft.irfft(mixed.astype(spectrum.dtype), n)


def tail(rng: np.random.Generator, room: Room, band_rt60: np.ndarray, taps: int) -> np.ndarray:
    """Late reverberation [len(SOURCES), 3, taps] from time 0 on; valid after the mixing time."""
    volume = math.prod(room.size)
    t = np.arange(taps, dtype=np.float32) / RATE
    # Images per second at time t: 4 pi c^3 t^2 / V; power of each: 1 / (c t)^2 less absorption.
    density = 4.0 * math.pi * SPEED_OF_SOUND / (volume * RATE)
    power = density * 10 ** (-6.0 * MIXING_TIME / room.rt60)
    noise = rng.standard_normal((len(SOURCES), 3, taps), np.float32) * np.float32(math.sqrt(power))
    spectrum = scipy.fft.rfft(diffuse(noise, math.sqrt(3.0) * array_geometry.MIC_RADIUS))
    # Bands half an octave apart at their edges, adding up to one.
    octave = np.log2(np.maximum(scipy.fft.rfftfreq(taps, 1.0 / RATE), 1.0))
    rises = [np.clip(octave - np.log2(edge) + 0.5, 0.0, 1.0) for edge in OCTAVES]
    result = np.zeros_like(noise)
    for low, high, rt60 in zip([np.ones_like(octave), *rises], [*rises, 0.0], band_rt60):
        decay = 10 ** (-3.0 * (t - MIXING_TIME) / rt60)
        result += scipy.fft.irfft(spectrum * (low - high).astype(np.float32), taps) * decay
    return result


def simulate_room(seed: int, number: int, recipe: Recipe = Recipe()) -> tuple[np.ndarray, np.ndarray]:
    """The responses float32 [SOURCES, 3, TAPS] and the record of room `number`."""
    rng = np.random.default_rng([seed, number])
    room = draw_room(rng, recipe)
    tolerance, margin = recipe.mic_tolerance, recipe.wall_margin
    microphones = array_geometry.mic_offsets() + rng.uniform(-tolerance, tolerance, (3, 3))
    noise = recipe.noise_distance, recipe.noise_height, margin
    sources = np.stack(
        [
            draw_position(rng, room, recipe.talker_distance, recipe.talker_height, margin),
            [0.0, 0.0, -rng.uniform(*recipe.loudspeaker_depth)],
            draw_position(rng, room, *noise),
            draw_position(rng, room, *noise),
        ]
    )
    # High frequencies die a little earlier; every room deviates from that in its own way.
    slope = np.linspace(1.15, 0.91, len(OCTAVES) + 1)
    band_rt60 = room.rt60 * slope * np.exp(rng.normal(0.0, 0.1, len(OCTAVES) + 1))
    taps = min(TAPS, SIMULATOR_DELAY + round(room.rt60 * DECAY_FLOOR_DB / 60.0 * 1.1 * RATE))
    taps = max(taps, SIMULATOR_DELAY + round((MIXING_TIME + 2 * CROSSFADE) * RATE))

    responses = np.zeros((len(SOURCES), 3, TAPS), np.float32)
    late = tail(rng, room, band_rt60, taps - SIMULATOR_DELAY)
    t = np.arange(taps - SIMULATOR_DELAY) / RATE
    angle = np.pi / 2 * np.clip((t - MIXING_TIME) / CROSSFADE + 0.5, 0.0, 1.0)
    responses[:, :, SIMULATOR_DELAY:taps] = late * np.sin(angle)
    early = early_responses(room, microphones, sources)
    n = min(early.shape[2], taps)
    fade = np.ones(n)
    fade[SIMULATOR_DELAY:] = np.cos(angle[: n - SIMULATOR_DELAY])
    responses[:, :, :n] += early[:, :, :n] * fade
    end = round(0.01 * RATE)
    responses[:, :, taps - end : taps] *= np.linspace(1.0, 0.0, end, dtype=np.float32)

    record = np.zeros((), ROOM_DTYPE)
    record["done"], record["rt60"], record["taps"] = True, room.rt60, taps
    record["size"], record["array"] = room.size, room.array
    record["microphones"], record["position"] = microphones, sources
    record["heading"] = [array_geometry.heading_of(s) for s in sources]
    distance = np.linalg.norm(sources[:, None] - microphones[None], axis=2)
    record["onset"] = np.round(distance / SPEED_OF_SOUND * RATE) + SIMULATOR_DELAY
    scale = np.abs(responses).max(axis=(1, 2))
    record["scale"] = scale
    return responses / scale[:, None, None], record


class Rooms(typing.Protocol):
    """What a scene asks of a bank, or of a part of one."""

    rooms: np.ndarray

    def draw(self, rng: np.random.Generator, split: str) -> int: ...

    def responses(self, room: int, source: str) -> np.ndarray: ...


class RoomBank:
    """A built bank. Rooms are handed out by split; responses are float32."""

    def __init__(self, path: pathlib.Path | str) -> None:
        self.path = pathlib.Path(path)
        self.description = json.loads((self.path / "bank.json").read_text(encoding="utf-8"))
        self.rooms = np.load(self.path / "rooms.npy", mmap_mode="r")
        self._responses = np.memmap(self.path / "responses.f16", np.float16, "r", shape=_shape(len(self.rooms)))
        done = np.flatnonzero(self.rooms["done"])
        self._by_split = {s: [int(i) for i in done if split_of(i) == s] for s in SPLITS}

    def __reduce__(self) -> tuple[type, tuple[pathlib.Path]]:
        return RoomBank, (self.path,)  # worker processes map the files themselves

    def __len__(self) -> int:
        return sum(len(rooms) for rooms in self._by_split.values())

    def numbers(self, split: str) -> list[int]:
        """Numbers of the rooms of a split that are built."""
        return self._by_split[split]

    def draw(self, rng: np.random.Generator, split: str) -> int:
        numbers = self._by_split[split]
        if not numbers:
            raise ValueError(f"{self.path}: no {split} room in a bank of {len(self)}")
        return numbers[rng.integers(len(numbers))]

    def responses(self, room: int, source: str) -> np.ndarray:
        """Responses float32 [3, taps] of the source named `source` in room number `room`."""
        taps = self.rooms["taps"][room]
        return self._responses[room, SOURCES.index(source), :, :taps].astype(np.float32)

    def digest(self) -> str:
        return self.description["digest"]

    def contents(self, numbers: list[int]) -> str:
        """Digest of the rooms with these numbers: a bank that grows is not another one for what uses only them."""
        made = {name: self.description[name] for name in ("seed", "recipe", "constants")}
        return cache_keys.digest([made, list(numbers), self.rooms[list(numbers)].tobytes()])


def _shape(rooms: int) -> tuple[int, int, int, int]:
    return rooms, len(SOURCES), 3, TAPS


def _simulate(arguments: tuple[int, int, Recipe]) -> tuple[np.ndarray, np.ndarray]:
    os.environ["OMP_NUM_THREADS"] = "1"
    return simulate_room(*arguments)


def build_bank(
    path: pathlib.Path | str,
    rooms: int,
    seed: int,
    jobs: int = 1,
    recipe: Recipe = Recipe(),
    progress: Callable[[int, int], object] = lambda done, rooms: None,
) -> RoomBank:
    """Builds, or goes on building, a bank of `rooms` rooms; a bank grows when asked for more."""
    path = pathlib.Path(path)
    path.mkdir(parents=True, exist_ok=True)
    description = {
        "seed": seed,
        "recipe": _listed(recipe),
        "constants": cache_keys.constants("scenes.array_geometry", "scenes.bank", "scenes.room"),
    }
    file = path / "bank.json"
    if file.exists():
        before = json.loads(file.read_text(encoding="utf-8"))
        other = [name for name, value in description.items() if before.get(name) != value]
        if other:
            raise ValueError(f"{path} holds a bank of another {', another '.join(other)}: move it away")
        rooms = max(rooms, before["rooms"])
    records = np.zeros(rooms, ROOM_DTYPE)
    if (path / "rooms.npy").exists():
        old = np.load(path / "rooms.npy")
        records[: len(old)] = old
    _save(path, description, records)
    with open(path / "responses.f16", "ab") as f:
        f.truncate(math.prod(_shape(rooms)) * 2)
    responses = np.memmap(path / "responses.f16", np.float16, "r+", shape=_shape(rooms))

    missing = [int(i) for i in np.flatnonzero(~records["done"])]
    work = [(seed, i, recipe) for i in missing]
    with ProcessPoolExecutor(jobs) as pool:
        saved = time.monotonic()
        for i, (response, record) in zip(missing, pool.map(_simulate, work, chunksize=4)):
            responses[i], records[i] = response, record
            if time.monotonic() - saved > 20.0:
                responses.flush()
                _save(path, description, records)
                saved = time.monotonic()
            progress(int(records["done"].sum()), rooms)
    responses.flush()
    _save(path, description, records)
    return RoomBank(path)


def _listed(recipe: Recipe) -> Record:
    """The recipe as it comes back from JSON."""
    return json.loads(json.dumps(dataclasses.asdict(recipe)))


def _save(path: pathlib.Path, description: Record, records: np.ndarray) -> None:
    """Each file is replaced whole, so that a reader or a restart never meets half of one."""
    digest = hashlib.sha256(json.dumps(description, sort_keys=True).encode())
    digest.update(str(len(records)).encode())
    description = {**description, "rooms": len(records), "digest": digest.hexdigest()[:16]}
    part = path / "rooms.part.npy"
    np.save(part, records)
    part.replace(path / "rooms.npy")
    part = path / "bank.json.part"
    part.write_text(json.dumps(description, indent=1), encoding="utf-8")
    part.replace(path / "bank.json")


def load_bank(path: pathlib.Path | str) -> RoomBank:
    return RoomBank(path)


def main() -> None:
    parser = argparse.ArgumentParser(description="Builds a room bank, or goes on building it.")
    parser.add_argument("path")
    parser.add_argument("--rooms", type=int, default=3000)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--jobs", type=int, default=1)
    args = parser.parse_args()
    started = time.monotonic()
    bank = build_bank(args.path, args.rooms, args.seed, args.jobs)
    seconds = time.monotonic() - started
    quantiles = np.quantile(bank.rooms["rt60"], (0.25, 0.5, 0.75, 0.95))
    print(f"{len(bank)} rooms in {seconds:.0f} s, RT60 quantiles {np.round(quantiles, 3)} s")


if __name__ == "__main__":
    main()
