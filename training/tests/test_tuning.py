"""The operating point from recordings: as the engine would wake, and what is said of recordings that cannot be used."""

import json
import shutil

import numpy as np
import pytest
import soundfile

from training.device_facts import FULL_SCALE, MEAN_FACTOR, RATE
from training.library import Library
from training.shared import PARAMS, ROOT
from training.tuning import __main__ as tuning
from training.tuning import recordings, report, scores


@pytest.fixture(scope="module")
def parameters():
    return scores.Parameters.of(PARAMS)


@pytest.fixture(scope="module")
def sample(library_path):
    """What the wake-up engine hears of the sample recording."""
    library = Library(library_path)
    x, _ = soundfile.read(ROOT / "samples/living_room.flac", dtype="int16")
    x = np.ascontiguousarray(x[: len(x) // 1024 * 1024].T)
    mics = [library.cancel(library.unscramble(x[c]), x[4])["out"] * FULL_SCALE for c in range(3)]
    return np.int16(np.int16(mics).astype(np.float32).sum(0) * np.float32(MEAN_FACTOR))


def test_every_operating_point_wakes_when_the_engine_with_those_parameters_does(parameters, sample, library_path):
    """On 48 s with five phrases; within two steps, since after a wake the engine's network begins afresh."""
    shifts = np.array([-20, -10, 0, 20])
    trace = scores.Trace.of(sample, parameters, parameters.load(library_path))
    swept = scores.wakes(trace, parameters, shifts)
    assert [len(times) for times in swept] == [1, 4, 5, 6]
    for codes, times in zip(shifts, swept):
        moved = parameters.moved(int(codes))
        np.testing.assert_allclose(scores.engine_wakes(sample, moved, moved.load(library_path)), times, atol=0.061)


def test_a_phrase_that_is_not_compiled_in_is_listened_for(parameters, sample, library_path):
    """Half of the wake phrase is heard wherever the whole is."""
    from dataclasses import replace

    half = replace(parameters, phrase="ling dang", divisor=2.0)
    trace = scores.Trace.of(sample, half, half.load(library_path))
    (swept,) = scores.wakes(trace, half, np.array([0]))
    found = scores.engine_wakes(sample, half, half.load(library_path))
    assert len(found) >= 8 and abs(len(found) - len(swept)) <= 1


def test_the_best_operating_point_hears_most_of_those_allowed():
    found = [
        report.Found("a", [[], [1.0], [1.0], [1.0, 2.0]], 0.1),
        report.Found("b", [[], [], [1.0], [1.0]], 0.1),
    ]
    others = [report.Found("c", [[], [], [3.0], [3.0, 4.0]], 2.0)]
    rows = report.rows([-1.0, 0.0, 1.0, 2.0], found, others)
    assert [row["recall"]["value"] for row in rows] == [0.0, 0.5, 1.0, 1.0]
    assert [row["false_wakes"]["value"] for row in rows] == [0.0, 0.0, 0.5, 1.0]
    assert [report.best(rows, most) for most in (0.0, 0.5, 2.0)] == [1, 2, 2]
    assert report.best(rows, -1.0) is None


@pytest.fixture(scope="module")
def folders(sample, tmp_path_factory):
    """Two phrases of the sample at 48 kHz, and noise."""
    root = tmp_path_factory.mktemp("tune")
    for name in ("with", "without/inside"):
        (root / name).mkdir(parents=True)
    for i, end in enumerate((9.9, 28.0)):
        part = sample[int((end - 4) * RATE) : int(end * RATE)]
        soundfile.write(root / f"with/{i}.flac", np.repeat(part, 3), 3 * RATE)
    noise = np.random.default_rng(1).normal(0, 0.05, 20 * RATE)
    soundfile.write(root / "without/inside/noise.wav", noise, RATE)
    return root


def tune(folders, out, library_path, *options):
    words = ["--positive", folders / "with", "--negative", folders / "without", "--out", out, "--library", library_path]
    return tuning.main([*map(str, words), "--jobs", "1", *options])


def test_the_command_writes_table_picture_and_a_folder_of_parameters(folders, tmp_path, library_path, parameters, capsys):
    pytest.importorskip("matplotlib")
    assert tune(folders, tmp_path, library_path, "--choose", "0.5") == 0
    told = json.loads((tmp_path / "tuning.json").read_text())
    assert told["phrase"] == "ling dang ling dang" and len(told["operating_points"]) > 40
    chosen = told["chosen"]
    assert abs(chosen["nats"] - 0.5) < parameters.nats and chosen["recall"]["value"] == 1 and not chosen["false_wakes_at"]
    assert "engine itself" in capsys.readouterr().out
    assert (tmp_path / "tuning.png").read_bytes()[:4] == b"\x89PNG"
    written = scores.Parameters.of(tmp_path / "params")
    moved = written.tables["chinese_fc_bias"] - parameters.tables["chinese_fc_bias"]
    assert sorted(np.flatnonzero(moved)) == sorted(set(parameters.classes)) and (moved >= 0).all()
    same = [n for n in written.tables if n != "chinese_fc_bias"]
    assert all(np.array_equal(written.tables[n], parameters.tables[n]) for n in same)
    expected = {p.name for p in PARAMS.iterdir() if p.suffix in (".json", ".safetensors")} - {"manifest.json"}
    assert {p.name for p in (tmp_path / "params").iterdir()} == expected


@pytest.mark.parametrize(
    "spoil, said",
    [
        (lambda root: shutil.rmtree(root / "with"), "with: no such folder"),
        (lambda root: [p.unlink() for p in (root / "with").iterdir()], "with: no recordings (aif"),
        (lambda root: (root / "without/inside/noise.wav").rename(root / "without/noise.pcm"), "--raw says what .pcm are"),
    ],
)
def test_a_folder_without_recordings_is_one_line(folders, tmp_path, library_path, spoil, said):
    root = tmp_path / "own"
    shutil.copytree(folders, root)
    spoil(root)
    with pytest.raises(SystemExit) as stopped:
        tune(root, tmp_path / "out", library_path)
    assert said in str(stopped.value) and "\n" not in str(stopped.value) and not (tmp_path / "out").exists()


def test_wrong_requests_are_one_line(folders, tmp_path, library_path):
    for options, said in (("--choose", "9"), "expected -"), (("--false-wakes", "-1"), "no operating point"):
        with pytest.raises(SystemExit, match=said):
            tune(folders, tmp_path, library_path, *options)


def test_recordings_that_cannot_be_used_say_why(tmp_path):
    soundfile.write(tmp_path / "slow.wav", np.zeros(8000), 8000)
    soundfile.write(tmp_path / "empty.wav", np.zeros(0), RATE)
    soundfile.write(tmp_path / "nan.wav", np.full(100, np.nan), RATE, subtype="FLOAT")
    (tmp_path / "text.wav").write_text("no sound")
    for name, said in (
        ("slow", "8000 Hz"),
        ("empty", "no samples"),
        ("nan", "not numbers"),
        ("text", "text.wav"),
        ("none", "none"),
    ):
        with pytest.raises(recordings.Unreadable, match=said):
            recordings.heard(tmp_path / f"{name}.wav")


def test_several_channels_go_through_the_cancellers(tmp_path, sample):
    pytest.importorskip("quibo")
    shutil.copy(ROOT / "samples/living_room.flac", tmp_path)
    wave, _ = recordings.heard(tmp_path / "living_room.flac")
    n = min(len(wave), len(sample))
    assert np.abs(wave[:n].astype(int) - sample[:n]).max() <= 1
