"""Whole recordings from Python: the quibo command's code, so its results."""

import json
import os
import pathlib
import subprocess
import wave

import numpy as np
import pytest
import quibo

SAMPLE = pathlib.Path(__file__).resolve().parents[2] / "samples/living_room.flac"
SECONDS = 10  # with the first wake


def write_wav(path, channels, rate=16000):
    with wave.open(str(path), "wb") as file:
        file.setparams((len(channels), 2, rate, 0, "NONE", ""))
        file.writeframes(np.ascontiguousarray(np.asarray(channels).T).tobytes())


def read_wav(path):
    with wave.open(str(path), "rb") as file:
        return np.frombuffer(file.readframes(file.getnframes()), "<i2")


@pytest.fixture(scope="module")
def recording(sample, tmp_path_factory):
    """The start of the sample as a WAV of four plain channels; its microphones and reference."""
    mics, ref = sample[0][:, : SECONDS * 16000], sample[1][: SECONDS * 16000]
    plain = np.stack([quibo.unscramble(mic) for mic in mics])
    path = tmp_path_factory.mktemp("recording") / "kitchen.wav"
    write_wav(path, [*plain, ref])
    return path, plain, ref


def test_read_gives_plain_tracks_whatever_the_layout(recording, capture):
    path, mics, ref = recording
    read = quibo.read(path)
    assert np.array_equal(read.mics, mics) and np.array_equal(read.ref, ref)
    assert (read.about["encoding"], read.about["sample_rate"], read.warnings) == ("plain", 16000, ())
    scrambled = quibo.read(SAMPLE)
    assert scrambled.about["encoding"] == "scrambled"
    assert np.array_equal(scrambled.mics[:, : mics.shape[1]], mics)
    swapped = quibo.read(path, channels="4,2,3,1")
    assert np.array_equal(swapped.mics[0], ref) and np.array_equal(swapped.ref, mics[0])


def test_run_is_the_front_end_lined_up(recording, tmp_path):
    path, mics, ref = recording
    run = quibo.run(path, out=tmp_path, report=True)
    assert (tmp_path / "report.html").stat().st_size > 10_000
    n = len(ref)
    quiet = np.zeros((3, 3 * quibo.FRAME), np.int16)
    with quibo.FrontEnd() as front_end:
        parts = [front_end.process(mics, ref), front_end.process(quiet, quiet[0], last=True)]
    outputs = np.concatenate([part.outputs for part in parts], axis=1)
    clean = np.concatenate([part.clean for part in parts])
    assert np.array_equal(run.outputs, outputs[:, quibo.OUTPUT_DELAY : n + quibo.OUTPUT_DELAY])
    assert np.array_equal(run.clean, clean[quibo.CLEAN_DELAY : n + quibo.CLEAN_DELAY])
    ((wake,), (heard,)) = run.events, parts[0].events
    assert (wake.sample, wake.angle) == (heard.sample, heard.angle)
    assert np.allclose([wake.cost, wake.start, wake.end], [heard.cost, heard.start, heard.end], atol=0.006)
    assert run.levels.shape == (8, SECONDS) and run.summary["wakes"] == 1
    assert np.array_equal(read_wav(tmp_path / "clean.wav"), run.clean)
    assert (tmp_path / "events.jsonl").read_text() == "".join(run.lines)


def test_run_gives_what_the_command_gives(recording, tmp_path):
    command = pathlib.Path(os.environ.get("QUIBO_BUILD_DIR", "")).resolve() / "quibo"
    if not command.is_file():
        pytest.skip("QUIBO_BUILD_DIR names no build with the command")
    subprocess.run([command, "run", recording[0], "-o", tmp_path], check=True, capture_output=True)
    run = quibo.run(recording[0])

    def lines(text):
        costs = "processor_seconds", "core_share"
        return [{k: v for k, v in json.loads(line).items() if k not in costs} for line in text.splitlines()]

    assert lines("".join(run.lines)) == lines((tmp_path / "events.jsonl").read_text())
    assert np.array_equal(read_wav(tmp_path / "mic3.wav"), run.outputs[2])


def test_check_gives_what_the_command_gives(recording, tmp_path):
    _, mics, ref = recording
    path = tmp_path / "clipped.wav"
    write_wav(path, [np.clip(mics[0], -500, 500), mics[1], mics[2], ref])
    check = quibo.check(path)
    assert check.verdict != "fit" and {finding.channel for finding in check.findings} >= {"mic1"}
    command = pathlib.Path(os.environ.get("QUIBO_BUILD_DIR", "")).resolve() / "quibo"
    if not command.is_file():
        pytest.skip("QUIBO_BUILD_DIR names no build with the command")
    done = subprocess.run([command, "check", "--json", path], capture_output=True, text=True)
    told = json.loads(done.stdout)
    ids = [(finding["id"], finding["start"], finding["do"]) for finding in told.pop("findings")]
    assert ids == [(finding.id, finding.start, finding.advice) for finding in check.findings]
    assert told == check.about


def test_run_needs_the_place_of_the_one_front_end_and_gives_it_back(recording):
    with quibo.FrontEnd():
        with pytest.raises(RuntimeError, match="already has a front end"):
            quibo.run(recording[0])
    first, second = (quibo.run(recording[0], threshold=0.9, keep=False) for _ in range(2))
    assert first.outputs is None and first.events == second.events
    assert all(wake.cost < 0.9 for wake in first.events)
    quibo.FrontEnd().close()


@pytest.mark.parametrize(
    "name, options, error, words",
    [
        ("missing.wav", {}, OSError, "No such file"),
        (".", {}, OSError, "folder"),
        ("junk.wav", {}, OSError, "not a recording"),
        ("kitchen.wav", {"channels": "1,2,3,9"}, ValueError, "9"),
        ("kitchen.wav", {"encoding": "mp3"}, ValueError, "'guess' or 'plain' or 'scrambled'"),
    ],
)
@pytest.mark.parametrize("call", [quibo.read, quibo.check, quibo.run])
def test_what_cannot_be_read_is_named(recording, call, name, options, error, words):
    folder = recording[0].parent
    (folder / "junk.wav").write_text("junk")
    with pytest.raises(error) as caught:
        call(folder / name, **options)
    assert words in str(caught.value)
    assert str(folder / name) in str(caught.value) or "encoding" in options
