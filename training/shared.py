"""Where the toolkit finds the rest of the repository; commands run from its root, so that the code in params/ is a package."""

import pathlib
import typing

import numpy as np

ROOT = pathlib.Path(__file__).resolve().parents[1]
PARAMS = ROOT / "params"

Config = dict[str, typing.Any]  # a TOML file's tables
Record = dict[str, typing.Any]  # what JSON holds of a scene, a clip, a result
Tables = dict[str, np.ndarray]  # of the library, by name
