"""The sample scene after a beep: a device whose alarm rang hears what it heard before."""

import ctypes
import json

import pytest

FRAME, RATE, CHANNELS = 1024, 16000, 6
BEEP_FRAMES = 15 * RATE // FRAME
LATE = 1.5  # s after a phrase


@pytest.fixture(scope="module")
def sample(capture, unsanitized):
    """The sample's frames: per frame the six channels, 1024 int16 each."""
    samples = memoryview(capture.read_bytes()).cast("h")
    whole = len(samples) // (CHANNELS * FRAME)
    return [
        [samples[(f * FRAME) * CHANNELS + c : (f + 1) * FRAME * CHANNELS : CHANNELS].tobytes() for c in range(CHANNELS)]
        for f in range(whole)
    ]


def beep(frame, level):
    """A square wave of 1400 Hz."""
    at = range(frame * FRAME, (frame + 1) * FRAME)
    return (ctypes.c_int16 * FRAME)(*(level if n * 1400 % RATE < RATE // 2 else -level for n in at))


@pytest.mark.parametrize("level", [16384, 3277], ids=["-6 dBFS", "-20 dBFS"])
def test_five_of_five_wakes_after_fifteen_seconds_of_a_beep(sample, source, build, level):
    library = ctypes.CDLL(str(build / "libquibo.so"))
    handle = ctypes.c_void_p()
    assert library.Quibo_wakeup_init(ctypes.byref(handle), 0) == 0
    outs = [(ctypes.c_int16 * FRAME)() for _ in range(4)]
    wake, woke = ctypes.c_int32(), []
    hiss = [(ctypes.c_int16 * FRAME)(*((n * (17 + 2 * m) // 3 % 7 - 3) for n in range(FRAME))) for m in range(3)]
    for frame in range(BEEP_FRAMES + len(sample)):
        if frame < BEEP_FRAMES:
            mics, ref = [(ctypes.c_int16 * FRAME)(*x) for x in hiss], beep(frame, level)
        else:
            parts = [(ctypes.c_int16 * FRAME).from_buffer_copy(x) for x in sample[frame - BEEP_FRAMES]]
            mics, ref = parts[:3], parts[4]
        library.Quibo_wakeup_three_write_data(handle, *mics, ref, *outs)
        library.Quibo_doa_three_write_data(handle, ctypes.byref(wake), *outs, FRAME)
        if wake.value >= 0:
            woke.append((frame + 1 - BEEP_FRAMES) * FRAME / RATE)
    restarts = [library.Quibo_aec_restarts(handle, mic) for mic in (1, 2, 3)]
    library.Quibo_wakeup_unit(handle)
    scene = json.loads((source / "samples/living_room.json").read_text(encoding="utf-8"))
    phrases = [(s["start"], s["end"] + LATE) for x in scene["stretches"] for s in x["speaks"] if s["wake_phrase"]]
    assert len(phrases) == len(woke) == 5, woke
    assert all(start < t < end for (start, end), t in zip(phrases, woke)), woke
    assert min(restarts) >= 1, "the beep does no harm: the test shows nothing"
