"""The parameter files' parser on any bytes. Takes libFuzzer's options and corpus folders."""

import pathlib
import sys

import atheris

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "params"))
with atheris.instrument_imports(include=["safetensors_file", "json", "json.decoder"]):
    from parser_property import hold

atheris.Setup(sys.argv, hold)
atheris.Fuzz()
