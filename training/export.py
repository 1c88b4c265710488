"""Trained weights -> params/FILE.safetensors, with what they were made from in the file's metadata."""

import json
import pathlib
import subprocess

import numpy as np
import torch

from params import safetensors_file

from .cache_keys import file_digest
from .shared import PARAMS, ROOT

DTYPES = {"F32": np.float32, "I8": np.int8, "I16": np.int16, "I32": np.int32}


def manifest(network):
    return json.loads((PARAMS / "manifest.json").read_text())[f"{network}.safetensors"]["tensors"]


def fit(network, tables):
    """Tables in the manifest's element types and shapes; the first layer's two trailing floats are zeros."""
    fitted = {}
    for name, entry in manifest(network).items():
        values = torch.as_tensor(tables[name]).detach().numpy().ravel()
        size = int(np.prod(entry["shape"]))
        fitted[name] = np.pad(values, (0, size - values.size)).astype(DTYPES[entry["dtype"]]).reshape(entry["shape"])
    unknown = tables.keys() - fitted.keys()
    if unknown:
        raise ValueError(f"the library has no tables {sorted(unknown)}")
    return fitted


def write(network, tables, metadata, folder):
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


def read(path):
    """Tables of an exported file: {name: array}."""
    entries, _ = safetensors_file.read(path)
    return {name: np.frombuffer(data, DTYPES[dtype]).reshape(shape).copy() for name, (dtype, shape, data) in entries.items()}


def describe(config, steps, digest, results):
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


def card(network, metadata, sources, digest):
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
