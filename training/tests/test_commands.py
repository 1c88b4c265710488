"""The command line from its options to its files: what a run goes on from, records and leaves."""

import csv
import json
import sys

import numpy as np
import pytest
import torch
from test_training import task

from training import __main__, engine, export, parity, tasks, train
from training.cache_keys import file_digest
from training.data import doa
from training.device_facts import FRAME
from training.models.layers import deploy
from training.models.ns import NoiseSuppressor
from training.scenes import cache, clip_store
from training.shared import PARAMS

torch.set_num_threads(1)


SHORT = {
    "data": {"batch": 2, "seconds": 1.024, "validation_batches": 1, "workers": 0},
    "train": {"save_every": 1, "average": 1, "validate_every": 2},
}


@pytest.fixture
def command(monkeypatch, tmp_path):
    """`python -m training train NETWORK --stub --smoke`, shorter still, in a folder of its own."""
    whole = __main__.configuration

    def configuration(*arguments):
        config = whole(*arguments)
        return config | {table: config[table] | values for table, values in SHORT.items()}

    def run(network, *options):
        arguments = ["train", network, "--stub", "--smoke", "--out", tmp_path, *options]
        monkeypatch.setattr(sys, "argv", ["training", *map(str, arguments)])
        __main__.main()
        return tmp_path / f"train-{network}-smoke"

    monkeypatch.setattr(__main__, "configuration", configuration)
    return run


def rows(folder):
    with open(folder / "log.csv", newline="") as f:
        return [(int(r["step"]), r["split"], r["name"], float(r["value"])) for r in csv.DictReader(f)]


def test_a_run_is_gone_on_with_exported_and_judged(command, capsys):
    """Steps count on, the file says how many, and the test split is judged last."""
    folder = command("ns", "--steps", 2, "--stages", "train")
    assert train.trained_steps(folder) == 2
    command("ns", "--steps", 4)
    steps = [step for step, split, name, _ in rows(folder) if (split, name) == ("train", "loss")]
    assert steps == [1, 2, 3, 4] and train.trained_steps(folder) == 4
    _, metadata = export.safetensors_file.read(folder / "ns.safetensors")
    assert metadata["steps"] == "4" and json.loads(metadata["config"])["train"]["steps"] == 4
    assert json.loads((folder / "config.json").read_text()) == json.loads(metadata["config"])
    results = json.loads(metadata["results"])
    assert set(results) == {"loss", "si_sdr", "si_sdr_improvement"} and all(np.isfinite(v) for v in results.values())
    assert {split for _, split, _, _ in rows(folder)} == {"train", "valid", "averaged", "test"}
    assert "test: {" in capsys.readouterr().out
    tables, trained = export.read(folder / "ns.safetensors"), NoiseSuppressor()
    trained.load_state_dict(train.averaged(folder))
    wanted = export.fit("ns", deploy(trained).tables())
    assert all(np.array_equal(tables[name], values) for name, values in wanted.items())


@pytest.mark.parametrize("network", ["ns", "naec", "doa"])
def test_a_start_is_the_network_in_the_file(network):
    """Table by table within 1e-5, before a step is made."""
    path = PARAMS / f"{network}.safetensors"
    t, config = task(network)
    if "norm" in config["model"]:
        config["model"]["norm"] = False
    arguments = __main__.argparse.Namespace(start=path)
    model = __main__.started(t, config, arguments)
    wanted = export.read(path)
    for name, values in export.fit(network, deploy(model).tables()).items():
        assert np.allclose(values, wanted[name], atol=1e-5), name
    assert __main__.started(t, config, __main__.argparse.Namespace(start=None)) is None


def test_what_a_run_starts_and_listens_from_is_recorded(command):
    """By content; and a folded network has no statistics left to learn."""
    folder = command("ns", "--steps", 1, "--stages", "train", "--start", PARAMS / "ns.safetensors")
    config = json.loads((folder / "config.json").read_text())
    assert config["start"] == file_digest(PARAMS / "ns.safetensors")
    assert config["model"]["norm"] is False and config["train"]["freeze_norm"] == 0
    assert not any("encoder" in name and "running_mean" in name for name in train.averaged(folder))
    arguments = __main__.argparse.Namespace(suppressor=PARAMS / "naec.safetensors")
    assert doa.Scenes.recorded(arguments) == {"suppressor": file_digest(PARAMS / "naec.safetensors")}


@pytest.mark.parametrize("stages", ["export", "evaluate"])
def test_what_has_not_been_trained_cannot_be_exported(stages, command):
    with pytest.raises(SystemExit, match="nothing has been trained"):
        command("ns", "--stages", stages)


@pytest.mark.parametrize("network", tasks.NETWORKS)
def test_scenes_through_the_library_ask_for_it(network, tmp_path):
    """Before anything is drawn, in words; noise needs none, and the wake-up network does without remainders."""
    _, config = task(network)
    arguments = __main__.argparse.Namespace(
        stub=False, library=None, out=tmp_path, smoke=True, data=None, suppressor=None, cutter=None, voices=None
    )
    scenes = __main__.data.open_data(network, config, arguments)
    if network in ("naec", "doa"):
        with pytest.raises(SystemExit, match="--library"):
            scenes.built()
    if network == "kws":
        assert scenes.remainders("train") is None
    assert scenes.folder("bank") == tmp_path / "bank-smoke"
    if "clips" in config["data"]:
        assert scenes.clips("train") >= scenes.clips("test") == scenes.clips("valid")


# ---- the library beside the training graph ----------------------------------------------------------------------------


def test_tables_and_states_belong_to_one_copy_of_the_library(library_path):
    """Parity of one network is not to be that of the one before: neither tables nor recurrent states are shared."""
    mics = parity.signals(np.random.default_rng(1), 1, 10)
    tables = [export.fit("ns", parity.random_model(NoiseSuppressor, seed).tables()) for seed in (1, 2)]
    first, other = (engine.load(library_path, t) for t in tables)
    alone = engine.suppress_noise(first, mics, 0.1)
    assert not np.array_equal(alone, engine.suppress_noise(other, mics, 0.1))
    with engine.loaded(library_path, tables[0]) as again:
        assert np.array_equal(engine.suppress_noise(again, mics, 0.1), alone)
        # A second recording goes on with the states of the first: that is why every run has a copy of its own.
        assert not np.array_equal(engine.suppress_noise(again, mics, 0.1), alone)
    assert alone.shape[1] == 10 * FRAME and alone.any()


def test_clips_of_a_store_are_what_was_put_in(tmp_path):
    """In full scale, by number from either end, so many as were asked for."""
    signals = {
        "mic": np.array([16384, -32768], np.int16),
        "echo": np.array([0.25, -0.5], np.float32),
        "target": np.array([0, 8192], np.int16),
    }
    made = {"samples": 2, "of": "test"}
    folder = clip_store.fill(tmp_path, cache.fields, made, 3, Numbered, (signals,))
    clips = cache.AecCache(folder, 2)
    assert len(clips) == 2 and [clips[i]["scenario"] for i in (0, 1, -1)] == ["0", "1", "1"]
    assert clips[1]["mic"].tolist() == [0.5, -1.0] and clips[1]["target"].tolist() == [0.0, 0.25]
    assert clips[1]["echo"].tolist() == [0.25, -0.5] and clips[0]["mic"].dtype == np.float32
    for outside in (2, -3):
        with pytest.raises(IndexError):
            clips[outside]
    with pytest.raises(FileNotFoundError, match="nothing has been made"):
        cache.AecCache(tmp_path / "other")


class Numbered:
    """A maker of the same clip, numbered."""

    def __init__(self, signals):
        self.signals = signals

    def __call__(self, number):
        return self.signals, {"scenario": str(number)}
