"""python -m training COMMAND: see --help. Commands run from the repository root."""

from __future__ import annotations

import argparse
import json
import pathlib
import sys

import tomllib
import torch

from . import data, export, parity, tasks, train
from .cache_keys import file_digest
from .evaluate import diagnosis, listening
from .models.layers import deploy
from .models.quantise import set_mode
from .shared import ROOT, Config
from .tasks import Task

STAGES = ("scenes", "train", "quantise", "export", "evaluate")


def configuration(network: str, path: pathlib.Path | None, smoke: bool) -> Config:
    """The network's TOML; the tables under [smoke] replace the others' values in smoke runs."""
    config = tomllib.loads((path or ROOT / f"training/configs/{network}.toml").read_text())
    reduced = config.pop("smoke", {})
    if smoke:
        for section, values in reduced.items():
            config[section] |= values
    return config


def run_training(arguments: argparse.Namespace) -> None:
    name = data.of(arguments.network).Scenes.settle(arguments)
    config = configuration(arguments.network, arguments.config, arguments.smoke)
    if arguments.steps:
        config["train"]["steps"] = arguments.steps
    if arguments.start:
        # Folded tables have no normalisation left whose statistics could be learnt.
        config["start"] = file_digest(arguments.start)
        if "norm" in config.get("model", {}):
            config["model"]["norm"] = False
            config["train"]["freeze_norm"] = 0
    config |= data.of(arguments.network).Scenes.recorded(arguments)
    folder = arguments.out / f"train-{name}{'-smoke' if arguments.smoke else ''}"
    folder.mkdir(parents=True, exist_ok=True)
    device = "cuda" if torch.cuda.is_available() else "cpu"
    source = data.open_data(arguments.network, config, arguments)
    task = tasks.create(arguments.network, config, source)
    stages = arguments.stages.split(",")
    if "scenes" in stages:
        source.prepare()
    if "train" in stages:
        (folder / "config.json").write_text(json.dumps(config, indent=1))
        train.train(task, config, folder, device, model=started(task, config, arguments))
    if "quantise" in stages and "quantise" in config:
        quantise(task, config, folder, device)
    if "export" in stages:
        export_trained(arguments, task, config, source, folder)
    if "evaluate" in stages:
        model, folder = trained(task, config, folder)
        print("test:", json.dumps(judge(task, model, config, "test", folder)))
        task.examine(arguments.params or folder)


def started(task: Task, config: Config, arguments: argparse.Namespace) -> torch.nn.Module | None:
    """The network to begin with: new, or from an exported file."""
    if not arguments.start:
        return None
    model = task.model()
    task.start(model, export.read(arguments.start))
    return model


def quantise(task: Task, config: Config, folder: pathlib.Path, device: str) -> None:
    model = task.model().to(device)
    model.load_state_dict(train.averaged(folder))
    calibration = train.batches(task, config["seed"] + 1, "train", 0, config["quantise"]["calibration_batches"], 0)
    quantised = folder / "quantised"
    train.claim(quantised, train.trained_steps(folder))
    task.calibrate(model, ({name: value.to(device) for name, value in batch.items()} for batch in calibration))
    train.train(task, config, quantised, device, model, "quantise")


def trained(task: Task, config: Config, folder: pathlib.Path) -> tuple[torch.nn.Module, pathlib.Path]:
    """The averaged network in deployed form, and the folder of its last training."""
    model = task.model()
    if "quantise" in config:
        folder /= "quantised"
        set_mode(model, "codes")
    model.load_state_dict(train.averaged(folder))
    if "operating_point" in config:
        task.set_operating_point(model, **config["operating_point"])
    return deploy(model), folder


def judge(task: Task, model: torch.nn.Module, config: Config, split: str, folder: pathlib.Path) -> dict[str, float]:
    """Figures of a split's first batches; also written to the log."""
    batches = train.batches(task, config["seed"], split, 0, config["data"]["validation_batches"], 0)
    results = train.validate(task, model, batches, "cpu")
    train.Log(folder).write(train.trained_steps(folder), split, results)
    return results


def export_trained(
    arguments: argparse.Namespace, task: Task, config: Config, source: data.Stub | data.Scenes, folder: pathlib.Path
) -> None:
    model, folder = trained(task, config, folder)
    results = judge(task, model, config, "valid", folder)
    print("valid:", json.dumps(results))
    metadata = export.describe(config, train.trained_steps(folder), source.digest(), results) | task.metadata()
    tables = export.fit(arguments.network, model.tables())
    target = arguments.params or folder
    target.mkdir(parents=True, exist_ok=True)
    path, _ = export.write(arguments.network, tables, metadata, target)
    task.write_beside(target)
    digest = file_digest(path)
    draft = path.with_suffix(".draft.md")
    draft.write_text(export.card(arguments.network, metadata, source.sources(), digest))
    print(f"wrote {path}\nSHA-256 {digest}\nwrote {draft}, from which the card is written")
    if arguments.library:
        check, _, _, unit = parity.CHECKS[arguments.network]
        print(f"parity: {check(arguments.library, model):.3g} {unit}")


def run_parity(arguments: argparse.Namespace) -> None:
    if arguments.exported:
        steps = parity.wake_up_tables(arguments.library, export.read(arguments.exported), arguments.steps)
        print(f"{arguments.exported}: {steps} steps equal to the bit")
        return
    for network in arguments.networks or parity.CHECKS:
        worst = max(parity.random_tables(network, arguments.library, seed) for seed in range(arguments.seeds))
        print(f"{network}: {worst:.3g} {parity.CHECKS[network][3]}, {arguments.seeds} random networks")


def main() -> None:
    parser = argparse.ArgumentParser(prog="training", description=__doc__)
    commands = parser.add_subparsers(required=True)
    p = commands.add_parser("train", help="from audio to a parameter file")
    p.add_argument("network", choices=tasks.NETWORKS)
    p.add_argument("--smoke", action="store_true", help="minutes instead of hours: synthetic speech, few rooms and steps")
    p.add_argument("--stub", action="store_true", help="signals from formulas instead of the scene simulator")
    p.add_argument("--data", type=pathlib.Path, help="folder of audio; without it synthetic speech only")
    p.add_argument("--stages", default=",".join(STAGES), help=f"which of {','.join(STAGES)} to run (default: all)")
    p.add_argument(
        "--steps",
        type=int,
        help="length of the training instead of the configuration's; a run that is "
        "resumed with fewer steps comes to its end sooner",
    )
    p.add_argument("--start", type=pathlib.Path, help="parameter file to go on from, instead of a new network")
    p.add_argument("--config", type=pathlib.Path, help="TOML instead of training/configs/NETWORK.toml")
    p.add_argument(
        "--out",
        type=pathlib.Path,
        default=ROOT / "build-training",
        help="rooms, cached audio, checkpoints, logs, exported files",
    )
    p.add_argument("--params", type=pathlib.Path, help="folder to export to (default: the run's own)")
    p.add_argument(
        "--library",
        type=pathlib.Path,
        help="built libquibo.so: canceller and noise suppressor for the scenes, parity at export",
    )
    for network in tasks.NETWORKS:
        data.of(network).Scenes.add_options(p)
    p.set_defaults(run=run_training)
    p = commands.add_parser("parity", help="training graphs against the built library, random tables")
    p.add_argument("networks", nargs="*")
    p.add_argument("--library", type=pathlib.Path, required=True)
    p.add_argument("--seeds", type=int, default=5)
    p.add_argument("--exported", type=pathlib.Path, help="a kws.safetensors instead of random networks")
    p.add_argument("--steps", type=int, default=100000, help="of the exported network")
    p.set_defaults(run=run_parity)
    p = commands.add_parser("listen", help="the wake-up engine alone: recall, near misses, false accepts of held-out speakers")
    listening.add_options(p)
    p.set_defaults(run=listening.run)
    p = commands.add_parser("diagnose", help="what is lost of the wake phrase, and where: per voice, place and condition")
    diagnosis.add_options(p)
    p.set_defaults(run=diagnosis.run)
    arguments = parser.parse_args()
    arguments.run(arguments)


if __name__ == "__main__":
    sys.exit(main())
