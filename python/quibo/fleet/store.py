"""Results on disk: Parquet in a folder, whole after every step, so that a run can be stopped at any time.

While a run goes on its rows are in parts/, a row per recording with its events inside. recordings.parquet
and events.parquet are made of all parts, in the order of the recordings' names.
"""

from __future__ import annotations

import json
import os
import pathlib
import time
from typing import Any

import pyarrow as pa  # type: ignore[import-untyped, unused-ignore]
import pyarrow.parquet as pq  # type: ignore[import-untyped, unused-ignore]

EVENT = pa.struct(
    [
        ("number", pa.int32()),
        ("sample", pa.int64()),
        ("seconds", pa.float64()),
        ("start", pa.float64()),
        ("end", pa.float64()),
        ("cost", pa.float32()),
        ("angle", pa.int32()),
        ("angle_length", pa.float32()),
    ]
)
FINDING = pa.struct(
    [
        ("id", pa.string()),
        ("severity", pa.string()),
        ("channel", pa.string()),
        ("start", pa.float64()),
        ("end", pa.float64()),
        ("what", pa.string()),
        ("how_bad", pa.string()),
        ("advice", pa.string()),
    ]
)
RECORDING = pa.schema(
    [
        ("recording", pa.string()),
        ("error", pa.string()),
        ("seconds", pa.float64()),
        ("wakes", pa.int32()),
        ("echo_reduction_db", pa.float32()),
        ("only_device_seconds", pa.int32()),
        ("warnings", pa.list_(pa.string())),
        ("verdict", pa.string()),
        ("findings", pa.list_(FINDING)),
        ("format", pa.string()),
        ("channels", pa.int32()),
        ("sample_rate", pa.int32()),
        ("encoding", pa.string()),
        ("library", pa.string()),
        ("parameters", pa.list_(pa.struct([("name", pa.string()), ("digest", pa.string())]))),
        ("events", pa.list_(EVENT)),
        # What depends on the machine.
        ("kernels", pa.string()),
        ("host", pa.string()),
        ("processor_seconds", pa.float32()),
    ]
)
SECONDS_PER_PART = 10.0
ROWS_PER_PART = 1000


class Store:
    """The folder of a run. `settings`: what rows depend on; a folder of other settings is refused."""

    def __init__(self, folder: pathlib.Path, settings: dict[str, Any]) -> None:
        self._folder, self._parts = folder, folder / "parts"
        self._parts.mkdir(parents=True, exist_ok=True)
        self._rows: list[dict[str, Any]] = []
        self._written = time.monotonic()
        kept = folder / "settings.json"
        if not kept.exists():
            _write(kept, lambda path: path.write_text(json.dumps(settings, indent=1) + "\n"))
        elif (old := json.loads(kept.read_text())) != settings:
            differing = ", ".join(sorted(key for key in old | settings if old.get(key) != settings.get(key)))
            raise ValueError(f"{folder} holds results of other settings ({differing}): name another folder")

    def done(self) -> set[str]:
        """Recordings that have a row."""
        return {name for part in self._files() for name in pq.read_table(part, columns=["recording"])[0].to_pylist()}

    def add(self, row: dict[str, Any]) -> None:
        self._rows.append(row)
        if len(self._rows) >= ROWS_PER_PART or time.monotonic() - self._written > SECONDS_PER_PART:
            self.flush()

    def flush(self) -> None:
        """Writes what was added since the last part."""
        self._written = time.monotonic()
        if not self._rows:
            return
        table = pa.Table.from_pylist(self._rows, schema=RECORDING)
        number = max((int(part.stem) for part in self._files()), default=0) + 1
        _write(self._parts / f"{number:06}.parquet", lambda path: pq.write_table(table, path))
        self._rows = []

    def finish(self) -> tuple[int, int]:
        """Writes recordings.parquet and events.parquet of all there is; returns their rows."""
        self.flush()
        parts = [pq.read_table(part, schema=RECORDING) for part in self._files()]
        table = pa.concat_tables(parts or [RECORDING.empty_table()]).sort_by("recording")
        _write(self._folder / "recordings.parquet", lambda path: pq.write_table(table.drop_columns(["events"]), path))
        rows = [
            {"recording": name, **event}
            for name, events in zip(table["recording"].to_pylist(), table["events"].to_pylist())
            for event in events or []
        ]
        schema = pa.schema([pa.field("recording", pa.string()), *EVENT])
        _write(self._folder / "events.parquet", lambda path: pq.write_table(pa.Table.from_pylist(rows, schema), path))
        return table.num_rows, len(rows)

    def _files(self) -> list[pathlib.Path]:
        return sorted(self._parts.glob("*.parquet"))


def _write(path: pathlib.Path, write: Any) -> None:
    """The file is whole or not there."""
    beside = path.with_name(f".{path.name}.part")
    write(beside)
    os.replace(beside, path)
