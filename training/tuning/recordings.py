"""A person's recordings, as the wake-up engine hears them on the device."""

from __future__ import annotations

import math
import pathlib
from types import ModuleType

import numpy as np
import soundfile
from numpy.typing import NDArray
from scipy import signal

from training.device_facts import FULL_SCALE, MEAN_FACTOR, RATE

SUFFIXES = {f".{name}" for name in "aif aiff au caf flac mp3 oga ogg opus rf64 w64 wav".split()}
RAW_SUFFIXES = {".pcm", ".raw"}


class Unreadable(Exception):
    """A recording cannot be used; the reason is a line."""


def find(folder: pathlib.Path, raw: str) -> list[pathlib.Path]:
    """The recordings of a folder and of those inside it."""
    if not folder.is_dir():
        raise Unreadable(f"{folder}: no such folder")
    wanted = SUFFIXES | (RAW_SUFFIXES if raw else set())
    found = sorted(p for p in folder.rglob("*") if p.suffix.lower() in wanted and not p.name.startswith("."))
    if not found:
        hint = (
            "" if raw or not any(p.suffix.lower() in RAW_SUFFIXES for p in folder.rglob("*")) else "; --raw says what .pcm are"
        )
        raise Unreadable(f"{folder}: no recordings ({', '.join(sorted(s[1:] for s in wanted))}){hint}")
    return found


def heard(path: pathlib.Path, channels: str = "", raw: str = "") -> tuple[NDArray[np.int16], list[str]]:
    """(int16 [n] that the wake-up engine hears of a recording, what to know of it: a line each).

    Several channels go through the front end's cancellers and are averaged, as on the device. One channel is taken for that
    average: a recording without playback.
    """
    if not (raw and path.suffix.lower() in RAW_SUFFIXES):
        try:
            about = soundfile.info(path)
        except (soundfile.SoundFileError, OSError) as error:
            raise Unreadable(f"{path}: {error}") from None
        if about.samplerate < RATE:
            raise Unreadable(
                f"{path}: {about.samplerate} Hz; the wake-up engine hears up to 8 kHz: record at {RATE} Hz or more"
            )
        if about.frames == 0:
            raise Unreadable(f"{path}: no samples in it")
        if about.channels == 1:
            return mono(path), ["one channel: no echo is cancelled"]
    return front_end(path, channels, raw)


def mono(path: pathlib.Path) -> NDArray[np.int16]:
    x, rate = soundfile.read(path, dtype="float32")
    if not np.isfinite(x).all():
        raise Unreadable(f"{path}: samples that are not numbers")
    if rate != RATE:
        common = math.gcd(rate, RATE)
        x = signal.resample_poly(x, RATE // common, rate // common)
    return np.int16(np.clip(np.round(x * FULL_SCALE), -32768, 32767))


def front_end(path: pathlib.Path, channels: str, raw: str) -> tuple[NDArray[np.int16], list[str]]:
    import quibo  # the package that ./run tune builds; one channel does without

    try:
        recording = quibo.read(path, channels=channels, raw=raw)
    except (OSError, ValueError) as error:
        raise Unreadable(f"{error}") from None
    mics = np.stack([cancelled(quibo, mic, recording.ref) for mic in recording.mics])
    total = mics[0].astype(np.float32) + mics[1] + mics[2]
    return np.int16(total * np.float32(MEAN_FACTOR)), list(recording.warnings)


def cancelled(quibo: ModuleType, mic: NDArray[np.int16], ref: NDArray[np.int16]) -> NDArray[np.int16]:
    out = quibo.LinearCanceller().process(mic, ref, last=True).out
    return np.int16(np.clip(out * FULL_SCALE, -32768, 32767))
