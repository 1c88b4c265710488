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
    raw = subprocess.run(
        [*command, SAMPLES / SCENE["file"]], check=True, stdout=subprocess.PIPE
    ).stdout
    assert len(raw) == SCENE["samples"] * len(SCENE["channels"]) * 2
    interleaved = array.array("h", raw)
    return [interleaved[c::6] for c in range(6)]


@pytest.fixture(scope="module")
def microphone_1(channels, build, unsanitized):
    mic = channels[0][:]
    dec_data = ctypes.CDLL(build / "libquibo.so").dec_data
    dec_data((ctypes.c_int16 * len(mic)).from_buffer(mic), len(mic))
    return mic


def test_microphone_1_is_talkers_plus_echo_plus_the_stated_noise_within_half_a_dB(
    channels, microphone_1
):
    rest = [m - t - e for m, t, e in zip(microphone_1, channels[3], channels[5])]
    noise = (SCENE["levels_dbfs"][n] for n in ("rain_at_microphone_1", "microphone_self_noise"))
    stated = 10 * math.log10(sum(10 ** (level / 10) for level in noise))
    assert abs(dbfs(rest) - stated) < 0.5


def test_scrambled_microphone_does_not_resemble_the_clear_one(channels, microphone_1):
    scrambled = channels[0]
    shared = sum(a * b for a, b in zip(scrambled, microphone_1))
    power = sum(a * a for a in scrambled) * sum(b * b for b in microphone_1)
    # Signs and samples above the codec's range travel in clear, so this is not 0.
    assert shared * shared / power < 0.5


def test_stretches_hold_what_they_are_named_after(channels):
    talkers, reference = channels[3], channels[4]
    for part in stretches("far_end", talkers)[:2]:
        assert max(part) == min(part) == 0
    for part in stretches("near_end", reference):
        assert max(part) == min(part) == 0
    for kind in ("far_end", "double_talk"):
        for part in stretches(kind, reference):
            assert -23 < dbfs(part) < -17
    for kind in ("near_end", "double_talk"):
        for part in stretches(kind, talkers):
            assert dbfs(part) > -42


def test_echo_is_ten_dB_above_the_talkers_while_they_speak_within_2_dB(channels):
    (echo,) = stretches("double_talk", channels[5])
    stated = SCENE["levels_dbfs"]["talkers_at_microphone_1_active"]
    assert abs(dbfs(echo) - stated - 10) < 2
