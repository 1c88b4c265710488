"""The triangular mel filters of the log-mel features (fbank_filter1).

42 edges equally spaced on mel(f) = 1127 ln(1 + f/700) from 100 Hz to 6800 Hz; band m rises from edge m to m+1 and falls
to m+2, linearly in mel. Only the bins strictly inside a band are stored, of a 512-point spectrum at 16 kHz.
"""

import math

BANDS, LOW_HZ, HIGH_HZ = 40, 100.0, 6800.0
BIN_HZ = 16000 / 512


def mel(hz: float) -> float:
    return 1127 * math.log(1 + hz / 700)


def weights() -> list[float]:
    """All bands' weights, band after band."""
    low, high = mel(LOW_HZ), mel(HIGH_HZ)
    edges = [low + (high - low) * i / (BANDS + 1) for i in range(BANDS + 2)]
    points = [mel(k * BIN_HZ) for k in range(257)]
    return [
        min((p - left) / (centre - left), (right - p) / (right - centre))
        for left, centre, right in zip(edges, edges[1:], edges[2:])
        for p in points
        if left < p < right
    ]
