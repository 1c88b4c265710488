"""What docs/python.md shows works, and the types of it and of the package are right."""

import os
import pathlib
import re
import subprocess
import sys

import numpy as np
import pytest
import quibo

PAGE = pathlib.Path(__file__).resolve().parents[2] / "docs/python.md"
PACKAGE = pathlib.Path(quibo.__file__).parent


@pytest.fixture(scope="module")
def examples(tmp_path_factory):
    script = tmp_path_factory.mktemp("examples") / "examples.py"
    script.write_text("\n".join(re.findall(r"^```python\n(.*?)^```", PAGE.read_text(), flags=re.M | re.S)))
    return script


def run(folder, *arguments, **environment):
    done = subprocess.run(
        [sys.executable, *arguments], capture_output=True, text=True, env={**os.environ, **environment}, cwd=folder
    )
    assert done.returncode == 0, done.stdout + done.stderr


def test_examples_run(examples):
    run(examples.parent, examples)


def test_examples_and_package_pass_mypy_strict(examples):
    installed = "site-packages" in PACKAGE.parts  # then mypy finds it by itself
    run(
        examples.parent,
        *("-m", "mypy", "--strict", "--cache-dir", examples.parent / "cache", "-m", "examples", "-p", "quibo"),
        **({} if installed else {"MYPYPATH": str(PACKAGE.parent)}),
    )


def test_errors_are_those_of_the_page():
    quoted = re.findall(r"^(\w+Error): (.*)$", PAGE.read_text(), flags=re.M)
    zeros = np.zeros((3, 160000), np.int16)
    with quibo.FrontEnd() as front_end:
        for wrong, (kind, words) in zip((zeros.T, zeros.astype("int32")), quoted, strict=True):
            with pytest.raises((ValueError, TypeError)) as caught:
                front_end.process(wrong, zeros[0])
            assert (caught.type.__name__, str(caught.value)) == (kind, words)
