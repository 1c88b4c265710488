"""How far a run is, on standard error."""

from __future__ import annotations

import sys
import time


class Progress:
    """A line that is written over on a terminal, and now and then elsewhere."""

    def __init__(self, total: int, already: int) -> None:
        self._total, self._done, self._already = total, already, already
        self._failed, self._seconds = 0, 0.0
        self._start = time.monotonic()
        self._told = 0.0
        self._terminal = sys.stderr.isatty()

    def add(self, seconds: float | None, failed: bool) -> None:
        self._done += 1
        self._failed += failed
        self._seconds += seconds or 0.0
        if time.monotonic() - self._told > (0.2 if self._terminal else 30.0):
            self.tell()

    def tell(self, end: bool = False) -> None:
        self._told = time.monotonic()
        passed = self._told - self._start
        line = f"{self._done} of {self._total} recordings"
        if self._seconds:
            line += f", {self._seconds / 3600:.2f} h of audio at {self._seconds / passed:.0f} times real time"
        if self._failed:
            line += f", {self._failed} failed"
        if not end and self._done > self._already:
            left = passed / (self._done - self._already) * (self._total - self._done)
            line += f", {_clock(left)} left"
        print(f"\r{line:<100}" if self._terminal else line, end="" if self._terminal and not end else "\n",
              file=sys.stderr, flush=True)  # fmt: skip


def _clock(seconds: float) -> str:
    minutes, seconds = divmod(round(seconds), 60)
    return f"{minutes // 60}:{minutes % 60:02}:{seconds:02}"
