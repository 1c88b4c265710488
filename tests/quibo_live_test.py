"""`quibo live` on a capture device that plays a recording (ALSA's file plug-in): no sound card is needed."""

import json
import os
import wave

import pytest

numpy = pytest.importorskip("numpy")

RATE = 16000


def device(folder, samples):
    """A configuration with the capture device `replay`; the environment that names it."""
    (folder / "capture.raw").write_bytes(samples.astype("<i2").tobytes())
    (folder / "asound.conf").write_text(f"""
pcm.replay {{
  type file
  slave.pcm {{ type null }}
  file /dev/null
  infile "{folder}/capture.raw"
  format raw
}}
""")
    return {**os.environ, "ALSA_CONFIG_PATH": str(folder / "asound.conf")}


def test_a_capture_wakes_as_its_recording_does_and_is_replayed_bit_for_bit(quibo, plain, tmp_path):
    seconds = 18  # two phrases
    environment = device(tmp_path, plain[: seconds * RATE])
    result = quibo(
        "live", "-D", "replay", "--seconds", seconds, "--record", tmp_path / "field.wav", "--jsonl", "-", env=environment
    )
    assert result.returncode == 0, result.stderr
    told = [json.loads(line) for line in result.stdout.splitlines()]
    with wave.open(str(tmp_path / "field.wav"), "rb") as f:
        assert (f.getnchannels(), f.getframerate()) == (4, RATE)
        kept = numpy.frombuffer(f.readframes(f.getnframes()), "<i2").reshape(-1, 4)
    assert (kept == plain[: seconds * RATE]).all()
    quibo("run", tmp_path / "field.wav", "-o", tmp_path / "out")
    events = [json.loads(line) for line in (tmp_path / "out/events.jsonl").read_text().splitlines()]

    def wakes(list_of_events):
        return [{**e, "recording": None} for e in list_of_events if e["type"] == "wake"]

    assert len(wakes(told)) == 2 and wakes(told) == wakes(events)
    assert told[-1]["type"] == "end" and told[-1]["samples"] == seconds * RATE


@pytest.mark.parametrize(
    "arguments, status, said",
    [
        (["-D", "nothing"], 3, "cannot capture 4 channels"),
        (["-D", "replay", "-c", "5"], 2, "--channels"),
        (["-D", "replay", "--encoding", "scrambled", "-r", "48000"], 2, "16000 Hz"),
    ],
)
def test_a_device_that_does_not_fit_is_one_clear_line(quibo, tmp_path, arguments, status, said):
    environment = device(tmp_path, numpy.zeros((RATE, 4)))
    result = quibo("live", *arguments, "--seconds", "0.5", "--record", tmp_path / "field.wav", env=environment)
    assert result.returncode == status and said in result.stderr
    assert not list(tmp_path.glob("field*"))
