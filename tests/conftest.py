"""What the Python tests share. The build under test is the one in the environment variable QUIBO_BUILD_DIR; ctest
sets it."""
import os
import pathlib
import sys

import pytest

SOURCE = pathlib.Path(__file__).resolve().parent.parent
sys.path[:0] = [str(SOURCE / "params"), str(SOURCE / "fuzz")]


@pytest.fixture(scope="session")
def source():
    return SOURCE


@pytest.fixture(scope="session")
def build():
    return pathlib.Path(os.environ["QUIBO_BUILD_DIR"])


@pytest.fixture(scope="session")
def unsanitized():
    """For tests of the library as shipped."""
    if os.environ.get("QUIBO_SANITIZE") == "ON":
        pytest.skip("a sanitized library brings the sanitizers' runtime along")
