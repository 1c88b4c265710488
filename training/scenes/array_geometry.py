"""Where the microphones and the loudspeaker are, and what a heading is (docs/array.md).

Array frame, metres: the origin is the centre of the microphone triangle, +y points from it to
microphone 1, +x to the right of +y seen from above, +z up. A heading is an angle in degrees,
clockwise seen from above from +y:

    x = r sin(heading)    y = r cos(heading)
"""

from __future__ import annotations

import numpy as np

MIC_RADIUS = 0.05
MIC_HEADINGS = (0.0, 120.0, 240.0)  # microphones 1, 2, 3
LOUDSPEAKER_DEPTH = 0.06  # acoustic centre on the array's axis, below the microphone plane


def offset(heading: float, distance: float, height: float = 0.0) -> np.ndarray:
    """Array-frame position of a point `distance` m away along the floor plane, `height` m up."""
    theta = np.deg2rad(heading)
    return np.array([distance * np.sin(theta), distance * np.cos(theta), height])


def heading_of(position: np.ndarray) -> float:
    """Heading in [0, 360) degrees of an array-frame position."""
    return float(np.rad2deg(np.arctan2(position[0], position[1])) % 360.0)


def mic_offsets() -> np.ndarray:
    """Array-frame positions of microphones 1..3, shape [3, 3] (microphone, xyz)."""
    return np.stack([offset(heading, MIC_RADIUS) for heading in MIC_HEADINGS])


def loudspeaker_offset() -> np.ndarray:
    """Array-frame position of the loudspeaker's acoustic centre."""
    return np.array([0.0, 0.0, -LOUDSPEAKER_DEPTH])
