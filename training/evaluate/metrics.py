"""How good one output is. Signals are float arrays of full scale 1.0, at 16 kHz, aligned.

SI-SDR, echo reduction and levels are computed here; ESTOI, DNSMOS and AECMOS by pystoi and
speechmos, whose models come with the packages.
"""

from __future__ import annotations

import functools

import numpy as np
from scipy import signal

from training.scenes.audio import RATE

# The suppressors hold the lowest bins down on purpose; nobody is to gain or lose by that.
HIGH_PASS_HZ = 125.0
ERLE_WINDOW = 0.5  # s
QUIETEST = 1e-12  # of power, -120 dBFS: digital silence counts as this


@functools.cache
def _high_pass_sections() -> np.ndarray:
    return signal.butter(4, HIGH_PASS_HZ, "highpass", fs=RATE, output="sos")


def high_pass(x: np.ndarray) -> np.ndarray:
    """x without what is below HIGH_PASS_HZ; no delay."""
    return signal.sosfiltfilt(_high_pass_sections(), np.asarray(x, np.float64))


def si_sdr(output: np.ndarray, target: np.ndarray) -> float:
    """Scale-invariant signal-to-distortion ratio in dB, above HIGH_PASS_HZ of both.

    J. Le Roux et al., "SDR - half-baked or well done?", ICASSP 2019.
    """
    y, s = high_pass(output), high_pass(target)
    wanted = s * (y @ s) / (s @ s + 1e-20)
    rest = y - wanted
    return float(10 * np.log10((wanted @ wanted + 1e-20) / (rest @ rest + 1e-20)))


def power(x: np.ndarray) -> float:
    return float(np.mean(np.square(x, dtype=np.float64)))


def erle(mic: np.ndarray, output: np.ndarray) -> float:
    """Echo return loss enhancement in dB of a stretch in which nobody speaks."""
    return 10 * np.log10((power(mic) + QUIETEST) / (power(output) + QUIETEST))


def erle_over_time(mic: np.ndarray, output: np.ndarray) -> list[float]:
    """ERLE of consecutive windows of ERLE_WINDOW."""
    n = round(ERLE_WINDOW * RATE)
    return [erle(mic[i : i + n], output[i : i + n]) for i in range(0, len(mic) - n + 1, n)]


def estoi(output: np.ndarray, target: np.ndarray) -> float:
    """Extended short-time objective intelligibility, 0..1."""
    import pystoi

    np.random.seed(0)  # pystoi adds noise of 1e-16, drawn from numpy's own generator
    return float(pystoi.stoi(target, output, RATE, extended=True))


def dnsmos(output: np.ndarray) -> dict[str, float]:
    """Predicted opinion of a listener, 1..5: speech, background, overall."""
    from speechmos import dnsmos as model

    scores = model.run(np.clip(output, -1.0, 1.0).astype(np.float64), RATE)
    return {name: float(scores[f"{name}_mos"]) for name in ("sig", "bak", "ovrl")}


def aecmos(kind: str, reference: np.ndarray, mic: np.ndarray, output: np.ndarray) -> tuple[float, float]:
    """Predicted opinion of a listener about (echo, other degradation), 1..5.

    kind: far_end, double_talk or near_end.
    """
    from speechmos import aecmos as model

    talk = {"far_end": "st", "double_talk": "dt", "near_end": "nst"}[kind]
    clips = {"lpb": reference, "mic": mic, "enh": output}
    clips = {name: np.clip(x, -1.0, 1.0).astype(np.float64) for name, x in clips.items()}
    scores = model.run(clips, RATE, talk)
    return scores["echo_mos"], scores["deg_mos"]


def angle_error(heading: float, truth: float) -> float:
    """Degrees between two headings, 0..180."""
    return abs((heading - truth + 180.0) % 360.0 - 180.0)
