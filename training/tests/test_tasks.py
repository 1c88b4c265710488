"""Faults that a training would not show before its end: targets beside their inputs, shares, schedules, what export folds."""

import collections

import numpy as np
import pytest
import torch
from test_training import task

from training import export, losses, parity, train
from training.corpus import Clip, Corpus
from training.device_facts import BLANK, DECISION_BLOCKS, HEADING_OFFSET
from training.models import layers, spectrum
from training.models.layers import CausalConv, GruBlock, load_tables
from training.models.naec import EchoSuppressor
from training.models.ns import NoiseSuppressor, interleave, separate
from training.syllables import batch, inventory, texts
from training.tasks import doa

torch.set_num_threads(1)


# ---- batches ----------------------------------------------------------------------------------------------------------


def test_pieces_of_an_echo_clip_are_cut_at_one_place():
    """Microphone, echo and target of a batch stand beside each other, and go up and down together."""
    naec, config = task("naec")
    ramp = np.arange(40000, dtype=np.float32)
    naec.data.echo_clips = lambda split: [{"mic": ramp, "echo": ramp + 0.25, "target": ramp + 0.5}]
    config["data"]["from_start"] = 0.5
    starts = []
    for seed in range(20):
        piece = naec.sample(np.random.default_rng(seed), "train")
        gain = piece["mic"][0, 1] - piece["mic"][0, 0]
        assert np.allclose((piece["echo"] - piece["mic"])[0], 0.25 * gain, rtol=0.05)
        assert np.allclose((piece["target"] - piece["mic"])[0], 0.5 * gain, rtol=0.05)
        starts.append(round(float(piece["mic"][0, 0] / gain)))
    assert 4 <= starts.count(0) <= 16 and max(starts) > 10000


def test_microphones_of_a_scene_stay_together():
    """The network runs three rows in turns; they are one scene's, and come apart as they went in."""
    ns, _ = task("ns")
    rng = np.random.default_rng(1)
    scenes = ns.data.batch(np.random.default_rng(1), 2, 1.024, "train")
    rows = ns.sample(rng, "train")
    assert all(np.array_equal(rows["mics"][3 * b + m], scenes["mics"][b, m]) for b in (0, 1) for m in (0, 1, 2))
    x = torch.arange(6 * 8 * 2 * 3).reshape(6, 8, 2, 3)
    turns = interleave(x, 3)
    assert torch.equal(separate(turns, 3), x)
    # Two steps of microphone 1, two of 2, two of 3, then the next two of 1.
    assert [int(v) for v in turns[0, :8, 0, 0]] == [
        int(x[m, t, 0, 0]) for m, t in ((0, 0), (0, 1), (1, 0), (1, 1), (2, 0), (2, 1), (0, 2), (0, 3))
    ]


def test_a_batch_is_a_function_of_its_number_whoever_makes_it():
    ns, _ = task("ns")
    here = list(train.batches(ns, 5, "train", 1, 3, workers=0, of=4))
    elsewhere = list(train.batches(ns, 5, "train", 0, 3, workers=2, of=4))
    for a, b in zip(here, elsewhere[1:]):
        assert torch.equal(a["mics"], b["mics"])
    assert not torch.equal(here[0]["mics"], here[1]["mics"])
    (other,) = train.batches(ns, 5, "valid", 1, 2, workers=0)
    assert not torch.equal(here[0]["mics"], other["mics"])


def test_progress_goes_from_the_recipe_s_beginning_to_its_end():
    """And stands at its end where a batch is not of the first training."""
    kws, _ = task("kws")
    seen = [float(b["progress"]) for b in train.batches(kws, 5, "train", 0, 5, 0, of=4)]
    assert seen == [0.0, 0.25, 0.5, 0.75, 1.0]
    assert [float(b["progress"]) for b in train.batches(kws, 5, "train", 0, 2, 0)] == [1.0, 1.0]


# ---- shares -----------------------------------------------------------------------------------------------------------


def test_sets_are_drawn_by_their_shares_and_speakers_evenly():
    """Whatever the number of clips: within 0.03 of 1 to 3, and of one half each."""

    def clips(of, share, speaker, count):
        return [Clip(f"{of}/{speaker}{i}.wav", speaker, "train", ("near",), of, share) for i in range(count)]

    corpus = Corpus(None, "cache", clips("a", 1.0, "anna", 40) + clips("b", 3.0, "berta", 1) + clips("b", 3.0, "carl", 100))
    rng = np.random.default_rng(2)
    drawn = collections.Counter(corpus.draw(rng, "near", "train").speaker for _ in range(4000))
    for speaker, share in (("anna", 0.25), ("berta", 0.375), ("carl", 0.375)):
        assert drawn[speaker] / 4000 == pytest.approx(share, abs=0.03)


def test_groups_of_voices_are_heard_as_often_as_they_should_be():
    speakers = {"espeak-ng m1": 1.0, "neural Aida": 1.0, "neural Aijia": 9.0, "anna": 2.0}
    rng = np.random.default_rng(3)
    drawn = collections.Counter(texts.speaker_of(rng, speakers) for _ in range(4000))
    for speaker, share in (("espeak-ng m1", 0.15), ("neural Aida", 0.045), ("neural Aijia", 0.405), ("anna", 0.4)):
        assert drawn[speaker] / 4000 == pytest.approx(share, abs=0.03)


def test_kinds_of_utterances_are_shares_at_any_time():
    for progress in (0.0, 0.5, 1.0):
        p = batch.shares(progress)
        assert p.sum() == pytest.approx(1.0) and (p >= 0).all() and len(p) == len(batch.KINDS)
    assert batch.shares(0.0)[batch.KINDS.index("residual")] == 0 < batch.shares(1.0)[batch.KINDS.index("residual")]


# ---- targets and losses -----------------------------------------------------------------------------------------------


@pytest.mark.parametrize("heading", [0.0, 30.0, 75.0, 180.0, 300.0])
def test_a_vector_points_where_the_front_end_will_say(heading):
    """The library's heading is the angle of (x, y) from +y plus its offset; nobody speaks: no vector."""
    direction, _ = task("doa")
    example = {"heading": torch.tensor([heading]), "active": torch.tensor([[1.0, 0.0]]), "features": None}
    _, target = direction.vectors(lambda _: None, example)
    x, y = target[0, 0]
    off = float(torch.rad2deg(torch.atan2(x, y))) + HEADING_OFFSET - heading
    assert (off + 180) % 360 - 180 == pytest.approx(0, abs=1e-3)
    assert float(target[0, 0].norm()) == pytest.approx(doa.LENGTH) and not target[0, 1].any()


def test_a_network_that_is_right_is_judged_right_and_a_late_one_is_not():
    """Judged is the longest vector of the last DECISION_BLOCKS up to the talker's last block, as at a wake."""
    direction, _ = task("doa")
    blocks = 3 * DECISION_BLOCKS
    active = torch.zeros(2, blocks)
    active[:, 5 : 2 * DECISION_BLOCKS] = 1
    example = {"heading": torch.tensor([40.0, 350.0]), "active": active, "features": None}
    _, right = direction.vectors(lambda _: None, example)
    results = direction.validate(lambda _: right, example)
    assert results["loss"] < 0.05 and results["p90_degrees"] < 0.1 and results["within_15_degrees"] == 1
    # What lies before the decision's window or behind the talk does not count, however long.
    other = right.clone()
    other[:, :DECISION_BLOCKS] = other[:, 2 * DECISION_BLOCKS :] = torch.tensor([-1.0, -1.0])
    assert direction.validate(lambda _: other, example)["p90_degrees"] < 0.1
    turned = right.flip(-1)
    assert direction.validate(lambda _: turned, example)["within_15_degrees"] < 1


def test_si_sdr_knows_no_level_and_no_offset():
    """Of noise 10 dB down, within 0.3 dB."""
    generator = torch.Generator().manual_seed(6)
    target, noise = torch.randn(2, 1, 16000, generator=generator)
    estimate = 3 * (target + 10**-0.5 * noise) + 0.7
    assert float(losses.si_sdr(estimate, target)) == pytest.approx(10, abs=0.3)


def test_bins_the_engine_holds_down_are_not_asked_for():
    """A perfect mask has no spectral loss, though the lowest bins leave the engine attenuated."""
    _, config = task("ns")
    wave = 0.1 * torch.randn(1, 16 * 512, generator=torch.Generator().manual_seed(7))
    spectra, factors = spectrum.analyse(wave), spectrum.low_bin_factors(8, 0.15)
    c = config["loss"] | {"si_sdr": 0.0}
    level = wave.pow(2).mean(-1).sqrt()
    assert float(losses.suppression(spectra * factors, spectra, level, c, factors)) < 1e-6
    assert float(losses.suppression(spectra, spectra, level, c, factors)) > 1e-4  # low bins not held down are noticed


# ---- the loop ---------------------------------------------------------------------------------------------------------


def test_the_learning_rate_rises_and_falls_as_planned():
    c = {"warm_up": 0.1, "steps": 100, "learning_rate": 1.0, "final_learning_rate": 0.01}
    rates = [train.learning_rate(c, step) for step in range(100)]
    assert rates[:10] == pytest.approx([0.1 * (i + 1) for i in range(10)])
    assert rates[10] == 1.0 and all(np.diff(rates[10:]) < 0) and rates[-1] == pytest.approx(0.01, abs=1e-3)
    assert rates[55] == pytest.approx(0.505, abs=0.01)


def test_a_gradient_that_is_no_number_changes_nothing(tmp_path):
    """No weight and no moment of the optimiser; the training goes on with the next batch."""
    ns, config = task("ns", steps=3, save_every=3, validate_every=3, average=1, freeze_norm=0.0)
    loss, calls = ns.loss, []

    def sometimes(model, batch, rng):
        calls.append({name: p.detach().clone() for name, p in model.named_parameters()})
        value, values = loss(model, batch, rng)
        return value * (float("nan") if len(calls) == 2 else 1.0), values

    ns.loss = sometimes
    model = train.train(ns, config, tmp_path, "cpu")
    assert all(torch.equal(a, calls[2][name]) for name, a in calls[1].items())
    assert any(not torch.equal(a, calls[1][name]) for name, a in calls[0].items())
    assert all(torch.isfinite(p).all() for p in model.parameters())


def test_frozen_statistics_stay_and_weights_go_on(tmp_path):
    ns, config = task("ns", steps=2, save_every=1, validate_every=2, average=1, freeze_norm=0.5)
    train.train(ns, config, tmp_path, "cpu")
    states = {}

    class Saved(type(ns)):
        def loss(self, model, batch, rng):
            states[len(states)] = {name: v.clone() for name, v in model.state_dict().items()}
            return super().loss(model, batch, rng)

    model = train.train(Saved(config, ns.data), config, tmp_path / "again", "cpu")
    after = model.state_dict()
    statistics = [name for name in after if "running_" in name]
    assert statistics and all(torch.equal(states[1][name], after[name]) for name in statistics)
    assert any(not torch.equal(states[0][name], states[1][name]) for name in statistics)
    assert any(not torch.equal(states[1][name], after[name]) for name in after if name.endswith("weight"))


# ---- export -----------------------------------------------------------------------------------------------------------


def lively(norm):
    with torch.no_grad():
        norm.running_mean.normal_(0, 0.5)
        norm.running_var.uniform_(0.2, 3)
        norm.weight.uniform_(0.5, 1.5)
        norm.bias.normal_(0, 0.3)


def test_a_folded_convolution_is_the_normalised_one():
    """Within 1e-5, at the edges too."""
    torch.manual_seed(8)
    layer = CausalConv(3, 5, (3, 3), stride=2, activation=True, norm=True).eval()
    lively(layer.norm)
    x = torch.randn(2, 3, 9, 16)
    with torch.no_grad():
        before = layer(x)
        layer.fold()
        assert layer.norm is None and torch.allclose(layer(x), before, atol=1e-5)


def test_a_block_s_scale_and_shift_are_its_normalisation():
    torch.manual_seed(9)
    block = GruBlock(4, "time", True, torch.sigmoid, torch.tanh).eval()
    lively(block.norm)
    x = torch.randn(2, 6, 3, 4)
    with torch.no_grad():
        before = block(x)
        scale, shift = block.affine()
        layers.set_affine(block.norm, 0 * scale + 1, 0 * shift)
        plain = block(x) - x
        assert torch.allclose(x + plain * scale + shift, before, atol=1e-5)
        block.deployed = True
        assert torch.allclose(block(x), x + plain, atol=1e-5)  # the same recurrence, written out


@pytest.mark.parametrize("network, kind", [("ns", NoiseSuppressor), ("naec", EchoSuppressor)])
def test_a_suppressor_goes_on_from_its_export(network, kind):
    """The same spectra, which reach tens, within 1e-3 from a network of another start."""
    model, again = parity.random_model(kind, 0), kind(norm=False)
    load_tables(again, export.fit(network, model.tables()))
    again.eval()
    for module in again.modules():
        if isinstance(module, GruBlock):
            module.deployed = True
    waves = 0.1 * torch.randn(2, 1, 8 * 1024, generator=torch.Generator().manual_seed(10))
    arguments = (waves[0],) if network == "ns" else tuple(waves)
    with torch.no_grad():
        assert (model(*arguments) - again(*arguments)).abs().max() < 1e-3


def test_the_operating_point_moves_the_phrase_s_classes_alone():
    kws, _ = task("kws")
    model = kws.model()
    before = model.output.linear.bias.detach().clone()
    kws.set_operating_point(model, -1.25)
    moved = (model.output.linear.bias.detach() - before).nonzero()[:, 0].tolist()
    assert moved == sorted(set(inventory.PHRASE)) and BLANK not in moved
