"""A small loudspeaker: what it does to the signal before the room does anything.

The driver and its amplifier bend the signal (a saturation, slightly asymmetric, hence odd and even
harmonics), then the small box passes only its band. The canceller is given the clean signal, so
the bent part is echo it cannot model with a linear filter.
"""

import dataclasses

import numpy as np
from scipy import signal

from audio import RATE

OVERSAMPLING = 4  # keeps the harmonics above 8 kHz from folding back


@dataclasses.dataclass(frozen=True)
class Loudspeaker:
    full_drive: float = 0.45  # input (full scale 1.0) that reaches the knee of the saturation
    asymmetry: float = 0.1  # offset of the working point on the tanh, 0 = odd harmonics only
    low_hz: float = 170.0  # 2nd-order high-pass: resonance of the small closed box
    high_hz: float = 7000.0  # 2nd-order low-pass

    def saturate(self, x):
        """Unit gain for small signals, compressing towards full drive."""
        b = np.tanh(self.asymmetry)
        s = np.tanh(x / self.full_drive + self.asymmetry) - b
        return self.full_drive * s / (1.0 - b * b)

    def band(self, x):
        low = signal.butter(2, self.low_hz, "highpass", fs=RATE, output="sos")
        high = signal.butter(2, self.high_hz, "lowpass", fs=RATE, output="sos")
        return signal.sosfilt(np.concatenate([low, high]), x)

    def play(self, x):
        """Sound leaving the loudspeaker for the signal x."""
        wide = signal.resample_poly(x, OVERSAMPLING, 1)
        return self.band(signal.resample_poly(self.saturate(wide), 1, OVERSAMPLING))

    def distortion_db(self, x):
        """Power of what is not a scaled copy of the undistorted output, relative to the output."""
        y, linear = self.play(x), self.band(x)
        rest = y - linear * (y @ linear) / (linear @ linear)
        return 10.0 * np.log10((rest @ rest) / (y @ y))
