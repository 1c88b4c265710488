"""What each network is trained on, for and judged by: in tasks/NETWORK.py a class Task."""

from __future__ import annotations

import abc
import importlib
import pathlib
from collections.abc import Iterable

import numpy as np
import torch

from training import data
from training.models.layers import load_tables
from training.shared import Config, Tables

NETWORKS = ("ns", "naec", "doa", "kws")

Batch = dict[str, torch.Tensor]


class Task(abc.ABC):
    def __init__(self, config: Config, source: data.Stub | data.Scenes) -> None:
        self.config, self.data = config, source

    @abc.abstractmethod
    def model(self) -> torch.nn.Module:
        """The untrained network."""

    @abc.abstractmethod
    def sample(self, rng: np.random.Generator, split: str, progress: float = 1.0) -> dict[str, np.ndarray]:
        """One batch, float32; called in worker processes. progress: share of the training that is over, which matters to
        recipes that begin with easier batches."""

    @abc.abstractmethod
    def loss(self, model: torch.nn.Module, batch: Batch, rng: np.random.Generator) -> tuple[torch.Tensor, dict[str, float]]:
        """The loss, and what else the log is to hold."""

    @abc.abstractmethod
    def validate(self, model: torch.nn.Module, batch: Batch) -> dict[str, float]:
        """Figures of one batch."""

    def start(self, model: torch.nn.Module, tables: Tables) -> None:
        """Begins with an exported file's tables."""
        load_tables(model, tables)

    def state(self) -> Tables:
        """What a training has learnt beside the network, for a checkpoint to hold."""
        return {}

    def resume(self, state: Tables) -> None:
        return

    def calibrate(self, model: torch.nn.Module, batches: Iterable[Batch]) -> None:
        """Of recipes with a stage `quantise`: sets the ranges of the codes; the model rounds from then on."""
        raise NotImplementedError

    def set_operating_point(self, model: torch.nn.Module, **values: float) -> None:
        """Of recipes that have one: before the export."""
        raise NotImplementedError

    def write_beside(self, folder: pathlib.Path) -> None:
        """What else belongs into a folder that a network was exported to; may move the network's operating point."""
        return

    def examine(self, folder: pathlib.Path) -> None:
        """More than validate() asks of the test split, of what was exported to a folder."""
        return

    def metadata(self) -> dict[str, str]:
        """What an exported file holds beside what all do."""
        return {}


def create(network: str, config: Config, source: data.Stub | data.Scenes) -> Task:
    return importlib.import_module(f".{network}", __name__).Task(config, source)
