"""A small loudspeaker: what it does to the signal before the room does anything.

The driver and its amplifier bend the signal, then the small box passes only its band. The
canceller is given the clean signal, so the bent part is echo it cannot model with a linear filter.

A nonlinearity is a callable on samples with unit gain for small ones, except ZhangWang, which is
published with its own gain. All of them are memoryless.
"""

from __future__ import annotations

import dataclasses
from collections.abc import Callable

import numpy as np
from scipy import signal, special

from training.scenes.audio import RATE

OVERSAMPLING = 4  # keeps the harmonics above 8 kHz from folding back


@dataclasses.dataclass(frozen=True)
class Linear:
    def __call__(self, x: np.ndarray) -> np.ndarray:
        return x


@dataclasses.dataclass(frozen=True)
class HardClip:
    limit: float

    def __call__(self, x: np.ndarray) -> np.ndarray:
        return np.clip(x, -self.limit, self.limit)


@dataclasses.dataclass(frozen=True)
class AsymmetricTanh:
    """A saturation whose working point is off centre, hence odd and even harmonics."""

    full_drive: float  # input that reaches the knee of the saturation
    asymmetry: float  # offset of the working point on the tanh, 0 = odd harmonics only

    def __call__(self, x: np.ndarray) -> np.ndarray:
        b = np.tanh(self.asymmetry)
        s = np.tanh(x / self.full_drive + self.asymmetry) - b
        return self.full_drive * s / (1.0 - b * b)


@dataclasses.dataclass(frozen=True)
class ScaledErf:
    """Saturation of the echo cancellation benchmarks: soft for small beta, linear for large.

    Its integrand is exp(-z^2 / (2 beta^2)), so it levels out at beta sqrt(pi / 2).
    """

    beta: float

    def __call__(self, x: np.ndarray) -> np.ndarray:
        return np.sqrt(np.pi / 2) * self.beta * special.erf(x / (np.sqrt(2) * self.beta))


@dataclasses.dataclass(frozen=True)
class ZhangWang:
    """Memoryless sigmoid after H. Zhang and D. Wang, "Deep learning for acoustic echo cancellation
    in noisy and double-talk scenarios", Interspeech 2018: steep for one sign, flat for the other."""

    clip: float = 0.8
    steep: float = 4.0
    flat: float = 0.5

    def __call__(self, x: np.ndarray) -> np.ndarray:
        hard = np.clip(x, -self.clip, self.clip)
        b = 1.5 * hard - 0.3 * hard * hard
        slope = np.where(b > 0, self.steep, self.flat)
        return 2.0 / (1.0 + np.exp(-slope * b)) - 1.0


@dataclasses.dataclass(frozen=True)
class Loudspeaker:
    nonlinearity: Callable[[np.ndarray], np.ndarray]
    low_hz: float  # 2nd-order high-pass: resonance of the small closed box
    high_hz: float  # 2nd-order low-pass

    def band(self, x: np.ndarray) -> np.ndarray:
        low = signal.butter(2, self.low_hz, "highpass", fs=RATE, output="sos")
        high = signal.butter(2, self.high_hz, "lowpass", fs=RATE, output="sos")
        return signal.sosfilt(np.concatenate([low, high]), x)

    def play(self, x: np.ndarray) -> np.ndarray:
        """Sound leaving the loudspeaker for the signal x."""
        wide = signal.resample_poly(x, OVERSAMPLING, 1)
        return self.band(signal.resample_poly(self.nonlinearity(wide), 1, OVERSAMPLING))

    def distortion_db(self, x: np.ndarray) -> float:
        """Power of what is not a scaled copy of the undistorted output, relative to the output."""
        y, linear = self.play(x), self.band(x)
        rest = y - linear * (y @ linear) / (linear @ linear)
        return 10.0 * np.log10((rest @ rest) / (y @ y))
