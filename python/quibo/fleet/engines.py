"""What runs the work: processes on this machine, or a Ray cluster."""

from __future__ import annotations

import argparse
import os
from collections.abc import Callable, Iterable, Iterator
from typing import TypeVar

from . import local, on_ray
from .retry import Died

Task = TypeVar("Task")
Result = TypeVar("Result")


def add_options(parser: argparse.ArgumentParser, tasks: str) -> None:
    """The options of run(); check() judges them. tasks: what they are called in the help."""
    parser.add_argument("--engine", choices=("local", "ray"), default="local", help="processes here, or a Ray cluster")
    parser.add_argument("--address", help="of a Ray cluster, 'auto' for the one this machine is in; else Ray starts here")
    parser.add_argument("--jobs", type=int, help=f"{tasks} at a time (default: one per core)")


def check(options: argparse.Namespace) -> None:
    """Raises ValueError for options that cannot be."""
    if options.jobs is not None and options.jobs < 1:
        raise ValueError(f"--jobs {options.jobs}: at least 1")
    if options.address and options.engine != "ray":
        raise ValueError("--address is for --engine ray")


def run(
    options: argparse.Namespace, work: Callable[[Task], Result], tasks: Iterable[Task]
) -> Iterator[tuple[Task, Result | Died]]:
    """work(task) for every task, as they are done; work is of a module that workers can import, or a partial of such."""
    if options.engine == "ray":
        return on_ray.run(work, tasks, options.jobs, options.address)
    return local.run(work, tasks, options.jobs or len(os.sched_getaffinity(0)))
