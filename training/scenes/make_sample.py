"""Builds samples/living_room.flac and samples/living_room.json: one six-channel capture.

Real speech, music and rain are played into a simulated living room around the device; the scene
is the data below, the acoustics are in room.py and loudspeaker.py. See README.md beside this file.
"""

import argparse
import json
import pathlib

import numpy as np
import soundfile

from training.scenes import array_geometry, codec
from training.scenes.audio import RATE, Recordings, active_dbfs, dbfs, fade, gain, to_int16
from training.scenes.loudspeaker import AsymmetricTanh, Loudspeaker
from training.scenes.room import Room, hear, measured_rt60

SEED = 20251107
FRAME = 1024
SAMPLES = 468 * FRAME  # 29.952 s; whole frames, so that nothing is dropped at the end

ROOM = Room(
    size=(5.2, 4.1, 2.6),
    array=(2.4, 1.9, 0.5),  # on the coffee table
    rt60=0.29,  # by Eyring's formula; the responses of this box measure 0.38 s
    weights=(0.8, 0.5, 1.0, 0.7, 1.0, 0.6),
)
LOUDSPEAKER = Loudspeaker(AsymmetricTanh(full_drive=0.45, asymmetry=0.1), 170.0, 7000.0)
PLAYBACK_DELAY = 240  # samples from the reference to the loudspeaker: 15 ms of output buffer
MIC_GAIN_DB = (0.0, 0.6, -0.5)  # sensitivity spread of the three microphones

# Levels at microphone 1, dBFS, except the reference.
REFERENCE_LEVEL = -20.0
ECHO_LEVEL = -25.0
TALKER_LEVEL = -35.0  # active level: 10 dB below the echo
RAIN_LEVEL = -56.0
SELF_NOISE_LEVEL = -72.0

RAIN = {"file": "noise/noisekun_rain.wav", "from": 20.0, "attribution": "author not named"}
RAIN_OFFSET = array_geometry.offset(100.0, 2.6, 0.9)  # the window

# What the loudspeaker plays: start, end (s), source, where in the source to begin.
PLAYS = (
    {
        "start": 0.0,
        "end": 6.0,
        "what": "music",
        "file": "music/hyperrogue_hr3-laboratory.wav",
        "from": 82.0,
        "attribution": "hr3-laboratory, from HyperRogue, by Shawn Parrotte",
    },
    {
        "start": 6.0,
        "end": 11.5,
        "what": "recorded announcement",
        "file": "speech_other/asterisk_en/vm-intro.wav",
        "from": 0.05,
        "attribution": "Allison Smith (voice), Asterisk core sounds, Digium",
    },
    {
        "start": 17.5,
        "end": SAMPLES / RATE,
        "what": "music",
        "file": "music/hyperrogue_hr-savino-caribbean.wav",
        "from": 14.0,
        "attribution": "hr-savino-caribbean, from HyperRogue, by Will Savino",
    },
)

# Who speaks in the room: start (s), heading (degrees), distance along the floor and height (m).
TALKERS = (
    {
        "start": 12.1,
        "who": "woman, Mandarin",
        "text": "铃铛铃铛",
        "wake_phrase": True,
        "heading": 45.0,
        "distance": 2.0,
        "height": 1.15,
        "file": "speech_cmn/wake/chen_wang_14.wav",
        "attribution": "Wang Chen (voice), Hugo Lopez, Nicolas Vion, 2013, audio-cmn syllables; "
        "joined from single syllables",
    },
    {
        "start": 14.4,
        "who": "woman, English",
        "text": "Lord, but I'm glad to see you again, Phil.",
        "wake_phrase": False,
        "heading": 130.0,
        "distance": 1.5,
        "height": 1.55,
        "file": "speech_other/arctic/cmu_arctic_us_axb_a0004.wav",
        "attribution": "CMU Arctic speech database, Copyright Carnegie Mellon University 2003",
    },
    {
        "start": 18.6,
        "who": "man, Mandarin",
        "text": "铃铛铃铛",
        "wake_phrase": True,
        "heading": 310.0,
        "distance": 1.8,
        "height": 1.2,
        "file": "speech_cmn/wake/junze_wu_14.wav",
        "attribution": "Copyright 2017 Junze Wu, HanTTS; joined from single syllables",
    },
    {
        "start": 21.1,
        "who": "man, English",
        "text": "For the twentieth time that evening the two men shook hands.",
        "wake_phrase": False,
        "heading": 220.0,
        "distance": 1.6,
        "height": 1.15,
        "file": "speech_other/arctic/cmu_arctic_us_aew_a0003.wav",
        "attribution": "CMU Arctic speech database, Copyright Carnegie Mellon University 2003",
    },
)

STRETCHES = (
    {"kind": "far_end", "start": 0.0, "end": 6.0, "what": "music starts, the room is learnt"},
    {"kind": "far_end", "start": 6.0, "end": 11.5, "what": "an announcement is played"},
    {"kind": "near_end", "start": 11.5, "end": 17.5, "what": "two women speak, nothing plays"},
    {"kind": "double_talk", "start": 17.5, "end": 25.0, "what": "two men speak over music"},
    {"kind": "far_end", "start": 25.0, "end": SAMPLES / RATE, "what": "the music goes on alone"},
)

# The share-alike sources decide; public domain, MIT and BSD-like sources may go along.
LICENCE = "CC-BY-SA-3.0"


def at(start, x):
    """A track of the sample's length with x from `start` s on."""
    track = np.zeros(SAMPLES)
    n = round(start * RATE)
    track[n : n + len(x)] = x
    return track


def reference(recordings):
    """Loudspeaker signal, every piece at REFERENCE_LEVEL; also the gain of each piece in dB."""
    track, gains = np.zeros(SAMPLES), []
    for play in PLAYS:
        x = recordings.clip(play["file"], play["from"], play["end"] - play["start"])
        gains.append(REFERENCE_LEVEL - active_dbfs(x))
        track += at(play["start"], fade(x * gain(gains[-1]), 0.01))
    return track, gains


def near_end(recordings, responses):
    """Talkers at the microphones [3, SAMPLES], each at TALKER_LEVEL; gains in dB, lengths in s."""
    track, gains, lengths = np.zeros((3, SAMPLES)), [], []
    for k, talker in enumerate(TALKERS):
        x = fade(recordings.clip(talker["file"]), 0.01)
        heard = hear(responses[f"talker {k}"], at(talker["start"], x))
        gains.append(TALKER_LEVEL - active_dbfs(heard[0]))
        lengths.append(len(x) / RATE)
        track += heard * gain(gains[-1])
    return track, gains, lengths


def build(recordings):
    """Channels int16 [6, SAMPLES] and the scene's description."""
    random = np.random.default_rng(SEED)
    offsets = {
        f"talker {k}": array_geometry.offset(
            t["heading"], t["distance"], t["height"] - ROOM.array[2]
        )
        for k, t in enumerate(TALKERS)
    }
    offsets |= {"loudspeaker": array_geometry.loudspeaker_offset(), "rain": RAIN_OFFSET}
    responses = ROOM.impulse_responses(offsets)

    ref, play_gains = reference(recordings)
    ref_int16 = to_int16(ref)
    played = LOUDSPEAKER.play(ref_int16 / 32768.0)
    echo = hear(responses["loudspeaker"], played, PLAYBACK_DELAY)
    sounding = ref != 0.0
    volume = ECHO_LEVEL - dbfs(echo[0, sounding])
    echo *= gain(volume)

    near, talker_gains, lengths = near_end(recordings, responses)

    rain = hear(responses["rain"], recordings.clip(RAIN["file"], RAIN["from"], SAMPLES / RATE))
    rain_gain = RAIN_LEVEL - dbfs(rain[0])
    self_noise = random.standard_normal((3, SAMPLES)) * gain(SELF_NOISE_LEVEL)

    mics = echo + near + rain * gain(rain_gain) + self_noise
    mics *= gain(np.array(MIC_GAIN_DB))[:, None]
    scrambled = codec.scramble(to_int16(mics))
    channels = np.stack(
        [*scrambled, to_int16(near[0]), ref_int16, to_int16(echo[0])]  # MIC_GAIN_DB[0] is 0 dB
    )

    def source(entry, gain_db):
        row = recordings.row(entry["file"])
        return {
            "file": entry["file"],
            "from_s": entry.get("from", 0.0),
            "gain_db": round(float(gain_db), 2),
            "licence": row["licence"],
            "attribution": entry["attribution"],
            "origin": row["origin"],
        }

    talk = slice(*(round(STRETCHES[3][edge] * RATE) for edge in ("start", "end")))
    scene = {
        "title": "Living room: music and an announcement from the device, four people around it",
        "file": "living_room.flac",
        "sample_rate": RATE,
        "samples": SAMPLES,
        "seconds": SAMPLES / RATE,
        "licence": LICENCE,
        "generator": "training/scenes/make_sample.py",
        "seed": SEED,
        "channels": [
            {"channel": 0, "holds": "microphone 1", "encoding": "scrambled"},
            {"channel": 1, "holds": "microphone 2", "encoding": "scrambled"},
            {"channel": 2, "holds": "microphone 3", "encoding": "scrambled"},
            {
                "channel": 3,
                "holds": "ground truth: the talkers alone as microphone 1 hears them, no echo, no "
                "noise; not read by the front end",
                "encoding": "plain",
            },
            {"channel": 4, "holds": "loudspeaker reference", "encoding": "plain"},
            {
                "channel": 5,
                "holds": "ground truth: the loudspeaker's echo alone as microphone 1 hears it; not "
                "read by the front end",
                "encoding": "plain",
            },
        ],
        "stretches": [
            {
                **stretch,
                "plays": [
                    p["what"]
                    for p in PLAYS
                    if p["start"] < stretch["end"] and stretch["start"] < p["end"]
                ],
                "speaks": [
                    {
                        "who": t["who"],
                        "text": t["text"],
                        "wake_phrase": t["wake_phrase"],
                        "start": t["start"],
                        "end": round(t["start"] + seconds, 3),
                        "heading_deg": t["heading"],
                        "distance_m": t["distance"],
                        "mouth_height_m": t["height"],
                    }
                    for t, seconds in zip(TALKERS, lengths)
                    if stretch["start"] <= t["start"] < stretch["end"]
                ],
            }
            for stretch in STRETCHES
        ],
        "array": {
            "document": "docs/array.md",
            "microphones_m": np.round(array_geometry.mic_offsets(), 4).tolist(),
            "loudspeaker_m": array_geometry.loudspeaker_offset().tolist(),
            "microphone_gain_db": MIC_GAIN_DB,
        },
        "room": {
            "size_m": ROOM.size,
            "array_centre_m": ROOM.array,
            "rt60_target_s": ROOM.rt60,
            "rt60_measured_s": round(
                float(np.mean([measured_rt60(responses[f"talker {k}"][0]) for k in range(4)])), 3
            ),
            "wall_absorption": {w: round(float(a), 3) for w, a in ROOM.absorption().items()},
            "rain_m": np.round(RAIN_OFFSET, 3).tolist(),
        },
        "loudspeaker": {
            **vars(LOUDSPEAKER.nonlinearity),
            "low_hz": LOUDSPEAKER.low_hz,
            "high_hz": LOUDSPEAKER.high_hz,
            "distortion_db": round(float(LOUDSPEAKER.distortion_db(ref_int16 / 32768.0)), 1),
            "playback_delay_samples": PLAYBACK_DELAY,
            "volume_db": round(float(volume), 2),
        },
        "levels_dbfs": {
            "reference": round(float(dbfs(ref[sounding])), 1),
            "echo_at_microphone_1": round(float(dbfs(echo[0, sounding])), 1),
            "talkers_at_microphone_1_active": TALKER_LEVEL,
            "rain_at_microphone_1": RAIN_LEVEL,
            "microphone_self_noise": SELF_NOISE_LEVEL,
            "microphone_1_double_talk": round(float(dbfs(mics[0, talk])), 1),
            "microphone_peak": round(float(20 * np.log10(np.abs(mics).max())), 1),
        },
        "sources": {
            "played": [source(p, g) for p, g in zip(PLAYS, play_gains)],
            "spoken": [source(t, g) for t, g in zip(TALKERS, talker_gains)],
            "noise": [source(RAIN, rain_gain)],
        },
    }
    return channels, scene


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--data", required=True, help="folder of source audio, see README.md")
    parser.add_argument("--output", default="samples", help="folder to write to")
    args = parser.parse_args()

    channels, scene = build(Recordings(args.data))
    output = pathlib.Path(args.output)
    flac = output / scene["file"]
    soundfile.write(flac, channels.T, RATE, subtype="PCM_16", compression_level=1.0)
    if not np.array_equal(soundfile.read(flac, dtype="int16")[0], channels.T):
        raise AssertionError(f"{flac} does not hold what was written")
    text = json.dumps(scene, indent=2, ensure_ascii=False) + "\n"
    flac.with_suffix(".json").write_text(text, encoding="utf-8")
    print(f"{flac}: {flac.stat().st_size / 1e6:.2f} MB, RT60 {scene['room']['rt60_measured_s']} s")
    print(json.dumps(scene["levels_dbfs"], indent=2))


if __name__ == "__main__":
    main()
