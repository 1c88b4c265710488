"""The kernels whose multiply-adds round once give other bits; how far they may be from the exact ones: the sample
recording through the whole front end with each of them, and QUIBO_FUSED_MINUTES of the soak's scenes (./run check: 5)."""

import array
import math
import os
import re
import subprocess
import sys

import pytest

FRAMES = 400  # of 64 ms: every wake that quibo_digest makes, and speech over music
FRAME, FIFO = 1024, 2048  # samples that quibo_digest writes per frame: one frame, then three of the latter
# Below the signal. What is put out is rounded to int16, and of two values that are less than a step apart as large a share
# is rounded to different steps: so the mean difference is that before rounding, however quiet the signal.
BAR_DB = 90.0
ANGLE_DEGREES = 1
# In the scenes sounds come from nowhere in particular, and a wake is forced at any moment. Where it falls between words,
# what the noise suppressors leave is a few steps of int16, of which the direction estimator sees the phase alone.
FURTHER_APART = 0.05  # of the scenes' angles
TALK = 128  # the frame in which somebody speaks for the first time; before, an angle points at nothing
SEED = 20251103


def fused_variants(build):
    listed = subprocess.run([build / "quibo_digest", "--fused"], check=True, capture_output=True, text=True).stdout.split()
    if not listed:
        pytest.skip("this processor has no fused multiply-add")
    return listed


def play(build, capture, variant, out, frames=FRAMES):
    """(digest lines, {frame: angle} of the wakes, what the suppressors put out)"""
    text = subprocess.run(
        [build / "quibo_digest", capture, str(frames), out],
        check=True,
        capture_output=True,
        text=True,
        env={**os.environ, "QUIBO_KERNELS": variant},
    ).stdout
    digests = dict(re.findall(r"^([a-z -]+?) +([0-9a-f]{16})$", text, re.MULTILINE))
    wakes = {int(frame): int(angle) for frame, angle in re.findall(r"wake 0 at frame (\d+), angle (-?\d+)", text)}
    return digests, wakes, array.array("h", out.read_bytes())


def degrees_off(exact, other):
    return abs((other - exact + 180) % 360 - 180)


def decibels(energy, difference, count):
    """Of a signal's energy and the sum of the differences over its samples."""
    return 10 * math.log10(max(energy, 1) / count) - 20 * math.log10(max(difference, 1) / count)


def distance(exact, other, part):
    """dB between the signal and the mean difference, over that part of every frame."""
    energy = difference = count = 0
    for i in range(0, len(exact), FRAME + 3 * FIFO):
        xs = exact[i + part.start : i + part.stop]
        energy += sum(x * x for x in xs)
        difference += sum(abs(x - y) for x, y in zip(xs, other[i + part.start : i + part.stop]))
        count += len(xs)
    return decibels(energy, difference, count)


@pytest.mark.skipif(os.environ.get("QUIBO_SANITIZE") == "ON", reason="the same code as the exact kernels', ten times slower")
def test_fused_kernels_stay_within_their_bars(build, capture, tmp_path):
    variants = fused_variants(build)
    digests, wakes, exact = play(build, capture, "scalar", tmp_path / "exact.raw")
    assert len(wakes) > 10
    among = []
    for variant in variants:
        its_digests, its_wakes, samples = play(build, capture, variant, tmp_path / "fused.raw")
        among.append((its_digests, its_wakes))
        # Canceller, features and the integer network know no fused operation.
        for name in ("cancellers", "features", "posteriors", "limiter"):
            assert its_digests[name] == digests[name], (variant, name)
        assert its_digests["echo suppressor"] != digests["echo suppressor"], f"{variant} is not in use"
        assert its_wakes.keys() == wakes.keys()
        for frame, angle in ((frame, angle) for frame, angle in wakes.items() if frame >= TALK):
            assert degrees_off(angle, its_wakes[frame]) <= ANGLE_DEGREES, (variant, frame)
        for part in (slice(0, FRAME), slice(FRAME, FRAME + 3 * FIFO)):
            assert distance(exact, samples, part) >= BAR_DB, (variant, part)
    assert among.count(among[0]) == len(among), "they agree with each other to the bit"


def scenes(library, minutes):
    """(name, captures as quibo_digest reads them) of a minute each: what the soak plays, every fault with every sound."""
    numpy = pytest.importorskip("numpy")
    import soak

    player = soak.Library(library)
    sample = soak.Sample(player)
    sources = {"speech": lambda rng, n: soak.talk(rng, sample.others, n)[0], "music": soak.music}
    for i in range(minutes):
        fault = soak.FAULTS[i % len(soak.FAULTS)]
        kind = soak.PLAYED[(i + i // len(soak.FAULTS)) % len(soak.PLAYED)]
        mics, ref, _ = soak.episode(numpy.random.default_rng([SEED, i]), sample, sources, kind, fault)
        for frame in range(0, mics.shape[1], FRAME):
            for mic in mics:
                player.so.enc_data(mic[frame:].ctypes.data, FRAME)
        capture = numpy.zeros((mics.shape[1], 6), numpy.int16)
        capture[:, :3], capture[:, 4] = mics.T, ref
        yield f"{i}: {kind}, {fault}", capture.tobytes()


def test_fused_kernels_stay_within_their_bars_over_scenes(build, source, tmp_path):
    minutes = int(os.environ.get("QUIBO_FUSED_MINUTES", "0"))
    if not minutes:
        pytest.skip("./run check asks for it")
    numpy = pytest.importorskip("numpy")
    sys.path.append(str(source / "tools"))
    *_, variant = fused_variants(build)
    names = subprocess.run([build / "quibo_digest", "--variants"], check=True, capture_output=True, text=True).stdout.split()
    worst = {"echo": (math.inf, ""), "noise": (math.inf, "")}
    woke, off = 0, []
    for scene, raw in scenes(build / "libquibo.so", minutes):
        (tmp_path / "capture.raw").write_bytes(raw)
        (digests, wakes, exact), (its_digests, its_wakes, samples) = (
            play(build, tmp_path / "capture.raw", v, tmp_path / "out.raw", 10**6) for v in (names[-1], variant)
        )
        for name in ("cancellers", "features", "posteriors"):
            assert its_digests[name] == digests[name], (scene, name)
        assert its_wakes.keys() == wakes.keys(), scene
        woke += len(wakes)
        off += [
            (scene, f, angle, its_wakes[f]) for f, angle in wakes.items() if degrees_off(angle, its_wakes[f]) > ANGLE_DEGREES
        ]
        exact, samples = (numpy.asarray(x, numpy.int64).reshape(-1, FRAME + 3 * FIFO) for x in (exact, samples))
        for name, x, y in (("echo", exact[:, :FRAME], samples[:, :FRAME]), ("noise", exact[:, FRAME:], samples[:, FRAME:])):
            worst[name] = min(worst[name], (decibels((x * x).sum(), abs(x - y).sum(), x.size), scene))
    print(f"{minutes} minutes, {woke} wakes; least distance {worst}; angles further apart: {off}")
    assert min(worst.values())[0] >= BAR_DB, worst
    assert len(off) <= FURTHER_APART * woke
