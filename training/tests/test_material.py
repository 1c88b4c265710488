"""What is listened to: for which phrase, by whose voices, of which split."""

import argparse
import csv

import numpy as np
import pytest
import soundfile
from conftest import SEED

from params import keyword_table
from training.corpus import open_corpus
from training.evaluate import listening, material, scenes
from training.scenes.audio import RATE
from training.shared import PARAMS
from training.syllables.inventory import Phrase, inventory, shipped

OTHER = Phrase.of("xiao hu xian sheng")
SAID = {"test": ("xiao hu xian sheng", "xiao lu xian sheng", "ling dang ling dang"), "valid": ("xiao hu xian sheng",)}


@pytest.fixture
def voices(tmp_path):
    """A folder as training/neural_voices makes it, beside any corpus."""
    folder = tmp_path / "made" / "tiger"
    folder.mkdir(parents=True)
    with open(folder / "manifest.csv", "w", newline="", encoding="utf-8") as f:
        rows = csv.writer(f)
        rows.writerow(("path", "speaker", "pinyin", "ends", "split"))
        for split, texts in SAID.items():
            for i, text in enumerate(texts):
                name = f"{split}{i}.wav"
                soundfile.write(folder / name, np.random.default_rng(i).uniform(-0.1, 0.1, RATE), RATE)
                rows.writerow((name, f"neural {split}", text, "0.2 0.4 0.6 0.8", split))
    return folder


def test_voices_beside_a_corpus_are_heard_as_if_they_lay_in_it(audio, voices, tmp_path):
    """As Mandarin alone, from where they lie; what was there before is as it was."""
    plain = open_corpus(audio, tmp_path / "cache", SEED)
    both = open_corpus(audio, tmp_path / "cache", SEED, voices=voices)
    (clip,) = both.clips("mandarin", "valid")
    assert clip.path == "neural_voices/tiger/valid0.wav" and clip.roles == ("mandarin",)
    assert np.array_equal(both.read(clip), soundfile.read(voices / "valid0.wav", dtype="float32")[0])
    assert both.digest() != plain.digest() and both.where(lambda c: c is clip).length(clip) == RATE
    assert both.used(("near", "noise"), "test") == plain.used(("near", "noise"), "test")
    alone = open_corpus(None, tmp_path / "cache", SEED, voices=voices)
    assert len([c for c in alone.clips("mandarin", "test") if "neural" in c.speaker]) == 3


def test_one_phrase_is_handed_down(audio, voices, tmp_path):
    corpus = open_corpus(audio, tmp_path / "cache", SEED, voices=voices)
    for phrase, count in ((OTHER, 1), (shipped, 1), (Phrase.of("da kai"), 0)):
        assert len(scenes.phrases(corpus, phrase)) == count
        left = scenes.without_phrases(corpus, phrase).clips("mandarin", "test")
        assert len(left) == 3 - count and phrase.text not in {c.pinyin for c in left}
    of = {what: listening.fluent(corpus, what, OTHER) for what in ("fluent phrase", "fluent near miss")}
    texts = {what: [c.pinyin for clips in found.values() for c in clips] for what, found in of.items()}
    assert texts == {"fluent phrase": ["xiao hu xian sheng"], "fluent near miss": ["xiao lu xian sheng"]}
    assert listening.speakers(corpus, OTHER) == []


def options(*arguments):
    parser = argparse.ArgumentParser()
    material.add_options(parser)
    return parser.parse_args(["--library", "libquibo.so", *map(str, arguments)])


def test_a_folder_of_parameters_says_what_it_listens_for(audio, bank, voices, tmp_path, monkeypatch):
    """Unless another phrase is asked for; a file alone listens for the shipped one. A split stands in for the test split."""
    monkeypatch.setattr(material, "load_bank", lambda _: bank)
    mine = tmp_path / "mine"
    mine.mkdir()
    (mine / "kws.safetensors").write_bytes((PARAMS / "kws.safetensors").read_bytes())
    keyword_table.write(mine / keyword_table.FILE, [keyword_table.keyword(OTHER.text.split())])
    common = "--data", audio, "--cache", tmp_path, "--voices", voices
    for params, phrase in ((mine, OTHER), (mine / "kws.safetensors", shipped)):
        of = material.Material.of(options(*common, "--params", params))
        assert of.phrase == phrase and len(of.others.clips("mandarin", "test")) == 2
    of = material.Material.of(options(*common, "--params", mine, "--phrase", "da  Kai", "--split", "valid"))
    assert of.phrase.text == "da kai" and of.tables and [c.pinyin for c in of.corpus.clips("mandarin", "test")] == [OTHER.text]
    assert of.rooms.draw(np.random.default_rng(1), "test") in bank.numbers("valid")


@pytest.mark.parametrize("text", ["xiao hu xian sheng", "da kai", "xiao fang xiao fang xiao ming kai fa"])
def test_utterances_of_any_phrase_are_what_their_set_says(corpus, text, monkeypatch):
    """Slow ones of eight syllables fit, too."""
    phrase = Phrase.of(text)

    class Clips:
        syllables = {"s": dict.fromkeys(inventory().values(), [0])}
        choose = staticmethod(lambda rng, speaker, syllable: 0)

    monkeypatch.setattr(listening.waves, "say", lambda clips, pieces, samples: np.zeros(samples))
    rng = np.random.default_rng(1)
    for what in ("phrase", "slow phrase", "one syllable off", "other order"):
        for _ in range(20):
            wave, said = listening.utterance(rng, Clips(), "s", what, phrase)
            paused = len(wave) > RATE * 0.9 and tuple(said) == phrase.said
            assert phrase.is_in(said) == (what in listening.PHRASES or (what == "other order" and paused))
