"""The sample recording is what its description says, decoded with the library's own codec.

Needs flac.
"""

import array
import ctypes
import json
import math
import pathlib
import subprocess

import pytest

SAMPLES = pathlib.Path(__file__).parent.parent / "samples"
SCENE = json.loads((SAMPLES / "living_room.json").read_text(encoding="utf-8"))


def dbfs(x):
    return 10 * math.log10(sum(v * v for v in x) / len(x) / 32768**2)


def stretches(kind, x):
    rate = SCENE["sample_rate"]
    spans = [(s["start"], s["end"]) for s in SCENE["stretches"] if s["kind"] == kind]
    return [x[round(start * rate) : round(end * rate)] for start, end in spans]


@pytest.fixture(scope="module")
def channels():
    command = "flac -d -c -s --force-raw-format --endian=little --sign=signed".split()
    raw = subprocess.run([*command, SAMPLES / SCENE["file"]], check=True, stdout=subprocess.PIPE).stdout
    assert len(raw) == SCENE["samples"] * len(SCENE["channels"]) * 2
    interleaved = array.array("h", raw)
    return [interleaved[c::6] for c in range(6)]


@pytest.fixture(scope="module")
def microphone_1(channels, build, unsanitized):
    mic = channels[0][:]
    dec_data = ctypes.CDLL(build / "libquibo.so").dec_data
    dec_data((ctypes.c_int16 * len(mic)).from_buffer(mic), len(mic))
    return mic


def spoken():
    return [speech for stretch in SCENE["stretches"] for speech in stretch["speaks"]]


def test_every_voice_stands_over_echo_and_noise_as_stated_within_2_dB(channels, microphone_1):
    rate = SCENE["sample_rate"]
    for speech in spoken():
        span = slice(round(speech["start"] * rate), round(speech["end"] * rate))
        mic, talker, echo = (x[span] for x in (microphone_1, channels[3], channels[5]))
        noise = [m - t - e for m, t, e in zip(mic, talker, echo)]
        assert abs(dbfs(talker) - dbfs(noise) - speech["to_noise_db"]) < 2, speech
        if speech["to_echo_db"] is not None:
            assert abs(dbfs(talker) - dbfs(echo) - speech["to_echo_db"]) < 2, speech


def test_wakes_cannot_be_taken_for_one_another():
    starts = [speech["start"] for speech in spoken()]
    wakes = [speech for speech in spoken() if speech["wake_phrase"]]
    assert starts == sorted(starts) and len(wakes) == 5
    for one, next_one in zip(wakes, wakes[1:]):
        assert next_one["start"] - one["end"] >= 3
        assert 45 < abs(next_one["heading_deg"] - one["heading_deg"]) < 315


def test_scrambled_microphone_does_not_resemble_the_clear_one(channels, microphone_1):
    scrambled = channels[0]
    shared = sum(a * b for a, b in zip(scrambled, microphone_1))
    power = sum(a * a for a in scrambled) * sum(b * b for b in microphone_1)
    # Signs and samples above the codec's range travel in clear, so this is not 0.
    assert shared * shared / power < 0.5


def test_stretches_hold_what_they_are_named_after(channels):
    talkers, reference = channels[3], channels[4]
    for part in stretches("far_end", talkers):
        assert max(map(abs, part)) <= 1  # the end of a room's reverberation
    for part in stretches("near_end", reference):
        assert max(part) == min(part) == 0
    for kind in ("far_end", "double_talk"):
        for part in stretches(kind, reference):
            assert -23 < dbfs(part) < -17
    for kind in ("near_end", "double_talk"):
        for part in stretches(kind, talkers):
            assert dbfs(part) > -42
