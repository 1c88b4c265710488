"""The training loop and what it exports, on signals from formulas."""

import json
import types

import numpy as np
import pytest
import torch

from params import safetensors_file
from training import __main__, data, export, losses, muon, parity, tasks, train
from training.device_facts import CLASSES
from training.models import spectrum
from training.models.doa import DirectionNetwork
from training.models.layers import CausalConv, load_tables
from training.models.ns import NoiseSuppressor

torch.set_num_threads(1)


def task(network, **schedule):
    config = __main__.configuration(network, None, smoke=True)
    config["data"] |= {
        "workers": 0,
        "batch": 2,
        "seconds": 1.024,
        "validation_batches": 1,
        "clips": 2,
        "valid_clips": 1,
        "clip_seconds": 2.0,
    }
    config["train"] |= schedule
    return tasks.create(network, config, data.of(network).Stub(config)), config


@pytest.mark.parametrize("network, optimizer", [("ns", {"optimizer": "adamw"}), ("kws", {"optimizer": "muon", "parts": 1})])
def test_a_stopped_run_goes_on_as_if_it_had_not_been_stopped(network, optimizer, tmp_path):
    """To the bit: the same batches, rates and optimiser states."""
    schedule = {"steps": 4, "save_every": 2, "validate_every": 4, "average": 1, "freeze_norm": 0.75}
    straight, config = task(network, **schedule, **optimizer)
    whole = train.train(straight, config, tmp_path / "whole", "cpu")

    class Stop(Exception):
        pass

    class Stopping(type(straight)):
        def loss(self, model, batch, rng):
            self.calls = getattr(self, "calls", 0) + 1
            if self.calls > 2:
                raise Stop
            return super().loss(model, batch, rng)

    with pytest.raises(Stop):
        train.train(Stopping(config, straight.data), config, tmp_path / "parts", "cpu")
    resumed = train.train(straight, config, tmp_path / "parts", "cpu")
    for name, value in whole.state_dict().items():
        assert torch.equal(value, resumed.state_dict()[name]), name


def test_real_transform_has_the_gradient_of_the_frameworks():
    torch.manual_seed(1)
    x, weight = torch.randn(3, 64, dtype=torch.double), torch.randn(3, 33, dtype=torch.cdouble)
    gradients = []
    for transform in (torch.fft.rfft, spectrum.RealTransform.apply):
        own = x.clone().requires_grad_()
        (transform(own) * weight).abs().square().sum().backward()
        gradients.append(own.grad)
    assert torch.allclose(*gradients)


def test_products_are_in_bfloat16_in_training_only():
    """Within 2 % of float32 then, equal to it when the network is judged."""
    torch.manual_seed(1)
    layer, x = CausalConv(8, 8, (3, 3), activation=True), torch.randn(2, 8, 10, 32)
    exact = layer(x)
    layer.bfloat16 = True
    rough = layer(x)
    assert rough.dtype == torch.float32
    assert 0 < (rough - exact).abs().max() < 0.02 * exact.abs().max()
    assert torch.equal(layer.eval()(x), exact)


def test_talker_taken_away_costs_more_where_nothing_else_is_heard():
    """The same error twice, too little and too much; and more so the larger the talker's share."""
    target = torch.full((1, 4, spectrum.BINS), 1.0 + 0.5j)
    config = {"complex_share": 0.3, "over_suppression": 1.0, "near_kept": 3.0, "multi_resolution": 0.0, "si_sdr": 0.0}

    def cost(gain, near):
        factors, share = torch.ones(spectrum.BINS), torch.full(target.shape, near)
        return losses.suppression(gain * target, target, torch.ones(1), config, factors, near=share).item()

    assert cost(0.8, 1.0) == pytest.approx(4 * cost(0.8, 0.0))
    assert cost(1.2, 1.0) == pytest.approx(cost(1.2, 0.0))


@pytest.mark.parametrize("shape", [(24, 8), (8, 24), (16, 16)])
def test_muon_moves_all_directions_of_a_matrix_alike(shape):
    """Whatever their share of the gradient, here 1 to 1000; the rest of the network by AdamW's rule."""
    torch.manual_seed(1)
    u, _, v = torch.linalg.svd(torch.randn(shape), full_matrices=False)
    layer = torch.nn.Linear(shape[1], shape[0])
    before, bias = layer.weight.detach().clone(), layer.bias.detach().clone()
    layer.weight.grad = u @ torch.diag(torch.logspace(0, -3, min(shape))) @ v
    layer.bias.grad = torch.ones(shape[0])
    optimizer = muon.muon(torch.nn.Sequential(layer), weight_decay=0.0)
    for group in optimizer.param_groups:
        group["lr"] = 0.1
    optimizer.step()
    moved = torch.linalg.svdvals(before - layer.weight.detach()) / (0.1 * muon.LIKE_ADAM * max(shape) ** 0.5)
    assert 0.3 < moved.min() and moved.max() < 1.3
    torch.testing.assert_close(bias - layer.bias.detach(), torch.full((shape[0],), 0.1))


def test_parts_of_a_batch_give_the_gradient_of_the_whole():
    """Where the loss is a mean over utterances, as cross-entropy's weights make it only nearly."""
    kws, _ = task("kws")
    model = kws.model()
    kws.loss = lambda model, batch, rng: (model(batch["features"]).square().mean(), {"x": 1.0})
    batch = {"features": torch.randn(4, 30, 40) + 10, "progress": torch.tensor(0.5)}
    gradients = []
    for parts in (1, 2):
        values = train.Gradients(kws, model, parts)(batch, 1)
        gradients.append([p.grad.clone() for p in model.parameters()])
    assert values["x"] == 1.0
    for a, b in zip(*gradients):
        torch.testing.assert_close(a, b, rtol=1e-4, atol=1e-6)


def test_a_continuation_belongs_to_the_training_it_continues(tmp_path):
    train.claim(tmp_path, 100)
    (tmp_path / "checkpoint.pt").touch()
    train.claim(tmp_path, 100)
    with pytest.raises(SystemExit, match="step 200"):
        train.claim(tmp_path, 200)


def test_the_average_is_that_of_the_last_checkpoints(tmp_path):
    ns, _ = task("ns")
    for step, value in enumerate((100.0, 1.0, 3.0), 1):
        model = torch.nn.Linear(1, 1)
        torch.nn.init.constant_(model.weight, value)
        train.save(tmp_path, ns, model, torch.optim.AdamW(model.parameters()), step, keep=2)
    assert train.averaged(tmp_path)["weight"].item() == 2.0
    assert train.trained_steps(tmp_path) == 3


def test_what_a_training_mined_is_in_its_checkpoint(tmp_path):
    before, after = task("kws")[0], task("kws")[0]
    model = before.model()
    optimizer = torch.optim.AdamW(model.parameters())
    before.data.confusions.rates[1, 7] = 0.625
    train.save(tmp_path, before, model, optimizer, 5, keep=1)
    assert train.resume(tmp_path, after, model, optimizer) == 5
    assert after.data.confusions.rates[1, 7] == 0.625


@pytest.mark.parametrize("network", tasks.NETWORKS)
def test_an_export_holds_the_library_s_tables_and_where_they_come_from(network, tmp_path):
    """Every table of the manifest, finite, in its type and shape; configuration, data and revision beside them."""
    _, make, kind, _ = parity.CHECKS[network]
    t, config = task(network)
    with torch.no_grad():
        tables = export.fit(network, make(kind, 0).tables())
    path, _ = export.write(network, tables, export.describe(config, 7, "digest", {}) | t.metadata(), tmp_path)
    read, metadata = safetensors_file.read(path)
    entries = export.manifest(network)
    assert {name: (dtype, shape) for name, (dtype, shape, _) in read.items()} == {
        name: (entry["dtype"], entry["shape"]) for name, entry in entries.items()
    }
    assert all(np.isfinite(a).all() for a in tables.values())
    assert (metadata["steps"], metadata["data"], metadata["trained"]) == ("7", "digest", "yes")
    assert json.loads(metadata["config"]) == config and metadata["revision"]
    assert len(metadata.get("classes", "").split()) == (CLASSES if network == "kws" else 0)


def test_an_export_leaves_the_card_that_a_person_wrote(tmp_path, capsys):
    """A draft goes beside it, and that is said."""
    ns, config = task("ns")
    (tmp_path / "run").mkdir()
    train.save(tmp_path / "run", ns, ns.model(), torch.optim.AdamW(ns.model().parameters()), 3, keep=1)
    arguments = types.SimpleNamespace(network="ns", params=tmp_path, library=None)
    (tmp_path / "ns.md").write_text("ours")
    __main__.export_trained(arguments, ns, config, ns.data, tmp_path / "run")
    assert (tmp_path / "ns.md").read_text() == "ours"
    assert "3 steps" in (tmp_path / "ns.draft.md").read_text() and "ns.draft.md" in capsys.readouterr().out


@pytest.mark.parametrize("network", tasks.NETWORKS)
def test_a_batch_can_be_learnt(network):
    """Twelve steps on one batch bring its loss down."""
    t, config = task(network)
    torch.manual_seed(1)
    model = t.model().train()
    batch = {name: torch.from_numpy(value) for name, value in t.sample(np.random.default_rng(2), "train").items()}
    optimizer = torch.optim.AdamW(model.parameters(), 1e-3)
    losses = []
    for _ in range(12):
        loss, _ = t.loss(model, batch, np.random.default_rng(3))
        optimizer.zero_grad()
        loss.backward()
        optimizer.step()
        losses.append(loss.item())
    assert losses[-1] < 0.9 * losses[0], losses


def test_an_open_mask_gives_the_signal_back():
    """Analysis, mask 1 and synthesis: within 1e-5 above the lowest bins, whose factor is switched off here."""
    wave = torch.randn(2, 8 * 1024, generator=torch.Generator().manual_seed(4)) * 0.1
    spectra = spectrum.analyse(wave)
    again = spectrum.synthesise(spectrum.apply_mask(torch.ones(2, 2, 16, 512), spectra, 0, 1.0, floor=1.0))
    assert torch.allclose(again[:, 512:], wave[:, :-512], atol=1e-5)


def test_taking_speech_away_costs_more_than_leaving_noise():
    target = torch.full((1, 4, 513), 10 + 0j)
    over, under = losses.spectral(0.5 * target, target, 0.3, 2.0), losses.spectral(1.6 * target, target, 0.3, 2.0)
    plain = losses.spectral(0.5 * target, target, 0.3, 1.0)
    assert over == pytest.approx(2 * plain) and over > under


def test_the_suppressor_s_over_read_is_trained_to_nothing():
    """The first two weights of every row, which the engine multiplies a second time, are zero in the export."""
    with torch.no_grad():
        table = export.fit("ns", parity.random_model(NoiseSuppressor, 0).tables())["denoise_inp_conv1_weight"]
    assert not table[:288].reshape(16, 18)[:, :2].any() and not table[288:].any()
    assert (table[:288].reshape(16, 18)[:, 2:] != 0).all()


def test_a_direction_network_goes_on_from_its_export():
    """The input's normalisation is taken out of the first layer again: the same vectors within 1e-5."""
    model, again = parity.random_model(DirectionNetwork, 0), DirectionNetwork()
    load_tables(again, export.fit("doa", model.tables()))
    features = torch.randn(2, 4, 60, 40, generator=torch.Generator().manual_seed(5))
    with torch.no_grad():
        assert (model(features) - again(features)).abs().max() < 1e-5
