"""The training graphs compute what the library computes, on random tables: float networks within one int16 step or
1e-4, the wake-up network to the bit. Needs PyTorch."""

import sys

import pytest

try:
    import torch
except ModuleNotFoundError:
    torch = None

pytestmark = pytest.mark.skipif(torch is None, reason="no PyTorch for this Python; ./run check installs it and runs this")

SEEDS = (0, 1, 2)


@pytest.fixture(scope="module", autouse=True)
def package(source):
    sys.path.insert(0, str(source))
    torch.set_num_threads(1)


@pytest.fixture(scope="module")
def library(build, unsanitized):
    return build / "libquibo.so"


@pytest.mark.parametrize("network", ["ns", "naec", "doa", "kws"])
@pytest.mark.parametrize("seed", SEEDS)
def test_random_networks_give_the_same_output_in_training_and_in_the_library(network, seed, library):
    from training import parity

    assert parity.random_tables(network, library, seed) > 0


def break_gate_order(model, name):
    """Swaps the reset and update gates of the network's first recurrent layer."""
    gru = {"ns": lambda: model.blocks[0].gru, "naec": lambda: model.blocks[0].gru, "doa": lambda: model.gru}[name]()
    r, z, n = gru.weight_ih_l0.data.chunk(3)
    gru.weight_ih_l0.data = torch.cat([z, r, n])


@pytest.mark.parametrize("network", ["ns", "naec", "doa"])
def test_a_network_whose_gates_are_mixed_up_is_noticed(network, library, monkeypatch):
    from training import parity

    check, make, kind, _ = parity.CHECKS[network]
    model = make(kind, 0)
    right = {name: table.clone() for name, table in model.tables().items()}
    break_gate_order(model, network)
    monkeypatch.setattr(model, "tables", lambda: right)
    with pytest.raises(parity.Mismatch):
        check(library, model)


def test_one_weight_off_by_one_is_noticed_in_the_wake_up_network(library):
    from training import export, parity
    from training.models import kws, kws_int8

    model = parity.random_wake_up(kws.SyllableNetwork, 0)
    with torch.no_grad():
        tables = export.fit("kws", model.tables())
    altered = {name: a.copy() for name, a in tables.items()}
    altered["chinese_conv4_2_weight"][0, 0] += 1
    network, other = kws_int8.Network(tables), kws_int8.Network(altered)
    features = torch.rand(300, 40).numpy() * 20
    steps = [(network.step(f), other.step(f)) for f in features.reshape(-1, 3, 40)]
    assert any((a != b).any() for a, b in steps)


def test_the_three_microphones_share_the_recurrent_states(library):
    """With one set of states each, the output would be another: the parity check is sensitive to the sharing."""
    from training import parity
    from training.models.ns import NoiseSuppressor

    model = parity.random_model(NoiseSuppressor, 0)
    with pytest.raises(parity.Mismatch):
        parity.noise_suppressor(library, with_own_states(model))


def with_own_states(model):
    class OwnStates:
        tables = staticmethod(model.tables)

        def __call__(self, wave, microphones, floor):
            return model(wave, 1, floor)

    return OwnStates()


def test_rounding_in_training_is_the_integer_network_up_to_the_first_normalisation():
    """Fake quantisation and integer simulation agree in every code; past a layer norm, whose sums differ in the last
    bit, in at least 95 % of the codes of the first block and never by more than two."""
    import numpy as np

    from training import export, parity
    from training.models import kws, kws_int8

    model = parity.random_wake_up(kws.SyllableNetwork, 3)
    codes = {}
    for name in ("gru.out", "memory.0.outof.out", "memory.1.into.out"):
        q = model.get_submodule(name)
        q.register_forward_hook(
            lambda _, i, o, name=name, q=q: codes.setdefault(name, []).append((o / q.scale + q.zero_point).round())
        )
    features = torch.rand(1, 180, 40, generator=torch.Generator().manual_seed(3)) * 20
    with torch.no_grad():
        model(features)
        network = kws_int8.Network(export.fit("kws", model.tables()))
    states, memories = [], []
    for block in features[0].numpy().reshape(-1, 3, 40):
        network.step(block)
        states.append(network.state.copy())
        memories.append(network.memory[:2, :, -1].copy())
    assert np.array_equal(torch.cat(codes["gru.out"]).numpy(), np.stack(states))
    second = np.abs(codes["memory.1.into.out"][0][0].numpy() - np.stack(memories)[:, 1])
    assert (second == 0).mean() > 0.95 and second.max() <= 2
