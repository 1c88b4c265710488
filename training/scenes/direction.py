"""Somebody calling the device from a known heading: what the direction network learns from.

A clip is 3.2 s of three microphones as they leave the echo cancellers. Mostly it holds an
utterance as long as a wake phrase after a second or two of whatever else is heard. Two stores per
split, see clip_store.py; a maker of one goes on where it stopped:

  mics.i16        [clips, 3, SAMPLES] int16
  active.u8       [clips, HOPS] whether the talker speaks, per 10 ms, as microphone 1 hears him
  suppressed-ID/  the same microphones through the noise suppressors, ID from their parameters' hash:
    mics.i16      the library's own, taking turns as in the front end, their delay taken off

Levels as in noisy.py.
"""

import hashlib
import pathlib

import numpy as np

from training import engine
from training.corpus import SPLITS
from training.library import FRAME, Library
from training.scenes import clip_store, echo, mixing, sources
from training.scenes.audio import RATE, active_power, fade, gain
from training.scenes.bank import SOURCES
from training.scenes.noisy import MIC_GAIN, NOISES, PEAK, SELF_NOISE, dry_noise
from training.scenes.room import SIMULATOR_DELAY

SAMPLES = 50 * FRAME
HOP = 160
HOPS = SAMPLES // HOP
HOPS_PER_BLOCK = engine.BLOCK // HOP

PLACES = {"talker": 0.5, "noise 1": 0.25, "noise 2": 0.25}  # where the talker is; noise has the others
KINDS = {"phrase": 0.75, "talk": 0.15, "nobody": 0.1}
PHRASE = (0.6, 1.2)  # s
BEGIN = (0.9, 1.9)  # s
TALK_BEGIN = (0.2, 1.5)
PHRASE_CANDIDATES = 4  # stretches of talk, of which the loudest becomes the phrase
EDGE = 0.01  # s
SNR = (5.0, 30.0)  # dB
LEVEL = (-40.0, -15.0)  # dBFS of the louder of talker and echo
PLAYBACK_SHARE = 0.3
SER = (-20.0, 5.0)  # dB, before the canceller
LEARNING = 48 * FRAME  # of playback before the clip, in which the cancellers learn
# One more talker would be a second right answer.
CLIP_NOISES = {kind: share for kind, share in NOISES.items() if kind != "talker"}
ACTIVE_RANGE = 1e-3  # of power: 30 dB below the loudest 30 ms
RUN = 20  # clips that one device hears, one after the other
TURN = 120.0  # degrees from one microphone to the next


def fields(samples):
    return {
        "mics": ("mics.i16", np.int16, (3, samples)),
        "active": ("active.u8", np.uint8, (samples // HOP,)),
    }


def suppressed_fields(samples):
    return {"mics": ("mics.i16", np.int16, (RUN, 3, samples))}


def phrase(corpus, rng, split, samples):
    """A stretch of talk without a long pause in it."""
    track = sources.talk(corpus, rng, "near", split, 4 * samples, lead=0.0)
    starts = rng.integers(3 * samples, size=PHRASE_CANDIDATES)
    stretches = [track[s : s + samples] for s in starts]
    return fade(max(stretches, key=lambda x: (x * x).sum()), EDGE)


def speech(corpus, rng, split, kind):
    """The dry talker [SAMPLES]."""
    dry = np.zeros(SAMPLES, np.float32)
    if kind == "phrase":
        n = int(rng.uniform(*PHRASE) * RATE)
        begin = int(rng.uniform(*BEGIN) * RATE)
        dry[begin : begin + n] = sources.levelled(phrase(corpus, rng, split, n))
    elif kind == "talk":
        begin = int(rng.uniform(*TALK_BEGIN) * RATE)
        dry[begin:] = sources.talk(corpus, rng, "near", split, SAMPLES - begin, lead=0.0)
    return dry


def activity(dry, way):
    """Whether a talker is heard in each hop; way: samples the sound takes to the microphone."""
    heard = np.concatenate([np.zeros(way, np.float32), dry[: len(dry) - way]])
    power = (heard.reshape(-1, HOP) ** 2).mean(1)
    power = np.convolve(power, np.ones(3) / 3, "same")
    return np.uint8(power > max(power.max() * ACTIVE_RANGE, 1e-12))


def to_int16(x):
    """As the front end converts the cancellers' output, without its wrap-around."""
    return np.int16(np.clip(np.trunc(x * 32768.0), -32768, 32767))


def make_clip(corpus, bank, library, seed, split, number):
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
    point, field = dry_noise(corpus, rng, split, samples, CLIP_NOISES)
    noise = np.zeros((3, samples), np.float32) if field is None else field
    for x, other in zip(point, (p for p in PLACES if p != place)):
        if x.any():
            noise = noise + mixing.convolve(x, bank.responses(room, other))

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

    def __init__(self, corpus, bank, library, seed, split):
        self._scenes = corpus, bank, Library(library), seed, split

    def __call__(self, number):
        return make_clip(*self._scenes, number)


class Suppressor:
    """Runs of clips through the noise suppressors."""

    def __init__(self, path, library, tables):
        self._mics = clip_store.ClipStore(path, fields).signals["mics"]
        self._library, self._tables = library, tables

    def __call__(self, number):
        clips = self._mics[number * RUN : (number + 1) * RUN]
        return {"mics": suppressed(clips, self._library, self._tables)}, {}


def suppressed(clips, library, tables):
    """int16 [clips, 3, samples] as one device hears them one after the other, aligned."""
    count, _, samples = clips.shape
    recording = np.pad(clips.transpose(1, 0, 2).reshape(3, -1), ((0, 0), (0, 3 * FRAME)))
    with engine.loaded(library, tables) as so:
        out = engine.suppress_noise(so, recording, engine.DIRECTION_FLOOR)
    delay = engine.SUPPRESSOR_DELAY
    out = out[:, delay : delay + count * samples]
    return out.reshape(3, count, samples).transpose(1, 0, 2)


def parameters_id(path):
    return hashlib.sha256(pathlib.Path(path).read_bytes()).hexdigest()[:16]


class DirectionClips:
    """List of clips, microphones as they are and suppressed."""

    def __init__(self, path, suppressor):
        path = pathlib.Path(path)
        self._store = clip_store.ClipStore(path, fields)
        folder = path / f"suppressed-{parameters_id(suppressor)}"
        runs = clip_store.ClipStore(folder, suppressed_fields).signals["mics"]
        self._mics = {False: self._store.signals["mics"], True: runs.reshape(-1, 3, SAMPLES)}
        self.about = self._store.made

    def __len__(self):
        return len(self._store)

    def excerpt(self, clip, first_hop, blocks, suppressed):
        """int16 [3, blocks of samples] from a hop on, and whether the talker speaks in each block:
        in two of its three hops."""
        hops = slice(first_hop, first_hop + blocks * HOPS_PER_BLOCK)
        active = self._store.signals["active"][clip, hops].reshape(blocks, HOPS_PER_BLOCK)
        mics = self._mics[suppressed][clip, :, hops.start * HOP : hops.stop * HOP]
        return mics, active.sum(1) >= 2


def direction_clips(
    corpus,
    bank,
    path,
    clips,
    seed,
    split,
    library,
    suppressor,
    jobs=1,
    progress=lambda done, clips: None,
):
    """Makes, or goes on making, the clips of a split, whole runs of them. library: path of the
    shared library; suppressor: parameter file of its noise suppressor. Returns the clips."""
    from training import export  # PyTorch, without which the rest of this does

    path = pathlib.Path(path)
    runs = -(-clips // RUN)
    wanted = {
        "seed": seed,
        "split": split,
        "samples": SAMPLES,
        "corpus": corpus.digest(),
        "bank": bank.digest(),
    }
    scenes = corpus, bank, library, seed, split
    clip_store.fill(path, fields, wanted, runs * RUN, Maker, scenes, jobs, progress)
    wanted = {**wanted, "suppressor": parameters_id(suppressor)}
    folder = path / f"suppressed-{wanted['suppressor']}"
    device = path, library, export.read(suppressor)
    clip_store.fill(folder, suppressed_fields, wanted, runs, Suppressor, device, jobs)
    return DirectionClips(path, suppressor)


def turned(mics, heading, places, mirrored):
    """What an array turned by `places` microphones, or seen in a mirror, hears of the same sound:
    microphones [3, n] and heading."""
    if mirrored:  # left and right change sides; microphone 1 is in the middle
        mics, heading = mics[[0, 2, 1]], -heading
    return np.roll(mics, -places, axis=0), (heading - places * TURN) % 360.0


def batch(clips, rng, size, seconds, raw, gain_db):
    """mics: int16 values [size, 3, T]; heading [size] in degrees; active [size, blocks].

    Arrays are turned and mirrored at random. raw: share of excerpts without noise suppressor;
    gain_db: range of level changes.
    """
    blocks = round(seconds * RATE) // engine.BLOCK
    mics = np.empty((size, 3, blocks * engine.BLOCK), np.float32)
    headings, active = np.empty(size, np.float32), np.empty((size, blocks), np.float32)
    for i in range(size):
        clip = int(rng.integers(len(clips)))
        first = int(rng.integers(HOPS - blocks * HOPS_PER_BLOCK + 1))
        x, active[i] = clips.excerpt(clip, first, blocks, rng.random() >= raw)
        heading = clips.about[clip]["heading"]
        x, headings[i] = turned(x, heading, int(rng.integers(3)), rng.random() < 0.5)
        peak = np.abs(x.astype(np.int32)).max() + 1
        mics[i] = np.round(x * np.float32(min(gain(rng.uniform(*gain_db)), 32767 / peak)))
    return {"mics": mics, "heading": headings, "active": active}
