"""The chain with its own parameters on the sample recording: what `./run demo` shows a newcomer holds.

The bars leave about 5 dB to what was seen; they tell trained parameters that work from ones that were damaged, mixed up or
trained on something else, not one training from the next (./run evaluate does that).
"""
import re
import subprocess

FAR_END_BAR_DB = 25  # echo reduction of every stretch in which only the device plays
TALKERS_BAR_DB = 10  # talkers over the rest while nothing plays
BOTH_BAR_DB = 12     # what double talk gains


def test_the_demo_takes_the_echo_down_and_keeps_the_talkers(build, source, tmp_path, unsanitized):
    capture = tmp_path / "wav/input_frame_20251107_140756.pcm"
    for folder in ("wav", "wav2"):
        (tmp_path / folder).mkdir()
    subprocess.run(["flac", "-d", "-s", "--force-raw-format", "--endian=little", "--sign=signed", "-o", capture,
                    source / "samples/living_room.flac"], check=True)
    subprocess.run([build / "quibo_demo"], cwd=tmp_path, check=True, capture_output=True)
    report = subprocess.run(
        ["python3", source / "tools/demo_report.py", "--scene", source / "samples/living_room.json", "--capture", capture,
         "--output", tmp_path / "wav2/nnaec.pcm", "--codec", build / "libquibo.so"],
        check=True, capture_output=True, text=True).stdout

    assert "2580 samples" in report, report
    far_end = [float(v) for v in re.findall(r"echo (-?[\d.]+) dB down", report)]
    talkers = [(float(a), float(b)) for a, b in re.findall(r"to rest ([+-][\d.]+) -> ([+-][\d.]+) dB", report)]
    assert len(far_end) == 3 and min(far_end) >= FAR_END_BAR_DB, report
    (_, alone), (before, both) = talkers
    assert alone >= TALKERS_BAR_DB and both - before >= BOTH_BAR_DB, report
