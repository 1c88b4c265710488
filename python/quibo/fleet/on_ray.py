"""The Ray engine: actors on a cluster, one front end in each."""

from __future__ import annotations

import importlib
import os
from collections import deque
from collections.abc import Callable, Iterable, Iterator
from typing import Any, TypeVar

from .retry import ATTEMPTS, Died

Task = TypeVar("Task")
Result = TypeVar("Result")


def run(
    work: Callable[[Task], Result], tasks: Iterable[Task], jobs: int | None, address: str | None
) -> Iterator[tuple[Task, Result | Died]]:
    """work(task) for every task, as they are done, by as many actors as the cluster has cores, or jobs.

    address: of a cluster ("auto" finds the one of this machine); without one Ray starts on this machine
    alone. An actor that dies with its process or its machine is replaced, and its task tried again.
    """
    alone: dict[str, Any] = {}
    if not address:  # nothing but loopback, nothing reported
        alone = {"include_dashboard": False, "num_cpus": jobs or len(os.sched_getaffinity(0))}
        os.environ.update(RAY_USAGE_STATS_ENABLED="0", RAY_ENABLE_WINDOWS_OR_OSX_CLUSTER="0")
    try:
        ray: Any = importlib.import_module("ray")
    except ModuleNotFoundError:
        raise RuntimeError("Ray is missing: pip install quibo[ray]") from None
    RayActorError: Any = ray.exceptions.RayActorError
    started = not ray.is_initialized()
    if started:
        ray.init(address=address, log_to_driver=False, **alone)
    try:
        waiting = deque((task, 1) for task in tasks)
        cores = int(ray.cluster_resources().get("CPU", 1))
        actor: Any = ray.remote(num_cpus=1)(_Actor)
        idle: list[Any] = []
        starting: dict[Any, Any] = {}  # may wait for a core for ever, where a machine was lost
        running: dict[Any, tuple[Any, Task, int]] = {}

        def start() -> None:
            worker = actor.remote(work)
            starting[worker.ready.remote()] = worker

        for _ in range(min(jobs or cores, cores, len(waiting))):
            start()
        while waiting or running:
            while waiting and idle:
                worker, (task, attempt) = idle.pop(), waiting.popleft()
                running[worker.work.remote(task)] = worker, task, attempt
            (answer,), _ = ray.wait([*running, *starting])
            if answer in starting:
                idle.append(starting.pop(answer))
                try:
                    ray.get(answer)
                except RayActorError as error:
                    raise RuntimeError(f"a worker cannot start; is quibo installed on every machine? {error}") from None
                continue
            worker, task, attempt = running.pop(answer)
            try:
                yield task, ray.get(answer)
                idle.append(worker)
            except RayActorError as error:
                start()
                if attempt < ATTEMPTS:
                    waiting.appendleft((task, attempt + 1))
                else:
                    yield task, Died(f"the worker process died: {error.error_msg}")
    finally:
        if started:
            ray.shutdown()


class _Actor:
    def __init__(self, work: Callable[[Any], Any]) -> None:
        self._work = work

    def ready(self) -> None:
        pass

    def work(self, task: Any) -> Any:
        return self._work(task)
