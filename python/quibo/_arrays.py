"""Samples as the library takes them. Errors name the argument and say what was expected."""

from __future__ import annotations

from typing import Any

import numpy as np
from numpy.typing import ArrayLike, NDArray

FULL_SCALE = 32768

# A length per axis, None for any.
Shape = tuple[int | None, ...]


def int16(name: str, value: ArrayLike, shape: Shape) -> NDArray[np.int16]:
    """int16 as it is; floats of full scale 1.0 rounded, and beyond it saturated as a converter does."""
    samples = _checked(name, value, shape)
    if samples.dtype == np.int16:
        return np.ascontiguousarray(samples)
    scaled = np.rint(samples * np.float64(FULL_SCALE))
    return np.ascontiguousarray(np.clip(scaled, -FULL_SCALE, FULL_SCALE - 1).astype(np.int16))


def float32(name: str, value: ArrayLike, shape: Shape) -> NDArray[np.float32]:
    """Floats as they are, int16 to a full scale of 1.0."""
    samples = _checked(name, value, shape)
    if samples.dtype == np.int16:
        samples = samples * np.float32(1 / FULL_SCALE)
    return np.ascontiguousarray(samples, np.float32)


def same_length(**arrays: NDArray[Any]) -> None:
    lengths = {name: array.shape[-1] for name, array in arrays.items()}
    if len(set(lengths.values())) > 1:
        told = ", ".join(f"{name} {n}" for name, n in lengths.items())
        raise ValueError(f"{' and '.join(lengths)}: expected as many samples in each, not {told}")


def choice(name: str, value: str, known: tuple[str, ...]) -> None:
    if value not in known:
        raise ValueError(f"{name}: {value!r}, expected {' or '.join(map(repr, known))}")


def positive(name: str, value: float) -> float:
    if not 0 < value < np.inf:
        raise ValueError(f"{name}: {value}, expected a number above 0")
    return float(value)


def _checked(name: str, value: ArrayLike, shape: Shape) -> NDArray[Any]:
    samples = np.asarray(value)
    if samples.dtype not in (np.int16, np.float32, np.float64):
        expected = "int16, or float32 or float64 with a full scale of 1.0"
        raise TypeError(f"{name}: samples of type {samples.dtype}, expected {expected}")
    if not _fits(samples.shape, shape):
        expected = f"({', '.join('n' if n is None else str(n) for n in shape)}{',' * (len(shape) == 1)})"
        hint = ", a row per microphone; transpose it" if _fits(samples.shape[::-1], shape) else ""
        raise ValueError(f"{name}: shape {samples.shape}, expected {expected}{hint}")
    if samples.dtype != np.int16 and not np.isfinite(samples).all():
        bad = np.argwhere(~np.isfinite(samples))
        where = ", ".join(map(str, bad[0]))
        raise ValueError(f"{name}: {samples[tuple(bad[0])]} at [{where}], expected numbers ({len(bad)} are none)")
    return samples


def _fits(actual: tuple[int, ...], shape: Shape) -> bool:
    return len(actual) == len(shape) and all(want in (None, n) for n, want in zip(actual, shape))
