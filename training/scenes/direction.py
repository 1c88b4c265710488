"""Somebody calling the device from a known heading: what the direction network learns from.

A clip is 3.2 s of three microphones as they leave the echo cancellers. Mostly it holds an
utterance as long as a wake phrase after a second or two of whatever else is heard. Stores per
split, see clip_store.py; making goes on where it stopped:

  mics.i16      [clips, 3, SAMPLES] int16
  active.u8     [clips, HOPS] whether the talker speaks, per 10 ms, as microphone 1 hears him
  raw/, suppressed/
                stores of the clips' features: as they are, and behind the library's own noise
                suppressors, which take turns as in the front end, one for each parameter file
    features.f16  [runs, RUN, HOPS, 3, VALUES] per hop: of each microphone pair the cross-correlation,
                  one lag more than the network takes; of each microphone the log-mel energies

From these the features of the turned and of the mirrored array follow by rearranging (arranged()):
the correlation of a pair the other way round is the same, backwards.

Levels as in noisy.py.
"""

from __future__ import annotations

import functools
import pathlib
from collections.abc import Callable

import numpy as np

from training import cache_keys, engine
from training.corpus import SPLITS, Corpus
from training.device_facts import (
    BLOCK,
    DIRECTION_FLOOR,
    FRAME,
    FRAMES_PER_BLOCK,
    FULL_SCALE,
    HOP,
    RATE,
    SUPPRESSOR_DELAY,
)
from training.library import Library
from training.scenes import clip_store, echo, mixing, sources
from training.scenes.audio import active_power, fade, gain
from training.scenes.bank import SOURCES, RoomBank
from training.scenes.noisy import MIC_GAIN, NOISES, PEAK, SELF_NOISE, background, dry_noise
from training.scenes.room import SIMULATOR_DELAY
from training.shared import Record, Tables

SAMPLES = 50 * FRAME
HOPS = SAMPLES // HOP

PLACES = {"talker": 0.5, "noise 1": 0.25, "noise 2": 0.25}  # where the talker is; noise has the others
KINDS = {"phrase": 0.75, "talk": 0.15, "nobody": 0.1}
PHRASE_SECONDS = (0.6, 1.2)
BEGIN = (0.9, 1.9)  # s
TALK_BEGIN = (0.2, 1.5)
PHRASE_CANDIDATES = 4  # stretches of talk, of which the loudest becomes the phrase
EDGE = 0.01  # s
SNR = (5.0, 30.0)  # dB
# In some clips noises at one to three points, which the room does not spread: the hardest to tell from a talker.
POINTS_SHARE, MOST_POINTS, POINTS_SNR = 0.35, 3, (0.0, 20.0)
POINT_KINDS = {"recorded": 0.5, "steady": 0.5}
POINT_LEVELS = (-6.0, 0.0)  # dB, of one against another
LEVEL = (-40.0, -15.0)  # dBFS of the louder of talker and echo
PLAYBACK_SHARE = 0.3
SER = (-20.0, 5.0)  # dB, before the canceller
LEARNING = 48 * FRAME  # of playback before the clip, in which the cancellers learn
# One more talker would be a second right answer.
CLIP_NOISES = {kind: share for kind, share in NOISES.items() if kind != "talker"}
ACTIVE_RANGE = 1e-3  # of power: 30 dB below the loudest 30 ms
RUN = 20  # clips that one device hears, one after the other
LAGS, BANDS = 41, 40
VALUES = LAGS + BANDS
PAIRS = ((0, 1), (0, 2), (1, 2))
TURN = 120.0  # degrees from one microphone to the next
ROLES = ("near", "far", "noise", "music")
RECIPE = (
    "device_facts",
    "scenes.array_geometry",
    "scenes.audio",
    "scenes.bank",
    "scenes.direction",
    "scenes.echo",
    "scenes.loudspeaker",
    "scenes.mixing",
    "scenes.noisy",
    "scenes.room",
    "scenes.sources",
    "scenes.steady",
)
HEARING = ("device_facts", "models.doa", "models.features", "scenes.direction")


def fields(samples: int) -> clip_store.Fields:
    return {
        "mics": ("mics.i16", np.int16, (3, samples)),
        "active": ("active.u8", np.uint8, (samples // HOP,)),
    }


def heard_fields(samples: int) -> clip_store.Fields:
    return {"features": ("features.f16", np.float16, (RUN, samples // HOP, 3, VALUES))}


def phrase(corpus: Corpus, rng: np.random.Generator, split: str, samples: int) -> np.ndarray:
    """A stretch of talk without a long pause in it."""
    track = sources.talk(corpus, rng, "near", split, 4 * samples, lead=0.0)
    starts = rng.integers(3 * samples, size=PHRASE_CANDIDATES)
    stretches = [track[s : s + samples] for s in starts]
    return fade(max(stretches, key=lambda x: (x * x).sum()), EDGE)


def speech(corpus: Corpus, rng: np.random.Generator, split: str, kind: str) -> np.ndarray:
    """The dry talker [SAMPLES]."""
    dry = np.zeros(SAMPLES, np.float32)
    if kind == "phrase":
        n = int(rng.uniform(*PHRASE_SECONDS) * RATE)
        begin = int(rng.uniform(*BEGIN) * RATE)
        dry[begin : begin + n] = sources.levelled(phrase(corpus, rng, split, n))
    elif kind == "talk":
        begin = int(rng.uniform(*TALK_BEGIN) * RATE)
        dry[begin:] = sources.talk(corpus, rng, "near", split, SAMPLES - begin, lead=0.0)
    return dry


def point_noises(corpus: Corpus, rng: np.random.Generator, split: str, samples: int, count: int) -> np.ndarray:
    """[count, samples]: dry noises, each from a place of its own."""
    kinds = rng.choice(list(POINT_KINDS), count, p=list(POINT_KINDS.values()))
    rows = [background(corpus, rng, split, samples, str(kind))[0] for kind in kinds]
    levels = gain(rng.uniform(*POINT_LEVELS, count))
    return np.float32([x * (g / np.sqrt(mixing.power(x) + 1e-20)) for x, g in zip(rows, levels)])


def activity(dry: np.ndarray, way: int) -> np.ndarray:
    """Whether a talker is heard in each hop; way: samples the sound takes to the microphone."""
    heard = np.concatenate([np.zeros(way, np.float32), dry[: len(dry) - way]])
    power = (heard.reshape(-1, HOP) ** 2).mean(1)
    power = np.convolve(power, np.ones(3) / 3, "same")
    return np.uint8(power > max(power.max() * ACTIVE_RANGE, 1e-12))


def to_int16(x: np.ndarray) -> np.ndarray:
    """As the front end converts the cancellers' output, without its wrap-around."""
    return np.int16(np.clip(np.trunc(x * FULL_SCALE), -32768, 32767))


def make_clip(
    corpus: Corpus, bank: RoomBank, library: Library, seed: int, split: str, number: int
) -> tuple[dict[str, np.ndarray], Record]:
    """Microphones and activity of one clip, and what is known about it."""
    rng = np.random.default_rng([seed, SPLITS.index(split), number])
    kind = str(rng.choice(list(KINDS), p=list(KINDS.values())))
    place = str(rng.choice(list(PLACES), p=list(PLACES.values())))
    room = bank.draw(rng, split)
    playing = rng.random() < PLAYBACK_SHARE
    snr, ser = rng.uniform(*SNR), rng.uniform(*SER) if playing else None
    lead = LEARNING if playing else 0
    samples = lead + SAMPLES

    dry = speech(corpus, rng, split, kind)
    near = np.zeros((3, samples), np.float32)
    near[:, lead:] = mixing.convolve(dry, bank.responses(room, place))
    if rng.random() < POINTS_SHARE:
        point, field = point_noises(corpus, rng, split, samples, int(rng.integers(1, MOST_POINTS + 1))), None
        snr = rng.uniform(*POINTS_SNR)
    else:
        point, field = dry_noise(corpus, rng, split, samples, CLIP_NOISES)
    noise = np.zeros((3, samples), np.float32) if field is None else field
    # A room has two places beside the talker's; a third noise comes from another room's.
    places = [(room, p) for p in PLACES if p != place] + [(bank.draw(rng, split), "noise 1")]
    for x, other in zip(point, places):
        if x.any():
            noise = noise + mixing.convolve(x, bank.responses(*other))

    level = rng.uniform(*LEVEL) - max(0.0, -(ser or 0.0))
    mic_gain = gain(rng.uniform(-MIC_GAIN, MIC_GAIN, (3, 1))).astype(np.float32)
    parts = [(near, active_power(near[0]), 0.0), (noise, mixing.power(noise[0]), -snr)]
    if playing:
        ref = echo.far_end(corpus, rng, split, samples)
        path = echo.draw_path(rng, samples)
        before, after = (bank.responses(r, "loudspeaker") for r in (room, bank.draw(rng, split)))
        echoes = echo.echo(path, ref, before, after)
        parts.append((echoes, active_power(echoes[0]), -ser))
    mics = sum(x * np.float32(gain(level + db) / np.sqrt(p + 1e-20)) for x, p, db in parts)
    hiss = np.float32(gain(rng.uniform(*SELF_NOISE)))
    mics = mics * mic_gain + hiss * rng.standard_normal((3, samples), np.float32)
    mics = mics * np.float32(min(1.0, PEAK / np.abs(mics).max()))
    if playing:
        ref = to_int16(ref)
        mics = np.stack([library.cancel(to_int16(m), ref)["out"] for m in mics])[:, lead:]

    source = SOURCES.index(place)
    way = int(bank.rooms["onset"][room][source][0]) - SIMULATOR_DELAY
    about = {
        "kind": kind,
        "room": int(room),
        "heading": float(bank.rooms["heading"][room][source]),
        "rt60": float(bank.rooms["rt60"][room]),
        "snr": float(snr),
        "ser": None if ser is None else float(ser),
    }
    return {"mics": to_int16(mics), "active": activity(dry, way)}, about


class Maker:
    """Clips by number, see clip_store.fill()."""

    def __init__(self, corpus: Corpus, bank: RoomBank, library: pathlib.Path, seed: int, split: str) -> None:
        self._scenes = corpus, bank, Library(library), seed, split

    def __call__(self, number: int) -> tuple[dict[str, np.ndarray], Record]:
        return make_clip(*self._scenes, number)


class Listener:
    """Features of runs of clips, see clip_store.fill(). tables: the noise suppressors', or None to
    hear the microphones as they are."""

    def __init__(self, path: pathlib.Path, library: pathlib.Path, tables: Tables | None) -> None:
        self._mics = clip_store.ClipStore(path, fields).signals["mics"]
        self._library, self._tables = library, tables

    def __call__(self, number: int) -> tuple[dict[str, np.ndarray], Record]:
        clips = self._mics[number * RUN : (number + 1) * RUN]
        if self._tables is not None:
            clips = suppressed(clips, self._library, self._tables)
        return {"features": features_of(clips)}, {}


def suppressed(clips: np.ndarray, library: pathlib.Path, tables: Tables) -> np.ndarray:
    """int16 [clips, 3, samples] as one device hears them one after the other, the delay taken off."""
    count, _, samples = clips.shape
    recording = np.pad(clips.transpose(1, 0, 2).reshape(3, -1), ((0, 0), (0, 3 * FRAME)))
    with engine.loaded(library, tables) as so:
        out = engine.suppress_noise(so, recording, DIRECTION_FLOOR)
    out = out[:, SUPPRESSOR_DELAY : SUPPRESSOR_DELAY + count * samples]
    return out.reshape(3, count, samples).transpose(1, 0, 2)


def features_of(clips: np.ndarray) -> np.ndarray:
    """int16 [clips, 3, samples] -> [clips, hops, 3, VALUES]."""
    import torch  # the evaluation draws its phrases here and does without

    from training.models import doa, features

    torch.set_num_threads(1)
    waves = torch.from_numpy(clips.astype(np.float32))
    gcc, mel = features.gcc_phat(waves, LAGS), features.log_mel(waves, doa.MEL_HISTORY)
    return torch.cat([gcc, mel], -1).transpose(1, 2).numpy()


def turned(heading: float, places: int, mirrored: bool) -> tuple[np.ndarray, float]:
    """An array turned by `places` microphones, or seen in a mirror, in the same sound: which
    microphones its own are, and the heading it hears."""
    order = [0, 1, 2]
    if mirrored:  # left and right change sides; microphone 1 is in the middle
        order, heading = [0, 2, 1], -heading
    return np.roll(order, -places), (heading - places * TURN) % 360.0


def arranged(features: np.ndarray, order: np.ndarray) -> np.ndarray:
    """[hops, 3, VALUES] of one array -> the network's [4, hops, 40] for the array whose microphone
    m is the first one's order[m]."""
    gcc, mel = features[..., :LAGS], features[..., LAGS:]
    pairs = []
    for a, b in PAIRS:
        a, b = order[a], order[b]
        c = gcc[:, PAIRS.index((min(a, b), max(a, b)))]
        pairs.append((c if a < b else c[:, ::-1])[:, : LAGS - 1])
    return np.stack([*pairs, mel[:, order[0]]])


def made_from(corpus: Corpus, bank: RoomBank, library: pathlib.Path, seed: int, split: str) -> Record:
    """What the clips of a split are a function of, beside their number (cache_keys.py)."""
    return {
        "seed": seed,
        "split": split,
        "samples": SAMPLES,
        "library": cache_keys.file_digest(library),
        "corpus": corpus.used(ROLES, split),
        "bank": bank.contents(bank.numbers(split)),
        "recipe": cache_keys.constants(*RECIPE),
    }


def heard_from(suppressor: pathlib.Path | None) -> Record:
    """What their features are a function of, beside the clips; suppressor: parameter file or None."""
    return {
        "samples": SAMPLES,
        "suppressor": suppressor and cache_keys.file_digest(suppressor),
        "recipe": cache_keys.constants(*HEARING),
    }


def heard_folder(path: pathlib.Path, suppressor: pathlib.Path | None) -> pathlib.Path:
    return path / ("suppressed" if suppressor else "raw")


class DirectionClips:
    """List of the first `clips` clips of a folder, heard as they are or behind the suppressors."""

    def __init__(self, path: pathlib.Path | str, suppressor: pathlib.Path, clips: int) -> None:
        self.path = pathlib.Path(path)
        self._suppressor = suppressor
        self._store = clip_store.ClipStore(self.path, fields)
        self.about = self._store.made[:clips]

    def __len__(self) -> int:
        return len(self.about)

    @functools.cache
    def _heard(self, suppressed: bool) -> np.ndarray:
        suppressor = self._suppressor if suppressed else None
        parent = heard_folder(self.path, suppressor)
        folder = cache_keys.folder(parent, heard_from(suppressor))
        return clip_store.ClipStore(folder, heard_fields).signals["features"]

    def excerpt(self, clip: int, first_hop: int, blocks: int, suppressed: bool) -> tuple[np.ndarray, np.ndarray]:
        """Features [hops, 3, VALUES] from a hop on, and whether the talker speaks in each block: in
        two of its three hops."""
        hops = slice(first_hop, first_hop + blocks * FRAMES_PER_BLOCK)
        active = self._store.signals["active"][clip, hops].reshape(blocks, FRAMES_PER_BLOCK)
        return self._heard(suppressed)[clip // RUN, clip % RUN, hops], active.sum(1) >= 2


def direction_clips(
    corpus: Corpus,
    bank: RoomBank,
    path: pathlib.Path,
    clips: int,
    seed: int,
    split: str,
    library: pathlib.Path,
    suppressor: pathlib.Path,
    jobs: int = 1,
    progress: Callable[[int, int], object] = lambda done, clips: None,
) -> DirectionClips:
    """Makes, or goes on making, the clips of a split, whole runs of them, in the folder `path`
    beside those made from anything else. library: path of the shared library; suppressor: parameter
    file of its noise suppressor. Returns the clips."""
    from training import export  # PyTorch, see features_of()

    runs = -(-clips // RUN)
    scenes = corpus, bank, library, seed, split
    folder = clip_store.fill(path, fields, made_from(*scenes), runs * RUN, Maker, scenes, jobs, progress)
    for through in (None, suppressor):
        arguments = folder, library, through and export.read(through)
        heard = heard_folder(folder, through), heard_fields, heard_from(through)
        clip_store.fill(*heard, runs, Listener, arguments, jobs, progress)
    return DirectionClips(folder, suppressor, clips)


def batch(
    clips: DirectionClips, rng: np.random.Generator, size: int, seconds: float, raw: float, gain_db: tuple[float, float]
) -> dict[str, np.ndarray]:
    """features [size, 4, frames, 40]; heading [size] in degrees; active [size, blocks].

    Arrays are turned and mirrored at random. raw: share of excerpts without noise suppressor;
    gain_db: range of level changes.
    """
    blocks = round(seconds * RATE) // BLOCK
    features = np.empty((size, 4, blocks * FRAMES_PER_BLOCK, BANDS), np.float32)
    headings, active = np.empty(size, np.float32), np.empty((size, blocks), np.float32)
    for i in range(size):
        clip = int(rng.integers(len(clips)))
        first = int(rng.integers(HOPS - blocks * FRAMES_PER_BLOCK + 1))
        heard, active[i] = clips.excerpt(clip, first, blocks, rng.random() >= raw)
        heading = clips.about[clip]["heading"]
        order, headings[i] = turned(heading, int(rng.integers(3)), rng.random() < 0.5)
        features[i] = arranged(heard, order)
        features[i, 3] += 2.0 * np.log(gain(rng.uniform(*gain_db)))  # energies, natural logarithm
    return {"features": features, "heading": headings, "active": active}
