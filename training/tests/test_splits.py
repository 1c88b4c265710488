"""Nobody is trained on who is tested: every maker of scenes reads the recordings and rooms of its own split alone."""

import re
import types

import numpy as np
import pytest
import soundfile
import tomllib
from conftest import SEED

from training import __main__, data, tasks
from training.corpus import DEFAULT_DESCRIPTION, SPLITS, Corpus, open_corpus
from training.evaluate import direction as pointed
from training.evaluate import scenes, sets
from training.library import Library
from training.neural_voices.__main__ import MIXED, VOICES
from training.scenes import bank as banks
from training.scenes import cache, direction, noisy, playback
from training.scenes.audio import RATE
from training.shared import ROOT
from training.syllables import backgrounds, voices
from training.syllables.inventory import DANG, LING


class Read:
    """Splits of what is read while it is watched."""

    def __init__(self, monkeypatch, bank):
        self.clips, self.rooms = set(), set()
        read, responses = Corpus.read, banks.RoomBank.responses

        def watched_read(corpus, clip, *where):
            self.clips.add(clip.split)
            return read(corpus, clip, *where)

        def watched_responses(opened, room, source):
            self.rooms.add(next(split for split in SPLITS if room in bank.numbers(split)))
            return responses(opened, room, source)

        monkeypatch.setattr(Corpus, "read", watched_read)
        monkeypatch.setattr(banks.RoomBank, "responses", watched_responses)


@pytest.fixture
def spoken(audio, tmp_path):
    """The corpus with a syllable of Mandarin in each split beside it."""
    for folder in ("speech", "noise", "music"):
        (tmp_path / folder).symlink_to(audio / folder)
    description = (audio / "corpus.toml").read_text(encoding="utf-8")
    (tmp_path / "corpus.toml").write_text(description, encoding="utf-8")
    for split in SPLITS:
        folder = tmp_path / f"speech_cmn_{split}"
        folder.mkdir()
        x = 0.1 * np.random.default_rng(SEED).standard_normal(RATE)
        rows = "path,speaker,roles,split,pinyin\n"
        for name in ("ling", "dang"):
            soundfile.write(folder / f"{name}.wav", x, RATE)
            rows += f"{name}.wav,{split}_voice,mandarin,{split},{name}\n"
        (folder / "manifest.csv").write_text(rows, encoding="utf-8")
    corpus = open_corpus(tmp_path, tmp_path / "cache", SEED)
    return corpus.where(lambda clip: not clip.path.startswith("synthetic/"))


def makers(corpus, bank, library, split):
    rng = np.random.default_rng(SEED)
    return {
        "noisy speech": lambda: noisy.ns_batch(corpus, bank, rng, 8, 2.0, split),
        "playback": lambda: [playback.aec_clip(corpus, bank, rng, 6.0, split, kind) for kind in playback.SCENARIOS],
        "echo clips": lambda: cache.make_clip(corpus, bank, library, 6.0, SEED, split, 1),
        "calls": lambda: [direction.make_clip(corpus, bank, library, SEED, split, n) for n in range(4)],
        "voices": lambda: list(voices.pieces(corpus, split)),
        "backgrounds": lambda: list(backgrounds.recordings(corpus, split)),
    }


@pytest.mark.parametrize("split", SPLITS)
@pytest.mark.parametrize("maker", ["noisy speech", "playback", "echo clips", "calls", "voices", "backgrounds"])
def test_scenes_of_a_split_hear_nothing_of_another(maker, split, spoken, bank, library_path, monkeypatch):
    read = Read(monkeypatch, bank)
    makers(spoken, bank, Library(library_path), split)[maker]()
    assert read.clips == {split}
    assert read.rooms == ({split} if maker not in ("voices", "backgrounds") else set())


def test_scenes_that_networks_are_judged_by_are_all_of_the_test_split(spoken, bank, monkeypatch):
    read, rooms = Read(monkeypatch, bank), scenes.TestRooms(bank, len(bank))
    for _ in scenes.noisy_speech(spoken, rooms, 1):
        pass
    next(iter(scenes.playback(spoken, rooms, 1)))
    next(iter(scenes.called(spoken, 1)))
    scenes.noisy_talk(spoken, rooms, 1, 3.0)
    scenes.playback_alone(spoken, rooms, 1, 3.0)
    assert read.clips == {"test"} and read.rooms == {"test"}
    assert pointed.POINTED and set(sets.DIRECTION_CONDITIONS)  # the section has conditions to be judged in


def scenes_of_kws(spoken, bank, folder, **options):
    config = __main__.configuration("kws", None, smoke=True)
    config["data"] |= {"synthetic_voices": 1, **options}
    arguments = types.SimpleNamespace(library=None, out=folder, smoke=True, data=spoken.root, cutter=None, voices=None)
    found = data.of("kws").Scenes(config, arguments)
    found.corpus, found.bank = spoken, bank
    return found


@pytest.mark.parametrize("test_voices", [False, True])
def test_test_voices_are_trained_on_only_where_the_recipe_says_so(test_voices, spoken, bank, tmp_path, monkeypatch):
    """And are then among the sources that the card lists; they stay out of validation."""
    monkeypatch.setattr(voices.synthetic, "available", lambda: False)
    monkeypatch.setattr(data, "Progress", NoBar)
    monkeypatch.setattr(banks, "build_bank", lambda *_, **__: None)
    kws = scenes_of_kws(spoken, bank, tmp_path / "made", test_voices=test_voices)
    kws.prepare()
    heard = {split: set(kws.syllables(split)[0].syllables) for split in SPLITS}
    assert heard["train"] == {"train_voice", "test_voice"} if test_voices else {"train_voice"}
    assert heard["valid"] == {"valid_voice"} and heard["test"] == {"test_voice"}
    hours = sum(h for (_, folder), h in kws.sources().items() if folder == "speech_cmn_test")
    assert hours * 3600 == pytest.approx(2.0 if test_voices else 0.0)


class NoBar:
    def __init__(self, what):
        pass

    def __call__(self, done, of):
        pass

    def __enter__(self):
        return self

    def __exit__(self, *_):
        pass


def test_a_syllable_is_said_by_the_speaker_who_was_drawn(spoken, bank, tmp_path, monkeypatch):
    """Recorded or spliced: both halves are his own."""
    monkeypatch.setattr(voices.synthetic, "available", lambda: False)
    folder = voices.build(spoken, tmp_path, "train", SEED)
    one = voices.build(spoken, tmp_path, "test", SEED)
    both, rng = voices.Voices(folder, one), np.random.default_rng(1)
    for speaker in ("train_voice", "test_voice"):
        for syllable in (LING, DANG):
            for _ in range(10):
                piece = both.choose(rng, speaker, syllable)
                numbers = [piece] if isinstance(piece, int) else [piece.head, piece.tail]
                assert {both.pieces[n][0] for n in numbers} == {speaker}


def test_no_mixed_voice_has_a_part_in_one_that_is_held_out():
    """And all that the synthesiser says is in some split by name: a hash of a mixture's name would know no parts."""
    named = tomllib.loads(DEFAULT_DESCRIPTION.read_text(encoding="utf-8"))["speakers"]
    split_of = {name.removeprefix("neural "): split for split, names in named.items() for name in names if "neural " in name}
    assert set(split_of) == {*VOICES, *MIXED}
    for mixture in MIXED:
        assert {split_of[part] for part in mixture.split("+")} == {split_of[mixture]} == {"train"}
    assert sum(split == "test" for split in split_of.values()) == 5


def test_nobody_is_named_in_two_splits():
    named = tomllib.loads(DEFAULT_DESCRIPTION.read_text(encoding="utf-8"))["speakers"]
    everybody = [name for names in named.values() for name in names]
    assert len(everybody) == len(set(everybody)) and set(named) == set(SPLITS)


# ---- recipes ----------------------------------------------------------------------------------------------------------


RECIPES = (*tasks.NETWORKS, "kws_phrase")


def tables(config):
    """{table: its keys} of a configuration."""
    return {name: set(values) for name, values in config.items() if isinstance(values, dict)}


@pytest.mark.parametrize("network", RECIPES)
def test_a_recipe_says_nothing_that_nobody_reads(network):
    """A misspelt key would leave its default in force for a whole training; a smoke run changes what the real one has."""
    code = "".join(p.read_text(encoding="utf-8") for p in (ROOT / "training").rglob("*.py") if "tests" not in p.parts)
    config = tomllib.loads((ROOT / f"training/configs/{network}.toml").read_text())
    smoke = config.pop("smoke")
    for table, keys in tables(config).items():
        for key in keys:
            assert re.search(rf'"{key}"|\b{key}:|\b{key}=', code), f"{table}.{key}"
    for table, keys in tables(smoke).items():
        assert keys <= set(config[table]), table
    merged = __main__.configuration(network, None, smoke=True)
    assert tables(merged) == tables(config) and merged["train"]["steps"] < config["train"]["steps"]


@pytest.mark.parametrize("network", RECIPES)
def test_an_average_spans_less_than_the_schedule_s_end(network):
    """Of weights that still move apart no mean is to be taken: the last quarter of the steps at most."""
    config = __main__.configuration(network, None, smoke=False)
    for stage in ("train", "quantise"):
        if c := config.get(stage):
            assert 0 < c["average"] * c["save_every"] <= 0.25 * c["steps"]
            assert c["final_learning_rate"] < 0.1 * c["learning_rate"] and 0 < c["warm_up"] < 0.2
