"""Shoebox rooms: impulse responses from sources to the three microphones."""

from __future__ import annotations

import dataclasses

import numpy as np
import pyroomacoustics as pra

from training.scenes import array_geometry
from training.scenes.audio import RATE

WALLS = ("west", "east", "south", "north", "floor", "ceiling")
# Every impulse response of the simulator starts with half of its fractional-delay filter.
SIMULATOR_DELAY = pra.constants.get("frac_delay_length") // 2


@dataclasses.dataclass(frozen=True)
class Room:
    size: tuple  # metres, x y z
    array: tuple  # centre of the microphone triangle, array axes parallel to the room's
    rt60: float  # target, seconds
    weights: tuple  # relative absorption of WALLS; unequal walls avoid flutter of a bare box

    def absorption(self) -> dict[str, float]:
        """Energy absorption per wall that gives the target RT60 by Eyring's formula."""
        x, y, z = self.size
        area = np.array([y * z, y * z, x * z, x * z, x * y, x * y])
        volume, surface = x * y * z, area.sum()
        mean = 1.0 - np.exp(-24.0 * np.log(10.0) * volume / (343.0 * surface * self.rt60))
        weights = np.array(self.weights)
        alpha = weights * mean * surface / (weights @ area)
        if alpha.max() > 1.0:
            raise ValueError(f"RT60 of {self.rt60} s needs a wall that absorbs {alpha.max():.2f}")
        return dict(zip(WALLS, alpha))

    def place(self, offset: np.ndarray) -> np.ndarray:
        """Room position of an array-frame offset."""
        return np.array(self.array) + offset

    def impulse_responses(self, offsets: dict[str, np.ndarray]) -> dict[str, np.ndarray]:
        """Responses of sources at array-frame `offsets` (name -> xyz): name -> [3, taps]."""
        shoebox = pra.ShoeBox(
            self.size,
            fs=RATE,
            materials={wall: pra.Material(a) for wall, a in self.absorption().items()},
            max_order=int(np.ceil(343.0 * self.rt60 / min(self.size))),
            air_absorption=True,
        )
        shoebox.add_microphone_array(np.stack([self.place(m) for m in array_geometry.mic_offsets()], axis=1))
        for offset in offsets.values():
            shoebox.add_source(self.place(offset))
        shoebox.compute_rir()
        taps = max(len(h) for mic in shoebox.rir for h in mic)
        return {
            name: np.stack([np.pad(mic[s], (0, taps - len(mic[s]))) for mic in shoebox.rir]) for s, name in enumerate(offsets)
        }


def measured_rt60(response: np.ndarray) -> float:
    """RT60 from the -5..-35 dB part of the backward-integrated response, seconds."""
    return float(pra.measure_rt60(response, fs=RATE, decay_db=30))
