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

PYTHON = "/usr/bin/python3"  # the one that has Debian's matplotlib, as in ./run
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


SPOKEN = [  # two wake phrases at either end of the circle's seam, one near miss between them
    {"start": 1.0, "end": 2.0, "pinyin": "ling dang ling dang", "wake_phrase": True, "heading_deg": 350.0},
    {"start": 3.0, "end": 3.5, "pinyin": "ling dang", "wake_phrase": False, "heading_deg": 90.0},
    {"start": 6.0, "end": 7.0, "pinyin": "ling dang ling dang", "wake_phrase": True, "heading_deg": 10.0},
]
SPOKEN = [{**speech, "text": "?", "distance_m": 1.5, "around": "quiet"} for speech in SPOKEN]
PRINTED = """>QuibNAecInit
--------->Doa:5
--------->is_wakeup:0 (time:0 m,2 s,48 ms)
--------->is_wakeup:0 (time:1 m,3 s,600 ms)
---end(2): (time:1 m,4 s,0 ms)
"""


def test_an_angle_belongs_to_the_wake_after_it_and_an_angle_of_0_is_not_printed(tmp_path):
    (tmp_path / "printed").write_text(PRINTED)
    assert demo_report.read_events(tmp_path / "printed") == [(2.048, 5), (63.6, None)]


@pytest.mark.parametrize(
    "events, wakes, errors, strays, summary",
    [
        ([], [None] * 3, [None] * 3, 0, "0 of 2 wake phrases heard, false wakes: 0"),
        ([(2.0, 5), (7.0, 350)], [2.0, None, 7.0], [15, None, 20], 0, "2 of 2 wake phrases heard, false wakes: 0, angle 18 "),
        ([(2.0, None)], [2.0, None, None], [None] * 3, 0, "1 of 2 wake phrases heard, false wakes: 0"),
        ([(2.0, 350), (2.2, 350)], [2.0, None, None], [0, None, None], 1, "1 of 2 wake phrases heard, false wakes: 1"),
        ([(3.6, 90)], [None, 3.6, None], [None, 0, None], 0, "0 of 2 wake phrases heard, false wakes: 1"),
        ([(3.2, 90)], [3.2, None, None], [100, None, None], 0, "1 of 2 wake phrases heard, false wakes: 0"),
        ([(0.9, 10), (5.5, 20), (9.0, 30)], [None] * 3, [None] * 3, 3, "0 of 2 wake phrases heard, false wakes: 3"),
    ],
    ids=["nothing heard", "all heard", "no angle", "twice", "near miss", "late", "nobody spoke"],
)
def test_every_wake_is_somebody_s_or_false(events, wakes, errors, strays, summary):
    rows, others = demo_report.match(SPOKEN, events)
    assert [r["woke_s"] for r in rows] == wakes
    assert [r["angle_error_deg"] for r in rows] == errors
    assert len(others) == strays
    *lines, last = demo_report.wake_table(rows, others)
    assert summary in last
    missed = sum(r["wake_phrase"] and r["woke_s"] is None for r in rows)
    assert "\n".join(lines).count("MISSED") == missed
    assert f"false wakes: {' '.join(lines).count('FALSE')}" in last


@pytest.mark.skipif(
    subprocess.run([PYTHON, "-c", "import matplotlib"], capture_output=True, check=False).returncode,
    reason="no matplotlib",
)
@pytest.mark.parametrize("events", [[], [(2.0, 5), (3.6, 90), (5.5, 20)]], ids=["nothing heard", "some heard"])
def test_the_picture_is_drawn(events, tmp_path):
    rows, others = demo_report.match(SPOKEN, events)
    stretch = {"kind": "near_end", "start": 0.0, "end": 8.0, "what": "people talk"}
    found = {"spoken": rows, "stray_wakes": others, "stretches": [stretch]}
    (tmp_path / "found.json").write_text(json.dumps(found))
    demo_report.write_wav(tmp_path / "sound.wav", voice(random.Random(SEED), 8 * RATE), RATE)
    names = {"found": "found.json", "before": "sound.wav", "after": "sound.wav", "picture": "picture.png"}
    options = [word for name, value in names.items() for word in (f"--{name}", value)]
    subprocess.run([PYTHON, ROOT / "tools/demo_picture.py", *options], cwd=tmp_path, check=True)
    assert (tmp_path / "picture.png").read_bytes().startswith(b"\x89PNG")


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
    speech = {k: v for k, v in SPOKEN[0].items() if k != "around"}
    stretches = [
        {"kind": kind, "start": start, "end": end, "what": kind, "plays": [], "noise": [], "speaks": []}
        for kind, (start, end) in SECONDS.items()
    ]
    stretches[1] |= {"noise": ["a tap"], "speaks": [speech]}
    scene = {"title": "Test", "sample_rate": RATE, "samples": count, "stretches": stretches}
    (tmp_path / "scene.json").write_text(json.dumps(scene))
    (tmp_path / "printed.txt").write_text(PRINTED)
    (tmp_path / "capture.pcm").write_bytes(capture.tobytes())
    (tmp_path / "output.pcm").write_bytes(output.tobytes())
    # dec_data of a codec that changes nothing
    source = "void dec_data(short *x, int n) { (void)x; (void)n; }"
    codec = ["cc", "-shared", "-fPIC", "-x", "c", "-", "-o", tmp_path / "codec.so"]
    subprocess.run(codec, input=source, text=True, check=True)

    def run(**changed):
        names = {"scene": "scene.json", "capture": "capture.pcm", "output": "output.pcm"}
        names |= {"events": "printed.txt", "codec": "codec.so", "json": "found.json"} | changed
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


def test_what_is_found_is_written_for_programs_too(demo):
    run, folder = demo
    assert "a tap" in run().stdout
    found = json.loads((folder / "found.json").read_text())
    assert found["stretches"][0]["echo_down_db"] == pytest.approx(20, abs=0.1)
    assert [(r["woke_s"], r["angle_deg"], r["angle_error_deg"]) for r in found["spoken"]] == [(2.048, 5, 15)]
    assert found["stray_wakes"] == [{"woke_s": 63.6, "angle_deg": None}]


def test_silent_output_is_reported_not_searched_for(demo):
    run, folder = demo
    size = (folder / "output.pcm").stat().st_size
    (folder / "output.pcm").write_bytes(bytes(size))
    done = run()
    assert done.returncode == 0 and "no delay is assumed" in done.stdout


@pytest.mark.parametrize("broken", ["missing", "short"])
@pytest.mark.parametrize("which", ["scene", "capture", "output", "events", "codec"])
def test_a_bad_file_is_one_line_that_names_it(demo, which, broken):
    run, folder = demo
    if broken == "short":
        (folder / "bad").write_bytes(b"{")
    done = run(**{which: "bad"})
    lines = done.stderr.splitlines()
    assert done.returncode == 1 and done.stdout == "" and len(lines) == 1
    assert lines[0].startswith("demo_report: ") and "bad" in lines[0]
