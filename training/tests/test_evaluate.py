"""The evaluation's own arithmetic, on cases with known answers."""

import ctypes

import numpy as np
import pytest
from conftest import SEED, plane_wave
from scipy import signal

from training.device_facts import THRESHOLD
from training.evaluate import intervals, metrics, scenes, sets, wake
from training.evaluate.alignment import advance, find_delay
from training.evaluate.device import Device
from training.evaluate.peers import Aligned, srp_phat
from training.scenes.audio import RATE


@pytest.fixture
def rng():
    return np.random.default_rng(SEED)


@pytest.mark.parametrize("snr", [0.0, 5.0, 20.0])
def test_si_sdr_of_independent_noise_is_its_snr_whatever_the_scale(rng, snr):
    """Within 0.2 dB, and unmoved by what lies below the high-pass."""
    target, noise = rng.standard_normal((2, 4 * RATE))
    noisy = target + 10 ** (-snr / 20) * noise
    rumble = np.sin(2 * np.pi * 30 * np.arange(4 * RATE) / RATE)
    for output in (noisy, 0.1 * noisy, -3 * noisy + 5 * rumble):
        assert metrics.si_sdr(output, target) == pytest.approx(snr, abs=0.2)


def test_perfect_suppressor_scores_perfectly(rng):
    """Above 100 dB when it only scales; silence counts as complete reduction."""
    target = rng.standard_normal(2 * RATE)
    assert metrics.si_sdr(0.5 * target, target) > 100
    assert metrics.erle(target, 0.0 * target) > 100


def test_erle_over_time_shows_when_the_echo_went(rng):
    mic = rng.standard_normal(2 * RATE)
    output = mic * np.where(np.arange(2 * RATE) < RATE, 1.0, 0.01)
    assert metrics.erle_over_time(mic, output) == pytest.approx([0, 0, 40, 40])


@pytest.mark.parametrize("delay", [0, 1, 256, 2560])
def test_alignment_finds_a_known_delay(rng, delay):
    """To the sample, through noise 10 dB down and with the polarity kept."""
    x = rng.standard_normal(RATE)
    y = np.concatenate([np.zeros(delay), x]) + 0.3 * rng.standard_normal(RATE + delay)
    assert find_delay(x, y, 4096) == delay
    assert metrics.si_sdr(advance(y, delay, RATE), x) == pytest.approx(10.5, abs=0.3)


def test_a_peers_delay_and_fixed_phase_are_no_distortion(rng):
    """A first-order all-pass and 77 samples: above 25 dB afterwards, below 10 dB without."""
    speech = signal.lfilter([1], [1, -0.9], rng.standard_normal(4 * RATE))

    def peer(mic, ref):
        turned = signal.lfilter([-0.9, 1], [1, -0.9], mic + 0 * ref)
        return np.concatenate([np.zeros(77), turned])[: len(mic)]

    late = advance(peer(speech, speech), 77, len(speech))
    assert metrics.si_sdr(late, speech) < 10
    assert metrics.si_sdr(Aligned(peer, speech)(speech, 0 * speech), speech) > 25


def test_intervals_hold_the_mean_and_shrink_with_scenes(rng):
    few, many = rng.normal(3.0, 1.0, 10), rng.normal(3.0, 1.0, 1000)
    a, b = intervals.bootstrap(few), intervals.bootstrap(many)
    assert a["low"] < few.mean() < a["high"]
    assert b["low"] < 3.0 < b["high"]
    # 2 x 1.96 / sqrt(1000)
    assert b["high"] - b["low"] == pytest.approx(0.124, rel=0.15)
    assert intervals.bootstrap([None, np.nan]) is None


def test_shares_and_rates_have_textbook_intervals():
    """Wilson 1927 for 0 of 10; exact Poisson for 0 and 4 events (rule of three; 1.09 to 10.24)."""
    assert intervals.share(0, 10)["high"] == pytest.approx(0.2775, abs=1e-3)
    assert intervals.rate(0, 1.0)["high"] == pytest.approx(3.689, abs=1e-3)
    four = intervals.rate(4, 2.0)
    assert (four["low"], four["high"]) == pytest.approx((1.09 / 2, 10.242 / 2), abs=2e-3)


def test_false_accepts_in_one_second_count_once():
    costs = np.full(200, 5.0)
    costs[[10, 11, 30, 60, 150]] = 1.0
    assert wake.accepts(costs, 1.2) == 3  # steps 10, 60 and 150 of 30 ms
    assert wake.accepts(costs, 1.0) == 0


@pytest.mark.parametrize("heading", [0, 45, 170, 200, 359])
def test_srp_phat_points_at_a_plane_wave(heading):
    """Within 2 degrees."""
    assert metrics.angle_error(srp_phat.heading(plane_wave(heading, SEED)), heading) <= 2


def test_a_call_is_heard_when_it_is_said_to_be(corpus):
    """From one heading in every condition; in the driest room at least 6 dB above the second before it."""
    for number in range(3):
        calls = dict(scenes.called(corpus, number))
        assert list(calls) == [*sets.DIRECTION_CONDITIONS, *sets.POINT_NOISES]
        assert len({call.heading for call in calls.values()}) == 1
        call = calls["RT60 0.2 s"]
        begin, end = round(call.begin * RATE), round(call.end * RATE)
        before = metrics.power(call.mics[0, begin - RATE : begin])
        assert metrics.power(call.mics[0, begin:end]) > 4 * before
        # Noises at points: the fewer decibels, the more of what is heard before the call.
        levels = [metrics.power(calls[f"three noises at points, {snr} dB"].mics[0, :begin]) for snr in (20, 10, 0)]
        assert levels[0] < levels[1] < levels[2]


def test_steady_noises_are_what_they_are_called():
    """White: equal in every band. Fan: tones stand 10 dB out of it. Six talkers come from two places."""
    rng, samples = np.random.default_rng(SEED), 4 * RATE
    white, fan = (np.abs(np.fft.rfft(scenes.steady(None, rng, name, samples)[0])) ** 2 for name in ("white", "fan"))
    bands = [white[a : a + 4000].mean() for a in range(0, 32000, 4000)]
    assert max(bands) / min(bands) < 1.2
    floor = np.array([np.median(fan[max(0, f - 80) : f + 80]) for f in range(320, 800)])
    assert (fan[320:800] / floor).max() > 100


def test_the_library_comes_out_aligned_with_its_input(library_path, rng):
    """A silent reference leaves the canceller's microphone as it was; the noise suppressor's delay
    is the one taken off, whatever its tables do: some of the input is where it was."""
    mic = np.float32(0.05 * rng.standard_normal(2 * RATE))
    linear, suppressed = Device(library_path).cancel_echo(mic, 0 * mic)
    assert find_delay(mic, linear, 4096) == find_delay(mic, suppressed, 4096) == 0
    for output in Device(library_path).suppress_noise(np.stack([mic] * 3), 0.3):
        assert find_delay(mic, output, 4096) == 0


def table(library_path, name, dtype, count):
    """A compiled-in table's bytes."""
    return bytes((dtype * count).in_dll(ctypes.CDLL(str(library_path)), name))


@pytest.fixture
def always_hears(library_path, tmp_path):
    """The library with the last layer replaced: whatever it hears, "ling" and "dang" share the
    posterior, so the phrase is complete after a few steps."""
    binary = library_path.read_bytes()
    biases = np.full(146, -(2**24), np.int32)
    biases[[2, 125]] = 2**24
    for name, dtype, new in (
        ("chinese_fc_weight", ctypes.c_int8, np.zeros(146 * 256, np.int8)),
        ("chinese_fc_bias", ctypes.c_int32, biases),
    ):
        old = table(library_path, name, dtype, new.size)
        assert binary.count(old) == 1
        binary = binary.replace(old, new.tobytes())
    path = tmp_path / "libquibo.so"
    path.write_bytes(binary)
    return path


def test_first_cost_below_the_threshold_is_where_the_device_wakes(always_hears, rng):
    """The front end reports it with the frame in which the step's block of 30 ms ends; on the
    canceller's output, one cost per block."""
    mics = np.float32(0.01 * rng.standard_normal((3, 20 * 1024)))
    device = Device(always_hears)
    cancelled, events = device.front_end(mics, 0 * mics[0])
    costs = device.wake_costs(cancelled)
    assert cancelled.shape == mics.shape and len(costs) == 20 * 1024 // 480
    first = int(np.argmax(costs < THRESHOLD))
    assert 0 < first < 10
    assert events[0][0] == pytest.approx(np.ceil((first + 1) * 480 / 1024) * 1024 / RATE)
