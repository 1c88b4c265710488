"""The chain with its own parameters on the sample recording: what `./run demo` shows a newcomer holds.

The bars leave about 5 dB to what was seen; they tell trained parameters that work from ones that were damaged, mixed up or
trained on something else, not one training from the next (./run evaluate does that).
"""

import json
import subprocess

import pytest

FAR_END_BAR_DB = 25  # echo reduction of every stretch in which only the device plays
TALKERS_BAR_DB = 10  # talkers over the rest while nothing plays and no tap runs
BOTH_BAR_DB = 12  # what double talk gains
HEARD_BAR = 4  # of the five wake phrases
ANGLE_BAR_DEG = 15


@pytest.fixture(scope="module")
def found(build, source, capture, tmp_path_factory, unsanitized):
    """What tools/demo_report.py finds: `stretches`, `spoken` with the wakes and angles, `stray_wakes`."""
    folder = tmp_path_factory.mktemp("chain")
    played = folder / "wav/input_frame_20251107_140756.pcm"
    for name in ("wav", "wav2"):
        (folder / name).mkdir()
    played.symlink_to(capture)
    printed = subprocess.run([build / "quibo_demo"], cwd=folder, check=True, capture_output=True).stdout
    (folder / "printed.txt").write_bytes(printed)
    subprocess.run(
        [
            "python3",
            source / "tools/demo_report.py",
            "--scene",
            source / "samples/living_room.json",
            "--capture",
            capture,
            "--output",
            folder / "wav2/nnaec.pcm",
            "--events",
            folder / "printed.txt",
            "--codec",
            build / "libquibo.so",
            "--json",
            folder / "found.json",
        ],
        check=True,
        capture_output=True,
    )
    return json.loads((folder / "found.json").read_text(encoding="utf-8"))


def test_the_demo_takes_the_echo_down_and_keeps_the_talkers(found):
    assert found["delay_samples"] == 2580
    stretches = found["stretches"]
    assert min(s["echo_down_db"] for s in stretches if s["kind"] == "far_end") >= FAR_END_BAR_DB, stretches
    _, quiet = next(s["talkers_to_rest_db"] for s in stretches if s["kind"] == "near_end")
    both = [s["talkers_to_rest_db"] for s in stretches if s["kind"] == "double_talk"]
    assert quiet >= TALKERS_BAR_DB and min(after - before for before, after in both) >= BOTH_BAR_DB, stretches


def test_the_demo_hears_the_wake_phrases_and_points_at_them(found):
    heard = [s for s in found["spoken"] if s["wake_phrase"] and s["woke_s"] is not None]
    assert len(heard) >= HEARD_BAR and not found["stray_wakes"], found["spoken"]
    assert max(s["angle_error_deg"] for s in heard) <= ANGLE_BAR_DEG, heard
