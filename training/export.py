"""Trained weights -> params/FILE.safetensors, with what they were made from in the file's metadata."""

from __future__ import annotations

import json
import pathlib
import subprocess
from collections.abc import Mapping

import numpy as np
import torch

from params import safetensors_file

from .cache_keys import file_digest
from .shared import PARAMS, ROOT, Config, Record, Tables

DTYPES = {"F32": np.float32, "I8": np.int8, "I16": np.int16, "I32": np.int32}
TRAILING = 2  # values that the engine reads behind the noise suppressor's first layer


def manifest(network: str) -> Record:
    return json.loads((PARAMS / "manifest.json").read_text())[f"{network}.safetensors"]["tensors"]


def fit(network: str, tables: Mapping[str, torch.Tensor | np.ndarray]) -> Tables:
    """Tables in the manifest's element types and shapes; the first layer's two trailing floats are zeros. What does not fit,
    a value that is not finite or is no code among them, is refused."""
    fitted = {}
    for name, entry in manifest(network).items():
        values = torch.as_tensor(tables[name]).detach().numpy().ravel()
        missing = int(np.prod(entry["shape"])) - values.size
        if missing not in (0, TRAILING):
            raise ValueError(f"{name}: {values.size} values for the shape {entry['shape']}")
        dtype = DTYPES[entry["dtype"]]
        as_stored = values.astype(dtype)
        if not np.isfinite(values).all() or dtype != np.float32 and (as_stored != values).any():
            raise ValueError(f"{name}: values that are not finite, or that {entry['dtype']} does not hold")
        fitted[name] = np.pad(as_stored, (0, missing)).reshape(entry["shape"])
    unknown = tables.keys() - fitted.keys()
    if unknown:
        raise ValueError(f"the library has no tables {sorted(unknown)}")
    return fitted


def write(network: str, tables: Tables, metadata: dict[str, str], folder: pathlib.Path | str) -> tuple[pathlib.Path, str]:
    """Returns the path and SHA-256 of the file. tables: {name: array} as fit() returns them."""
    path = pathlib.Path(folder) / f"{network}.safetensors"
    entries = manifest(network)
    safetensors_file.write(
        path,
        {
            name: (entries[name]["dtype"], list(a.shape), a.astype(a.dtype.newbyteorder("<")).tobytes())
            for name, a in tables.items()
        },
        metadata,
    )
    return path, file_digest(path)


def read(path: pathlib.Path | str) -> Tables:
    """Tables of an exported file: {name: array}."""
    entries, _ = safetensors_file.read(path)
    return {name: np.frombuffer(data, DTYPES[dtype]).reshape(shape).copy() for name, (dtype, shape, data) in entries.items()}


def describe(config: Config, steps: int, digest: str, results: dict[str, float]) -> dict[str, str]:
    """Metadata of an exported file: enough to make it again."""
    revision = subprocess.run(
        ["git", "describe", "--always", "--dirty", "--abbrev=12"], cwd=ROOT, text=True, capture_output=True
    ).stdout.strip()
    return {
        "generator": "training",
        "trained": "yes",
        "steps": str(steps),
        "config": json.dumps(config),
        "data": digest,
        "revision": revision,
        "results": json.dumps(results),
    }


def card(network: str, metadata: dict[str, str], sources: dict[tuple[str, str], float], digest: str) -> str:
    """Draft of the model card, params/NETWORK.md; figures of the full evaluation and known limits are to be added.

    sources: {(licence, folder): hours} of the audio trained on.
    """
    rows = "\n".join(f"| {folder} | {licence} | {hours:.2f} |" for (licence, folder), hours in sorted(sources.items()))
    results = "\n".join(f"- {name}: {value:.4g}" for name, value in json.loads(metadata["results"]).items())
    return f"""### {network}.safetensors

SHA-256 `{digest}`. {metadata["steps"]} steps of the recipe in the file's metadata, at revision {metadata["revision"]}, on
corpus {metadata["data"]}.

Validation, on rooms and speakers held out:

{results}

| trained on | licence | hours |
|---|---|---|
{rows}
"""
