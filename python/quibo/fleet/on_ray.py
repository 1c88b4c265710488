"""The Ray engine: actors on a cluster, one front end in each."""

from __future__ import annotations

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
    alone. An actor that dies with its process or its machine is started again, and its task tried again.
    """
    os.environ.setdefault("RAY_USAGE_STATS_ENABLED", "0")
    import ray  # type: ignore[import-not-found, unused-ignore]
    from ray.exceptions import RayActorError  # type: ignore[import-not-found, unused-ignore]

    started = not ray.is_initialized()
    if started:
        alone: dict[str, Any] = {} if address else {"include_dashboard": False, "num_cpus": jobs or os.cpu_count()}
        ray.init(address=address, log_to_driver=False, **alone)
    try:
        waiting = deque((task, 1) for task in tasks)
        cores = int(ray.cluster_resources().get("CPU", 1))
        actor: Any = ray.remote(num_cpus=1, max_restarts=-1)(_Actor)
        idle = [actor.remote(work) for _ in range(min(jobs or cores, cores, len(waiting)))]
        running: dict[Any, tuple[Any, Task, int]] = {}
        while waiting or running:
            while waiting and idle:
                worker, (task, attempt) = idle.pop(), waiting.popleft()
                running[worker.work.remote(task)] = worker, task, attempt
            done, _ = ray.wait(list(running))
            for answer in done:
                worker, task, attempt = running.pop(answer)
                idle.append(worker)
                try:
                    yield task, ray.get(answer)
                except RayActorError as error:
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

    def work(self, task: Any) -> Any:
        return self._work(task)
