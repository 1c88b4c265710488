"""The local engine: worker processes on this machine."""

from __future__ import annotations

import multiprocessing
from collections import deque
from collections.abc import Callable, Iterable, Iterator
from multiprocessing.connection import Connection, wait
from multiprocessing.process import BaseProcess
from typing import Generic, TypeVar

from .retry import ATTEMPTS, Died

Task = TypeVar("Task")
Result = TypeVar("Result")


def run(work: Callable[[Task], Result], tasks: Iterable[Task], jobs: int) -> Iterator[tuple[Task, Result | Died]]:
    """work(task) for every task, as they are done. Each process is new Python and has its own front end.

    A worker that dies is replaced and its task given to another, ATTEMPTS times in all.
    """
    waiting = deque((task, 1) for task in tasks)
    workers: list[_Worker[Task, Result]] = []
    try:
        while waiting or workers:
            while waiting and len(workers) < jobs:
                workers.append(_Worker(work))
                workers[-1].give(*waiting.popleft())
            ready = wait([worker.answers for worker in workers])
            for worker in [worker for worker in workers if worker.answers in ready]:
                try:
                    yield worker.task, worker.answers.recv()
                except EOFError:
                    workers.remove(worker)
                    died = worker.bury()
                    if worker.attempt < ATTEMPTS:
                        waiting.appendleft((worker.task, worker.attempt + 1))
                    else:
                        yield worker.task, died
                    continue
                if waiting:
                    worker.give(*waiting.popleft())
                else:
                    workers.remove(worker)
                    worker.dismiss()
    finally:
        for worker in workers:
            worker.process.terminate()
            worker.bury()


class _Worker(Generic[Task, Result]):
    task: Task
    attempt: int

    def __init__(self, work: Callable[[Task], Result]) -> None:
        context = multiprocessing.get_context("spawn")
        self.answers, theirs = context.Pipe()
        self.process: BaseProcess = context.Process(target=_serve, args=(theirs, work), daemon=True)
        self.process.start()
        theirs.close()  # so that its end is seen here

    def give(self, task: Task, attempt: int) -> None:
        self.task, self.attempt = task, attempt
        try:
            self.answers.send(task)
        except BrokenPipeError:  # it died idle; its end is seen at the next wait
            pass

    def dismiss(self) -> None:
        self.answers.close()
        self.process.join()

    def bury(self) -> Died:
        self.process.join()
        self.answers.close()
        return Died(f"the worker process ended with status {self.process.exitcode}")


def _serve(tasks: Connection, work: Callable[[Task], Result]) -> None:
    while True:
        try:
            task = tasks.recv()
        except (EOFError, KeyboardInterrupt):
            return
        tasks.send(work(task))
