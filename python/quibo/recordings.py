"""Whole recordings: what the quibo command does, by the same code."""

from __future__ import annotations

import contextlib
import json
import os
from collections.abc import Iterator
from dataclasses import dataclass, field
from typing import Any, Literal

import numpy as np
from numpy.typing import NDArray

from . import _arrays, _quibo
from .front_end import THRESHOLD, Wake

Guess = Literal["guess", "plain", "scrambled"]
Path = str | os.PathLike[str]


@dataclass(frozen=True)
class Recording:
    """A recording as the front end sees it: plain, 16 kHz, int16."""

    mics: NDArray[np.int16]
    """[3, n]"""
    ref: NDArray[np.int16]
    """[n]"""
    about: dict[str, Any]
    """The file's format, channels, sample_rate, map of channels (from 1) and encoding."""
    warnings: tuple[str, ...]
    """What is wrong with the file, a line each."""


@dataclass(frozen=True)
class Run:
    """What the front end made of a recording."""

    events: tuple[Wake, ...]
    outputs: NDArray[np.int16] | None = field(repr=False)
    """[3, n]: the microphones without echo, lined up with the recording; None where not kept."""
    clean: NDArray[np.int16] | None = field(repr=False)
    """[n]: microphone 1 with the rest of the echo suppressed, lined up too."""
    levels: NDArray[np.float32] = field(repr=False)
    """[8, seconds] in dBFS: microphones 1 to 3, reference, cancelled microphones 1 to 3, clean."""
    summary: dict[str, Any]
    """seconds, wakes, echo_reduction_db, only_device_seconds, processor_seconds, core_share, ..."""
    about: dict[str, Any]
    """The recording's format and the library that ran."""
    warnings: tuple[str, ...]
    lines: tuple[str, ...] = field(repr=False)
    """events.jsonl, line by line."""


@dataclass(frozen=True)
class Finding:
    """Something a check found."""

    id: str
    """"reference_late", "clipped", ...: stays the same from version to version."""
    severity: Literal["note", "warning", "fault"]
    channel: str | None
    """"mic1" to "mic3", "ref", or None for the recording."""
    start: float | None
    """Where, in seconds; None: all of it."""
    end: float | None
    what: str
    how_bad: str
    advice: str


@dataclass(frozen=True)
class Check:
    """Is a recording fit for an echo canceller?"""

    verdict: Literal["fit", "look", "unfit"]
    findings: tuple[Finding, ...]
    """The worst first."""
    about: dict[str, Any] = field(repr=False)
    """All that `quibo check --json` tells: levels and peaks of the channels, the reference's delay over time, ..."""


def read(path: Path, *, channels: str = "", encoding: Guess = "guess", raw: str = "") -> Recording:
    """Reads a recording of any format, sample rate and layout, resampled to 16 kHz.

    channels: which is which, "mic1,mic2,mic3,ref" or "1,2,3,5"; without it the layouts of 4 channels (three
    microphones, reference) and 6 (three microphones, any, reference, any) are known.
    encoding: of the microphones; raw: "CHANNELS[,RATE[,SAMPLE]]" for headerless samples.
    OSError where the file cannot be read, ValueError where the request does not fit it.
    """
    _arrays.choice("encoding", encoding, ("guess", "plain", "scrambled"))
    with _named(path):
        tracks, about, warnings = _bound("read")(os.fspath(path), channels, encoding, raw)
    return Recording(tracks[:3], tracks[3], json.loads(about), tuple(warnings))


def check(path: Path, *, channels: str = "", encoding: Guess = "guess", raw: str = "") -> Check:
    """Looks at a recording as `quibo check` does: delay, drift and polarity of the reference, levels, clipping,
    dropouts, dead, doubled and swapped channels. Options as for read()."""
    _arrays.choice("encoding", encoding, ("guess", "plain", "scrambled"))
    with _named(path):
        told = json.loads(_bound("check")(os.fspath(path), channels, encoding, raw))
    findings = tuple(Finding(advice=finding.pop("do"), **finding) for finding in told.pop("findings"))
    return Check(told["verdict"], findings, told)


def run(
    path: Path,
    *,
    out: Path | None = None,
    report: bool = False,
    channels: str = "",
    encoding: Guess = "guess",
    raw: str = "",
    raw_timing: bool = False,
    threshold: float = THRESHOLD,
    keep: bool = True,
) -> Run:
    """Plays a recording through a front end, which must be the only one in this process.

    out: a folder for clean.wav, mic1.wav to mic3.wav and events.jsonl, as `quibo run` writes them; nothing is written
    without it. report: report.html there too, a page about the recording. raw_timing: outputs as late as they are.
    keep=False: no outputs in memory, for long recordings. The rest as for read() and FrontEnd.
    """
    _arrays.choice("encoding", encoding, ("guess", "plain", "scrambled"))
    if report and out is None:
        raise ValueError("report: expected out, the folder to write it to")
    folder = os.fspath(out) if out is not None else ""
    threshold = _arrays.positive("threshold", threshold)
    with _named(path):
        samples, lines = _bound("run")(os.fspath(path), channels, encoding, raw, folder, report, raw_timing, keep, threshold)
    events = [json.loads(line) for line in lines]
    levels = [[*e["in"].values(), *e["out"].values()] for e in events if e["type"] == "levels"]
    start, end = events[0], events[-1]
    return Run(
        tuple(
            Wake(e["sample"], e["angle"], e["cost"], e["start"], e["end"], e["angle_length"])
            for e in events
            if e["type"] == "wake"
        ),
        samples[:3] if keep else None,
        samples[3] if keep else None,
        np.array(levels, np.float32).reshape(-1, 8).T,
        {key: value for key, value in end.items() if key not in ("v", "type", "recording")},
        {key: value for key, value in start.items() if key not in ("v", "type", "recording")},
        tuple(e["text"] for e in events if e["type"] == "warning"),
        tuple(lines),
    )


def about() -> dict[str, Any]:
    """Version, kernels in use and digests of the parameters of the library inside."""
    told: dict[str, Any] = json.loads(_bound("about")())
    return told


@contextlib.contextmanager
def _named(path: Path) -> Iterator[None]:
    """The library's lines say what is wrong, not with which recording."""
    try:
        yield
    except (OSError, ValueError) as error:
        raise type(error)(f"{os.fspath(path)}: {error}") from None


def _bound(name: str) -> Any:
    function = getattr(_quibo, name, None)
    if function is None:  # built without the libraries
        raise ImportError(
            "this build of quibo reads no recordings: install libsndfile, libsoxr and nlohmann-json with their"
            " headers (Debian: libsndfile1-dev libsoxr-dev nlohmann-json3-dev), then quibo again"
        )
    return function
