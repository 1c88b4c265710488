"""The wake-up network in the engine's exact arithmetic: integer sums, single-precision rescaling, one step at a time.

Works on the library's tables. What the engine computes, this computes to the bit; training's fake quantisation is held
against it.
"""

from __future__ import annotations

from collections.abc import Iterator

import numpy as np

from training.shared import Tables

f32 = np.float32
BELOW_HALF = f32(0.49999997)
FRAMES, BANDS = 3, 40


def exp(x: np.ndarray) -> np.ndarray:
    """Correctly rounded, as the engine's; numpy's own for single precision is not."""
    return np.exp(x.astype(np.float64)).astype(f32)


def round_away(x: np.ndarray) -> np.ndarray:
    return np.trunc(x + np.copysign(BELOW_HALF, x))


def pair(m0: float, m1: float) -> np.float32:
    return f32(f32(m0) * f32(2.0) ** f32(-m1))


def requantise(sums: np.ndarray, m: np.float32, zero: int) -> np.ndarray:
    return np.clip(round_away(sums.astype(f32) * m) + zero, 0, 255).astype(np.int64)


def requantise_gate(sums: np.ndarray, m: np.float32, zero: int) -> np.ndarray:
    """The recurrent gates add the zero point before they round."""
    return np.clip(round_away(sums.astype(f32) * m + f32(zero)), 0, 255).astype(np.int64)


def nearest_code(x: np.ndarray) -> np.ndarray:
    return (np.clip(x, f32(0), f32(255)) + BELOW_HALF).astype(np.int64)


def sigmoid(x: np.ndarray) -> np.ndarray:
    limited = np.clip(x, f32(-10), f32(10))
    y = f32(1) / (f32(1) + exp(-limited))
    return np.where(x > 10, f32(1), np.where(x < -10, f32(0), y)).astype(f32)


def tanh(x: np.ndarray) -> np.ndarray:
    e = exp(f32(2) * np.clip(x, f32(-8), f32(8)))
    return np.where(x > 8, f32(1), np.where(x < -8, f32(-1), (e - f32(1)) / (e + f32(1)))).astype(f32)


def lane_sum(x: np.ndarray) -> np.float32:
    """Four lanes, each from the first value to the last, then (0 + 2) + (1 + 3)."""
    lanes = np.cumsum(x.reshape(-1, 4), axis=0, dtype=f32)[-1]
    return (lanes[0] + lanes[2]) + (lanes[1] + lanes[3])


class Network:
    """step() takes three feature frames; the state is that of Q_CONV_LEFT (wakeup/ChineseConv.h)."""

    def __init__(self, tables: Tables) -> None:
        self.t = {name: a if a.dtype.kind == "f" else a.astype(np.int64) for name, a in tables.items()}
        self.packed = tables["chinese_fix_param"]
        self.clear()

    def clear(self) -> None:
        """To code 0 everywhere, not to the zero points."""
        self.left = [np.zeros(shape, np.int64) for shape in ((1, BANDS), (1, 19, 16), (1, 8, 48))]
        self.state = np.zeros(128, np.int64)
        self.memory = np.zeros((4, 164, 8), np.int64)

    def whole(self, first: int, count: int) -> list[int]:
        return [int(v) for v in self.packed[first : first + count]]

    def dense(self, name: str, x: np.ndarray, at: int) -> np.ndarray:
        m0, m1, zero_point = self.whole(at, 3)
        sums = x @ self.t[f"chinese_{name}_weight"].T + self.t[f"chinese_{name}_bias"]
        return requantise(sums, pair(m0, m1), zero_point)

    def per_channel(self, name: str, windows: np.ndarray, at: int) -> np.ndarray:
        """windows [..., channels, taps]."""
        m0, m1, zero_point = self.whole(at, 3)
        sums = (windows * self.t[f"chinese_{name}_weight"]).sum(-1) + self.t[f"chinese_{name}_bias"]
        return requantise(sums, pair(m0, m1), zero_point)

    def step(self, features: np.ndarray) -> np.ndarray:
        """float32 [3, 40] -> score codes [146]."""
        scaled = features.astype(f32) / self.packed[0] + self.packed[1]
        x = np.where(scaled > 255, 255, np.where(scaled < 0, 0, np.trunc(scaled.astype(np.float64) + 0.5)))
        x = self.with_left(0, x.astype(np.int64))
        windows = np.stack([x[t : t + 2, f : f + 4].ravel() for t in range(FRAMES) for f in range(0, 37, 2)])
        x = self.dense("conv1", windows, 2).reshape(FRAMES, 19, 16)
        x = self.separable("conv2", self.with_left(1, x), 8, 5)
        x = self.separable("conv3", self.with_left(2, x), 3, 11)
        windows = x.transpose(2, 0, 1).reshape(1, 64, 9)
        x = self.dense("conv4_2", self.per_channel("conv4_1", windows, 17), 20)[0]
        x = self.recurrent(x)
        for i in range(4):
            x = self.memory_block(i, x, 49 + 20 * i)
        return self.dense("fc", x, 129)

    def with_left(self, i: int, x: np.ndarray) -> np.ndarray:
        joined = np.concatenate([self.left[i], x])
        self.left[i] = joined[-1:]
        return joined

    def separable(self, name: str, x: np.ndarray, positions: int, at: int) -> np.ndarray:
        windows = np.stack(
            [[x[t : t + 2, 2 * f : 2 * f + 4].reshape(8, -1).T for f in range(positions)] for t in range(FRAMES)]
        )
        return self.dense(f"{name}_2", self.per_channel(f"{name}_1", windows, at), at + 3)

    def recurrent(self, x: np.ndarray) -> np.ndarray:
        def gates(side: str, codes: np.ndarray, at: int) -> Iterator[np.ndarray]:
            sums = self.t[f"chinese_gru_weight_{side}_l0"] @ codes + self.t[f"chinese_gru_bias_{side}_l0"]
            for part, first in zip(np.split(sums, 3), range(at, at + 12, 4)):
                m0, m1, zero = self.whole(first, 3)
                yield (requantise_gate(part, pair(m0, m1), zero) - zero).astype(f32) * self.packed[first + 3]

        i_r, i_z, i_n = gates("ih", x, 25)
        h_r, h_z, h_n = gates("hh", self.state, 37)
        scale, zero = self.packed[23], int(self.packed[24])
        r, z = sigmoid(i_r + h_r), sigmoid(i_z + h_z)
        n = tanh(i_n + r * h_n)
        h = (f32(1) - z) * n + z * ((self.state - zero).astype(f32) * scale)
        self.state = nearest_code(h / scale + f32(zero))
        return self.state

    def memory_block(self, i: int, x: np.ndarray, at: int) -> np.ndarray:
        name = f"d{i + 1}"
        p = self.dense(f"{name}_in_conv1", x, at)
        left = self.per_channel(f"{name}_left_conv1", self.memory[i], at + 3)
        self.memory[i] = np.concatenate([self.memory[i][:, 1:], p[:, None]], 1)
        zero_p, zero_left, zero_sum, m1_0, m1_1, m2_0, m2_1 = self.whole(at + 6, 7)
        total = (p - zero_p) + round_away((left - zero_left).astype(f32) * pair(m2_0, m2_1)).astype(np.int64)
        x = self.dense(f"{name}_out_conv1", requantise(total, pair(m1_0, m1_1), zero_sum), at + 13)
        scale, zero = self.packed[at + 16], int(self.packed[at + 17])
        return self.normalise((x - zero).astype(f32) * scale, i + 1, self.packed[at + 18], self.packed[at + 19])

    def normalise(self, x: np.ndarray, i: int, scale: np.float32, zero: np.float32) -> np.ndarray:
        """No epsilon; a constant vector gives the bias alone."""
        mean = lane_sum(x) * f32(1 / 256)
        constant = (x == x[0]).all()
        x = x - mean
        variance = lane_sum(x * x) * f32(1 / 256)
        inverse = f32(0) if constant or not variance > 0 else f32(1) / np.sqrt(variance)
        y = x * inverse * self.t[f"chinese_ln{i}_weight"] + self.t[f"chinese_ln{i}_bias"]
        return nearest_code(y * (f32(1) / (scale + f32(1e-7))) + zero)
