"""Audio from nothing: speech by espeak-ng, noise and music by formula.

It lets everything run with no recordings at all, and adds what collections of recordings lack:
fans, vacuum cleaners, mains hum. Every clip is a function of its number. One formant synthesiser
with many voice variants is not many speakers: it widens coverage, it does not replace recordings.
"""

from __future__ import annotations

import functools
import math
import shutil
import subprocess
import tempfile
from collections.abc import Callable

import numpy as np
import scipy.fft
import soundfile
from scipy import signal

from training import cache_keys
from training.device_facts import RATE
from training.shared import Record

# A "speaker" of the synthesiser is a variant: it sets formants and voice quality in any language.
SPEAKERS = (
    "f1 f2 f3 f4 f5 m1 m2 m3 m4 m5 m6 m7 m8 klatt klatt2 klatt3 klatt4 adam anika antonio aunty "
    "belinda benjamin boris caleb croak david ed edward gene grandma grandpa gustave iven john "
    "linda marcelo max michel miguel norbert pablo paul pedro quincy rob robert sandro shelby "
    "steph travis victor whisper zac"
).split()
MANDARIN = "cmn-latn-pinyin"
SENTENCES = {
    "en-us": (
        "Could you turn down the lights in the hallway, please?",
        "The train leaves at seven forty from the other platform.",
        "I thought we had bought enough flour for two cakes.",
        "Nobody knows why the blue door is always open.",
        "Play something quiet while we are having dinner.",
        "My sister measured the garden and drew a careful plan.",
        "It will probably rain before we reach the village.",
        "Thirty five boxes were shipped on Wednesday morning.",
    ),
    "de": (
        "Könntest du bitte das Fenster im Schlafzimmer schließen?",
        "Der Zug nach Hamburg fährt heute von Gleis acht ab.",
        "Wir haben gestern frisches Brot und zwei Gläser Honig gekauft.",
        "Morgen früh soll es über zwanzig Grad warm werden.",
        "Die Kinder spielen schon seit Stunden hinter dem Haus.",
    ),
    "fr": (
        "Est-ce que tu peux baisser un peu la musique ?",
        "Nous partirons demain matin avant le lever du soleil.",
        "Le chat du voisin dort toujours sur notre terrasse.",
        "Il reste trois pommes et un morceau de fromage.",
        "Quelle heure est-il à Montréal en ce moment ?",
    ),
    "es": (
        "Enciende la luz de la cocina, por favor.",
        "El mercado abre los jueves a las nueve de la mañana.",
        "Mi abuelo arregla relojes antiguos en el taller.",
        "Mañana viajaremos a la costa con unos amigos.",
        "¿Dónde has dejado las llaves del coche?",
    ),
    "it": (
        "Puoi ricordarmi di chiamare il medico alle cinque?",
        "La finestra della camera non si chiude bene.",
        "Abbiamo mangiato una zuppa calda vicino al fuoco.",
        "Il treno per Torino parte fra dieci minuti.",
    ),
    MANDARIN: (
        "qing3 ba3 chuang1 hu5 guan1 shang5",
        "jin1 tian1 wan3 shang5 hui4 xia4 yu3 ma5",
        "wo3 men5 ming2 tian1 yi4 qi3 qu4 gong1 yuan2",
        "bang1 wo3 bo1 fang4 yi4 shou3 an1 jing4 de5 ge1",
        "ta1 zuo2 tian1 mai3 le5 san1 ben3 xin1 shu1",
        "xian4 zai4 ji3 dian3 le5 huo3 che1 kai1 le5 ma5",
        "chu2 fang2 li3 hai2 you3 yi4 xie1 mi3 fan4",
        "zhe4 tiao2 lu4 yi4 zhi2 tong1 dao4 hai3 bian1",
        "hai2 zi5 men5 dou1 shui4 zhao2 le5",
        "xing1 qi1 liu4 xia4 wu3 wo3 you3 kong4",
    ),
}
SPEECH_CLIPS = 12 * len(SPEAKERS)
NOISES = ("coloured", "hum", "fan", "vacuum", "clatter")
NOISE_CLIPS, MUSIC_CLIPS = 60, 24
NOISE_SECONDS = 20.0
_SEED = 20251107


def available() -> bool:
    return shutil.which("espeak-ng") is not None


@functools.cache
def made_from(kind: str) -> dict[str, str]:
    """What the clips of a kind come from, beside their number (cache_keys.py)."""
    found = cache_keys.constants("synthetic")
    if kind == "speech" and available():
        version = subprocess.run(["espeak-ng", "--version"], capture_output=True, text=True, check=True)
        found["espeak-ng"] = version.stdout.split(" Data at")[0]
    return found


def speech_row(number: int) -> Record:
    """Speaker, language, text, speed (words per minute) and pitch (0..99) of a speech clip."""
    rng = np.random.default_rng([_SEED, 0, number])
    language = list(SENTENCES)[rng.choice(len(SENTENCES), p=(0.2, 0.1, 0.1, 0.1, 0.1, 0.4))]
    sentences = SENTENCES[language]
    return {
        "speaker": "espeak-ng " + SPEAKERS[number % len(SPEAKERS)],
        "variant": SPEAKERS[number % len(SPEAKERS)],
        "language": language,
        "text": sentences[rng.integers(len(sentences))],
        "speed": int(rng.integers(120, 220)),
        "pitch": int(rng.integers(20, 80)),
    }


def speech(number: int) -> np.ndarray:
    row = speech_row(number)
    return spoken(f"{row['language']}+{row['variant']}", row["text"], row["speed"], row["pitch"])


def syllable(variant: str, pinyin: str, speed: int, pitch: int) -> np.ndarray:
    """One Mandarin syllable with its tone's number, such as "dang1"."""
    return spoken(f"{MANDARIN}+{variant}", pinyin, speed, pitch)


def spoken(voice: str, text: str, speed: int, pitch: int) -> np.ndarray:
    with tempfile.NamedTemporaryFile(suffix=".wav") as f:
        command = ["espeak-ng", "-v", voice, "-s", speed, "-p", pitch, "-w", f.name]
        subprocess.run([*map(str, command), text], check=True, stderr=subprocess.DEVNULL)
        x, rate = soundfile.read(f.name)
    return normalised(to_rate(x, rate))


def to_rate(x: np.ndarray, rate: int) -> np.ndarray:
    if rate == RATE:
        return x
    common = math.gcd(rate, RATE)
    return signal.resample_poly(x, RATE // common, rate // common)


def normalised(x: np.ndarray) -> np.ndarray:
    return 0.5 * x / np.abs(x).max()


def shaped(rng: np.random.Generator, samples: int, gain: Callable[[np.ndarray], np.ndarray]) -> np.ndarray:
    """Gaussian noise with the magnitude response `gain` (a function of Hz)."""
    frequency = np.maximum(scipy.fft.rfftfreq(samples, 1.0 / RATE), 20.0)
    return scipy.fft.irfft(scipy.fft.rfft(rng.standard_normal(samples)) * gain(frequency), samples)


def slow(rng: np.random.Generator, samples: int, depth: float, hz: float = 0.5) -> np.ndarray:
    """A gain that wanders by about `depth` dB within 1 / `hz` s."""
    points = rng.normal(0.0, depth, int(samples / RATE * hz) + 3)
    return 10 ** (np.interp(np.arange(samples) / RATE * hz, np.arange(len(points)), points) / 20)


def harmonics(rng: np.random.Generator, samples: int, fundamental: float, count: int, slope: float) -> np.ndarray:
    """Harmonics falling by `slope` dB per octave, each off by a few dB, in a slowly moving pitch."""
    wander = np.cumsum(rng.standard_normal(samples)) / math.sqrt(RATE) * 0.002 * fundamental
    phase = 2 * np.pi * np.cumsum(fundamental + wander) / RATE
    x = np.zeros(samples)
    for k in range(1, count + 1):
        if k * fundamental > 0.45 * RATE:
            break
        level = slope * math.log2(k) + rng.normal(0.0, 4.0)
        x += 10 ** (level / 20) * np.sin(k * phase + rng.uniform(0, 2 * np.pi))
    return x


def bands(rng: np.random.Generator, slope: float, spread: float = 4.0) -> Callable[[np.ndarray], np.ndarray]:
    """A random smooth spectrum: `slope` dB per octave, points an octave apart off by `spread` dB."""
    points = slope * np.arange(9) + rng.normal(0.0, spread, 9)
    return lambda hz: 10 ** (np.interp(np.log2(hz / 40.0), np.arange(9), points) / 20)


def noise(number: int) -> np.ndarray:
    """Clip `number` of kind NOISES[number % len(NOISES)]."""
    rng = np.random.default_rng([_SEED, 1, number])
    n = round(NOISE_SECONDS * RATE)
    kind = NOISES[number % len(NOISES)]
    if kind == "coloured":
        x = shaped(rng, n, bands(rng, rng.uniform(-6.0, 0.0), 3.0)) * slow(rng, n, 1.0)
    elif kind == "hum":
        x = harmonics(rng, n, rng.choice((50.0, 60.0, 100.0, 120.0)), 30, rng.uniform(-9, -3))
        x += shaped(rng, n, bands(rng, -3.0)) * rng.uniform(0.02, 0.3) * x.std()
    elif kind == "fan":  # broad band with the blades' tone
        x = shaped(rng, n, bands(rng, rng.uniform(-5, -2)))
        x = x / x.std() * slow(rng, n, 0.7)
        tone = harmonics(rng, n, rng.uniform(60, 250), 8, -6.0)
        x += tone / tone.std() * rng.uniform(0.05, 0.5)
    elif kind == "vacuum":  # flatter, with a whining motor
        x = shaped(rng, n, bands(rng, rng.uniform(-2, 0.5), 5.0))
        x = x / x.std() * slow(rng, n, 1.0)
        tone = harmonics(rng, n, rng.uniform(250, 700), 12, -4.0)
        x += tone / tone.std() * rng.uniform(0.3, 1.0)
    else:  # clatter: short decaying resonances on a quiet floor
        x = 0.02 * shaped(rng, n, bands(rng, -3.0))
        for start in rng.integers(0, n - RATE, rng.integers(15, 60)):
            t = np.arange(round(0.5 * RATE)) / RATE
            decay = np.exp(-t / rng.uniform(0.005, 0.08))
            tones = np.sin(2 * np.pi * np.outer(rng.uniform(400, 6000, 4), t)).sum(0)
            hit = (tones + rng.standard_normal(len(t))) * decay
            x[start : start + len(t)] += rng.uniform(0.1, 1.0) * hit
    return normalised(x)


def music(number: int) -> np.ndarray:
    """Chords, a bass and a beat, in a random key and tempo."""
    rng = np.random.default_rng([_SEED, 2, number])
    n = round(NOISE_SECONDS * RATE)
    x = np.zeros(n)
    beat = round(60.0 / rng.uniform(80, 150) * RATE)
    root, scale = rng.uniform(110, 220), np.array([0, 2, 4, 5, 7, 9, 11, 12])
    timbre = rng.uniform(-12, -5)
    for b, start in enumerate(range(0, n - 4 * beat, beat)):
        length = beat * int(rng.integers(1, 4))
        t = np.arange(length) / RATE
        envelope = np.minimum(t / 0.01, 1.0) * np.exp(-t / rng.uniform(0.2, 1.0))
        for step in rng.choice(scale, 3, replace=False):
            x[start : start + length] += envelope * harmonics(rng, length, root * 2 ** (step / 12), 8, timbre)
        x[start : start + length] += envelope * harmonics(rng, length, root / 2, 6, -9.0)
        drum = rng.standard_normal(length) * np.exp(-t / (0.03 if b % 2 else 0.08))
        x[start : start + length] += rng.uniform(0.5, 2.0) * drum
    return normalised(x)
