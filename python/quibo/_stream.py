"""Chunks of any size into whole frames."""

from __future__ import annotations

import threading
from collections.abc import Callable
from types import TracebackType
from typing import Any, Generic, NoReturn, TypeVar

import numpy as np
from numpy.typing import NDArray

from . import _quibo

Engine = TypeVar("Engine")
Self = TypeVar("Self", bound="Stream[Any]")
Output = TypeVar("Output")


class Stream(Generic[Engine]):
    """A piece of the library and what of its input is not a whole frame yet.

    `with` closes it at the end. It belongs to the process that made it and to one thread at a time.
    """

    def __init__(self, engine: Engine, frame: int) -> None:
        self._engine: Engine | None = engine
        self._frame = frame
        self._pending: list[NDArray[Any]] = []
        self._done = 0  # samples processed
        self._busy = threading.Lock()

    def close(self) -> None:
        """Releases the library's memory. Nothing happens when it is closed already."""
        with _turn(self._busy, self):
            self._release()

    def __enter__(self: Self) -> Self:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None, where: TracebackType | None) -> None:
        self.close()

    def __reduce__(self) -> NoReturn:
        name = type(self).__name__
        raise TypeError(f"a {name} can be neither pickled nor copied: it is state of the library; make one in each process")

    def _run(self, step: Callable[..., Output], chunks: list[NDArray[Any]], last: bool) -> tuple[Output, int]:
        """step(engine, *frames) over the whole frames so far, with silence behind the last; its result
        and how many samples of that are the stream's."""
        with _turn(self._busy, self):
            if self._engine is None:
                raise RuntimeError(
                    f"this {type(self).__name__} is closed (by close(), the end of its with block, or last=True):"
                    " make a new one"
                )
            if self._pending:
                chunks = [np.concatenate(pair, axis=-1) for pair in zip(self._pending, chunks)]
            n = chunks[0].shape[-1]
            whole = n // self._frame * self._frame
            if last and whole < n:
                whole += self._frame
                chunks = [np.pad(x, [(0, 0)] * (x.ndim - 1) + [(0, whole - n)]) for x in chunks]
            try:
                result = step(self._engine, *(np.ascontiguousarray(x[..., :whole]) for x in chunks))
            except BaseException:  # stopped somewhere among the frames
                self._release()
                raise
            self._done += whole
            if last:
                self._release()
            else:
                self._pending = [x[..., whole:].copy() for x in chunks] if whole < n else []
        return result, min(n, whole)

    def _release(self) -> None:
        engine, self._engine = self._engine, None
        self._pending = []
        # Of these a process has one, and a traceback may hold on to it.
        if isinstance(engine, (_quibo.FrontEnd, _quibo.EchoSuppressor)):
            engine.close()


class _turn:
    """The lock, or an error at once: two threads' chunks in one stream have no order."""

    def __init__(self, lock: threading.Lock, of: Stream[Any]) -> None:
        self._lock, self._of = lock, of

    def __enter__(self) -> None:
        if not self._lock.acquire(blocking=False):
            raise RuntimeError(f"another thread is using this {type(self._of).__name__}")

    def __exit__(self, *error: object) -> None:
        self._lock.release()
