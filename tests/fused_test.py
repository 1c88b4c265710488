"""The kernels whose multiply-adds round once give other bits; how far they may be from the exact ones: the sample
recording through the whole front end with each of them."""

import array
import math
import os
import re
import subprocess

import pytest

FRAMES = 400  # of 64 ms: every wake that quibo_digest makes, and speech over music
FRAME, FIFO = 1024, 2048  # samples that quibo_digest writes per frame: one frame, then three of the latter
# Below the signal. What differs are single steps of int16, in one of seven thousand samples; behind the noise suppressors
# the signal is quiet, and so each weighs more.
ECHO_DB, NOISE_DB = 90.0, 80.0
ANGLE_DEGREES = 1
TALK = 128  # the frame in which somebody speaks for the first time; before, an angle points at nothing


def play(build, capture, variant, out):
    """(digest lines, {frame: angle} of the wakes, what the suppressors put out)"""
    text = subprocess.run(
        [build / "quibo_digest", capture, str(FRAMES), out],
        check=True,
        capture_output=True,
        text=True,
        env={**os.environ, "QUIBO_KERNELS": variant},
    ).stdout
    digests = dict(re.findall(r"^([a-z -]+?) +([0-9a-f]{16})$", text, re.MULTILINE))
    wakes = {int(frame): int(angle) for frame, angle in re.findall(r"wake 0 at frame (\d+), angle (-?\d+)", text)}
    return digests, wakes, array.array("h", out.read_bytes())


def distance(exact, other, part):
    """dB between the signal and what differs, over that part of every frame."""
    signal = error = 0
    for i in range(0, len(exact), FRAME + 3 * FIFO):
        for x, y in zip(exact[i + part.start : i + part.stop], other[i + part.start : i + part.stop]):
            signal += x * x
            error += (x - y) ** 2
    return 10 * math.log10(signal / max(error, 1))


@pytest.mark.skipif(os.environ.get("QUIBO_SANITIZE") == "ON", reason="the same code as the exact kernels', ten times slower")
def test_fused_kernels_stay_within_their_bars(build, capture, tmp_path):
    fused = subprocess.run([build / "quibo_digest", "--fused"], check=True, capture_output=True, text=True).stdout.split()
    if not fused:
        pytest.skip("this processor has no fused multiply-add")
    digests, wakes, exact = play(build, capture, "scalar", tmp_path / "exact.raw")
    assert len(wakes) > 10
    for variant in fused:
        its_digests, its_wakes, samples = play(build, capture, variant, tmp_path / "fused.raw")
        # Canceller, features and the integer network know no fused operation.
        for name in ("cancellers", "features", "posteriors", "limiter"):
            assert its_digests[name] == digests[name], (variant, name)
        assert its_digests["echo suppressor"] != digests["echo suppressor"], f"{variant} is not in use"
        assert its_wakes.keys() == wakes.keys()
        for frame, angle in ((frame, angle) for frame, angle in wakes.items() if frame >= TALK):
            off = (its_wakes[frame] - angle + 180) % 360 - 180
            assert abs(off) <= ANGLE_DEGREES, (variant, frame)
        for part, bar in ((slice(0, FRAME), ECHO_DB), (slice(FRAME, FRAME + 3 * FIFO), NOISE_DB)):
            assert distance(exact, samples, part) >= bar, (variant, part)
