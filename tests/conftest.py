"""What the Python tests share. The build under test is the one in the environment variable QUIBO_BUILD_DIR; ctest
sets it."""

import os
import pathlib
import subprocess
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


@pytest.fixture(scope="session")
def capture(source, tmp_path_factory):
    """The sample recording as the driver reads it: int16, six channels interleaved."""
    path = tmp_path_factory.mktemp("sample") / "capture.raw"
    how = ["-d", "-s", "--force-raw-format", "--endian=little", "--sign=signed"]
    subprocess.run(["flac", *how, "-o", path, source / "samples/living_room.flac"], check=True)
    return path


@pytest.fixture(scope="session")
def quibo(build):
    """Runs the command."""
    if not (build / "quibo").exists():
        pytest.skip("the command was not built: its libraries are missing")

    def run(*arguments, **options):
        options = {"capture_output": True, "text": True, "timeout": 300, **options}
        return subprocess.run([build / "quibo", *map(str, arguments)], **options)

    return run


@pytest.fixture(scope="session")
def plain(build, unsanitized):
    """The sample's microphones in clear, and its reference."""
    import recordings

    return recordings.plain_sample(build / "libquibo.so")
