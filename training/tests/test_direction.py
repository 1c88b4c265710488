"""Clips of the direction network: headings, symmetries, what stands beside what."""

import numpy as np
import pytest
from conftest import SEED, plane_wave

from training import engine
from training.evaluate.alignment import find_delay
from training.evaluate.metrics import angle_error
from training.evaluate.peers import srp_phat
from training.scenes import direction, mixing
from training.scenes.audio import RATE
from training.shared import PARAMS


@pytest.fixture(scope="module")
def clips(corpus, bank, library_path, tmp_path_factory):
    path, suppressor = tmp_path_factory.mktemp("direction"), PARAMS / "ns.safetensors"
    arguments = corpus, bank, path, 2 * direction.RUN, SEED, "train", library_path, suppressor
    return direction.direction_clips(*arguments)


@pytest.mark.parametrize("mirrored", [False, True])
@pytest.mark.parametrize("places", [0, 1, 2])
@pytest.mark.parametrize("heading", [20.0, 165.0, 290.0])
def test_a_turned_array_hears_what_a_source_at_the_new_heading_would_give(heading, places, mirrored):
    """Microphone by microphone, within 1e-9: one sign or one order wrong makes another wave."""
    mics, new = direction.turned(plane_wave(heading, SEED), heading, places, mirrored)
    assert np.abs(mics - plane_wave(new, SEED)).max() < 1e-9


def test_labels_are_where_the_sound_comes_from(bank):
    """SRP-PHAT on noise through the rooms' responses: median within 5 degrees of the bank's heading."""
    noise = np.random.default_rng(SEED).standard_normal(RATE).astype(np.float32)
    errors = []
    for room in bank.numbers("train")[:12]:
        for place, source in (("talker", 0), ("noise 1", 2)):
            heard = srp_phat.heading(mixing.convolve(noise, bank.responses(room, place)))
            errors.append(angle_error(heard, bank.rooms["heading"][room][source]))
    assert np.median(errors) < 5, errors


def test_activity_and_suppressed_microphones_stand_beside_the_clip(clips):
    """The talker is louder where he is said to speak; the suppressors' delay is taken off, in a run's first clip as in
    its last."""
    blocks = direction.HOPS // direction.HOPS_PER_BLOCK
    louder = []
    for i in range(len(clips)):
        mics, active = clips.excerpt(i, 0, blocks, False)
        about = clips.about[i]
        assert active.any() == (about["kind"] != "nobody")
        if about["kind"] == "phrase" and about["snr"] > 15 and about["ser"] is None:
            power = (mics[0].astype(float).reshape(blocks, -1) ** 2).mean(1)
            louder.append(10 * np.log10(power[active].mean() / power[~active].mean()))
    assert len(louder) > 3 and min(louder) > 3, louder
    for i in (0, direction.RUN - 1):
        (mic, *_), _ = clips.excerpt(i, 0, blocks, False)
        (clean, *_), _ = clips.excerpt(i, 0, blocks, True)
        assert find_delay(mic.astype(float), clean.astype(float), 4096) == 0


def test_a_batch_holds_both_kinds_in_the_network_s_units(clips):
    batch = direction.batch(clips, np.random.default_rng(SEED), 16, 1.2, raw=0.5, gain_db=(-8, 8))
    assert batch["mics"].shape == (16, 3, 40 * engine.BLOCK) and batch["active"].shape == (16, 40)
    assert np.array_equal(batch["mics"], np.round(batch["mics"])) and np.abs(batch["mics"]).max() <= 32767
    assert ((batch["heading"] >= 0) & (batch["heading"] < 360)).all()


def test_clips_go_on_where_they_stopped_and_another_suppressor_gets_its_own(
    clips, corpus, bank, library_path, tmp_path
):
    half = corpus, bank, tmp_path, direction.RUN, SEED, "train", library_path
    direction.direction_clips(*half, PARAMS / "ns.safetensors")
    whole = corpus, bank, tmp_path, 2 * direction.RUN, SEED, "train", library_path
    again = direction.direction_clips(*whole, PARAMS / "ns.safetensors")
    for i in (0, 2 * direction.RUN - 1):
        for suppressed in (False, True):
            a, b = (c.excerpt(i, 5, 60, suppressed) for c in (clips, again))
            assert np.array_equal(a[0], b[0]) and np.array_equal(a[1], b[1])
    with pytest.raises(FileNotFoundError):
        direction.DirectionClips(tmp_path, PARAMS / "naec.safetensors")
