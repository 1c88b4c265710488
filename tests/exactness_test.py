"""The same bits everywhere: the sample recording through the whole front end on every instruction set of this machine, on
ARM under emulation, and with every kernel call held against the scalar one; and the registers' operations on ARM.

The second and third need builds that ./run check makes; it names their folders in QUIBO_CROSS_BUILDS and
QUIBO_CHECKED_BUILD.
"""

import os
import pathlib
import subprocess

import pytest

SHORT = 40  # frames of 64 ms: two wakes; for builds that run slowly

# Emulator, processors and the variants each of these must offer.
EMULATED = {
    "build-aarch64": (
        ["qemu-aarch64", "-L", "/usr/aarch64-linux-gnu"],
        {
            "max": ["scalar", "neon", "neon_dotprod", "neon_i8mm"],
            "cortex-a76": ["scalar", "neon", "neon_dotprod"],
            "cortex-a53": ["scalar", "neon"],
        },
    ),
    # NEON of 32-bit ARM flushes denormals to zero, so that only its integers are promised to give the same bits.
    "build-armhf": (
        ["qemu-arm", "-L", "/usr/arm-linux-gnueabihf"],
        {"cortex-a7": ["scalar", "neon_int8"]},
    ),
}
# Not promised, but on this recording, which makes no denormal that counts, a stricter bar than that of the other fused ones.
SAME_HERE = {"build-armhf": ["neon_fused"]}


def digest(build, capture, variant, frames, emulator=()):
    command = [*emulator, build / "quibo_digest", capture, str(frames)]
    return subprocess.run(
        command, check=True, capture_output=True, text=True, env={**os.environ, "QUIBO_KERNELS": variant}
    ).stdout


def variants(build, emulator=()):
    command = [*emulator, build / "quibo_digest", "--variants"]
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.split()


def expect_equal(build, capture, expected, names, frames, emulator=()):
    for name in names:
        assert digest(build, capture, name, frames, emulator) == expected, name


def test_every_instruction_set_gives_the_scalar_digests(build, capture):
    frames = SHORT if os.environ.get("QUIBO_SANITIZE") == "ON" else 10**6
    scalar, *others = variants(build)
    expected = digest(build, capture, scalar, frames)
    assert expected.count("wake 0 at frame") >= 2
    expect_equal(build, capture, expected, others, frames)


def test_a_small_build_has_one_variant_and_its_bits(build, capture):
    small = os.environ.get("QUIBO_SMALL_BUILD")
    if not small:
        pytest.skip("./run check builds it")
    small, (program, _) = pathlib.Path(small), EMULATED["build-armhf"]
    emulator = (*program, "-cpu", "cortex-a7")
    assert variants(small, emulator) == SAME_HERE["build-armhf"]
    expect_equal(small, capture, digest(build, capture, "scalar", SHORT), [""], SHORT, emulator)


@pytest.mark.parametrize("name", EMULATED)
def test_arm_gives_the_digests_of_this_machine_and_its_registers_keep_their_contracts(name, build, capture):
    folders = {pathlib.Path(folder).name: pathlib.Path(folder) for folder in os.environ.get("QUIBO_CROSS_BUILDS", "").split()}
    if name not in folders:
        pytest.skip("./run check builds it")
    expected = digest(build, capture, "scalar", SHORT)
    tried = set()
    program, processors = EMULATED[name]
    for processor, offered in processors.items():
        emulator = (*program, "-cpu", processor)
        assert variants(folders[name], emulator) == offered
        here = offered + SAME_HERE.get(name, [])
        expect_equal(folders[name], capture, expected, [v for v in here if v not in tried], SHORT, emulator)
        tried.update(here)
        subprocess.run([*emulator, folders[name] / "tests/registers/register_test"], check=True)


def test_fused_kernels_of_64_bit_arm_give_the_bits_of_those_of_this_machine(build, capture):
    folders = [folder for folder in os.environ.get("QUIBO_CROSS_BUILDS", "").split() if folder.endswith("build-aarch64")]
    here = subprocess.run([build / "quibo_digest", "--fused"], check=True, capture_output=True, text=True).stdout.split()
    if not folders or not here:
        pytest.skip("./run check builds it" if here else "this processor has no fused multiply-add")
    expected = digest(build, capture, here[0], SHORT)
    program, _ = EMULATED["build-aarch64"]
    expect_equal(pathlib.Path(folders[0]), capture, expected, ["neon_fused"], SHORT, (*program, "-cpu", "max"))


def test_no_kernel_call_differs_from_its_scalar_twin(build, capture):
    checked = os.environ.get("QUIBO_CHECKED_BUILD")
    if not checked:
        pytest.skip("./run check builds it")
    checked = pathlib.Path(checked)
    expect_equal(checked, capture, digest(build, capture, "scalar", SHORT), variants(checked), SHORT)
