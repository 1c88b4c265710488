"""Stand-ins with the scene simulator's shapes, from formulas alone: harmonic "speech", coloured noise, a short echo
path. For the tests and the smoke runs of a machine that has neither corpus nor speech synthesiser."""

import numpy as np
import torch

from .device_facts import BLANK, BLOCK, FULL_SCALE, MIC_DELAY, RATE
from .models import kws
from .scenes import array_geometry
from .syllables.batch import EARLY, KINDS, LATE
from .syllables.inventory import PHRASE


def harmonic_speech(rng, samples):
    """Syllables of 0.2 s: a glottal series under a moving envelope, with pauses."""
    t = np.arange(samples) / RATE
    pitch = rng.uniform(90, 250) * (1 + 0.1 * np.sin(2 * np.pi * rng.uniform(0.5, 2) * t + rng.uniform(0, 6)))
    phase = 2 * np.pi * np.cumsum(pitch) / RATE
    formants = rng.uniform([300, 900, 2000], [800, 2000, 3500])
    wave = np.zeros(samples)
    for k in range(1, 25):
        gain = sum(np.exp(-(((k * pitch - f) / 250) ** 2)) for f in formants) + 0.02
        wave += gain * np.sin(k * phase)
    syllables = (rng.random(samples // 3200 + 2) > 0.3) * rng.uniform(0.3, 1, samples // 3200 + 2)
    envelope = np.interp(t * 5, np.arange(len(syllables)), syllables) * np.abs(np.sin(np.pi * 5 * t))
    wave *= envelope
    return scale(wave, 0.05)


def coloured_noise(rng, samples):
    spectrum = np.fft.rfft(rng.standard_normal(samples))
    tilt = np.maximum(np.fft.rfftfreq(samples, 1 / RATE), 50) ** -rng.uniform(0, 1)
    return scale(np.fft.irfft(spectrum * tilt, samples), 0.05)


def scale(wave, rms):
    return wave * (rms / np.sqrt(np.mean(wave**2) + 1e-12))


def ns_batch(corpus, bank, rng, batch, seconds, split):
    samples = round(seconds * RATE)
    mics, target, snr = [], [], rng.uniform(-5, 20, batch)
    for db in snr:
        speech, level = harmonic_speech(rng, samples), 10 ** rng.uniform(-1, 0.5)
        delayed = np.stack([np.roll(speech, d) for d in rng.integers(0, 5, 3)]) * level
        noise = np.stack([coloured_noise(rng, samples) for _ in range(3)]) * level * 10 ** (-db / 20)
        target.append(delayed)
        mics.append(delayed + noise)
    return {"mics": np.float32(mics), "target": np.float32(target), "snr": np.float32(snr)}


class EchoClips:
    """List of what the canceller would leave, as aec_cache() stores it."""

    def __init__(self, clips, seconds, seed):
        self.clips = [self.make(np.random.default_rng([seed, i]), round(seconds * RATE)) for i in range(clips)]

    @staticmethod
    def make(rng, samples):
        scenario = rng.choice(["double_talk", "far_end", "near_end"], p=[0.75, 0.15, 0.1])
        far = harmonic_speech(rng, samples) * (scenario != "near_end")
        near = harmonic_speech(rng, samples) * (scenario != "far_end")
        path = rng.standard_normal(200) * np.exp(-np.arange(200) / 40)
        played = scale(np.convolve(far, path)[:samples], 0.1) if far.any() else far
        echo_estimate = played * rng.uniform(0.7, 1)
        noise = 0.05 * coloured_noise(rng, samples)
        target = near + 0.2 * noise
        late = lambda x: np.float32(np.concatenate([np.zeros(MIC_DELAY), x[:-MIC_DELAY]]))
        return {
            "mic": late(near + np.tanh(2 * played) / 2 + noise),
            "echo": late(echo_estimate),
            "target": late(target),
            "scenario": str(scenario),
        }

    def __len__(self):
        return len(self.clips)

    def __getitem__(self, i):
        return self.clips[i]


def doa_batch(corpus, bank, rng, batch, seconds, split):
    """Plane waves in free field. mics: int16 values [B, 3, T]; heading [B] in degrees; active [B, blocks]."""
    blocks = round(seconds * RATE) // BLOCK
    samples = blocks * BLOCK
    positions = array_geometry.mic_offsets()[:, :2]
    mics, headings, active = [], rng.uniform(0, 360, batch), []
    for heading in headings:
        on = np.repeat(rng.random(blocks // 10 + 1) > 0.3, 10)[:blocks]
        speech = np.fft.rfft(coloured_noise(rng, samples) * np.repeat(on, BLOCK))
        towards = array_geometry.offset(heading, 1.0, 0.0)[:2]
        delays = -positions @ towards / 343.0
        turn = np.exp(-2j * np.pi * np.fft.rfftfreq(samples, 1 / RATE) * delays[:, None])
        noise = 0.002 * rng.standard_normal((3, samples))
        mics.append(np.fft.irfft(speech * turn, samples) + noise)
        active.append(on)
    return {
        "mics": np.float32(np.round(FULL_SCALE * np.clip(mics, -0.99, 0.99))),
        "heading": np.float32(headings),
        "active": np.float32(active),
    }


def kws_batch(corpus, bank, rng, batch, seconds, split, progress):
    """Strings of "syllables", one pair of tones per class, the wake phrase among them, as syllables/batch.py has them."""
    blocks = round(seconds * RATE) // BLOCK
    count = max(4, int(seconds / 0.4) - 1)
    waves, labels = 0.003 * rng.standard_normal((batch, blocks * BLOCK)), rng.integers(1, BLANK, (batch, count))
    labels[0, :4], kind = PHRASE, np.full(batch, KINDS.index("string"))
    kind[0] = KINDS.index("phrase")
    t = np.arange(round(0.25 * RATE)) / RATE
    starts = np.round(np.linspace(0.1, blocks * BLOCK / RATE - 0.4, count) * RATE).astype(int)
    for wave, row in zip(waves, labels):
        for start, label in zip(starts, row):
            tones = np.sin(2 * np.pi * (300 + 60 * (label % 12)) * t) + np.sin(2 * np.pi * (1300 + 200 * (label // 12)) * t)
            wave[start : start + len(t)] += 0.05 * tones * np.hanning(len(t)) * 10 ** rng.uniform(-0.5, 0.5)
    end = np.tile((starts + len(t)) // BLOCK, (batch, 1))
    waves = torch.from_numpy(np.float32(np.round(FULL_SCALE * np.clip(waves, -0.99, 0.99))))
    return {
        "features": kws.inputs(waves).numpy(),
        "labels": np.float32(labels),
        "first": np.float32(end - EARLY),
        "last": np.float32(end + LATE),
        "middle": np.float32(end - 4),
        "certain": np.ones(batch, np.float32),
        "kind": np.float32(kind),
        "progress": np.array(progress, np.float32),
    }
