"""Stand-ins with the scene simulator's shapes, from formulas alone: harmonic "speech", coloured noise, a short echo
path. For the tests and the smoke runs of a machine that has neither corpus nor speech synthesiser."""
import numpy as np

RATE = 16000
ECHO_DELAY = 20  # samples, as the canceller delays its microphone


def harmonic_speech(rng, samples):
    """Syllables of 0.2 s: a glottal series under a moving envelope, with pauses."""
    t = np.arange(samples) / RATE
    pitch = rng.uniform(90, 250) * (1 + 0.1 * np.sin(2 * np.pi * rng.uniform(0.5, 2) * t + rng.uniform(0, 6)))
    phase = 2 * np.pi * np.cumsum(pitch) / RATE
    formants = rng.uniform([300, 900, 2000], [800, 2000, 3500])
    wave = np.zeros(samples)
    for k in range(1, 25):
        gain = sum(np.exp(-((k * pitch - f) / 250)**2) for f in formants) + 0.02
        wave += gain * np.sin(k * phase)
    syllables = (rng.random(samples // 3200 + 2) > 0.3) * rng.uniform(0.3, 1, samples // 3200 + 2)
    envelope = np.interp(t * 5, np.arange(len(syllables)), syllables) * np.abs(np.sin(np.pi * 5 * t))
    wave *= envelope
    return scale(wave, 0.05)


def coloured_noise(rng, samples):
    spectrum = np.fft.rfft(rng.standard_normal(samples))
    tilt = np.maximum(np.fft.rfftfreq(samples, 1 / RATE), 50)**-rng.uniform(0, 1)
    return scale(np.fft.irfft(spectrum * tilt, samples), 0.05)


def scale(wave, rms):
    return wave * (rms / np.sqrt(np.mean(wave**2) + 1e-12))


def ns_batch(corpus, bank, rng, batch, seconds, split):
    samples = round(seconds * RATE)
    mics, target, snr = [], [], rng.uniform(-5, 20, batch)
    for db in snr:
        speech, level = harmonic_speech(rng, samples), 10**rng.uniform(-1, 0.5)
        delayed = np.stack([np.roll(speech, d) for d in rng.integers(0, 5, 3)]) * level
        noise = np.stack([coloured_noise(rng, samples) for _ in range(3)]) * level * 10**(-db / 20)
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
        late = lambda x: np.float32(np.concatenate([np.zeros(ECHO_DELAY), x[:-ECHO_DELAY]]))
        return {"mic": late(near + np.tanh(2 * played) / 2 + noise), "echo": late(echo_estimate),
                "target": late(target), "scenario": str(scenario)}

    def __len__(self):
        return len(self.clips)

    def __getitem__(self, i):
        return self.clips[i]
