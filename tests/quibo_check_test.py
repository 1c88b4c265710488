"""`quibo check` names the fault that was planted in a recording, and none in clean ones."""

import json

import pytest

numpy = pytest.importorskip("numpy")

from recordings import RATE, upsampled, write_wav

SEED = 20251103
MIC1, MIC2, MIC3, REF = range(4)


def shifted(x, samples):
    """Later by so many samples; earlier where negative."""
    padded = numpy.concatenate([numpy.zeros(max(samples, 0)), x, numpy.zeros(max(-samples, 0))])
    return padded[max(-samples, 0) :][: len(x)]


def plant(channel, change):
    def faulty(x):
        x[:, channel] = change(x[:, channel])
        return x

    return faulty


def drifting(ppm):
    def resampled(ref):
        at = numpy.arange(len(ref))
        return numpy.interp(at * (1 + 1e-6 * ppm), at, ref)

    return resampled


def with_block(start, samples):
    def lost(x):
        x[start : start + len(samples)] = samples
        return x

    return lost


def repeating(x):
    x[100000:100256] = x[99744:100000]
    return x


def losing(samples, at):
    return lambda x: numpy.concatenate([x[:at], x[at + samples :], numpy.zeros(samples)])


def carrying(x):
    x[:, REF] += 0.3 * x[:, MIC1]
    return x


def noisy(x):
    return x + numpy.random.default_rng(SEED).normal(0, 600, len(x))


def swapped(x):
    return x[:, [MIC1, REF, MIC3, MIC2]]


def doubled(x):
    x[:, MIC2] = 0.5 * x[:, MIC1]
    return x


def microphone_as_reference(x):
    x[:, REF] = x[:, MIC3]
    return x


# name: (what is done to the sample, finding, channel, words it says)
FAULTS = {
    "reference 3 ms too late": (plant(REF, lambda x: shifted(x, 292)), "reference_late", "ref", "3.01 ms after its echo"),
    "reference a quarter of a second early": (plant(REF, lambda x: shifted(x, -4000)), "reference_early", "ref", "265.2 ms"),
    "reference at the end of the reach": (plant(REF, lambda x: shifted(x, -2000)), "short_reach", "ref", "50 ms are left"),
    "clock drift": (plant(REF, drifting(80)), "clock_drift", "ref", "80.0 ppm"),
    "small clock drift": (plant(REF, drifting(-8)), "clock_drift", "ref", "-8.0 ppm"),
    "samples lost in the reference": (plant(REF, losing(480, 23 * RATE // 2)), "delay_jump", "ref", "+30.0 ms"),
    "another reference": (plant(REF, lambda x: x[::-1]), "no_echo", "ref", "nothing alike"),
    "silent reference": (plant(REF, lambda x: 0 * x), "silent_reference", "ref", "-120 dBFS"),
    "reference carries a microphone": (carrying, "reference_carries_microphones", "ref", "same instant"),
    "reference is a microphone": (microphone_as_reference, "reference_is_microphone", "ref", "microphone 3"),
    "swapped with the reference": (swapped, "swapped_with_reference", "mic2", "15.2 ms before the reference"),
    "dead microphone": (plant(MIC3, lambda x: 0 * x), "dead_microphone", "mic3", "never rises above"),
    "one microphone twice": (doubled, "duplicate_microphone", "mic2", "microphone 1"),
    "inverted microphone": (plant(MIC2, lambda x: -x), "inverted_microphone", "mic2", "opposite polarity"),
    "quieter microphone": (plant(MIC3, lambda x: 0.3 * x), "level_spread", "mic3", "11.6 dB below"),
    "clipping": (plant(MIC1, lambda x: 6 * x), "clipping", "mic1", "0.0 dBFS"),
    "clipping before the gain": (plant(MIC1, lambda x: numpy.clip(x, -5000, 5000)), "clipping", "mic1", "flat tops"),
    "offset": (plant(MIC2, lambda x: x + 300), "dc_offset", "mic2", "0.9 % of full scale"),
    "noise": (plant(MIC2, noisy), "noise_floor", "mic2", "-34 dBFS"),
    "dropout": (plant(MIC1, with_block(160000, numpy.zeros(320))), "dropout", "mic1", "20.0 ms, the first at 10.00 s"),
    "repeated block": (plant(REF, repeating), "repeated_block", "ref", "16.0 ms, the first at 6.25 s"),
    "very quiet": (lambda x: x * [0.01, 0.01, 0.01, 1], "too_quiet", "mic3", "very quiet"),
    "48 kHz sold as 16": (lambda x: upsampled(x, 3), "wrong_rate", "mic1", "48 kHz are taken for 16 kHz"),
    "telephone bandwidth": (lambda x: low_passed(x), "wrong_rate", "mic1", "nothing above 4."),
}
# Beside a fault others are named that follow from it.
FOLLOWING = {
    "clipping": {"level_spread"},
    "very quiet": {"too_quiet"},
    "48 kHz sold as 16": {"array_too_wide"},
}


def low_passed(x):
    spectrum = numpy.fft.rfft(x, axis=0)
    spectrum[len(spectrum) // 2 :] = 0
    return numpy.fft.irfft(spectrum, len(x), axis=0)


def check(quibo, path):
    result = quibo("check", "--json", path)
    assert result.stderr == "" or result.returncode > 1, result.stderr
    return result.returncode, json.loads(result.stdout)


@pytest.mark.parametrize("name", FAULTS)
def test_a_planted_fault_is_named_and_nothing_else(quibo, plain, tmp_path, name):
    change, finding, channel, words = FAULTS[name]
    write_wav(tmp_path / "faulty.wav", change(plain.astype(float)))
    status, found = check(quibo, tmp_path / "faulty.wav")
    assert status == 1
    told = {f["id"]: f for f in found["findings"] if f["severity"] != "note"}
    assert finding in told, told
    assert told[finding]["channel"] == channel
    assert words in f"{told[finding]['what']}: {told[finding]['how_bad']}"
    assert told[finding]["do"]
    assert set(told) <= {finding} | FOLLOWING.get(name, set())


def clean(kind):
    """20 s by formula: what is played, decaying rooms, a few noises."""
    source = numpy.random.default_rng(SEED)
    n = 20 * RATE
    if kind == "noise bursts":
        played = source.normal(0, 3000, n) * numpy.repeat(source.uniform(0.05, 1, 80), n // 80)
        played[3 * n // 4 :] = 0
    else:  # chords over noise
        t = numpy.arange(n) / RATE
        played = sum(700 * numpy.sin(2 * numpy.pi * f * t) for f in (220.3, 277.1, 329.9)) + source.normal(0, 1000, n)
    tracks = numpy.zeros((n, 4))
    tracks[:, REF] = played
    for mic in range(3):
        room = source.normal(0, 0.03, 1500) * numpy.exp(-numpy.arange(1500) / 300)
        room[0] = 0.5
        tracks[:, mic] = shifted(numpy.convolve(played, room)[:n], 60) + source.normal(0, 15, n)
    return tracks


@pytest.mark.parametrize("kind", ["sample", "noise bursts", "chords over noise"])
def test_clean_recordings_have_no_fault(quibo, plain, tmp_path, kind):
    write_wav(tmp_path / "clean.wav", plain if kind == "sample" else clean(kind))
    status, found = check(quibo, tmp_path / "clean.wav")
    assert status == 0 and found["verdict"] == "fit"
    assert [f["id"] for f in found["findings"]] == ["delay"]
    delay = 15.24 if kind == "sample" else 3.75
    points = found["reference_delay"]["points"]
    assert points and all(abs(p["ms"] - delay) < 0.05 for p in points)
    assert abs(found["reference_delay"]["drift_ppm"]) < 1


def test_people_read_a_line_per_finding_and_a_verdict(quibo, plain, tmp_path):
    faulty = plain.astype(float)
    faulty[:, MIC3] = 0
    write_wav(tmp_path / "faulty.wav", faulty)
    lines = quibo("check", tmp_path / "faulty.wav").stdout.splitlines()
    assert [line for line in lines if line.startswith("fault: Microphone 3 is dead: ")]
    assert lines[-1] == "not fit for an echo canceller"


def test_a_file_that_cannot_be_read_does_not_stop_the_others(quibo, plain, tmp_path):
    write_wav(tmp_path / "a.wav", plain[: 5 * RATE])
    result = quibo("check", tmp_path / "missing.wav", tmp_path / "a.wav")
    assert result.returncode == 3
    assert "missing.wav: No such file" in result.stderr and "a.wav: WAV, 16 bit" in result.stdout
