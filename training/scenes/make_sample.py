"""Builds samples/living_room.flac and samples/living_room.json: one six-channel capture.

Real speech, music and a running tap are played into a simulated living room around the device; the
scene is the data below, the acoustics are in room.py and loudspeaker.py. See README.md beside this
file.
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
SAMPLES = 750 * FRAME  # 48 s; whole frames, so that nothing is dropped at the end

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
TAP_LEVEL = -66.0  # a thin stream all along
TAP_OPEN_LEVEL = -45.0  # 10 dB below the talkers
SELF_NOISE_LEVEL = -72.0

TAP = {
    "what": "running tap",
    "file": "noise/speechcommands_running_tap.wav",
    "from": 5.0,
    "attribution": "Speech Commands data set, Google",
}
TAP_OPEN = (24.6, 31.0)  # s
TAP_OFFSET = array_geometry.offset(75.0, 2.6, 0.5)  # the kitchenette

# What the loudspeaker plays: start, end (s), source, where in the source to begin.
PLAYS = (
    {
        "start": 0.0,
        "end": 14.6,
        "what": "music",
        "file": "music/hyperrogue_hr3-laboratory.wav",
        "from": 82.0,
        "attribution": "hr3-laboratory, from HyperRogue, by Shawn Parrotte",
    },
    {
        "start": 31.0,
        "end": 36.5,
        "what": "announcement",
        "file": "speech_other/asterisk_en/vm-intro.wav",
        "from": 0.05,
        "attribution": "Allison Smith (voice), Asterisk core sounds, Digium",
    },
    {
        "start": 36.5,
        "end": 42.9,
        "what": "announcement",
        "file": "speech_other/asterisk_fr/dictate_enter_filename.wav",
        "from": 0.05,
        "attribution": "June Wallack (voice), Asterisk core sounds, Digium",
    },
    {
        "start": 42.9,
        "end": SAMPLES / RATE,
        "what": "music",
        "file": "music/hyperrogue_hr-savino-caribbean.wav",
        "from": 14.0,
        "attribution": "hr-savino-caribbean, from HyperRogue, by Will Savino",
    },
)

HANTTS = "Copyright 2017 Junze Wu, HanTTS; joined from single syllables"
ARCTIC = "CMU Arctic speech database, Copyright Carnegie Mellon University 2003"

# Who speaks in the room: start (s), heading (degrees), distance along the floor and height (m), and
# the pieces of sources said one after the other, each from .. to (s; None: its end).
TALKERS = (
    {
        "start": 8.2,
        "who": "man, Mandarin",
        "text": "铃铛铃铛",
        "pinyin": "ling dang ling dang",
        "wake_phrase": True,
        "heading": 305.0,
        "distance": 1.8,
        "height": 1.2,
        "pieces": [("speech_cmn/wake/junze_wu_10.wav", 0.2, 1.37)],
        "attribution": HANTTS,
    },
    {
        "start": 10.8,
        "who": "man, English",
        "text": "For the twentieth time that evening the two men shook hands.",
        "wake_phrase": False,
        "heading": 210.0,
        "distance": 1.6,
        "height": 1.15,
        "pieces": [("speech_other/arctic/cmu_arctic_us_aew_a0003.wav", 0.0, None)],
        "attribution": ARCTIC,
    },
    {
        "start": 15.8,
        "who": "man, Mandarin",
        "text": "铃铛铃铛",
        "pinyin": "ling dang ling dang",
        "wake_phrase": True,
        "heading": 95.0,
        "distance": 0.8,
        "height": 1.0,
        "pieces": [("speech_cmn/wake/junze_wu_16.wav", 0.2, 1.15)],
        "attribution": HANTTS,
    },
    {
        "start": 18.2,
        "who": "man, Mandarin",
        "text": "铃铛",
        "pinyin": "ling dang",
        "wake_phrase": False,
        "heading": 270.0,
        "distance": 1.2,
        "height": 1.2,
        "pieces": [("speech_cmn/wake/junze_wu_10.wav", 0.2, 0.79)],
        "attribution": HANTTS,
    },
    {
        "start": 19.8,
        "who": "man, Mandarin",
        "text": "铃铛铃铛",
        "pinyin": "ling dang ling dang",
        "wake_phrase": True,
        "heading": 235.0,
        "distance": 2.5,
        "height": 1.65,
        "pieces": [("speech_cmn/wake/junze_wu_07.wav", 0.2, 1.46)],
        "attribution": HANTTS,
    },
    {
        "start": 21.6,
        "who": "woman, English",
        "text": "Lord, but I'm glad to see you again, Phil.",
        "wake_phrase": False,
        "heading": 45.0,
        "distance": 1.5,
        "height": 1.55,
        "pieces": [("speech_other/arctic/cmu_arctic_us_axb_a0004.wav", 0.0, None)],
        "attribution": ARCTIC,
    },
    {
        "start": 26.4,
        "who": "man, Mandarin",
        "text": "铃铛铃铛",
        "pinyin": "ling dang ling dang",
        "wake_phrase": True,
        "heading": 160.0,
        "distance": 1.5,
        "height": 1.2,
        "pieces": [("speech_cmn/wake/junze_wu_13.wav", 0.2, 1.25)],
        "attribution": HANTTS,
    },
    {
        "start": 28.6,
        "who": "woman, Mandarin",
        "text": "我相信很好吃",
        "pinyin": "wo xiang xin hen hao chi",
        "wake_phrase": False,
        "heading": 330.0,
        "distance": 1.4,
        "height": 1.15,
        "pieces": [("speech_cmn/aishell3/SSB02670376.wav", 0.24, 1.84)],
        "attribution": "AISHELL-3, Beijing Shell Shell Technology, speaker SSB0267",
    },
    {
        "start": 38.2,
        "who": "man, Mandarin",
        "text": "铃铛铃铛",
        "pinyin": "ling dang ling dang",
        "wake_phrase": True,
        "heading": 20.0,
        "distance": 2.0,
        "height": 1.2,
        "pieces": [("speech_cmn/wake/junze_wu_04.wav", 0.2, 1.55)],
        "attribution": HANTTS,
    },
    {
        "start": 41.0,
        "who": "man, Mandarin",
        "text": "铃铛铃灯",
        "pinyin": "ling dang ling deng",
        "wake_phrase": False,
        "heading": 130.0,
        "distance": 1.6,
        "height": 1.2,
        "pieces": [
            ("speech_cmn/wake/junze_wu_04.wav", 0.2, 1.30),
            ("speech_cmn/junze_wu/deng5.wav", 0.06, None),
        ],
        "attribution": HANTTS,
    },
)

STRETCHES = (
    {"kind": "far_end", "start": 0.0, "end": 7.0, "what": "music starts, the room is learnt"},
    {"kind": "double_talk", "start": 7.0, "end": 14.6, "what": "two men speak over music"},
    {"kind": "near_end", "start": 14.6, "end": 24.6, "what": "voices from four sides, nothing plays"},
    {"kind": "near_end", "start": 24.6, "end": 31.0, "what": "two people speak, a tap runs"},
    {"kind": "far_end", "start": 31.0, "end": 36.5, "what": "an announcement is played"},
    {"kind": "double_talk", "start": 36.5, "end": 42.9, "what": "a man speaks over an announcement"},
    {"kind": "far_end", "start": 42.9, "end": SAMPLES / RATE, "what": "music alone again"},
)

# The share-alike sources decide; public domain, CC-BY, Apache, MIT and BSD-like ones may go along.
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


def say(recordings, talker):
    """The talker's pieces one after the other, each as loud as the first; their gains in dB."""
    pieces = [
        recordings.clip(file, start, None if end is None else end - start)
        for file, start, end in talker["pieces"]
    ]
    gains = [active_dbfs(pieces[0]) - active_dbfs(x) for x in pieces]
    return np.concatenate([fade(x * gain(g), 0.01) for x, g in zip(pieces, gains)]), gains


def near_end(recordings, responses):
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


def running_tap(recordings, response):
    """The tap at the microphones [3, SAMPLES] and its gain in dB while it is open."""
    heard = hear(response, recordings.clip(TAP["file"], TAP["from"], SAMPLES / RATE))
    start, end = TAP_OPEN
    levels = [TAP_LEVEL, TAP_OPEN_LEVEL, TAP_OPEN_LEVEL, TAP_LEVEL]
    edges = [start, start + 0.2, end - 0.2, end]
    level = np.interp(np.arange(SAMPLES) / RATE, edges, levels)
    loudness = dbfs(heard[0])
    return heard * gain(level - loudness), TAP_OPEN_LEVEL - loudness


def build(recordings):
    """Channels int16 [6, SAMPLES] and the scene's description."""
    random = np.random.default_rng(SEED)
    offsets = {
        f"talker {k}": array_geometry.offset(
            t["heading"], t["distance"], t["height"] - ROOM.array[2]
        )
        for k, t in enumerate(TALKERS)
    }
    offsets |= {"loudspeaker": array_geometry.loudspeaker_offset(), "tap": TAP_OFFSET}
    responses = ROOM.impulse_responses(offsets)

    ref, play_gains = reference(recordings)
    ref_int16 = to_int16(ref)
    played = LOUDSPEAKER.play(ref_int16 / 32768.0)
    echo = hear(responses["loudspeaker"], played, PLAYBACK_DELAY)
    sounding = ref != 0.0
    volume = ECHO_LEVEL - dbfs(echo[0, sounding])
    echo *= gain(volume)

    near, talker_gains, ends = near_end(recordings, responses)
    tap, tap_gain = running_tap(recordings, responses["tap"])
    self_noise = random.standard_normal((3, SAMPLES)) * gain(SELF_NOISE_LEVEL)

    mics = echo + near + tap + self_noise
    mics *= gain(np.array(MIC_GAIN_DB))[:, None]
    scrambled = codec.scramble(to_int16(mics))
    channels = np.stack(
        [*scrambled, to_int16(near[0]), ref_int16, to_int16(echo[0])]  # MIC_GAIN_DB[0] is 0 dB
    )

    def source(entry, file, start, gain_db):
        row = recordings.row(file)
        return {
            "file": file,
            "from_s": start,
            "gain_db": round(float(gain_db), 2),
            "licence": row["licence"],
            "attribution": entry["attribution"],
            "origin": row["origin"],
        }

    def speaker(talker, end):
        span = slice(round(talker["start"] * RATE), round(end * RATE))
        level = active_dbfs(near[0, span])
        plays = ref_int16[span].any()
        return {
            **{k: talker[k] for k in ("who", "text", "pinyin", "wake_phrase", "start") if k in talker},
            "end": round(end, 3),
            "heading_deg": talker["heading"],
            "distance_m": talker["distance"],
            "mouth_height_m": talker["height"],
            "to_echo_db": round(float(level - dbfs(echo[0, span])), 1) if plays else None,
            "to_noise_db": round(float(level - dbfs(tap[0, span])), 1),
        }

    def during(stretch, start, end):
        return start < stretch["end"] and stretch["start"] < end

    scene = {
        "title": "Living room: the device plays, five wake phrases and five other things are said",
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
                "plays": [p["what"] for p in PLAYS if during(stretch, p["start"], p["end"])],
                "noise": [TAP["what"]] if during(stretch, *TAP_OPEN) else [],
                "speaks": [
                    speaker(t, end)
                    for t, end in zip(TALKERS, ends)
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
                float(
                    np.mean([measured_rt60(responses[f"talker {k}"][0]) for k in range(len(TALKERS))])
                ),
                3,
            ),
            "wall_absorption": {w: round(float(a), 3) for w, a in ROOM.absorption().items()},
            "tap_m": np.round(TAP_OFFSET, 3).tolist(),
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
            "tap_at_microphone_1": TAP_LEVEL,
            "tap_open_at_microphone_1": TAP_OPEN_LEVEL,
            "microphone_self_noise": SELF_NOISE_LEVEL,
            "microphone_peak": round(float(20 * np.log10(np.abs(mics).max())), 1),
        },
        "sources": {
            "played": [source(p, p["file"], p["from"], g) for p, g in zip(PLAYS, play_gains)],
            "spoken": [
                source(t, file, start, g)
                for t, gains in zip(TALKERS, talker_gains)
                for (file, start, _), g in zip(t["pieces"], gains)
            ],
            "noise": [source(TAP, TAP["file"], TAP["from"], tap_gain)],
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
