"""Figures over scenes with 95 % intervals: bootstrap over scenes, Wilson for shares."""

from __future__ import annotations

import math
from collections.abc import Callable, Iterable

import numpy as np

RESAMPLINGS = 2000
CONFIDENCE = 0.95
SEED = 20251107

Figures = dict[str, float]  # value, low, high, n
Statistic = Callable[..., np.ndarray]  # of an array, with axis=


def bootstrap(values: Iterable[float | None], statistic: Statistic = np.mean) -> Figures | None:
    """{value, low, high, n} of `statistic` over scenes; None where there are no values."""
    x = np.asarray([v for v in values if v is not None and np.isfinite(v)], np.float64)
    if len(x) == 0:
        return None
    rng = np.random.default_rng(SEED)
    drawn = statistic(x[rng.integers(len(x), size=(RESAMPLINGS, len(x)))], axis=1)
    low, high = np.quantile(drawn, [(1 - CONFIDENCE) / 2, (1 + CONFIDENCE) / 2])
    return {"value": float(statistic(x)), "low": float(low), "high": float(high), "n": len(x)}


def share(hits: int, trials: int) -> Figures | None:
    """{value, low, high, n} of a proportion: Wilson's score interval."""
    if trials == 0:
        return None
    z, p = 1.959964, hits / trials
    middle = (p + z * z / (2 * trials)) / (1 + z * z / trials)
    half = z / (1 + z * z / trials) * math.sqrt(p * (1 - p) / trials + z * z / (4 * trials**2))
    return {
        "value": p,
        "low": max(0.0, middle - half),
        "high": min(1.0, middle + half),
        "n": trials,
    }


def rate(events: int, hours: float) -> Figures | None:
    """{value, low, high, n} of events per hour, exact Poisson interval; n counts events."""
    if hours == 0:
        return None
    from scipy.stats import chi2

    tail = (1 - CONFIDENCE) / 2
    low = chi2.ppf(tail, 2 * events) / 2 if events else 0.0
    high = chi2.ppf(1 - tail, 2 * events + 2) / 2
    return {"value": events / hours, "low": low / hours, "high": high / hours, "n": events}


def percentile(q: float) -> Statistic:
    return lambda x, axis=None: np.percentile(x, q, axis=axis)
