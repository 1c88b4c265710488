"""The direction path with its own parameters: where it points on the sample recording, whose talkers' headings are known.

One talker at a time, some over the device's own music and speech, some beside a running tap, which SRP-PHAT takes for the
talker; heard through cancellers and noise suppressors. The direction is asked for as at a wake, a moment after each has
spoken. The bar tells parameters that work, and headings that mean the same in training and in the library, from ones that
do not; ./run evaluate measures how well.
"""

import array
import ctypes
import json

BAR_DEGREES = 20
ASKED_SECONDS = 0.1  # after the talker's last sound
FRAME, BLOCK, RATE = 1024, 480, 16000
FLOOR, OFFSET_DEGREES = 0.3, 30  # the front end's


def frames(build, channels):
    """Per frame, the three microphones behind cancellers and suppressors."""
    quibo = ctypes.CDLL(str(build / "libquibo.so"))
    front_end, suppressors = ctypes.c_void_p(), [ctypes.c_void_p() for _ in range(3)]
    assert quibo.Quibo_wakeup_init(ctypes.byref(front_end), 0) == 0
    for handle in suppressors:
        assert quibo.QuibAncInit(ctypes.byref(handle), ctypes.c_float(FLOOR)) == 0
    buffer = ctypes.c_int16 * FRAME
    for start in range(0, len(channels[0]) // FRAME * FRAME, FRAME):
        inputs = [buffer(*channels[c][start : start + FRAME]) for c in (0, 1, 2, 4)]
        outputs = [buffer() for _ in range(4)]
        assert quibo.Quibo_wakeup_three_write_data(front_end, *inputs, *outputs) == 0
        for handle, mic in zip(suppressors, outputs):
            quibo.QuibAncRun(handle, mic, mic)
        yield outputs[:3]
    quibo.Quibo_wakeup_unit(front_end)
    for handle in suppressors:
        quibo.QuibAncUnit(ctypes.byref(handle))


def test_the_estimator_points_at_every_talker_of_the_sample(build, source, capture, unsanitized):
    scene = json.loads((source / "samples/living_room.json").read_text(encoding="utf-8"))
    channels = [array.array("h", capture.read_bytes())[c::6] for c in range(6)]
    asked = {
        int((talker["end"] + ASKED_SECONDS) * RATE) // BLOCK: talker
        for stretch in scene["stretches"]
        for talker in stretch["speaks"]
    }

    quibo = ctypes.CDLL(str(build / "libquibo.so"))
    estimator, pending, block, off = ctypes.c_void_p(), [[], [], []], 0, {}
    assert quibo.kesto_customs_doa_init(ctypes.byref(estimator)) == 0
    for mics in frames(build, channels):
        pending = [old + list(new) for old, new in zip(pending, mics)]
        while len(pending[0]) >= BLOCK:
            heads = [(ctypes.c_int16 * BLOCK)(*m[:BLOCK]) for m in pending]
            angle = quibo.kesto_customs_doa_write(estimator, *heads, None, int(block in asked))
            if block in asked:
                heading = asked[block]["heading_deg"]
                off[asked[block]["start"]] = abs((angle + OFFSET_DEGREES - heading + 180) % 360 - 180)
            pending, block = [m[BLOCK:] for m in pending], block + 1
    quibo.kesto_customs_doa_unit(estimator)

    assert len(off) == len(asked) and max(off.values()) <= BAR_DEGREES, off
