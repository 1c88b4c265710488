"""Which recordings: names, folders, globs, lists, here or at an fsspec address."""

from __future__ import annotations

import contextlib
import glob
import pathlib
import tempfile
from collections.abc import Iterable, Iterator

AUDIO = {".aif", ".aiff", ".caf", ".flac", ".ogg", ".opus", ".rf64", ".w64", ".wav"}


def find(patterns: Iterable[str]) -> list[str]:
    """Addresses, each once and in order: files absolute, so that any worker finds them.

    A pattern is a file, a folder (all audio files below it), a glob (** for any depth), @FILE (a list, a
    pattern per line), or any of the first three at an fsspec address (s3://..., sftp://...). A name
    without a match stays as it is, and its recording will fail with a row that says so.
    """
    found: dict[str, None] = {}
    for pattern in patterns:
        if pattern.startswith("@"):
            lines = pathlib.Path(pattern[1:]).read_text(encoding="utf-8").splitlines()
            matches = find(line.strip() for line in lines if line.strip())
        elif "://" in pattern:
            matches = _remote(pattern)
        else:
            matches = _local(pattern)
        found.update(dict.fromkeys(matches))
    return list(found)


@contextlib.contextmanager
def as_file(address: str) -> Iterator[str]:
    """The recording as a local file, for as long as it is needed."""
    if "://" not in address:
        yield address
        return
    import fsspec  # type: ignore[import-untyped, unused-ignore]

    system, path = fsspec.core.url_to_fs(address)
    with tempfile.TemporaryDirectory(prefix="quibo-") as folder:
        copy = pathlib.Path(folder) / pathlib.PurePosixPath(path).name
        system.get_file(path, str(copy))
        yield str(copy)


def _local(pattern: str) -> list[str]:
    path = pathlib.Path(pattern).absolute()
    if path.is_dir():
        return sorted(str(file) for file in path.rglob("*") if file.suffix.lower() in AUDIO)
    if not path.exists() and glob.has_magic(pattern):
        return sorted(map(str, map(pathlib.Path.absolute, map(pathlib.Path, glob.glob(pattern, recursive=True)))))
    return [str(path)]


def _remote(pattern: str) -> list[str]:
    import fsspec  # type: ignore[import-untyped, unused-ignore]

    system, path = fsspec.core.url_to_fs(pattern)
    if glob.has_magic(path):
        names = system.glob(path)
    elif system.isdir(path):
        names = [name for name in system.find(path) if pathlib.PurePosixPath(name).suffix.lower() in AUDIO]
    else:
        names = [path]
    return sorted(str(system.unstrip_protocol(name)) for name in names)
