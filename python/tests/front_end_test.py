"""The front end from Python is the C library's, whatever the chunks and however it is misused."""

import copy
import multiprocessing
import os
import pathlib
import pickle
import re
import subprocess
import sys
import threading

import numpy as np
import pytest
import quibo

SEED = 20251103


@pytest.fixture(scope="module")
def played(sample):
    """The start of the sample with its first wake: plain microphones, reference, and all of it in one call."""
    n = 10 * 16000 + 77
    mics, ref = np.stack([quibo.unscramble(mic[:n]) for mic in sample[0]]), sample[1][:n]
    with quibo.FrontEnd() as front_end:
        result = front_end.process(mics, ref, last=True)
    assert result.outputs.shape == mics.shape and result.clean.shape == ref.shape and len(result.events) == 1
    return mics, ref, result


def same(one, other):
    arrays = np.array_equal(one.outputs, other.outputs) and np.array_equal(one.clean, other.clean)
    return arrays and (one.events, one.restarts) == (other.events, other.restarts)


def joined(results):
    return quibo.Result(
        np.concatenate([r.outputs for r in results], axis=1),
        np.concatenate([r.clean for r in results]),
        tuple(event for r in results for event in r.events),
        results[-1].restarts,
    )


def test_sample_gives_the_drivers_file_and_lines(capture, sample, tmp_path):
    with quibo.FrontEnd(encoding="scrambled") as front_end:
        result = front_end.process(*sample)
    assert len(result.events) == 5
    assert all(0 < wake.cost < quibo.THRESHOLD and 0 <= wake.angle < 360 for wake in result.events)
    if "QUIBO_BUILD_DIR" not in os.environ:
        pytest.skip("QUIBO_BUILD_DIR names no build with the driver")
    for folder in "wav", "wav2":
        (tmp_path / folder).mkdir()
    capture.tofile(tmp_path / "wav/input_frame_20251107_140756.pcm")
    driver = pathlib.Path(os.environ["QUIBO_BUILD_DIR"]).resolve() / "quibo_demo"
    lines = subprocess.run([driver], cwd=tmp_path, check=True, capture_output=True, text=True).stdout
    assert result.clean.tobytes() == (tmp_path / "wav2/nnaec.pcm").read_bytes()
    times = re.findall(r"is_wakeup:0 \(time:(\d+) m,(\d+) s,(\d+) ms", lines)
    in_ms = [(60 * int(m) + int(s)) * 1000 + int(ms) for m, s, ms in times]
    assert [round(1000 * wake.seconds) for wake in result.events] == in_ms
    assert [wake.angle for wake in result.events] == [int(angle) for angle in re.findall(r"Doa:(\d+)", lines)]


@pytest.mark.parametrize("sizes", [(1024,), (480,), (1, 1023, 5000, 17)], ids=str)
def test_any_chunks_give_the_bits_of_one_call(played, sizes):
    mics, ref, whole = played
    results, at, n = [], 0, len(ref)
    with quibo.FrontEnd() as front_end:
        while at < n:
            chunk = slice(at, min(at + sizes[len(results) % len(sizes)], n))
            at = chunk.stop
            results.append(front_end.process(mics[:, chunk], ref[chunk], last=at == n))
    assert same(joined(results), whole)


def test_every_front_end_starts_like_the_first_and_takes_any_order_and_floats(played):
    mics, ref, first = played
    for inputs in np.asfortranarray(mics), mics / 32768:
        with quibo.FrontEnd() as front_end:
            assert same(front_end.process(inputs, ref, last=True), first)


def test_threshold_moves_what_is_heard(played):
    mics, ref, shipped = played
    (wake,) = shipped.events
    with quibo.FrontEnd(threshold=0.01) as front_end:
        assert front_end.process(mics, ref).events == ()
    with quibo.FrontEnd(threshold=1.01 * wake.cost) as front_end:
        (same_wake,) = front_end.process(mics, ref).events
    assert same_wake.sample == wake.sample and abs(same_wake.cost - wake.cost) < 1e-5


def test_restarts_of_the_cancellers_are_counted(played):
    """None in ordinary use; each at least once when a voice comes after 15 s of a beep that no microphone hears."""
    mics, ref, shipped = played
    assert shipped.restarts == (0, 0, 0)
    beep = np.where(np.arange(15 * quibo.RATE) * 1400 % quibo.RATE < quibo.RATE // 2, 16384, -16384).astype(np.int16)
    hiss = np.random.default_rng(SEED).integers(-3, 4, (3, len(beep))).astype(np.int16)
    with quibo.FrontEnd() as front_end:
        counts = [front_end.process(hiss, beep).restarts, front_end.process(mics, ref).restarts]
    assert min(counts[1]) >= 1 and all(before <= after for before, after in zip(*counts))


NOISE = np.random.default_rng(SEED).integers(-1000, 1000, (3, 4096)).astype(np.int16)


@pytest.mark.parametrize(
    "mics, ref, error, words",
    [
        (NOISE.astype(np.int32), NOISE[0], TypeError, ["mics", "int32", "int16"]),
        (NOISE, NOISE[0].astype(np.uint8), TypeError, ["ref", "uint8", "int16"]),
        (NOISE.astype(">i2"), NOISE[0], TypeError, ["mics", ">i2"]),
        (NOISE.T, NOISE[0], ValueError, ["mics", "(4096, 3)", "(3, n)", "transpose"]),
        (NOISE[0], NOISE[0], ValueError, ["mics", "(4096,)", "(3, n)"]),
        (NOISE[:2], NOISE[0], ValueError, ["mics", "(2, 4096)", "(3, n)"]),
        (NOISE, NOISE[:1], ValueError, ["ref", "(1, 4096)", "(n,)"]),
        (NOISE, NOISE[0, :-1], ValueError, ["mics 4096", "ref 4095"]),
        (np.where(NOISE == NOISE[1, 7], np.nan, 0.0), NOISE[0], ValueError, ["mics", "nan", "numbers"]),
        (NOISE, np.full(4096, -np.inf, np.float32), ValueError, ["ref", "-inf at [0]", "4096"]),
        ("mics", NOISE[0], TypeError, ["mics", "<U4"]),
    ],
)
def test_wrong_arrays_are_named_and_leave_the_front_end_as_it_was(mics, ref, error, words):
    with quibo.FrontEnd() as front_end:
        with pytest.raises(error) as caught:
            front_end.process(mics, ref)
        assert all(word in str(caught.value) for word in words), caught.value
        after = front_end.process(NOISE, NOISE[0])
    with quibo.FrontEnd() as front_end:
        assert same(front_end.process(NOISE, NOISE[0]), after)


@pytest.mark.parametrize(
    "options, words",
    [
        ({"encoding": "mp3"}, ["encoding", "'plain' or 'scrambled'"]),
        ({"rate": 48000}, ["rate", "48000", "16000"]),
        ({"threshold": 0}, ["threshold", "above 0"]),
        ({"threshold": float("nan")}, ["threshold", "nan"]),
    ],
)
def test_wrong_options_are_named(options, words):
    with pytest.raises(ValueError) as caught:
        quibo.FrontEnd(**options)
    assert all(word in str(caught.value) for word in words), caught.value


def test_floats_beyond_full_scale_saturate():
    loud = np.array([1.5, 1.0, -1.0, -7.0] * 1024)
    with quibo.FrontEnd() as front_end:
        floats = front_end.process(np.stack(3 * [loud]), loud)
    limits = np.array([32767, 32767, -32768, -32768] * 1024, np.int16)
    with quibo.FrontEnd() as front_end:
        assert same(front_end.process(np.stack(3 * [limits]), limits), floats)


def test_a_second_one_is_refused_until_the_first_is_closed():
    first = quibo.FrontEnd()
    for make in quibo.FrontEnd, quibo.EchoSuppressor:
        with pytest.raises(RuntimeError, match="already has a front end"):
            make()
    first.process(NOISE, NOISE[0])
    first.close()
    first.close()
    with pytest.raises(RuntimeError, match="FrontEnd is closed"):
        first.process(NOISE, NOISE[0])
    quibo.FrontEnd().close()


def test_pickle_and_copy_are_refused():
    with quibo.FrontEnd() as front_end:
        for duplicate in pickle.dumps, copy.copy, copy.deepcopy:
            with pytest.raises(TypeError, match="FrontEnd can be neither pickled nor copied"):
                duplicate(front_end)


def in_a_fork(front_end, answers):
    try:
        front_end.process(NOISE, NOISE[0])
    except RuntimeError as error:
        answers.put(str(error))
    with quibo.FrontEnd() as own:
        answers.put(own.process(NOISE, NOISE[0]).clean.tobytes())


def test_a_fork_refuses_its_parents_front_end_and_makes_its_own():
    context = multiprocessing.get_context("fork")
    with quibo.FrontEnd() as front_end:
        answers = context.Queue()
        child = context.Process(target=in_a_fork, args=(front_end, answers))
        child.start()
        refused, clean = answers.get(timeout=30), answers.get(timeout=30)
        child.join()
        assert f"process {os.getpid()}" in refused and child.exitcode == 0
        assert front_end.process(NOISE, NOISE[0]).clean.tobytes() == clean


def test_computes_while_other_threads_run_and_refuses_their_chunks(played):
    """The GIL is released: a second thread gets its errors while the first computes."""
    mics, ref, expected = played
    results = []
    with quibo.FrontEnd() as front_end:
        worker = threading.Thread(target=lambda: results.append(front_end.process(mics, ref, last=True)))
        worker.start()
        refused = 0
        while worker.is_alive():
            try:
                front_end.process(mics[:, :0], ref[:0])
            except RuntimeError as error:
                assert "another thread" in str(error) or "closed" in str(error)
                refused += "another" in str(error)
        worker.join()
    assert refused > 100 and same(results[0], expected)


def test_ctrl_c_stops_a_long_call_and_closes_it():
    script = """
import _thread, signal, threading, numpy as np, quibo
signal.signal(signal.SIGINT, signal.default_int_handler)  # a shell's background jobs ignore it
front_end = quibo.FrontEnd()
threading.Timer(0.5, _thread.interrupt_main).start()
try:
    front_end.process(np.zeros((3, 16000 * 1800), np.int16), np.zeros(16000 * 1800, np.int16))
except KeyboardInterrupt:
    quibo.FrontEnd()
    print("stopped")
"""
    assert subprocess.run([sys.executable, "-c", script], check=True, capture_output=True, text=True).stdout == "stopped\n"


def test_says_nothing_on_standard_output():
    script = "import quibo; quibo.FrontEnd().close(); quibo.EchoSuppressor().close()"
    assert subprocess.run([sys.executable, "-c", script], check=True, capture_output=True).stdout == b""
