"""Keys of everything that is made once and kept: by the content of what it was made from.

An ingredient is named and stands for content, never for a path: a file by its SHA-256, recordings by those that are drawn
from, a recipe by the constants of its modules. Another content gives another folder, so that nothing is used that was made
from something else, and nothing is lost: whoever goes back to an earlier library finds what it had made.

The built library counts as a whole. Other compiler flags make another file and everything behind it anew, though its output
is the same to the bit: a key that knew which part of a library matters would be one more thing to be wrong.

Code is not looked at, only its constants: who changes what a function makes without touching one gives its module a
constant REVISION, or raises it.
"""

from __future__ import annotations

import dataclasses
import hashlib
import importlib
import json
import os
import pathlib
import sys
import types

import numpy as np

from training.shared import Record

LENGTH = 16  # hexadecimal digits of a key
DESCRIPTION = "made_from.json"
NO_CONTENT = (pathlib.Path, type, types.ModuleType)  # of what stands in capitals


def file_digest(path: pathlib.Path | str) -> str:
    """SHA-256 of a file's content."""
    with open(path, "rb") as f:
        return hashlib.file_digest(f, "sha256").hexdigest()


def digest(value: object) -> str:
    """SHA-256 of a value of Python's or numpy's own types; the order of a dict counts, as it does for draws."""
    return hashlib.sha256(json.dumps(_plain(value), ensure_ascii=False).encode()).hexdigest()


def _plain(value: object) -> object:
    if value is None or isinstance(value, (bool, int, float, str)):
        return value
    if isinstance(value, bytes):
        return value.hex()
    if isinstance(value, dict):
        return ["dict", *([_plain(k), _plain(v)] for k, v in value.items())]
    if isinstance(value, (set, frozenset)):
        return ["set", *sorted(map(_plain, value), key=str)]
    if isinstance(value, (list, tuple, range)):
        return [_plain(v) for v in value]
    if dataclasses.is_dataclass(value):
        return [type(value).__name__, _plain({f.name: getattr(value, f.name) for f in dataclasses.fields(value)})]
    if isinstance(value, np.dtype):
        return str(value)
    if isinstance(value, types.FunctionType):  # code is not looked at
        return f"{value.__module__}.{value.__qualname__}"
    if hasattr(value, "tolist"):  # arrays and scalars of numpy, tensors
        return _plain(value.tolist())
    raise TypeError(f"{type(value).__name__} cannot be part of a key")


def constants(*modules: str) -> dict[str, str]:
    """{module: digest of what stands in capitals in it}. modules: names such as "scenes.echo"."""

    def of(module: str) -> Record:
        return {
            name: value
            for name, value in sorted(vars(importlib.import_module(f"training.{module}")).items())
            if name.isupper() and not isinstance(value, NO_CONTENT)
        }

    return {module: digest(of(module)) for module in modules}


def folder(parent: pathlib.Path | str, made_from: Record) -> pathlib.Path:
    """Where in `parent` that is kept which is made from these ingredients: {name: value}, values may be such dicts."""
    return pathlib.Path(parent) / digest(made_from)[:LENGTH]


def begin(parent: pathlib.Path | str, made_from: Record) -> pathlib.Path:
    """folder(), made if it is missing; then a line says in which ingredients the newest one beside it differs."""
    path = folder(parent, made_from)
    if not (path / DESCRIPTION).exists():
        earlier = max(path.parent.glob(f"*/{DESCRIPTION}"), key=lambda p: p.stat().st_mtime, default=None)
        path.mkdir(parents=True, exist_ok=True)
        text = json.dumps(made_from, indent=1, ensure_ascii=False)
        (path / DESCRIPTION).write_text(text, encoding="utf-8")
        if earlier:
            before, now = _flat(json.loads(earlier.read_text(encoding="utf-8"))), _flat(json.loads(text))
            other = sorted(name for name in before.keys() | now.keys() if before.get(name) != now.get(name))
            print(
                f"{path.parent}: made anew in {path.name}, other than {earlier.parent.name}: {', '.join(other)}",
                file=sys.stderr,
            )
    return path


def _flat(values: Record, prefix: str = "") -> Record:
    """{path: value} of nested dicts."""
    flat = {}
    for name, value in values.items():
        flat |= _flat(value, f"{prefix}{name} ") if isinstance(value, dict) else {prefix + name: value}
    return flat


class FileDigests:
    """Digests of many files, remembered in a file: one whose size and time are as before is not read again."""

    def __init__(self, path: pathlib.Path) -> None:
        self.path, self.changed = pathlib.Path(path), False
        self.known = json.loads(self.path.read_text(encoding="utf-8")) if self.path.exists() else {}

    def __call__(self, path: pathlib.Path) -> str:
        stat = path.stat()
        state, name = [stat.st_size, stat.st_mtime_ns], str(path)
        if self.known.get(name, [None])[:2] != state:
            self.known[name] = [*state, file_digest(path)]
            self.changed = True
        return self.known[name][2]

    def save(self) -> None:
        """Replaced whole: several processes may do so, and lose at most what another one has read."""
        if self.changed:
            self.path.parent.mkdir(parents=True, exist_ok=True)
            part = self.path.with_suffix(f".{os.getpid()}")
            part.write_text(json.dumps(self.known), encoding="utf-8")
            part.replace(self.path)
            self.changed = False
