"""The demo driver: its files, its printed lines, its exit status. The scripted driver runs on a front end that
reports known wakes and angles (support/scripted_front_end.cpp)."""

import array
import os
import random
import resource
import subprocess

import pytest

SEED = 20251103
FRAME, CHANNELS = 1024, 6
INPUT, OUTPUT = "wav/input_frame_20251107_140756.pcm", "wav2/nnaec.pcm"
START = 3 * ">QuibNAecInit\n" + "Version:libquibo_wakeup_DOA_v3.3.22_20251103\nQuibo_wakeup_init\n"


@pytest.fixture
def folder(tmp_path):
    (tmp_path / "wav").mkdir()
    (tmp_path / "wav2").mkdir()
    return tmp_path


def drive(program, folder, **environment):
    return subprocess.run([program], cwd=folder, env={**os.environ, **environment}, capture_output=True, text=True)


def write_capture(folder, values):
    (folder / INPUT).write_bytes(array.array("h", values).tobytes())


def read_output(folder):
    return array.array("h", (folder / OUTPUT).read_bytes())


def noise(frames):
    source = random.Random(SEED)
    return [source.randint(-32768, 32767) for _ in range(int(frames * FRAME * CHANNELS))]


@pytest.mark.parametrize("missing", ["input", "output folder"])
def test_a_file_that_cannot_be_opened_is_one_line_and_nothing_written(build, folder, missing):
    if missing == "input":
        name = INPUT
    else:
        name = OUTPUT
        write_capture(folder, noise(1))
        (folder / "wav2").rmdir()
    result = drive(build / "quibo_demo", folder)
    assert result.returncode > 0
    assert result.stdout == ""
    assert result.stderr == f"quibo_demo: cannot open ./{name}: No such file or directory\n"
    assert not (folder / OUTPUT).exists()


@pytest.mark.parametrize("frames, end", [(0, "0 s,0 ms"), (0.99, "0 s,0 ms"), (2.5, "0 s,128 ms"), (16, "1 s,24 ms")])
def test_whole_frames_are_written_and_a_partial_one_dropped(build, folder, frames, end):
    write_capture(folder, noise(frames))
    result = drive(build / "quibo_demo", folder)
    assert (result.returncode, result.stderr) == (0, "")
    assert result.stdout.startswith(START)
    assert result.stdout.endswith(f"---end(0): (time:0 m,{end})\n")
    assert len(read_output(folder)) == int(frames) * FRAME


def test_every_instruction_set_writes_the_same_file(build, folder):
    write_capture(folder, noise(20))
    outputs = []
    for kernels in ["", "scalar", "sse2", "avx2", "avx512", "neon", "nonsense"]:
        result = drive(build / "quibo_demo", folder, QUIBO_KERNELS=kernels)
        assert result.returncode == 0
        if result.stderr:  # not on this machine
            assert kernels not in ("", "scalar")
            assert result.stderr.startswith(f"quibo: QUIBO_KERNELS={kernels} is not available here, using ")
            assert result.stderr.count("\n") == 1
        else:
            assert kernels != "nonsense"
        outputs.append(read_output(folder))
    assert all(output == outputs[0] for output in outputs), f"seed {SEED}"
    assert any(outputs[0])


def test_channels_are_picked_and_wakes_and_angles_printed_with_the_end_of_their_frame(build, folder):
    # Microphones on channels 0, 1, 2 and the loudspeaker on 4: digits of one decimal number.
    instants = 962 * FRAME
    write_capture(folder, [1, 2, 3, 77, 4, 99] * instants)
    result = drive(build / "tests" / "scripted_demo", folder)
    assert (result.returncode, result.stderr) == (0, "")
    assert result.stdout.splitlines() == [
        "Quibo_wakeup_init",
        "--------->Doa:10",
        "--------->is_wakeup:0 (time:0 m,0 s,192 ms)",  # its angle of 0 is not printed
        "--------->Doa:359",
        "--------->is_wakeup:5 (time:0 m,0 s,256 ms)",
        "--------->is_wakeup:0 (time:1 m,1 s,504 ms)",
        "---end(3): (time:1 m,1 s,568 ms)",
    ]
    assert read_output(folder) == array.array("h", [1 + 20 + 300 + 4000]) * instants


def test_a_front_end_that_cannot_be_created_is_reported(build, folder):
    write_capture(folder, noise(1))
    result = drive(build / "tests" / "scripted_demo", folder, SCRIPT_NO_FRONT_END="1")
    assert result.returncode > 0
    assert result.stderr.count("\n") == 1
    assert result.stdout == ""
    assert not (folder / OUTPUT).exists() or not (folder / OUTPUT).stat().st_size


@pytest.mark.skipif(not os.path.exists("/dev/full"), reason="no /dev/full")
@pytest.mark.parametrize("frames", [1, 20])
def test_a_full_disk_is_reported(build, folder, frames):
    write_capture(folder, noise(frames))
    (folder / OUTPUT).symlink_to("/dev/full")
    result = drive(build / "quibo_demo", folder)
    assert result.returncode > 0
    assert result.stderr == f"quibo_demo: cannot write ./{OUTPUT}: No space left on device\n"


@pytest.mark.skipif(not os.path.exists("/dev/full"), reason="no /dev/full")
def test_lost_lines_are_reported(build, folder):
    write_capture(folder, noise(1))
    with open("/dev/full", "wb") as full:
        result = subprocess.run([build / "quibo_demo"], cwd=folder, stdout=full, stderr=subprocess.PIPE, text=True)
    assert result.returncode > 0
    assert result.stderr == "quibo_demo: cannot write to standard output: No space left on device\n"


@pytest.mark.parametrize("kind, reason", [("directory", "Is a directory"), ("unreadable", "Input/output error")])
def test_an_input_that_opens_and_cannot_be_read_is_reported(build, folder, kind, reason):
    if kind == "directory":
        (folder / INPUT).mkdir()
    elif os.path.exists("/proc/self/mem"):
        (folder / INPUT).symlink_to("/proc/self/mem")  # nothing is mapped at its start
    else:
        pytest.skip("no /proc")
    result = drive(build / "quibo_demo", folder)
    assert (result.returncode, result.stdout) == (1, "")
    assert result.stderr == f"quibo_demo: cannot read ./{INPUT}: {reason}\n"
    assert not (folder / OUTPUT).exists()


@pytest.mark.parametrize("link", [os.symlink, os.link])
def test_an_output_that_is_the_input_is_refused_and_left_as_it_is(build, folder, link):
    write_capture(folder, noise(1))
    before = (folder / INPUT).read_bytes()
    link(folder / INPUT, folder / OUTPUT)
    result = drive(build / "quibo_demo", folder)
    assert (result.returncode, result.stdout) == (1, "")
    assert result.stderr == f"quibo_demo: ./{OUTPUT} is the input itself\n"
    assert (folder / INPUT).read_bytes() == before


def test_48_kib_of_stack_are_enough(build, folder, unsanitized):
    write_capture(folder, noise(4))
    result = subprocess.run(
        [build / "quibo_demo"],
        cwd=folder,
        capture_output=True,
        text=True,
        preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_STACK, (48 << 10, 48 << 10)),
    )
    assert (result.returncode, result.stderr) == (0, "")
