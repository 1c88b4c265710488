"""Clips of the direction network: headings, symmetries, what stands beside what."""

import numpy as np
import pytest
import torch
from conftest import SEED, plane_wave

from training import export
from training.device_facts import BLOCK, FRAMES_PER_BLOCK, RATE
from training.evaluate.alignment import find_delay
from training.evaluate.metrics import angle_error
from training.evaluate.peers import srp_phat
from training.models import doa
from training.scenes import clip_store, direction, mixing
from training.shared import PARAMS


@pytest.fixture(scope="module")
def clips(corpus, bank, library_path, tmp_path_factory):
    path, suppressor = tmp_path_factory.mktemp("direction"), PARAMS / "ns.safetensors"
    arguments = corpus, bank, path, 2 * direction.RUN, SEED, "train", library_path, suppressor
    return direction.direction_clips(*arguments)


ARRAYS = [(places, mirrored) for places in (0, 1, 2) for mirrored in (False, True)]


@pytest.mark.parametrize("places, mirrored", ARRAYS)
@pytest.mark.parametrize("heading", [20.0, 165.0, 290.0])
def test_a_turned_array_hears_what_a_source_at_the_new_heading_would_give(heading, places, mirrored):
    """Microphone by microphone, within 1e-9: one sign or one order wrong makes another wave."""
    order, new = direction.turned(heading, places, mirrored)
    assert np.abs(plane_wave(heading, SEED)[order] - plane_wave(new, SEED)).max() < 1e-9


@pytest.mark.parametrize("places, mirrored", ARRAYS)
def test_features_of_a_turned_array_are_those_of_its_own_recording(places, mirrored):
    """Rearranged features against the network's input made from rearranged microphones, within 1e-4, lag -20 and every
    microphone's energies included."""
    mics = np.int16(2000 * np.random.default_rng(SEED).standard_normal((3, 10 * BLOCK)))
    mics[1, 20:] = mics[0, :-20]  # as far apart as the lags reach
    order, _ = direction.turned(0.0, places, mirrored)
    rearranged = direction.arranged(direction.features_of(mics[None])[0], order)
    recorded = doa.inputs(torch.from_numpy(mics[order].astype(np.float32))[None])[0].numpy()
    assert np.abs(rearranged - recorded).max() < 1e-4


def test_labels_are_where_the_sound_comes_from(bank):
    """SRP-PHAT on noise through the rooms' responses: median within 5 degrees of the bank's heading."""
    noise = np.random.default_rng(SEED).standard_normal(RATE).astype(np.float32)
    errors = []
    for room in bank.numbers("train")[:12]:
        for place, source in (("talker", 0), ("noise 1", 2)):
            heard = srp_phat.heading(mixing.convolve(noise, bank.responses(room, place)))
            errors.append(angle_error(heard, bank.rooms["heading"][room][source]))
    assert np.median(errors) < 5, errors


def test_activity_and_suppressed_microphones_stand_beside_the_clip(clips, library_path):
    """The talker is louder where he is said to speak; the suppressors' delay is taken off, in a run's first clip as in
    its last."""
    mics = clip_store.ClipStore(clips.path, direction.fields).signals["mics"]
    blocks = direction.HOPS // FRAMES_PER_BLOCK
    louder = []
    for i, about in enumerate(clips.about):
        _, active = clips.excerpt(i, 0, blocks, False)
        assert active.any() == (about["kind"] != "nobody")
        if about["kind"] == "phrase" and about["snr"] > 15 and about["ser"] is None:
            mic = mics[i, 0, : blocks * BLOCK].astype(float)
            power = (mic.reshape(blocks, -1) ** 2).mean(1)
            louder.append(10 * np.log10(power[active].mean() / power[~active].mean()))
    assert len(louder) > 3 and min(louder) > 3, louder
    run = mics[: direction.RUN]
    cleaned = direction.suppressed(run, library_path, export.read(PARAMS / "ns.safetensors"))
    for i in (0, direction.RUN - 1):
        assert find_delay(run[i, 0].astype(float), cleaned[i, 0].astype(float), 4096) == 0


def test_clips_go_on_where_they_stopped_and_another_suppressor_gets_its_own(clips, corpus, bank, library_path, tmp_path):
    half = corpus, bank, tmp_path, direction.RUN, SEED, "train", library_path
    direction.direction_clips(*half, PARAMS / "ns.safetensors")
    whole = corpus, bank, tmp_path, 2 * direction.RUN, SEED, "train", library_path
    again = direction.direction_clips(*whole, PARAMS / "ns.safetensors")
    for i in (0, 2 * direction.RUN - 1):
        for suppressed in (False, True):
            a, b = (c.excerpt(i, 5, 60, suppressed) for c in (clips, again))
            assert np.array_equal(a[0], b[0]) and np.array_equal(a[1], b[1])
    other = direction.DirectionClips(again.path, PARAMS / "naec.safetensors", direction.RUN)
    with pytest.raises(FileNotFoundError):
        other.excerpt(0, 5, 60, True)
