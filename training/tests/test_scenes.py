"""Rooms, noisy speech, playback and the cached canceller. Levels are checked with references of
their own, in double precision."""

import dataclasses

import numpy as np
import pytest
from conftest import SEED
from scipy import signal

from make_sample import codec
from training.device_facts import MIC_DELAY
from training.library import Library
from training.scenes import bank as banks
from training.scenes import cache, echo, noisy, playback, simulate, steady
from training.scenes.audio import RATE
from training.scenes.loudspeaker import Linear, Loudspeaker, ScaledErf
from training.scenes.room import SIMULATOR_DELAY, measured_rt60

# Less than a period of the test voices, samples: further away their harmonics match again.
PITCH = 50


def db(x):
    return 10 * np.log10(np.mean(np.square(x, dtype=np.float64)) + 1e-20)


def active_db(x):
    """Mean power of 32 ms frames within 30 dB of the loudest."""
    frames = [db(x[n : n + 512]) for n in range(0, len(x) - 511, 512)]
    loud = [10 ** (f / 10) for f in frames if f > max(frames) - 30]
    return 10 * np.log10(np.mean(loud))


def lag(x, y, most=1000):
    """Delay of y against x in samples, at most `most` either way."""
    correlation = signal.correlate(y.astype(np.float64), x.astype(np.float64), "full", "fft")
    middle = len(x) - 1
    return int(correlation[middle - most : middle + most + 1].argmax()) - most


# ---- rooms ----------------------------------------------------------------------------------------


def test_drawn_reverberation_times_have_the_quantiles_asked_for_within_10_percent():
    rng = np.random.default_rng(SEED)
    drawn = [banks.draw_rt60(rng, banks.Recipe()) for _ in range(4000)]
    asked = np.array([0.18, 0.28, 0.60, 1.35])
    assert np.all(np.abs(np.quantile(drawn, (0.25, 0.5, 0.75, 0.95)) / asked - 1) < 0.1)


def test_responses_decay_in_the_time_asked_for_within_20_percent_and_5_in_the_median(bank):
    ratios = []
    for room in range(len(bank)):
        response = bank.responses(room, "noise 1")[0].astype(np.float64)
        ratios.append(measured_rt60(response) / bank.rooms["rt60"][room])
    assert abs(np.median(ratios) - 1) < 0.05
    assert np.quantile(np.abs(np.array(ratios) - 1), 0.9) < 0.2


def test_image_sources_go_over_into_the_tail_without_a_step_above_1_5_dB_on_average(bank):
    edge, n = SIMULATOR_DELAY + round(banks.MIXING_TIME * RATE), round(0.015 * RATE)
    steps = []
    for room in range(len(bank)):
        h = bank.responses(room, "talker")
        decay = 60 * n / RATE / bank.rooms["rt60"][room]
        steps.append(db(h[:, edge : edge + n]) - db(h[:, edge - n : edge]) + decay)
    assert abs(np.median(steps)) < 1.5


def test_direct_sound_arrives_when_geometry_says_within_a_sample(bank):
    for room in range(len(bank)):
        h = bank.responses(room, "loudspeaker")
        assert np.all(np.abs(np.abs(h).argmax(axis=1) - bank.rooms["onset"][room][1]) <= 1)


def test_diffuse_noise_has_the_coherence_of_a_diffuse_field_within_0_1():
    rng = np.random.default_rng(SEED)
    x = banks.diffuse(rng.standard_normal((3, 60 * RATE)), 0.0866)
    frequency, cross = signal.csd(x[0], x[1], RATE, nperseg=512)
    power = [signal.welch(c, RATE, nperseg=512)[1] for c in x[:2]]
    expected = np.sinc(2 * frequency * 0.0866 / 343.0)
    assert np.abs(cross.real / np.sqrt(power[0] * power[1]) - expected)[2:-2].max() < 0.1


def test_a_bank_goes_on_where_it_stopped_and_refuses_another_seed(tmp_path):
    whole = banks.build_bank(tmp_path / "whole", 6, SEED)
    banks.build_bank(tmp_path / "parts", 3, SEED)
    parts = banks.build_bank(tmp_path / "parts", 6, SEED, jobs=2)
    assert np.array_equal(whole.rooms, parts.rooms)
    for room in range(6):
        for source in banks.SOURCES:
            a, b = (x.responses(room, source) for x in (whole, parts))
            assert np.array_equal(a, b)
    with pytest.raises(ValueError, match="another seed"):
        banks.build_bank(tmp_path / "whole", 6, SEED + 1)


# ---- noisy speech ---------------------------------------------------------------------------------


def batch(corpus, bank, seed=SEED, **options):
    rng = np.random.default_rng(seed)
    return simulate.ns_batch(corpus, bank, rng, 6, 2.5, "train", **options)


def test_batches_repeat_with_the_seed_and_differ_without(corpus, bank):
    first, again, other = (batch(corpus, bank, seed) for seed in (1, 1, 2))
    for name in ("mics", "target", "snr"):
        assert np.array_equal(first[name], again[name])
        assert not np.array_equal(first[name], other[name])
    assert first["mics"].shape == first["target"].shape == (6, 3, 2.5 * RATE)
    assert first["mics"].dtype == first["target"].dtype == np.float32


def test_snr_is_as_returned_within_half_a_dB_and_levels_are_in_range(corpus, bank, monkeypatch):
    monkeypatch.setattr(noisy, "LATE_DB", (0.0, 0.0))  # the target becomes the talker as heard
    monkeypatch.setattr(noisy, "SELF_NOISE", (-150.0, -140.0))
    scenes = batch(corpus, bank)
    for mics, target, snr in zip(scenes["mics"], scenes["target"], scenes["snr"]):
        talker, noise = active_db(target[0]), db(mics[0] - target[0])
        assert abs(talker - noise - snr) < 0.5, f"seed {SEED}"
        both = 10 * np.log10(10 ** (talker / 10) + 10 ** (noise / 10))
        low, high = noisy.LEVEL
        assert low - 2 < both < high + 2 and np.abs(mics).max() <= noisy.PEAK + 1e-6


def test_target_is_in_time_with_the_microphone(corpus, bank, monkeypatch):
    monkeypatch.setattr(noisy, "CLEAN_SHARE", 1.0)
    scenes = batch(corpus, bank)
    for mics, target in zip(scenes["mics"], scenes["target"]):
        for m in range(3):
            assert abs(lag(target[m], mics[m], PITCH)) <= 1, f"seed {SEED}"


def test_target_keeps_the_first_50_ms_and_has_6_to_10_dB_less_of_what_is_later(corpus, bank):
    rng = np.random.default_rng(SEED)
    for _ in range(8):
        scene = noisy.draw_scene(corpus, bank, rng, RATE, "train")
        heard, wanted = scene["responses"][:2]
        direct = int(np.abs(heard[0]).argmax())  # of microphone 1, or a strong early reflection
        split = int(np.flatnonzero(heard[0] != wanted[0])[0])
        assert split - direct <= 0.05 * RATE + 1
        assert -10.01 < db(wanted[0, split + 40 :]) - db(heard[0, split + 40 :]) < -5.99


@pytest.mark.parametrize("kind", steady.KINDS)
def test_noise_by_formula_is_new_every_time_and_of_unit_power(kind):
    first, again, other = (steady.steady(np.random.default_rng(n), 2 * RATE, 3, {kind: 1.0}) for n in (1, 1, 2))
    assert first.shape == (3, 2 * RATE) and np.isfinite(first).all()
    assert db(first) == pytest.approx(0.0, abs=0.01)
    assert np.array_equal(first, again) and not np.allclose(first, other)
    places = np.corrcoef(first)[0, 1]
    if kind in ("coloured", "speech", "hiss", "rain"):
        assert abs(places) < 0.3  # heard from all around: no two places have the same


def test_noise_by_formula_has_the_spectra_it_is_named_after():
    """Means over 40 draws: slopes, tones at multiples of the mains, impulses."""

    def octaves(kind):
        x = np.stack([steady.steady(np.random.default_rng(n), RATE, 1, {kind: 1.0})[0] for n in range(40)])
        power = np.abs(np.fft.rfft(x)) ** 2
        return 10 * np.log10(np.stack([power[:, f : 2 * f].mean(1) for f in (125, 500, 2000)]).T)

    falls = {kind: np.mean(octaves(kind)[:, 2] - octaves(kind)[:, 0]) for kind in ("coloured", "air", "hiss", "speech")}
    assert falls["air"] < falls["coloured"] - 5 < falls["hiss"] - 15 and falls["speech"] < -12
    white = [abs(o[2] - o[0]) < 1.0 for o in octaves("coloured")]
    assert 5 <= sum(white) <= 25

    def peak(kind):
        return np.median([np.abs(steady.steady(np.random.default_rng(n), RATE, 1, {kind: 1.0})).max() for n in range(20)])

    assert peak("knocks") > 1.5 * peak("coloured") and peak("rain") > 1.5 * peak("coloured")


def test_torch_mixes_what_numpy_mixes_within_1e_5(corpus, bank):
    pytest.importorskip("torch")
    a, b = batch(corpus, bank), batch(corpus, bank, device="cpu")
    for name, x in a.items():
        assert np.abs(x - b[name].numpy()).max() < 1e-5


# ---- playback -------------------------------------------------------------------------------------


def clip(corpus, bank, scenario, seed=SEED, seconds=12):
    rng = np.random.default_rng(seed)
    return simulate.aec_clip(corpus, bank, rng, seconds, "train", scenario)


def test_microphones_are_the_sum_of_their_parts_at_the_ratios_stated(corpus, bank, monkeypatch):
    monkeypatch.setattr(playback, "MIC_CLIP_SHARE", 0.0)
    monkeypatch.setattr(playback, "SELF_NOISE", (-150.0, -140.0))
    for seed in range(4):
        scene = clip(corpus, bank, "double_talk", seed)
        parts = scene["near"] + scene["noise"] + scene["echo"]
        assert np.abs(scene["mics"] - parts).max() <= 0.51 / 32768
        assert scene["mics"].shape == (3, 188 * 1024)
        near, echoes = (active_db(scene[name][0]) for name in ("near", "echo"))
        assert abs(near - echoes - scene["ser"]) < 0.5, f"seed {seed}"
        assert abs(near - db(scene["noise"][0]) - scene["snr"]) < 0.5, f"seed {seed}"


def test_spans_cover_the_clip_and_hold_what_they_are_named_after(corpus, bank):
    seen = set()
    for seed in range(6):
        for scenario in ("double_talk", "far_end", "near_end"):
            scene = clip(corpus, bank, scenario, seed)
            bounds = [b for _, start, end in scene["spans"] for b in (start, end)]
            assert bounds[0] == 0 and bounds[-1] == scene["ref"].size
            assert bounds[1:-1:2] == bounds[2::2]
            for kind, start, end in scene["spans"]:
                seen.add((scenario, kind))
                if kind == "far_end" and scenario == "far_end":
                    assert not scene["near"][:, start:end].any()
                if kind == "near_end":
                    assert not scene["ref"][start + 1 : end].any()
    assert {kind for scenario, kind in seen if scenario == "far_end"} == {"far_end"}
    assert ("double_talk", "double_talk") in seen and ("near_end", "near_end") in seen
    assert not any(kind in ("far_end", "double_talk") for s, kind in seen if s == "near_end")


PLAIN = echo.Path(Loudspeaker(Linear(), 150.0, 7500.0), drive=0.8, delay=0)


def test_delay_drift_and_lost_samples_move_the_echo_by_what_they_say():
    noise = 0.1 * np.random.default_rng(SEED).standard_normal(10 * RATE).astype(np.float32)
    plain = echo.played(PLAIN, noise)
    late, early = slice(9 * RATE, 10 * RATE), slice(0, RATE)

    def shift(part, **change):
        return lag(plain[part], echo.played(dataclasses.replace(PLAIN, **change), noise)[part])

    assert shift(late, delay=700) == 700
    # 50 ppm fast for 9.5 s: 7.6 samples ahead in the last second, 0.4 in the first.
    assert shift(late, drift_ppm=50.0) in (-7, -8) and shift(early, drift_ppm=50.0) in (0, -1)
    for slip in (6, -6):
        assert shift(late, slip=slip, slip_at=5 * RATE) == slip
        assert shift(early, slip=slip, slip_at=5 * RATE) == 0


def test_loudspeakers_distort_as_much_as_their_kind_says():
    x = 0.8 * np.sin(2 * np.pi * 500 * np.arange(RATE) / RATE)
    levels = [Loudspeaker(ScaledErf(beta), 150.0, 7500.0).distortion_db(x) for beta in (0.5, 999)]
    assert -25 < levels[0] < -10 and levels[1] < -60


# ---- the canceller in the loop --------------------------------------------------------------------


def test_cached_clips_are_what_the_library_gives_by_hand(corpus, bank, library_path, tmp_path):
    seconds, clips = 4.0, 3
    made = simulate.aec_cache(corpus, bank, tmp_path, clips, seconds, SEED, "train", library_path)
    assert len(made) == clips
    library = Library(library_path)
    for i, kept in enumerate(made):
        signals, about = cache.make_clip(corpus, bank, library, seconds, SEED, "train", i)
        assert kept["scenario"] == about["scenario"] and kept["spans"][-1][2] == 63 * 1024
        assert np.array_equal(kept["echo"], signals["echo"])
        assert np.array_equal(kept["mic"], signals["mic"] / np.float32(32768))

    scene = clip(corpus, bank, "double_talk", seconds=seconds)
    mic, ref = (np.int16(np.round(x * 32768)) for x in (scene["mics"][0], scene["ref"]))
    run = library.cancel(mic, ref)
    assert np.array_equal(run["mic"][MIC_DELAY:], mic[:-MIC_DELAY] / np.float32(32768))
    # The same frames by the plain interface: the output is the residual's, the estimate differs.
    assert run["echo"].any() and np.abs(run["out"]).max() <= 1.0


def test_targets_are_the_talker_as_late_as_the_microphone(corpus, bank, library_path):
    library = Library(library_path)
    for i in range(12):
        signals, about = cache.make_clip(corpus, bank, library, 4.0, SEED, "train", i)
        if about["scenario"] == "near_end":
            mic, target = (signals[name].astype(np.float64) for name in ("mic", "target"))
            assert lag(mic, target, PITCH) == 0
            return
    pytest.fail("no near-end clip among them")


def test_a_cache_goes_on_where_it_stopped_and_other_scenes_get_their_own(corpus, bank, library_path, tmp_path):
    options = 2.0, SEED, "valid", library_path
    simulate.aec_cache(corpus, bank, tmp_path / "parts", 2, *options)
    parts = simulate.aec_cache(corpus, bank, tmp_path / "parts", 4, *options, jobs=2)
    whole = simulate.aec_cache(corpus, bank, tmp_path / "whole", 4, *options)
    assert len(parts) == 4
    few = simulate.aec_cache(corpus, bank, tmp_path / "parts", 3, *options)
    assert few.path == parts.path and len(few) == 3  # as many as asked for, whatever is there
    for a, b in zip(parts, whole):
        assert a["spans"] == b["spans"]
        for name in ("mic", "echo", "target"):
            assert np.array_equal(a[name], b[name])
    longer = simulate.aec_cache(corpus, bank, tmp_path / "whole", 1, 3.0, *options[1:])
    assert longer.path != whole.path and np.array_equal(whole[3]["mic"], parts[3]["mic"])


def test_codec_of_the_library_is_that_of_the_scenes(library_path):
    samples = np.random.default_rng(SEED).integers(-32768, 32768, 4096).astype(np.int16)
    library = Library(library_path)
    assert np.array_equal(library.scramble(samples), codec.scramble(samples))
    assert np.array_equal(library.unscramble(library.scramble(samples)), samples)
