"""tools/demo_report.py on signals whose answers are known."""

import array
import json
import math
import pathlib
import random
import subprocess
import sys
import wave

import pytest

ROOT = pathlib.Path(__file__).parent.parent
sys.path.insert(0, str(ROOT / "tools"))

import demo_report

SEED = 7
RATE = 16000
SECONDS = {"far_end": (0.0, 2.048), "near_end": (2.048, 4.096)}


def voice(generator, count):
    """Low-pass noise in bursts: as self-similar from sample to sample as speech is."""
    level, out = 0.0, array.array("h")
    for n in range(count):
        level = 0.9 * level + generator.gauss(0, 1000)
        out.append(round(level * (0.2 + 0.8 * (n // 3000 % 2))))
    return out


@pytest.mark.parametrize("delay", [0, 20, 2580, demo_report.MAX_DELAY - 1])
def test_delay_is_found_exactly_under_noise_as_loud_as_the_voice(delay):
    generator = random.Random(SEED)
    mic = voice(generator, 20000)
    noisy = [v + generator.gauss(0, 1500) for v in mic]
    output = array.array("h", [0] * delay + [round(max(-32768, min(32767, v))) for v in noisy])
    found, likeness = demo_report.find_delay(mic, output, 0, len(mic))
    assert (found, likeness > demo_report.ALIKE) == (delay, True), f"seed {SEED}"


def test_talker_margin_is_the_ratio_of_orthogonal_parts_whatever_the_gain():
    talkers = array.array("h", [1000, 0] * 500)
    rest = array.array("h", [0, 250] * 500)
    for loudness in (0.5, 1, 3):
        mixture = [round(loudness * (t + r)) for t, r in zip(talkers, rest)]
        margin = demo_report.talker_margin_db(mixture, talkers)
        assert margin == pytest.approx(20 * math.log10(4), abs=0.01)


@pytest.fixture
def demo(tmp_path):
    """A folder with a scene, a capture and an output 100 samples late and 20 dB down in far_end."""
    generator = random.Random(SEED)
    count = 4 * 16 * 1024
    mic = voice(generator, count)
    middle = round(SECONDS["near_end"][0] * RATE)
    capture = array.array("h", [0] * (count * 6))
    capture[0::6] = mic
    capture[3::6] = array.array("h", [0] * middle) + mic[middle:]
    later = [round(v / 10) for v in mic[:middle]] + list(mic[middle:])
    output = array.array("h", [0] * 100 + later[: count - 100])
    stretches = [
        {"kind": kind, "start": start, "end": end, "what": kind}
        for kind, (start, end) in SECONDS.items()
    ]
    scene = {"title": "Test", "sample_rate": RATE, "samples": count, "stretches": stretches}
    (tmp_path / "scene.json").write_text(json.dumps(scene))
    (tmp_path / "capture.pcm").write_bytes(capture.tobytes())
    (tmp_path / "output.pcm").write_bytes(output.tobytes())
    # dec_data of a codec that changes nothing
    source = "void dec_data(short *x, int n) { (void)x; (void)n; }"
    codec = ["cc", "-shared", "-fPIC", "-x", "c", "-", "-o", tmp_path / "codec.so"]
    subprocess.run(codec, input=source, text=True, check=True)

    def run(**changed):
        names = {"scene": "scene.json", "capture": "capture.pcm", "output": "output.pcm"}
        names |= {"codec": "codec.so"} | changed
        options = [word for name, value in names.items() for word in (f"--{name}", value)]
        command = [sys.executable, ROOT / "tools" / "demo_report.py", *options]
        return subprocess.run(command, cwd=tmp_path, capture_output=True, text=True, check=False)

    return run, tmp_path


def test_table_names_the_echo_reduction_and_the_listening_files_line_up(demo):
    run, folder = demo
    done = run()
    assert done.returncode == 0, done.stderr
    assert "echo 20.0 dB down" in done.stdout
    assert "100 samples (6.25 ms) late" in done.stdout
    signals = {}
    for name in ("before.wav", "after.wav"):
        with wave.open(str(folder / name)) as f:
            assert (f.getnchannels(), f.getsampwidth(), f.getframerate()) == (1, 2, RATE)
            signals[name] = array.array("h", f.readframes(f.getnframes()))
    middle = round(SECONDS["near_end"][0] * RATE)
    assert signals["after.wav"][middle:-100] == signals["before.wav"][middle:-200]


def test_silent_output_is_reported_not_searched_for(demo):
    run, folder = demo
    size = (folder / "output.pcm").stat().st_size
    (folder / "output.pcm").write_bytes(bytes(size))
    done = run()
    assert done.returncode == 0 and "no delay is assumed" in done.stdout


@pytest.mark.parametrize("broken", ["missing", "short"])
@pytest.mark.parametrize("which", ["scene", "capture", "output", "codec"])
def test_a_bad_file_is_one_line_that_names_it(demo, which, broken):
    run, folder = demo
    if broken == "short":
        (folder / "bad").write_bytes(b"{")
    done = run(**{which: "bad"})
    lines = done.stderr.splitlines()
    assert done.returncode == 1 and done.stdout == "" and len(lines) == 1
    assert lines[0].startswith("demo_report: ") and "bad" in lines[0]
