"""The description of a recording, samples/living_room.json: everything that was set, and what came out of it."""

from __future__ import annotations

import numpy as np

from make_sample.recordings import Recordings
from make_sample.scene import (
    LICENCE,
    LOUDSPEAKER,
    MIC_GAIN_DB,
    PLAYBACK_DELAY,
    PLAYS,
    ROOM,
    SAMPLES,
    SEED,
    SELF_NOISE_LEVEL,
    STRETCHES,
    TALKER_LEVEL,
    TALKERS,
    TAP,
    TAP_LEVEL,
    TAP_OFFSET,
    TAP_OPEN,
    TAP_OPEN_LEVEL,
)
from make_sample.tracks import Recording
from training.device_facts import FULL_SCALE, RATE
from training.scenes import array_geometry
from training.scenes.audio import active_dbfs, dbfs
from training.scenes.room import measured_rt60
from training.shared import Record

CHANNELS = [
    {"channel": 0, "holds": "microphone 1", "encoding": "scrambled"},
    {"channel": 1, "holds": "microphone 2", "encoding": "scrambled"},
    {"channel": 2, "holds": "microphone 3", "encoding": "scrambled"},
    {
        "channel": 3,
        "holds": "ground truth: the talkers alone as microphone 1 hears them, no echo, no noise; not read by the front end",
        "encoding": "plain",
    },
    {"channel": 4, "holds": "loudspeaker reference", "encoding": "plain"},
    {
        "channel": 5,
        "holds": "ground truth: the loudspeaker's echo alone as microphone 1 hears it; not read by the front end",
        "encoding": "plain",
    },
]


def describe(recording: Recording, recordings: Recordings) -> Record:
    """recording: tracks.Recording; recordings: where its sources are from."""
    return {
        "title": "Living room: the device plays, five wake phrases and five other things are said",
        "file": "living_room.flac",
        "sample_rate": RATE,
        "samples": SAMPLES,
        "seconds": SAMPLES / RATE,
        "licence": LICENCE,
        "generator": "make_sample",
        "seed": SEED,
        "channels": CHANNELS,
        "stretches": [stretch(recording, s) for s in STRETCHES],
        "array": {
            "document": "docs/array.md",
            "microphones_m": np.round(array_geometry.mic_offsets(), 4).tolist(),
            "loudspeaker_m": array_geometry.loudspeaker_offset().tolist(),
            "microphone_gain_db": MIC_GAIN_DB,
        },
        "room": room(recording.responses),
        "loudspeaker": loudspeaker(recording),
        "levels_dbfs": levels(recording),
        "sources": sources(recording, recordings),
    }


def stretch(recording: Recording, about: Record) -> Record:
    """What plays, sounds and is said in a stretch."""

    def during(start: float, end: float) -> bool:
        return start < about["end"] and about["start"] < end

    return {
        **about,
        "plays": [p["what"] for p in PLAYS if during(p["start"], p["end"])],
        "noise": [TAP["what"]] if during(*TAP_OPEN) else [],
        "speaks": [
            talker(recording, t, end) for t, end in zip(TALKERS, recording.ends) if about["start"] <= t["start"] < about["end"]
        ],
    }


def talker(recording: Recording, about: Record, end: float) -> Record:
    """Who speaks, from where, and how far above echo and noise."""
    span = slice(round(about["start"] * RATE), round(end * RATE))
    level = active_dbfs(recording.near[0, span])
    plays = recording.channels[4, span].any()
    named = ("who", "text", "pinyin", "wake_phrase", "start")
    return {
        **{k: about[k] for k in named if k in about},
        "end": round(end, 3),
        "heading_deg": about["heading"],
        "distance_m": about["distance"],
        "mouth_height_m": about["height"],
        "to_echo_db": round(float(level - dbfs(recording.echo[0, span])), 1) if plays else None,
        "to_noise_db": round(float(level - dbfs(recording.tap[0, span])), 1),
    }


def room(responses: dict[str, np.ndarray]) -> Record:
    talkers = [measured_rt60(responses[f"talker {k}"][0]) for k in range(len(TALKERS))]
    return {
        "size_m": ROOM.size,
        "array_centre_m": ROOM.array,
        "rt60_target_s": ROOM.rt60,
        "rt60_measured_s": round(float(np.mean(talkers)), 3),
        "wall_absorption": {w: round(float(a), 3) for w, a in ROOM.absorption().items()},
        "tap_m": np.round(TAP_OFFSET, 3).tolist(),
    }


def loudspeaker(recording: Recording) -> Record:
    distortion = LOUDSPEAKER.distortion_db(recording.channels[4] / FULL_SCALE)
    return {
        **vars(LOUDSPEAKER.nonlinearity),
        "low_hz": LOUDSPEAKER.low_hz,
        "high_hz": LOUDSPEAKER.high_hz,
        "distortion_db": round(float(distortion), 1),
        "playback_delay_samples": PLAYBACK_DELAY,
        "volume_db": round(float(recording.volume), 2),
    }


def levels(recording: Recording) -> Record:
    sounding = recording.ref != 0.0
    return {
        "reference": round(float(dbfs(recording.ref[sounding])), 1),
        "echo_at_microphone_1": round(float(dbfs(recording.echo[0, sounding])), 1),
        "talkers_at_microphone_1_active": TALKER_LEVEL,
        "tap_at_microphone_1": TAP_LEVEL,
        "tap_open_at_microphone_1": TAP_OPEN_LEVEL,
        "microphone_self_noise": SELF_NOISE_LEVEL,
        "microphone_peak": round(float(20 * np.log10(np.abs(recording.mics).max())), 1),
    }


def sources(recording: Recording, recordings: Recordings) -> Record:
    """Every piece of audio used, with its gain, licence and origin."""

    def source(entry: Record, file: str, start: float, gain_db: float) -> Record:
        row = recordings.row(file)
        return {
            "file": file,
            "from_s": start,
            "gain_db": round(float(gain_db), 2),
            "licence": row["licence"],
            "attribution": entry["attribution"],
            "origin": row["origin"],
        }

    return {
        "played": [source(p, p["file"], p["from"], g) for p, g in zip(PLAYS, recording.play_gains)],
        "spoken": [
            source(t, file, start, g)
            for t, gains in zip(TALKERS, recording.talker_gains)
            for (file, start, _), g in zip(t["pieces"], gains)
        ],
        "noise": [source(TAP, TAP["file"], TAP["from"], recording.tap_gain)],
    }
