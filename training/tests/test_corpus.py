import json
import shutil

import numpy as np
import pytest
import soundfile
import tomllib
from conftest import ROOT, SEED

from training import synthetic
from training.corpus import DEFAULT_DESCRIPTION, ROLES, SPLITS, hashed_split, open_corpus
from training.scenes.audio import RATE


def speakers(corpus, split, roles=("near", "far")):
    return {clip.speaker for role in roles for clip in corpus.clips(role, split)}


def assert_disjoint(corpus):
    for roles in (("near", "far", "mandarin"), ("noise",), ("music",)):
        train, valid, test = (speakers(corpus, split, roles) for split in SPLITS)
        assert not train & valid and not train & test and not valid & test


def test_no_speaker_and_no_noise_is_in_two_splits(corpus, tmp_path):
    assert_disjoint(corpus)
    assert speakers(corpus, "test") == {"s10", "s11"}
    synthesised = open_corpus(None, tmp_path)
    assert_disjoint(synthesised)
    for split in SPLITS:
        for role in ROLES:
            assert synthesised.clips(role, split), (role, split)


def test_a_speaker_in_two_splits_is_refused(audio, tmp_path):
    root = tmp_path / "audio"
    shutil.copytree(audio, root)
    (root / "corpus.toml").write_text('[[set]]\nclips = ["speech/*_0"]\nsplit = "test"\nroles = ["near"]\n', encoding="utf-8")
    with pytest.raises(ValueError, match="two splits"):
        open_corpus(root, tmp_path / "cache")


def test_new_speakers_move_nobody_and_shares_are_80_10_10_within_2_percent():
    names = [f"speaker {i}" for i in range(4000)]
    splits = [hashed_split(SEED, name) for name in names]
    for split, share in zip(SPLITS, (0.8, 0.1, 0.1)):
        assert abs(splits.count(split) / len(splits) - share) < 0.02
    assert splits[:10] == [hashed_split(SEED, name) for name in names[:10]]


def test_clips_flagged_for_it_are_left_out_of_the_role_only(corpus):
    assert not any("clipped" in c.flags for c in corpus.clips("near", "train"))
    assert any("clipped" in c.flags for c in corpus.clips("far", "train"))


def test_sources_of_the_sample_recording_are_held_out():
    scene = json.loads((ROOT / "samples/living_room.json").read_text(encoding="utf-8"))
    used = {s["file"].removesuffix(".wav") for part in scene["sources"].values() for s in part}
    description = tomllib.loads(DEFAULT_DESCRIPTION.read_text(encoding="utf-8"))
    assert used <= set(description["held_out"]["clips"])


def test_held_out_clips_are_in_no_split(audio, tmp_path):
    description = tmp_path / "held.toml"
    description.write_text('[held_out]\nclips = ["speech/s00_1"]\n', encoding="utf-8")
    corpus = open_corpus(audio, tmp_path, SEED, description)
    paths = {c.path for role in ROLES for split in SPLITS for c in corpus.clips(role, split)}
    assert "speech/s00_1.wav" not in paths and "speech/s00_0.wav" in paths


def test_stereo_44100_flac_is_read_as_16k_mono_within_1_percent(tmp_path):
    rate, n = 44100, 44100
    t = np.arange(n) / rate
    left = 0.4 * np.sin(2 * np.pi * 440 * t)
    (tmp_path / "voices/anna").mkdir(parents=True)
    soundfile.write(tmp_path / "voices/anna/a.flac", np.stack([left, 0 * left], 1), rate)
    corpus = open_corpus(tmp_path, tmp_path / "cache")
    (clip,) = [c for split in SPLITS for c in corpus.clips("near", split) if "synthetic" not in c.path]
    assert clip.speaker == "voices/anna"
    x = corpus.read(clip)
    expected = 0.2 * np.sin(2 * np.pi * 440 * np.arange(RATE) / RATE)
    assert x.dtype == np.float32 and len(x) == RATE
    inner = slice(RATE // 10, -RATE // 10)
    assert np.abs(x[inner] - expected[inner]).max() < 0.002


def test_digest_changes_with_content_and_split(audio, tmp_path):
    first = open_corpus(audio, tmp_path, SEED).digest()
    assert open_corpus(audio, tmp_path / "elsewhere", SEED).digest() == first
    other = tmp_path / "audio"
    shutil.copytree(audio, other)
    soundfile.write(other / "noise/3.wav", np.zeros(RATE), RATE)
    assert open_corpus(other, tmp_path, SEED).digest() != first


@pytest.mark.skipif(not synthetic.available(), reason="needs espeak-ng")
def test_synthetic_voices_differ_and_repeat(tmp_path):
    corpus = open_corpus(None, tmp_path)
    a, b = corpus.clips("near", "train")[:2]
    first = corpus.read(a)
    assert 0.5 * RATE < len(first) < 15 * RATE and np.abs(first).max() > 0.3
    assert len(first) != len(corpus.read(b))
    again = open_corpus(None, tmp_path / "again").read(a)
    assert np.array_equal(first, again)
