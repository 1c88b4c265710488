"""Executed instructions per frame of the whole chain: on x86 under callgrind, by module; cycles.py counts on AArch64.
The demonstration driver runs on two lengths of the recording, and the difference is what the frames between them
cost."""

import os
import pathlib
import re
import subprocess
import tempfile

FRAME_BYTES = 6 * 1024 * 2
SHORT, LONG = 4, 8  # frames
MODULES = {
    "codec": "dec_data",
    "cancellers": "kesto_Laec_Post_write",
    "echo suppressor": "QuibNAecRun",
    "noise suppressors": "QuibAncRun",
    "wake-up": "QuibWakeupWriteData",
    "direction": "kesto_customs_doa_write",
}
QEMU = ["qemu-aarch64", "-L", "/usr/aarch64-linux-gnu", "-cpu", "max"]
QEMU_32 = ["qemu-arm", "-L", "/usr/arm-linux-gnueabihf", "-cpu", "cortex-a7"]


def play(command, capture, frames, variant):
    """Runs the driver in a folder of its own; returns what the tool says, and the folder's files by name."""
    with tempfile.TemporaryDirectory() as folder:
        for name in ("wav", "wav2"):
            pathlib.Path(folder, name).mkdir()
        pathlib.Path(folder, "wav/input_frame_20251107_140756.pcm").write_bytes(capture[: frames * FRAME_BYTES])
        done = subprocess.run(
            command, cwd=folder, env={**os.environ, "QUIBO_KERNELS": variant}, check=True, capture_output=True, text=True
        )
        profile = pathlib.Path(folder, "profile")
        if not profile.exists():
            return done.stderr
        return subprocess.run(
            ["callgrind_annotate", "--inclusive=yes", "--threshold=100", profile], check=True, capture_output=True, text=True
        ).stdout


def per_frame(count, command, capture, variant):
    short, long = (count(play(command, capture, frames, variant)) for frames in (SHORT, LONG))
    return {name: (long[name] - short[name]) / (LONG - SHORT) for name in long}


def under_callgrind(demo, capture, variant):
    def count(text):
        def of(pattern):
            return int(re.search(rf"^ *([\d,]+) .*{pattern}", text, re.MULTILINE)[1].replace(",", ""))

        return {**{name: of(rf":{call} ") for name, call in MODULES.items()}, "total": of("PROGRAM TOTALS")}

    return per_frame(count, ["valgrind", "--tool=callgrind", "--callgrind-out-file=profile", demo], capture, variant)
