"""`quibo run` on the sample recording and on bad input: the driver's bits and angles, events by their schema, exit
status, files whole or not there."""

import base64
import contextlib
import json
import math
import os
import re
import signal
import subprocess
import wave

import pytest

numpy = pytest.importorskip("numpy")

from recordings import SAMPLE, upsampled, write_wav

FRAME, RATE, DELAY = 1024, 16000, 2580
OUTPUTS = {"clean.wav", "mic1.wav", "mic2.wav", "mic3.wav", "events.jsonl"}


def read_wav(path):
    with wave.open(str(path), "rb") as f:
        assert (f.getnchannels(), f.getsampwidth(), f.getframerate()) == (1, 2, RATE)
        return numpy.frombuffer(f.readframes(f.getnframes()), "<i2")


def events(folder):
    return [json.loads(line) for line in (folder / "events.jsonl").read_text().splitlines()]


def wakes(folder):
    return [(e["sample"], e["angle"]) for e in events(folder) if e["type"] == "wake"]


def noise(seconds, channels=4, level=1000):
    source = numpy.random.default_rng(20251103)
    return source.integers(-level, level, (int(seconds * RATE), channels)).astype(numpy.int16)


@pytest.fixture(scope="module")
def driver(build, tmp_path_factory):
    """What the demonstration driver makes of the sample: its output, and (sample, angle) of its wakes."""
    folder = tmp_path_factory.mktemp("driver")
    (folder / "wav").mkdir()
    (folder / "wav2").mkdir()
    decode = "flac -d -s --force-raw-format --endian=little --sign=signed".split()
    subprocess.run([*decode, "-o", folder / "wav/input_frame_20251107_140756.pcm", SAMPLE], check=True)
    printed = subprocess.run([build / "quibo_demo"], cwd=folder, capture_output=True, text=True, check=True).stdout
    found, angle = [], None
    for line in printed.splitlines():
        if line.startswith("--------->Doa:"):
            angle = int(line.split(":")[1])
        elif "is_wakeup" in line:
            m, s, ms = (int(part.split()[0]) for part in line.split("time:")[1].rstrip(")").split(","))
            found.append((((60 * m + s) * 1000 + ms) * RATE // 1000, angle))
    return numpy.fromfile(folder / "wav2/nnaec.pcm", "<i2"), found


def test_the_sample_as_it_is_gives_the_drivers_bits_lined_up(quibo, driver, tmp_path):
    output, found = driver
    result = quibo("run", SAMPLE, "-o", tmp_path)
    assert result.returncode == 0, result.stderr
    assert "6 channels taken as mic1=1, mic2=2, mic3=3, ref=5" in result.stderr
    assert "scrambled" in result.stderr
    assert {p.name for p in tmp_path.iterdir()} == OUTPUTS
    clean = read_wav(tmp_path / "clean.wav")
    assert len(clean) == len(output)
    assert (clean[:-DELAY] == output[DELAY:]).all()
    assert len(found) == 5 and wakes(tmp_path) == found
    assert len([line for line in result.stdout.splitlines() if line.startswith("wake ")]) == 5


def test_phrases_are_placed_within_a_fifth_of_a_second(quibo, tmp_path):
    scene = json.loads(SAMPLE.with_suffix(".json").read_text())
    spoken = [s for stretch in scene["stretches"] for s in stretch["speaks"] if s["wake_phrase"]]
    assert quibo("run", SAMPLE, "-o", tmp_path).returncode == 0
    placed = [(e["start"], e["end"]) for e in events(tmp_path) if e["type"] == "wake"]
    for phrase, (start, end) in zip(spoken, placed):
        assert abs(start - phrase["start"]) < 0.2 and abs(end - phrase["end"]) < 0.2


def test_raw_timing_is_the_drivers_file(quibo, driver, tmp_path):
    assert quibo("run", SAMPLE, "-o", tmp_path, "--raw-timing").returncode == 0
    assert (read_wav(tmp_path / "clean.wav") == driver[0]).all()


@pytest.mark.parametrize("container", ["wav", "flac", "stdin", "map"])
def test_a_plain_copy_gives_the_same_bits(quibo, plain, driver, tmp_path, container):
    output, found = driver
    name, options, stdin = tmp_path / "plain.wav", [], None
    if container == "stdin":
        name, options, stdin = "-", ["--raw", "4"], plain.tobytes()
    elif container == "map":
        write_wav(name, plain[:, [3, 0, 1, 2, 2]])
        options = ["--channels", "ref=1,mic1=2,mic2=3,mic3=5"]
    else:
        write_wav(name, plain)
    if container == "flac":
        name = tmp_path / "plain.flac"
        encode = "flac -s --endian=little --sign=signed --channels=4 --bps=16 --sample-rate=16000 --force-raw-format"
        subprocess.run([*encode.split(), "-o", name, "-"], input=plain.tobytes(), check=True)
    result = quibo("run", name, "-o", tmp_path / "out", *options, input=stdin, text=stdin is None)
    assert result.returncode == 0, result.stderr
    assert (read_wav(tmp_path / "out/clean.wav")[:-DELAY] == output[DELAY:]).all()
    assert wakes(tmp_path / "out") == found


def test_a_48_khz_copy_is_resampled_and_gives_the_same_wakes(quibo, plain, driver, tmp_path):
    write_wav(tmp_path / "plain.wav", upsampled(plain, 3), 3 * RATE)
    result = quibo("run", tmp_path / "plain.wav", "-o", tmp_path / "out")
    assert result.returncode == 0 and "48000 Hz: resampled to 16000 Hz" in result.stderr
    assert len(read_wav(tmp_path / "out/clean.wav")) == len(plain)
    found = wakes(tmp_path / "out")
    assert len(found) == len(driver[1])
    for (sample, angle), (true_sample, true_angle) in zip(found, driver[1]):
        assert abs(sample - true_sample) <= FRAME and abs(angle - true_angle) <= 5


def test_events_follow_their_schema_and_standard_output_holds_nothing_else(quibo, source, tmp_path):
    jsonschema = pytest.importorskip("jsonschema")
    schema = json.loads((source / "tools/quibo/events.schema.json").read_text())
    result = quibo("run", SAMPLE, "-o", tmp_path, "--jsonl", "-")
    lines = [json.loads(line) for line in result.stdout.splitlines()]
    assert lines == events(tmp_path)
    for line in lines:
        jsonschema.validate(line, schema)
    kinds = [line["type"] for line in lines]
    assert kinds[0] == "start" and kinds[-1] == "end" and kinds.count("levels") == 48
    with pytest.raises(jsonschema.ValidationError):
        jsonschema.validate({**lines[0], "encoding": "mp3"}, schema)


def test_levels_are_those_of_the_signals(quibo, tmp_path):
    t = numpy.arange(2 * RATE)
    tone = 16384 * numpy.sin(2 * numpy.pi * 440 * t / RATE)
    write_wav(tmp_path / "tone.wav", numpy.stack([tone, tone / 2, tone / 4, 0 * tone], axis=1))
    quibo("run", tmp_path / "tone.wav", "-o", tmp_path / "out")
    levels = [e["in"] for e in events(tmp_path / "out") if e["type"] == "levels"]
    assert len(levels) == 2
    for second in levels:
        assert [second[c] for c in ("mic1", "mic2", "mic3", "ref")] == pytest.approx([-9.0, -15.1, -21.1, -120], abs=0.1)


def test_several_recordings_go_side_by_side_and_a_broken_one_is_left_out(quibo, tmp_path):
    for name in "a", "b", "c":
        write_wav(tmp_path / f"{name}.wav", noise(1.5))
    (tmp_path / "b.wav").write_bytes(b"RIFF")
    (tmp_path / "d").mkdir()
    write_wav(tmp_path / "d/a.wav", noise(0.5))
    result = quibo("run", "a.wav", "b.wav", "c.wav", "d/a.wav", "--jobs", 2, "-o", "out", cwd=tmp_path)
    assert result.returncode == 3
    assert "b.wav: not a recording that can be read" in result.stderr
    assert {p.name for p in (tmp_path / "out").iterdir()} == {"a", "c", "a-2"}
    assert (read_wav(tmp_path / "out/a/clean.wav") == read_wav(tmp_path / "out/c/clean.wav")).all()
    assert "not played" in result.stdout and result.stdout.count("0:01.50") == 2


def bad_inputs(folder):
    """name: (file, exit status, what is said, whether outputs are there)"""
    good = write_wav(folder / "good.wav", noise(1)).read_bytes()
    (folder / "truncated.wav").write_bytes(good[:-40000])
    (folder / "empty.wav").write_bytes(b"")
    (folder / "header.wav").write_bytes(good[:44])
    (folder / "text.wav").write_text("no sound")
    write_wav(folder / "three.wav", noise(3 / RATE))
    write_wav(folder / "stereo.wav", noise(1, channels=2))
    (folder / "folder").mkdir()
    with wave.open(str(folder / "eight.wav"), "wb") as f:
        f.setparams((4, 1, RATE, 0, "NONE", ""))
        f.writeframes((noise(1, level=100) + 128).astype("u1").tobytes())
    noisy = noise(1).astype("<f4") / 32768
    noisy[500, 1] = math.nan
    noisy[600, 0] = math.inf
    (folder / "nan.raw").write_bytes(noisy.tobytes())
    return {
        "truncated.wav": (1, "cut short: 0.69 s of 1.00 s", True),
        "empty.wav": (3, "the file is empty", False),
        "header.wav": (3, "no samples", False),
        "text.wav": (3, "not a recording", False),
        "three.wav": (1, "3 samples are less than one frame", True),
        "stereo.wav": (2, "--channels", False),
        "folder": (3, "folder", False),
        "missing.wav": (3, "No such file", False),
        "eight.wav": (0, "4 channels taken", True),
        "nan.raw": (1, "2 samples are not numbers", True),
    }


def test_bad_input_is_one_clear_line_and_outputs_are_whole_or_absent(quibo, tmp_path):
    for name, (status, said, outputs) in bad_inputs(tmp_path).items():
        out = tmp_path / f"out-{name}"
        options = ["--raw", "4,16000,f32"] if name.endswith(".raw") else []
        result = quibo("run", tmp_path / name, "-o", out, *options)
        assert result.returncode == status, (name, result.stderr)
        lines = [line for line in result.stderr.splitlines() if "channels taken" not in line] or [result.stderr]
        assert len(lines) == 1 and said in lines[0], (name, result.stderr)
        assert (out.is_dir() and {p.name for p in out.iterdir()} == OUTPUTS) == outputs, name
        if outputs:
            read_wav(out / "clean.wav")


@pytest.mark.parametrize(
    "arguments, said",
    [
        (["--channels", "mic1,mic2,ref"], "has no mic3"),
        (["--channels", "1,2,3,5"], "ref on channel 5, but the recording has 4"),
        (["--channels", "1,1,2,3"], "same channel"),
        (["--channels", "mic1,mic2,mic3,mic1"], "mic1 twice"),
        (["--raw", "0"], "CHANNELS[,RATE[,SAMPLE]]"),
        (["--raw", "4,16000,f16"], "CHANNELS[,RATE[,SAMPLE]]"),
        (["--encoding", "rot13"], "--encoding"),
        (["--jobs", "0"], "--jobs"),
        (["--nonsense"], "--nonsense"),
    ],
)
def test_wrong_use_is_named(quibo, tmp_path, arguments, said):
    write_wav(tmp_path / "a.wav", noise(0.2))
    result = quibo("run", "a.wav", *arguments, cwd=tmp_path)
    assert result.returncode == 2 and said in result.stderr
    assert [p.name for p in tmp_path.iterdir()] == ["a.wav"]


def test_scrambled_samples_of_another_rate_are_refused(quibo, tmp_path):
    write_wav(tmp_path / "a.wav", noise(0.2), 48000)
    result = quibo("run", tmp_path / "a.wav", "--encoding", "scrambled", "-o", tmp_path / "out")
    assert result.returncode == 2 and "16 bit at 16000 Hz" in result.stderr


def test_a_file_that_may_not_be_read_is_reported(quibo, tmp_path):
    if os.geteuid() == 0:
        pytest.skip("root may read everything")
    path = write_wav(tmp_path / "a.wav", noise(0.2))
    path.chmod(0)
    result = quibo("run", path, "-o", tmp_path / "out")
    assert result.returncode == 3 and "Permission denied" in result.stderr


@pytest.mark.parametrize("output", ["clean.wav", "events.jsonl"])
def test_a_full_disk_is_reported_and_leaves_no_output(quibo, tmp_path, output):
    write_wav(tmp_path / "a.wav", noise(2))
    out = tmp_path / "out"
    out.mkdir()
    (out / f"{output}.part").symlink_to("/dev/full")
    result = quibo("run", tmp_path / "a.wav", "-o", out)
    assert result.returncode == 3 and "No space left on device" in result.stderr
    assert list(out.iterdir()) == []


def test_a_reader_that_goes_away_is_reported(quibo, build, tmp_path):
    write_wav(tmp_path / "a.wav", noise(20))
    command = f"'{build}/quibo' run a.wav -o out --jsonl - | head -n 1; exit ${{PIPESTATUS[0]}}"
    result = subprocess.run(["bash", "-c", command], cwd=tmp_path, capture_output=True, text=True, timeout=300)
    assert result.returncode == 3
    assert "cannot write to standard output" in result.stderr
    assert result.stdout.count("\n") == 1


def test_an_interrupt_leaves_what_was_done_with_whole_headers(quibo, build, tmp_path):
    samples = noise(1)
    process = subprocess.Popen(
        [build / "quibo", "run", "-", "--raw", "4", "-o", tmp_path / "out", "--jsonl", "-"],
        stdin=subprocess.PIPE,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
    )
    for _ in range(35):  # the encoding is guessed from the first half minute
        process.stdin.write(samples.tobytes())
    process.stdin.flush()
    assert json.loads(process.stdout.readline())["type"] == "start"
    process.send_signal(signal.SIGINT)
    with contextlib.suppress(BrokenPipeError):
        process.stdin.write(samples.tobytes())
    _, said = process.communicate(timeout=60)
    assert process.returncode == 130, said
    assert {p.name for p in (tmp_path / "out").iterdir()} == OUTPUTS
    end = events(tmp_path / "out")[-1]
    assert end["stopped"] is True
    assert len(read_wav(tmp_path / "out/clean.wav")) == end["samples"] < 36 * RATE


def test_version_and_help_say_what_is_inside(quibo):
    version = quibo("--version").stdout
    for word in ("quibo 3.3.22", "kernels ", "parameters kws"):
        assert word in version
    assert "Example:" in quibo("run", "--help").stdout
    assert quibo().returncode == 2


def test_a_report_is_one_page_with_the_data_and_the_sound_in_it(quibo, plain, tmp_path):
    write_wav(tmp_path / "a <script>.wav", plain)
    result = quibo("run", tmp_path / "a <script>.wav", "-o", tmp_path / "out", "--report")
    assert result.returncode == 0, result.stderr
    page = (tmp_path / "out/report.html").read_text()
    assert not re.findall(r"""(?:src|href)=["']?https?:""", page)
    data = json.loads(re.search(r'id="quibo-report">(.*?)</script>', page, re.S)[1])
    assert (data["format"], data["version"], data["title"]) == ("quibo-report", 1, "a <script>.wav")
    assert [w["angle"] for w in data["wakes"]] == [a for _, a in wakes(tmp_path / "out")]
    assert data["check"]["verdict"] == "fit" and len(data["levels"]["clean"]) == 48
    assert all(abs(p["ms"] - 15.24) < 0.05 for p in data["reference_delay"]["points"])
    flac = base64.b64decode(data["audio"]["after"]["base64"])
    decoded = subprocess.run(["flac", "-d", "-s", "-c", "-"], input=flac, capture_output=True, check=True).stdout
    (tmp_path / "decoded.wav").write_bytes(decoded)
    assert (read_wav(tmp_path / "decoded.wav") == read_wav(tmp_path / "out/clean.wav")).all()
