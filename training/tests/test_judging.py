"""Losses and figures: what a network is pushed towards and judged by. A wrong sign, row or frame shows in neither curve."""

import types

import numpy as np
import pytest
import torch
from test_training import task

from training import export, losses, parity
from training.device_facts import BLANK, CLASSES, FILLER, FULL_SCALE, MICROPHONES, RATE
from training.evaluate import direction as pointed
from training.evaluate import echo_path, listening, noise, scenes, wake
from training.models import kws as kws_model
from training.models import layers, quantise, spectrum
from training.models.kws import SyllableNetwork
from training.models.naec import EchoSuppressor
from training.models.ns import NoiseSuppressor
from training.scenes import direction
from training.syllables import decoder
from training.syllables.batch import KINDS
from training.syllables.inventory import DANG, LING, PHRASE
from training.tasks import kws as kws_task

torch.set_num_threads(1)


def waves(seed, *shape):
    return 0.1 * torch.randn(*shape, generator=torch.Generator().manual_seed(seed))


# ---- suppressors ------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("network, kind", [("ns", NoiseSuppressor), ("naec", EchoSuppressor)])
def test_a_frame_s_mask_is_applied_to_the_frame_it_belongs_to(network, kind, monkeypatch):
    """An open mask gives the input's own frames, from the first on; one closed for a frame takes away that frame. Target and
    estimate of a loss are cut alike."""
    model, wave, frame = kind(norm=False).eval(), waves(1, 3, 16 * 512), 5
    late = 0 if network == "ns" else spectrum.LOOKAHEAD  # the echo suppressor's mask is as late as it is computed

    def mask(*inputs):
        steps = inputs[0].shape[1] - (spectrum.LOOKAHEAD if network == "ns" else 0)
        opened = torch.ones(3, 2, steps, spectrum.BINS - 1)
        opened[:, :, frame + late] = 0
        return opened

    monkeypatch.setattr(model, "mask", mask)
    out = model(wave, 3) if network == "ns" else model(wave, 0 * wave)
    own = spectrum.analyse(wave)[:, : out.shape[1], 16:512]
    assert out.shape[1] == 16 - spectrum.LOOKAHEAD
    kept = [t for t in range(out.shape[1]) if t != frame]
    assert torch.equal(out[:, kept, 16:512], own[:, kept]) and not out[:, frame, 16:512].abs().any()


def cost(estimate, target, **terms):
    config = {"complex_share": 0.3, "over_suppression": 1.5, "near_kept": 1.0, "multi_resolution": 0.0, "si_sdr": 0.0} | terms
    level, factors = target.abs().mean((1, 2)), torch.ones(spectrum.BINS)
    return losses.suppression(estimate, target, level, config, factors).item()


@pytest.mark.parametrize("terms", [{}, {"multi_resolution": 1.0}, {"si_sdr": 0.15}, {"complex_share": 1.0}])
def test_every_term_falls_as_the_output_comes_nearer(terms):
    """Of white and of decaying errors."""
    target, error = spectrum.analyse(waves(2, 2, 16 * 512)), spectrum.analyse(waves(3, 2, 16 * 512))
    costs = [cost(target + share * error, target, **terms) for share in (0.0, 0.25, 0.5, 1.0, 2.0)]
    assert all(np.diff(costs[:-1] if "si_sdr" in terms else costs) > 0), costs
    only = {"si_sdr": 0.15, "complex_share": 0.0} if "si_sdr" in terms else terms
    assert cost(target + 0.5 * error, target, **only) > cost(target + 0.25 * error, target, **only)


def test_si_sdr_alone_is_no_reason_to_turn_down():
    """It does not know the level; the spectral terms do. And a clip without a talker has none, nor a loss that is no number."""
    target = spectrum.analyse(waves(4, 1, 16 * 512))
    by_level = [cost(gain * target, target, si_sdr=s) for s in (0.0, 1.0) for gain in (0.5, 1.0)]
    assert by_level[0] - by_level[1] == pytest.approx(by_level[2] - by_level[3], rel=1e-3)
    silent = torch.zeros_like(target)
    assert cost(silent, silent, si_sdr=0.15) == pytest.approx(0, abs=1e-6)
    assert np.isfinite(cost(target, silent, si_sdr=0.15)) and cost(target, silent, si_sdr=0.15) > 0


def test_digital_silence_has_a_gradient():
    """Compression has an infinite slope at nothing."""
    estimate = torch.zeros(1, 6, spectrum.BINS, dtype=torch.cfloat, requires_grad=True)
    config = {"complex_share": 0.3, "over_suppression": 1.5, "multi_resolution": 1.0, "si_sdr": 0.15}
    target = spectrum.analyse(waves(5, 1, 6 * 512))
    for wanted in (target, 0 * target):
        loss = losses.suppression(estimate, wanted, torch.zeros(1), config, torch.ones(spectrum.BINS))
        (gradient,) = torch.autograd.grad(loss, estimate)
        assert torch.isfinite(loss) and torch.isfinite(torch.view_as_real(gradient)).all()


def test_a_quiet_clip_counts_like_a_loud_one():
    target, error = spectrum.analyse(waves(6, 1, 16 * 512)), 0.3 * spectrum.analyse(waves(7, 1, 16 * 512))
    loud, quiet = (cost(g * (target + error), g * target, si_sdr=0.1, multi_resolution=1.0) for g in (1.0, 0.05))
    assert loud == pytest.approx(quiet, rel=1e-3)


class Gives(torch.nn.Module):
    """A network of known outputs."""

    def __init__(self, output):
        super().__init__()
        self.output = output

    def forward(self, *inputs):
        return self.output(*inputs)


def test_figures_of_the_noise_suppressor_are_of_every_microphone():
    """Nothing done: nothing gained. The target: limited by the arithmetic alone. Right in one row of three: a third."""
    ns, _ = task("ns")
    mics, target = waves(8, 3, 16 * 512), waves(9, 3, 16 * 512)
    batch = {"mics": target + mics, "target": target}
    frames = 16 - spectrum.LOOKAHEAD

    def judged(wave):
        return ns.validate(Gives(lambda *_: spectrum.analyse(wave)[:, :frames]), batch)

    nothing, right = judged(batch["mics"]), judged(target)
    assert nothing["si_sdr_improvement"] == pytest.approx(0, abs=1e-4) and nothing["si_sdr"] == pytest.approx(0, abs=0.5)
    assert right["si_sdr"] > 50 and right["loss"] < nothing["loss"]
    one = judged(torch.cat([target[:1], batch["mics"][1:]]))
    assert one["si_sdr_improvement"] == pytest.approx(right["si_sdr_improvement"] / MICROPHONES, rel=0.02)


def test_figures_of_the_echo_suppressor_are_of_the_clips_they_belong_to():
    """Reduction where nobody talks, gain where somebody does, both against what the network was given."""
    naec, _ = task("naec")
    echo, near = waves(10, 2, 16 * 512), waves(11, 2, 16 * 512)
    near[1] = 0  # the second clip is echo alone
    batch = {"mic": near + echo, "echo": 0.5 * echo, "target": near}
    frames = 16 - spectrum.LOOKAHEAD
    error = spectrum.analyse(batch["mic"] - batch["echo"])[:, :frames]
    nothing = naec.validate(Gives(lambda *_: error), batch)
    assert nothing["si_sdr_improvement"] == pytest.approx(0, abs=1e-4)
    assert nothing["si_sdr"] == pytest.approx(6.0, abs=0.5) and nothing["echo_reduction"] == pytest.approx(6.0, abs=0.1)
    tenth = naec.validate(Gives(lambda *_: torch.cat([error[:1], 0.1 * error[1:]])), batch)
    assert tenth["echo_reduction"] == pytest.approx(26.0, abs=0.1) and tenth["si_sdr"] == nothing["si_sdr"]
    assert "echo_reduction" not in naec.validate(Gives(lambda *_: error[:1]), {k: v[:1] for k, v in batch.items()})


# ---- wake-up ----------------------------------------------------------------------------------------------------------


def said(rows, steps=60, sure=0.99):
    """Log posteriors of a network that says each label in its step, and the batch that wants it. rows: [(class, step)]."""
    p = torch.full((len(rows), steps, CLASSES), (1 - sure) / (CLASSES - 1))
    p[..., BLANK] = sure
    labels = torch.zeros(len(rows), max(1, max(map(len, rows))))
    first, last = labels.clone(), labels.clone()
    for i, row in enumerate(rows):
        for j, (label, step) in enumerate(row):
            p[i, step] = (1 - sure) / (CLASSES - 1)
            p[i, step, label] = sure
            labels[i, j], first[i, j], last[i, j] = label, step - 1, step + 4
    batch = {"labels": labels, "first": first, "last": last, "middle": first - 4, "certain": torch.ones(len(rows))}
    return p.log(), batch | {"kind": torch.zeros(len(rows)), "progress": torch.tensor(1.0)}


SPOKEN = [(label, 10 + 8 * i) for i, label in enumerate(PHRASE)]


def test_a_syllable_is_wanted_when_it_has_been_heard_and_at_no_other_time():
    """CTC: within the window nearly nothing, a step outside of it as much as if it had not been said."""
    _, batch = said([SPOKEN])
    costs = {}
    for shift in (-3, -1, 0, 1, 4, 6):
        p, _ = said([[(label, step + shift) for label, step in SPOKEN]])
        costs[shift] = kws_task.ctc(p, batch).item()
    assert max(costs[s] for s in (-1, 0, 1, 4)) < 1.0
    assert min(costs[s] for s in (-3, 6)) > 5.0, costs
    silent, _ = said([[]])
    assert kws_task.ctc(silent, batch).item() > 3.0


def test_cross_entropy_wants_the_class_from_its_syllable_s_end_on():
    p, batch = said([[(LING, 20)]])
    at = {}
    for label, step in ((LING, 20), (LING, 40), (DANG, 20), (FILLER, 20)):
        q, _ = said([[(label, step)]])
        at[label, step] = kws_task.cross_entropy(q, batch).item()
    assert at[LING, 20] < min(v for k, v in at.items() if k != (LING, 20))
    uncertain = batch | {"certain": torch.zeros(1)}
    assert kws_task.cross_entropy(p, uncertain).item() == 0


def test_the_hinge_pushes_the_phrase_down_and_all_else_up():
    """Only where they are not yet far enough."""
    p, batch = said([SPOKEN, [(DANG, 12), (LING, 20)]])
    batch["kind"] = torch.tensor([KINDS.index("phrase"), KINDS.index("near miss")], dtype=torch.float32)
    missed, false = kws_task.hinge(*decoder.scores(p), batch, enough=0.3, too_much=1e-4)
    assert missed.item() == pytest.approx(0, abs=0.01) and false.item() == 0
    swapped = batch | {"kind": batch["kind"].flip(0)}
    missed, false = kws_task.hinge(*decoder.scores(p), swapped, enough=0.3, too_much=1e-4)
    assert missed.item() > 1 and false.item() > 1


def test_figures_of_the_wake_up_network_count_what_was_said(monkeypatch):
    """All right, one of four wrong, one left out, one too many; the phrase wakes, what is nearly it does not."""
    kws, _ = task("kws")
    wrong = [(LING, 10), (DANG, 18), (LING, 26), (FILLER + 1, 34)]
    rows = {"right": SPOKEN, "wrong": wrong, "left out": SPOKEN[:3], "too many": [*SPOKEN, (7, 50)]}
    _, batch = said([SPOKEN])
    batch["kind"] = torch.tensor([float(KINDS.index("string"))])
    errors = {}
    for name, row in rows.items():
        p, _ = said([row])
        monkeypatch.setattr(kws, "log_posteriors", lambda model, batch, p=p: p)
        errors[name] = kws.validate(None, batch)["syllable_error"]
    assert errors == {"right": 0.0, "wrong": 0.25, "left out": 0.25, "too many": 0.25}
    p, batch = said([SPOKEN, wrong])
    batch["kind"] = torch.tensor([float(KINDS.index("phrase")), float(KINDS.index("near miss"))])
    monkeypatch.setattr(kws, "log_posteriors", lambda model, batch: p)
    results = kws.validate(None, batch)
    assert results["wakes on phrase"] == 1 and results["wakes on near miss"] == 0


def test_chained_utterances_follow_each_other_and_others_start_afresh():
    """The second of two hears the first's state; without a chain each is as if it were alone."""
    kws, _ = task("kws")
    torch.manual_seed(12)
    model = SyllableNetwork().eval()
    features = {"features": 10 + 3 * torch.randn(4, 30, 40, generator=torch.Generator().manual_seed(13))}
    with torch.no_grad():
        alone = torch.cat([kws.log_posteriors(model, {"features": x[None]}) for x in features["features"]])
        apart, chained = (kws.log_posteriors(model, features, n) for n in (1, 2))
        both = kws.log_posteriors(model, {"features": features["features"].reshape(2, 60, 40)})
    assert torch.allclose(apart, alone, atol=1e-5)
    assert torch.allclose(chained.reshape(2, 20, -1), both, atol=1e-5)
    assert torch.allclose(chained[0], alone[0], atol=1e-5) and not torch.allclose(chained[1], alone[1], atol=1e-3)


# ---- direction --------------------------------------------------------------------------------------------------------


def test_gain_moves_energies_and_no_correlation():
    """Twice the decibels over 10 / ln 10 in the natural logarithm of the power; heading and activity stay beside it."""
    count, about = 4, [{"heading": 90.0 * i} for i in range(4)]
    heard = np.random.default_rng(14).random((count, direction.HOPS, 3, direction.VALUES)).astype(np.float32)

    def excerpt(clip, first, blocks, suppressed):
        return heard[clip, first : first + 3 * blocks], np.full(blocks, clip % 2)

    class Clips:
        __len__ = lambda self: count

    clips = Clips()
    clips.about, clips.excerpt = about, excerpt
    quiet, loud = (direction.batch(clips, np.random.default_rng(15), 16, 0.9, 0.5, (db, db)) for db in (0.0, 6.0))
    assert np.array_equal(quiet["features"][:, :3], loud["features"][:, :3])
    moved = loud["features"][:, 3] - quiet["features"][:, 3]
    assert moved == pytest.approx(0.6 * np.log(10), abs=1e-4)
    assert np.array_equal(quiet["heading"], loud["heading"]) and np.array_equal(quiet["active"], loud["active"])


# ---- codes and export -------------------------------------------------------------------------------------------------


def test_a_multiplier_holds_its_value_to_24_bits():
    """Below 2^24, so that it passes through a table of floats; over twelve decades."""
    for value in np.geomspace(1e-8, 1e4, 200):
        m0, m1 = quantise.multiplier(float(value))
        assert 2**23 <= m0 < 2**24 and float(np.float32(m0)) == m0
        assert m0 * 2.0**-m1 == pytest.approx(value, rel=2**-23)
    assert quantise.multiplier(1 - 2**-30)[0] == 2**24 - 1  # not 2^24


def test_codes_round_halves_away_from_zero_and_stop_at_their_ends():
    codes = quantise.Quantiser(fixed=(0.5, 10))
    codes.mode = "codes"
    x = torch.tensor([0.25, -0.25, 0.24, 1000.0, -1000.0])
    assert codes(x).tolist() == [0.5, -0.5, 0.0, 0.5 * (255 - 10), -5.0]
    assert codes.cleared() == -5.0
    first = quantise.Quantiser(fixed=(0.5, 10), zero_first=True)
    first.mode = "codes"
    assert first(x).tolist() == [0.5, 0.0, 0.0, 122.5, -5.0]  # 9.5 is rounded away from zero: 10


def test_a_quantiser_that_observes_takes_the_range_it_saw():
    """Outliers of one in ten thousand aside; a fixed one learns nothing."""
    seen, fixed = quantise.Quantiser(), quantise.Quantiser(fixed=(0.1, 20))
    x = torch.linspace(-1, 3, 50001)
    x[0] = -100
    for q in (seen, fixed):
        q.mode = "observe"
        assert torch.equal(q(x), x)
    assert float(seen.low) == pytest.approx(-1, abs=0.02) and float(seen.high) == pytest.approx(3, abs=0.02)
    assert float(seen.zero_point) == round(-float(seen.low) / float(seen.scale))
    assert (float(fixed.scale), float(fixed.zero_point)) == (pytest.approx(0.1), 20.0)
    seen.mode = "codes"
    assert (seen(x[1:]) - x[1:]).abs().max() < 1.01 * float(seen.scale)


def test_weights_as_codes_are_the_weights_within_half_a_step():
    weight = torch.randn(20, 30, generator=torch.Generator().manual_seed(16))
    scale = quantise.weight_scale(weight)
    codes = quantise.fake_weight(weight) / scale
    assert (quantise.fake_weight(weight) - weight).abs().max() <= 0.501 * scale
    assert codes.abs().max() <= quantise.LARGEST_WEIGHT and torch.allclose(codes, codes.round(), atol=1e-4)
    weight.requires_grad_()
    quantise.fake_weight(weight).sum().backward()
    assert torch.isfinite(weight.grad).all() and weight.grad.abs().mean() > 0.5  # the gradient passes through


@pytest.fixture(scope="module")
def wake_up_tables():
    with torch.no_grad():
        return parity.random_wake_up(SyllableNetwork, 0).tables()


@pytest.mark.parametrize("fault", ["short", "long", "not finite", "no code", "unknown"])
def test_an_export_refuses_what_the_library_could_not_hold(fault, wake_up_tables):
    """Nothing is padded, cut, wrapped or left out in silence."""
    tables = dict(wake_up_tables)
    assert export.fit("kws", tables)
    codes, floats = "chinese_conv4_2_weight", "chinese_ln1_weight"
    if fault == "unknown":
        tables["chinese_extra"] = np.zeros(3)
    elif fault == "short":
        tables[floats] = tables[floats][:-1]
    elif fault == "long":
        tables[floats] = np.append(tables[floats], 0.0)
    elif fault == "not finite":
        tables[floats] = np.where(np.arange(len(tables[floats])) == 5, np.nan, tables[floats])
    else:
        tables[codes] = np.float32(tables[codes]) + 0.5
    with pytest.raises(ValueError, match="chinese_"):
        export.fit("kws", tables)


@pytest.mark.parametrize("change", ["late", "turned down", "clipped differently"])
def test_parity_notices_what_the_ear_would_not(change):
    """A sample of delay, a thousandth of the level, one sample two steps off."""
    ours = waves(17, 2, 4000).numpy().astype(np.float64)
    theirs = np.trunc(ours * FULL_SCALE)
    assert parity.compare(ours, theirs, "same") == 0
    if change == "late":
        theirs = np.roll(theirs, 1, axis=1)
    elif change == "turned down":
        theirs = theirs * 0.999
    else:
        theirs[1, 7] += 2 + 1e-4 * abs(theirs[1, 7])
    with pytest.raises(parity.Mismatch):
        parity.compare(ours, theirs, change)


def test_the_float_networks_approximations_are_as_near_as_they_are_said_to_be():
    """Where masks and gates are used: sigmoid and tangent within 2e-2 everywhere, limited ones exact within their limits."""
    x = torch.linspace(-12, 12, 4001)
    assert (layers.fast_sigmoid(x) - torch.sigmoid(x)).abs().max() < 2e-2
    assert (layers.fast_tanh(x) - torch.tanh(x)).abs().max() < 2e-2
    assert torch.allclose(layers.limited_tanh(x, 10), torch.tanh(x), atol=1e-6)
    assert torch.allclose(layers.limited_sigmoid(x), torch.sigmoid(x), atol=1e-4)
    scores = torch.randn(3, 5, CLASSES, generator=torch.Generator().manual_seed(18))
    assert torch.allclose(kws_model.posteriors(scores).exp().sum(-1), torch.ones(3, 5), atol=1e-5)


# ---- evaluation -------------------------------------------------------------------------------------------------------


def test_figures_of_the_echo_path_are_taken_from_their_own_stretches(monkeypatch):
    """A fault in one stretch moves that stretch's figures alone."""
    monkeypatch.setattr(echo_path.metrics, "estoi", lambda output, target: float(np.corrcoef(output, target)[0, 1]))
    n, rng = 3 * RATE, np.random.default_rng(19)
    ref, near = rng.standard_normal((2, 3 * n)).astype(np.float32)
    near[:n] = 0
    parts = slice(0, n), slice(n, 2 * n), slice(2 * n, 3 * n)
    mic = near + np.where(np.arange(3 * n) < 2 * n, 0.5 * ref, 0)
    scene = scenes.EchoScene(mic, ref, near, *parts)
    right = echo_path.measure(scene, near.copy(), opinions=False)
    assert right["erle_end"] > 60 and right["si_sdr"] > 100 and right["near_si_sdr"] > 100
    figures = {0: {"erle_end", "erle_over_time"}, 1: {"si_sdr", "estoi"}, 2: {"near_si_sdr", "near_estoi"}}
    for i, part in enumerate(parts):
        output = near.copy()
        output[part] += 0.3 * rng.standard_normal(n)
        other = echo_path.measure(scene, output, opinions=False)
        assert {name for name in right if other[name] != right[name]} == figures[i]


def test_systems_get_the_microphones_they_are_named_after(monkeypatch):
    """One microphone alone, or all in turns; microphone 1 is what comes out."""
    calls = []

    class Device:
        def suppress_noise(self, mics, floor):
            calls.append((mics.shape[0], floor))
            return mics + floor

    mics = np.arange(3)[:, None] + np.zeros((3, 8))
    opened = types.SimpleNamespace(device=Device(), speech=np.zeros(RATE), gtcrn=None)
    monkeypatch.setattr(noise.peers, "noise_suppressors", lambda _: ([], []))
    table, delays, _ = noise.systems.__wrapped__(opened)
    outputs = {name: process(mics) for name, process in table.items()}
    assert all((outputs[name] == (0 if name == "noisy" else calls[i - 1][1])).all() for i, name in enumerate(table))
    assert calls == [(1, 0.1), (1, 0.3), (3, 0.1), (3, 0.3)] and not delays


def test_a_wake_counts_where_the_phrase_was_and_late_ones_do_not():
    """`listen`'s figures: heard, latency from the end, wakes per hour with the refractory time; of each voice its own."""
    rows = [{"condition": "quiet", "end": 3.0, "speaker": speaker} for speaker in ("anna", "berta", "anna", "berta")]
    silence = np.zeros(int(3600 * 0.01 * RATE), np.int16)
    times = iter([[3.3], [1.0], [], [2.9, 4.0], [1.0, 1.5, 5.0]])
    kept = {"phrase": [(silence, row) for row in rows], "without": [(silence, {"condition": "talk"})]}
    found = listening.summary(kept, lambda wave: next(times))
    assert found["phrase"]["quiet"]["value"] == 0.5 and found["phrase"]["quiet"]["n"] == 4
    assert found["latency"]["p5"] == pytest.approx(-0.08, abs=0.02) and found["latency"]["p95"] == pytest.approx(0.28, abs=0.02)
    voices = found["voices"]["phrase"]
    assert {s: (of["all"]["value"], of["quiet"]["n"]) for s, of in voices.items()} == {"anna": (0.5, 2), "berta": (0.5, 2)}
    assert "anna" in listening.table({"engine": found}).splitlines()[-2]
    assert found["without"]["talk"]["n"] == 2 and found["without"]["all"]["value"] == pytest.approx(200)


def test_a_device_that_points_nowhere_or_hears_nothing_has_not_pointed():
    row = {"heading": 10.0, "also_heard": 0, "latency": 0.2, "pointed": {"Quibo": 350.0}}
    rows = [
        row | {"heard": True, "angle": 20},
        row | {"heard": True, "angle": None},
        row | {"heard": True, "angle": 40},
        row | {"heard": False, "angle": 10, "latency": None},
    ]
    found = wake._condition(rows)
    assert found["heard"]["value"] == 0.75 and found["pointed"]["value"] == 0.25 and found["said"] == 4
    assert found["latency"]["n"] == 3 and found["direction"]["Quibo"]["median"]["value"] == 20.0
    assert pointed.off(None, 10.0) == 180.0 and pointed.off(355.0, 5.0) == 10.0


def test_what_is_gained_is_gained_over_the_same_scene_in_the_same_condition():
    row = lambda scene, condition, system, value: {
        "scene": scene,
        "condition": condition,
        "system": system,
        "si_sdr": value,
        "estoi": 0.5,
    }
    rows = [
        row(scene, condition, system, level + 3 * scene + (gain + scene if system == "Quibo" else 0))
        for scene in (0, 1)
        for condition, level, gain in (("0 dB", 0.0, 4.0), ("15 dB", 15.0, 1.0))
        for system in ("noisy", "Quibo")
    ]
    summary = noise.summarise(rows)
    gained = {c: summary[c]["Quibo"]["si_sdr_gain"]["value"] for c in summary}
    assert gained == {"0 dB": 4.5, "15 dB": 1.5}
    assert summary["15 dB"]["noisy"]["si_sdr_gain"]["value"] == 0 and summary["0 dB"]["Quibo"]["ovrl"] is None
