"""Where the toolkit finds the rest of the repository; commands run from its root, so that the code in params/ is a package."""

import pathlib
import typing

ROOT = pathlib.Path(__file__).resolve().parents[1]
PARAMS = ROOT / "params"

Config = dict[str, typing.Any]  # a TOML file's tables
