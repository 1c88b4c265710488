"""A small corpus of voiced-sounding tones and a bank of a few rooms, made once per run."""

import csv
import os
import pathlib

import numpy as np
import pytest
import soundfile

from training.corpus import open_corpus
from training.scenes import array_geometry
from training.scenes.audio import RATE
from training.scenes.bank import SPEED_OF_SOUND, build_bank

ROOT = pathlib.Path(__file__).resolve().parents[2]
SEED = 20251107
SPEAKERS = 12


def voice(rng, seconds):
    """Harmonics with a syllable rhythm."""
    t = np.arange(round(seconds * RATE)) / RATE
    pitch = rng.uniform(90, 240)
    x = sum(np.sin(2 * np.pi * k * pitch * t + k) / k for k in range(1, 20))
    return 0.1 * x * np.abs(np.sin(2 * np.pi * 2 * t))


def plane_wave(heading, seed, samples=RATE):
    """White noise from far away, as the three microphones hear it: [3, samples]."""
    towards = array_geometry.offset(heading, 1.0)
    lead = array_geometry.mic_offsets() @ towards / SPEED_OF_SOUND
    spectrum = np.fft.rfft(np.random.default_rng(seed).standard_normal(samples))
    turns = np.exp(2j * np.pi * np.outer(lead, np.fft.rfftfreq(samples, 1 / RATE)))
    return np.fft.irfft(spectrum * turns, samples)


@pytest.fixture(scope="session")
def audio(tmp_path_factory):
    """speech/ with speakers s00..s11 in a manifest, noise/ and music/ without one."""
    root, rng = tmp_path_factory.mktemp("audio"), np.random.default_rng(SEED)
    (root / "speech").mkdir()
    with open(root / "speech/manifest.csv", "w", newline="", encoding="utf-8") as f:
        rows = csv.writer(f)
        rows.writerow(("path", "speaker", "licence", "flags"))
        for s in range(SPEAKERS):
            for take in range(3):
                name = f"s{s:02d}_{take}.wav"
                soundfile.write(root / "speech" / name, voice(rng, 1.0 + take), RATE)
                rows.writerow((name, f"s{s:02d}", "CC0", "clipped" if take == 2 else ""))
    for folder in ("noise", "music"):
        (root / folder).mkdir()
        for k in range(10):
            x = 0.1 * rng.standard_normal(6 * RATE)
            soundfile.write(root / folder / f"{k}.wav", x, RATE)
    (root / "corpus.toml").write_text(
        '[drop]\nnear = ["clipped"]\n'
        f"[speakers]\ntrain = {[f's{s:02d}' for s in range(8)]}\n"
        'valid = ["s08", "s09"]\ntest = ["s10", "s11"]\n'
        # The rooms and levels are what is tested here: no espeak-ng, no formulas.
        "[synthetic]\nshare = 0.0\n",
        encoding="utf-8",
    )
    return root


@pytest.fixture(scope="session")
def corpus(audio, tmp_path_factory):
    return open_corpus(audio, tmp_path_factory.mktemp("cache"), SEED)


@pytest.fixture(scope="session")
def bank(tmp_path_factory):
    return build_bank(tmp_path_factory.mktemp("bank"), 40, SEED)


@pytest.fixture(scope="session")
def library_path():
    """QUIBO_LIBRARY, or what ./run has built."""
    places = [ROOT / folder / "libquibo.so" for folder in ("build-release", "build", "build-test")]
    if "QUIBO_LIBRARY" in os.environ:
        places = [pathlib.Path(os.environ["QUIBO_LIBRARY"])]
    for path in places:
        if path.exists():
            return path
    pytest.skip("no libquibo.so: build the library or set QUIBO_LIBRARY")
