"""Fleets: the same rows whatever runs them, and nothing lost when workers die or a run is stopped."""

import os
import pathlib
import signal
import subprocess
import sys

import numpy as np
import pytest
import quibo
from quibo.fleet import __main__ as fleet
from quibo.fleet import addresses, local, retry
from recordings_test import write_wav

pq = pytest.importorskip("pyarrow.parquet")
MACHINE = "kernels", "host", "processor_seconds"


@pytest.fixture(scope="module")
def folder(sample, tmp_path_factory):
    """Four recordings, one with a wake, one that is none, and one in a folder below."""
    path = tmp_path_factory.mktemp("field")
    mics, ref = np.stack([quibo.unscramble(mic) for mic in sample[0]]), sample[1]
    for name, start, end in ("wake", 0, 10), ("quiet", 0, 2), ("below/short", 3, 5):
        part = slice(start * 16000, end * 16000)
        (path / name).parent.mkdir(exist_ok=True)
        write_wav(path / f"{name}.wav", [*mics[:, part], ref[part]])
    (path / "broken.wav").write_bytes((path / "quiet.wav").read_bytes()[:30])
    (path / "notes.txt").write_text("not audio")
    return path


def rows(out):
    """What does not depend on the machine."""
    recordings = pq.read_table(out / "recordings.parquet")
    return recordings.drop_columns(list(MACHINE)).to_pylist(), pq.read_table(out / "events.parquet").to_pylist()


def run(*arguments):
    return fleet.main([str(argument) for argument in arguments])


@pytest.fixture(scope="module")
def of_one_process(folder, tmp_path_factory):
    out = tmp_path_factory.mktemp("one")
    assert run(folder, "--out", out, "--jobs", 1) == 1  # one is broken
    return out


def test_rows_tell_what_a_run_tells(folder, of_one_process):
    recordings, events = rows(of_one_process)
    assert [pathlib.Path(row["recording"]).name for row in recordings] == [
        *("short.wav", "broken.wav", "quiet.wav", "wake.wav")
    ]
    assert [row["error"] is None for row in recordings] == [True, False, True, True]
    alone = quibo.run(folder / "wake.wav")
    (event,) = events
    assert event["recording"] == str(folder / "wake.wav")
    assert (event["sample"], event["angle"]) == (alone.events[0].sample, alone.events[0].angle)
    assert (recordings[3]["wakes"], recordings[3]["seconds"]) == (1, 10.0)
    check = quibo.check(folder / "wake.wav")
    assert recordings[3]["verdict"] == check.verdict
    assert [finding["id"] for finding in recordings[3]["findings"]] == [finding.id for finding in check.findings]
    digests = {row["name"]: row["digest"] for row in recordings[1]["parameters"]}
    assert digests == quibo.about()["parameters"]


def test_two_processes_give_the_rows_of_one(folder, of_one_process, tmp_path):
    run(folder, "--out", tmp_path, "--jobs", 2)
    assert rows(tmp_path) == rows(of_one_process)


def test_a_stopped_run_goes_on_where_it_was(folder, of_one_process, tmp_path, monkeypatch):
    run(folder / "quiet.wav", folder / "broken.wav", "--out", tmp_path)
    given = []
    monkeypatch.setattr(local, "run", lambda work, names, jobs: given.extend(names) or map(lambda n: (n, work(n)), names))
    run(folder, "--out", tmp_path)
    assert sorted(pathlib.Path(name).name for name in given) == ["short.wav", "wake.wav"]
    assert rows(tmp_path) == rows(of_one_process)


def test_results_of_other_settings_are_not_mixed(folder, of_one_process, capsys):
    assert run(folder, "--out", of_one_process, "--encoding", "plain") == 2
    assert "other settings (encoding)" in capsys.readouterr().err


def die_once(task):
    """Ends its process the first time it gets a task of an even number, and always 7's."""
    marker = pathlib.Path(os.environ["FLEET_TEST"]) / str(task)
    if task == 7 or (task % 2 == 0 and not marker.exists()):
        marker.touch()
        os.kill(os.getpid(), signal.SIGKILL)
    return task * task


def test_a_killed_worker_loses_nothing_and_a_deadly_task_takes_no_other_along(tmp_path, monkeypatch):
    monkeypatch.setenv("FLEET_TEST", str(tmp_path))
    results = dict(local.run(die_once, range(10), jobs=2))
    assert sorted(results) == list(range(10))
    deadly = results.pop(7)
    assert isinstance(deadly, retry.Died) and "-9" in str(deadly)
    assert all(result == task * task for task, result in results.items())


def test_recordings_are_named_by_folder_glob_list_and_address(folder, tmp_path):
    import fsspec

    names = ["below/short.wav", "broken.wav", "quiet.wav", "wake.wav"]
    everything = [str(folder / name) for name in names]
    assert addresses.find([str(folder)]) == everything
    assert addresses.find([str(folder / "**/*.wav"), str(folder / "quiet.wav")]) == everything
    (tmp_path / "list").write_text(f"{folder}/wake.wav\n\n{folder}/missing.wav\n")
    assert addresses.find([f"@{tmp_path}/list"]) == [str(folder / "wake.wav"), str(folder / "missing.wav")]

    memory = fsspec.filesystem("memory")
    memory.put(str(folder / "quiet.wav"), "/field/quiet.wav")
    assert addresses.find(["memory://field"]) == ["memory:///field/quiet.wav"]
    with addresses.as_file("memory:///field/quiet.wav") as path:
        assert pathlib.Path(path).read_bytes() == (folder / "quiet.wav").read_bytes()
    assert not pathlib.Path(path).exists()


def test_wrong_use_is_told_in_a_line(tmp_path):
    for arguments in ["x.wav"], ["x.wav", "--out", tmp_path, "--jobs", "0"], ["@nolist", "--out", tmp_path]:
        done = subprocess.run([sys.executable, "-m", "quibo.fleet", *arguments], capture_output=True, text=True)
        assert done.returncode == 2 and "Traceback" not in done.stderr
