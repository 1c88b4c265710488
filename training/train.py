"""The training loop: AdamW or Muon under a cosine, gradient clipping, checkpoints to resume from and to average.

Batch i is drawn from a generator seeded with (seed, i), so a run that was stopped goes on as if it had not been.
"""

from __future__ import annotations

import concurrent.futures
import contextlib
import csv
import json
import math
import os
import pathlib
import time
from collections.abc import Iterable, Sequence

import numpy as np
import torch
import tqdm

from .models.layers import CausalConv
from .muon import muon
from .shared import Config, Record
from .tasks import Batch, Task

SPLITS = ("train", "valid", "test")


class Batches(torch.utils.data.Dataset):
    """Batch number -> batch. Worker processes mix while the network learns. of: the number of batches of a training that
    goes on to the end of a recipe, from a share `begin` of it; without it all batches are those of its end."""

    def __init__(self, task: Task, seed: int, split: str, count: int, of: int | None = None, begin: float = 0.0) -> None:
        self.task, self.seed, self.split, self.count, self.of, self.begin = task, seed, split, count, of, begin

    def __len__(self) -> int:
        return self.count

    def __getitem__(self, i: int) -> dict[str, torch.Tensor]:
        progress = self.begin + (1 - self.begin) * i / self.of if self.of else 1.0
        batch = self.task.sample(np.random.default_rng([self.seed, SPLITS.index(self.split), i]), self.split, progress)
        return {name: torch.from_numpy(value) for name, value in batch.items()}


def batches(
    task: Task,
    seed: int,
    split: str,
    first: int,
    last: int,
    workers: int,
    of: int | None = None,
    begin: float = 0.0,
) -> torch.utils.data.DataLoader:
    source = Batches(task, seed, split, last, of, begin)
    return (
        torch.utils.data.DataLoader(
            source,
            batch_size=None,
            sampler=range(first, last),
            num_workers=workers,
            prefetch_factor=4 if workers else None,
            worker_init_fn=lambda _: torch.set_num_threads(1),
        )
        if workers
        else torch.utils.data.DataLoader(source, batch_size=None, sampler=range(first, last))
    )


class Log:
    """log.csv with one row per report, and TensorBoard events where TensorBoard is installed."""

    def __init__(self, folder: pathlib.Path) -> None:
        self.path = folder / "log.csv"
        self.board = None
        with contextlib.suppress(ImportError):
            from torch.utils.tensorboard import SummaryWriter

            self.board = SummaryWriter(folder)

    def write(self, step: int, split: str, values: dict[str, float]) -> None:
        new = not self.path.exists()
        with open(self.path, "a", newline="") as f:
            out = csv.writer(f)
            if new:
                out.writerow(["time", "step", "split", "name", "value"])
            for name, value in values.items():
                out.writerow([int(time.time()), step, split, name, f"{value:.6g}"])
                if self.board:
                    self.board.add_scalar(f"{split}/{name}", value, step)


def learning_rate(config: Config, step: int) -> float:
    """Linear rise, then half a cosine down to the final rate."""
    warm, steps = config["warm_up"] * config["steps"], config["steps"]
    high, low = config["learning_rate"], config["final_learning_rate"]
    if step < warm:
        return high * (step + 1) / warm
    return low + (high - low) * 0.5 * (1 + math.cos(math.pi * (step - warm) / max(1, steps - warm)))


def freeze_norm(model: torch.nn.Module) -> None:
    for module in model.modules():
        if isinstance(module, torch.nn.modules.batchnorm._BatchNorm):
            module.eval()


class Gradients:
    """Of a batch, mean over `parts` of it that are worked on by as many threads: small layers keep one core busy, not two.
    Not for models with batch normalisation, whose statistics the threads would share."""

    def __init__(self, task: Task, model: torch.nn.Module, parts: int) -> None:
        self.task, self.model, self.parts = task, model, parts
        self.parameters = list(model.parameters())
        self.pool = concurrent.futures.ThreadPoolExecutor(parts, initializer=torch.set_num_threads, initargs=(1,))

    def of_part(self, batch: dict[str, torch.Tensor], seed: Sequence[int]) -> tuple[dict[str, float], tuple[torch.Tensor, ...]]:
        loss, values = self.task.loss(self.model, batch, np.random.default_rng(seed))
        return {"loss": loss.item(), **values}, torch.autograd.grad(loss, self.parameters, allow_unused=True)

    def __call__(self, batch: dict[str, torch.Tensor], seed: Sequence[int]) -> dict[str, float]:
        """Sets the gradients; returns the values of the loss."""
        if self.parts == 1:
            results = [self.of_part(batch, seed)]
        else:
            chunks = {name: value.chunk(self.parts) if value.ndim else (value,) * self.parts for name, value in batch.items()}
            each = [{name: chunk[i] for name, chunk in chunks.items()} for i in range(self.parts)]
            results = list(self.pool.map(self.of_part, each, [seed] * self.parts))
        values, gradients = zip(*results)
        for p, *g in zip(self.parameters, *gradients):
            p.grad = None if g[0] is None else sum(g) / len(g)
        return {name: float(np.mean([v[name] for v in values])) for name in values[0]}


def train(
    task: Task, config: Config, folder: pathlib.Path, device: str, model: torch.nn.Module | None = None, section: str = "train"
) -> torch.nn.Module:
    """Runs or resumes; returns the model averaged over the last checkpoints, in training form. model: where to start,
    else a new one; section: the part of the configuration with the schedule."""
    c, seed = config[section], config["seed"]
    folder.mkdir(parents=True, exist_ok=True)
    torch.manual_seed(seed)
    model = (model or task.model()).to(device)
    for module in model.modules():
        if isinstance(module, CausalConv):
            module.bfloat16 = c.get("bfloat16", False)
    if c.get("optimizer") == "muon":
        optimizer = muon(model, c["weight_decay"])
    else:
        optimizer = torch.optim.AdamW(model.parameters(), weight_decay=c["weight_decay"], betas=(0.9, 0.99))
    gradients = Gradients(task, model, c.get("parts", 1))
    step = resume(folder, task, model, optimizer)
    log, seen = Log(folder), {}
    valid = list(batches(task, seed, "valid", 0, config["data"]["validation_batches"], 0)) if step < c["steps"] else []
    progress = tqdm.tqdm(total=c["steps"], initial=step, unit="step", mininterval=1 if os.isatty(2) else 60)
    of = c["steps"] if section == "train" else None
    for batch in batches(task, seed, "train", step, c["steps"], config["data"]["workers"], of, c.get("begin", 0.0)):
        model.train()
        if step >= c.get("freeze_norm", 1) * c["steps"]:
            freeze_norm(model)
        for group in optimizer.param_groups:
            group["lr"] = learning_rate(c, step)
        batch = {name: value.to(device) for name, value in batch.items()}
        values = gradients(batch, [seed, 9, step])
        norm = torch.nn.utils.clip_grad_norm_(model.parameters(), c["clip"])
        if torch.isfinite(norm):
            optimizer.step()
        for name, value in {"gradient": norm.item(), **values}.items():
            seen.setdefault(name, []).append(value)
        step += 1
        progress.update()
        if step % c["save_every"] == 0 or step == c["steps"]:
            log.write(step, "train", {name: float(np.mean(values)) for name, values in seen.items()})
            progress.set_postfix(loss=f"{np.mean(seen['loss']):.4f}")
            seen = {}
            save(folder, task, model, optimizer, step, c["average"])
        if step % c["validate_every"] == 0 or step == c["steps"]:
            log.write(step, "valid", validate(task, model, valid, device))
    progress.close()
    model.load_state_dict(averaged(folder))
    if valid:
        log.write(step, "averaged", validate(task, model, valid, device))
    return model


@torch.no_grad()
def validate(task: Task, model: torch.nn.Module, valid: Iterable[Batch], device: str) -> dict[str, float]:
    model.eval()
    results = [task.validate(model, {name: value.to(device) for name, value in batch.items()}) for batch in valid]
    names = sorted({name for r in results for name in r})
    return {name: float(np.mean([r[name] for r in results if name in r])) for name in names}


# ---- checkpoints ----------------------------------------------------------------------------------------------------


def save(
    folder: pathlib.Path, task: Task, model: torch.nn.Module, optimizer: torch.optim.Optimizer, step: int, keep: int
) -> None:
    """checkpoint.pt to resume from, weights-STEP.pt to average; the newest `keep` of these stay."""
    state = {"model": model.state_dict(), "optimizer": optimizer.state_dict(), "task": task.state(), "step": step}
    write(folder / "checkpoint.pt", state)
    write(folder / f"weights-{step:07}.pt", model.state_dict())
    for old in weights(folder)[:-keep]:
        old.unlink()


def write(path: pathlib.Path, value: Record) -> None:
    """Atomically: a run may be stopped at any moment."""
    temporary = path.with_suffix(".new")
    torch.save(value, temporary)
    temporary.replace(path)


def weights(folder: pathlib.Path) -> list[pathlib.Path]:
    return sorted(folder.glob("weights-*.pt"))


def trained_weights(folder: pathlib.Path) -> list[pathlib.Path]:
    found = weights(folder)
    if not found:
        raise SystemExit(f"training: nothing has been trained in {folder} yet")
    return found


def resume(folder: pathlib.Path, task: Task, model: torch.nn.Module, optimizer: torch.optim.Optimizer) -> int:
    path = folder / "checkpoint.pt"
    if not path.exists():
        return 0
    checkpoint = torch.load(path, map_location="cpu")
    model.load_state_dict(checkpoint["model"])
    optimizer.load_state_dict(checkpoint["optimizer"])
    task.resume(checkpoint.get("task", {}))
    return checkpoint["step"]


def averaged(folder: pathlib.Path) -> dict[str, torch.Tensor]:
    """Mean of the kept weights; counters, which have no mean, are the newest ones."""
    states = [torch.load(path, map_location="cpu") for path in trained_weights(folder)]
    return {
        name: torch.stack([s[name] for s in states]).mean(0) if value.is_floating_point() else value
        for name, value in states[-1].items()
    }


def trained_steps(folder: pathlib.Path) -> int:
    return int(trained_weights(folder)[-1].stem.split("-")[1])


def claim(folder: pathlib.Path, steps: int) -> None:
    """Marks a training as the continuation of another one's first `steps` steps; refuses one that continues others, since
    it would go on from them."""
    mark = folder / "continues.json"
    if (folder / "checkpoint.pt").exists() and (not mark.exists() or json.loads(mark.read_text()) != steps):
        raise SystemExit(f"training: {folder} goes on from another float network than that of step {steps}: move it away")
    folder.mkdir(parents=True, exist_ok=True)
    mark.write_text(json.dumps(steps))
