"""The evaluation over the fleet's engines: the same rows whatever hears the scenes. Needs the package."""

import argparse
import dataclasses
import os

import pytest

pytest.importorskip("quibo")
pytest.importorskip("pystoi")
from conftest import ROOT, SEED

from training.evaluate import sets, work

TINY = dataclasses.replace(
    sets.SHORT, noise=2, direction=1, rooms=40, opinions=0, conditions=("5 dB",), systems=("Quibo, floor 0.1",)
)
SECTIONS = "noise", "direction", "wake"
# Read when Ray is imported: nothing but loopback, nothing reported.
os.environ.update(RAY_ENABLE_WINDOWS_OR_OSX_CLUSTER="0", RAY_USAGE_STATS_ENABLED="0")


@pytest.fixture(scope="module")
def given(audio, bank, library_path, tmp_path_factory):
    return work.Given(library_path, audio, tmp_path_factory.mktemp("clips"), bank.path, TINY, None, SEED)


def heard(given, engine, jobs, address=None):
    return work.measured(given, SECTIONS, argparse.Namespace(engine=engine, jobs=jobs, address=address))


@pytest.fixture(scope="module")
def of_one_process(given):
    return heard(given, "local", 1)


def test_every_scene_is_heard_in_its_place(of_one_process):
    assert list(of_one_process) == list(SECTIONS)
    noise, direction = of_one_process["noise"]["rows"], of_one_process["direction"]["rows"]
    scenes = [row["scene"] for row in noise]
    assert scenes == sorted(scenes) and set(scenes) == {0, 1}
    assert [row["condition"] for row in direction] == [*sets.DIRECTION_CONDITIONS, *sets.POINT_NOISES]
    assert "left_out" in of_one_process["wake"]  # nobody in this corpus says the phrase


def test_two_processes_give_the_rows_of_one(given, of_one_process):
    assert heard(given, "local", 2) == of_one_process


def test_a_scene_that_cannot_be_heard_is_named(given):
    missing = dataclasses.replace(given, library=given.library.with_name("missing.so"))
    work.opened(missing)  # what is missing shows in the workers
    with pytest.raises(SystemExit, match="noise, scene [01]: the worker process ended"):
        heard(missing, "local", 1)


def test_ray_gives_the_rows_of_one_process(given, of_one_process, monkeypatch):
    pytest.importorskip("ray")
    monkeypatch.setenv("PYTHONPATH", os.pathsep.join([str(ROOT), os.environ.get("PYTHONPATH", "")]))
    assert heard(given, "ray", 2) == of_one_process
