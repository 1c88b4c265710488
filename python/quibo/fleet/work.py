"""What is done to one recording, in a worker: a row."""

from __future__ import annotations

import dataclasses
import platform
from typing import Any

from .. import recordings
from . import addresses


def about() -> dict[str, Any]:
    """What rows depend on beside the options: the library and its parameters."""
    told = recordings.about()
    parameters = [{"name": name, "digest": digest} for name, digest in told["parameters"].items()]
    return {"library": told["version"], "parameters": parameters}


def analyse(name: str, channels: str, encoding: recordings.Guess) -> dict[str, Any]:
    """The recording's row, with its events inside. Whatever goes wrong with it is a row too."""
    try:
        with addresses.as_file(name) as file:
            run = recordings.run(file, channels=channels, encoding=encoding, keep=False)
            check = recordings.check(file, channels=channels, encoding=encoding)
    except Exception as error:  # a worker goes on, and the row says it
        known = isinstance(error, (OSError, ValueError))
        text = str(error) if known else f"{type(error).__name__}: {error}"
        return failed(name, text.removeprefix(f"{name}: "))
    return {
        "recording": name,
        "error": None,
        **{key: run.summary[key] for key in ("seconds", "wakes", "echo_reduction_db", "only_device_seconds")},
        "warnings": list(run.warnings),
        "verdict": check.verdict,
        "findings": [dataclasses.asdict(finding) for finding in check.findings],
        **{key: run.about[key] for key in ("format", "channels", "sample_rate", "encoding")},
        **about(),
        "events": [
            {
                **{"number": number, "sample": wake.sample, "seconds": wake.seconds},
                **{"start": wake.start, "end": wake.end, "cost": wake.cost},
                **{"angle": wake.angle, "angle_length": wake.angle_length},
            }
            for number, wake in enumerate(run.events, start=1)
        ],
        "kernels": run.about["quibo"]["kernels"],
        "host": platform.node(),
        "processor_seconds": run.summary["processor_seconds"],
    }


def failed(name: str, error: str) -> dict[str, Any]:
    return {"recording": name, "error": error, "seconds": None, **about()}
