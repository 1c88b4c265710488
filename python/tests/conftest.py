"""The sample recording for the package's tests. Needs flac."""

import pathlib
import subprocess

import numpy as np
import pytest

SOURCE = pathlib.Path(__file__).resolve().parents[2]


@pytest.fixture(scope="session")
def capture():
    """int16 [samples, 6], as the driver reads it: scrambled microphones, talkers, reference, echo."""
    command = "flac --decode --stdout --silent --force-raw-format --endian=little --sign=signed"
    raw = subprocess.run([*command.split(), SOURCE / "samples/living_room.flac"], check=True, capture_output=True)
    return np.frombuffer(raw.stdout, "<i2").reshape(-1, 6)


@pytest.fixture(scope="session")
def sample(capture):
    """Scrambled microphones [3, n] and reference [n]."""
    return np.ascontiguousarray(capture.T[:3]), np.ascontiguousarray(capture.T[4])
