"""What was measured: hashes of library and parameters, and whether they belong together."""

from __future__ import annotations

import ctypes
import pathlib
import platform
import subprocess

from params import safetensors_file
from training.cache_keys import file_digest
from training.shared import ROOT, Record


def describe(library: pathlib.Path, params: pathlib.Path) -> Record:
    so = ctypes.CDLL(str(library.resolve()))
    files = {}
    for path in sorted(params.glob("*.safetensors")):
        tensors, metadata = safetensors_file.read(path)
        files[path.name] = {
            "sha256": file_digest(path),
            "compiled_in": _compiled_in(so, tensors),
            "trained": metadata.get("trained", "no"),
            "steps": metadata.get("steps"),
        }
    return {
        "revision": _revision(),
        "library": {"sha256": file_digest(library), "machine": platform.machine()},
        "parameters": files,
    }


def _compiled_in(so: ctypes.CDLL, tensors: dict[str, tuple[str, list[int], bytes]]) -> bool:
    """Whether the library's tables are these; those it does not export cannot be told."""
    exported = {name: data for name, (_, _, data) in tensors.items() if hasattr(so, name)}
    return bool(exported) and all(
        bytes((ctypes.c_char * len(data)).in_dll(so, name)) == data for name, data in exported.items()
    )


def _revision() -> str:
    command = ["git", "describe", "--always", "--dirty", "--abbrev=12"]
    run = subprocess.run(command, cwd=ROOT, capture_output=True, text=True, check=False)
    return run.stdout.strip() or "not a git checkout"
