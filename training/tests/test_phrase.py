"""Another wake phrase: what is said of it beforehand, what it is trained on, and the network it begins with."""

import argparse
import json

import numpy as np
import pytest
import torch

from params import keyword_table
from training import data, export, tasks
from training.__main__ import configuration
from training.models import kws, kws_tables
from training.shared import PARAMS
from training.syllables import decoder, linter, phonetics, texts
from training.syllables.inventory import Phrase, inventory, shipped

OTHER = Phrase.of("xiao hu xian sheng")


@pytest.mark.parametrize(
    "phrase, verdict, said",
    [
        ("xiao hu xian sheng", "good", '"xian sheng", said every day, is in it: 2 syllables tell it apart'),
        ("ling dang ling dang", "good", '"dang" has'),
        ("xiao hu", "fair", "2 syllables are in much of what is said"),
        ("dang dang", "poor", "the same syllable twice in a row"),
        ("da kai", "poor", "is said every day"),
        ("xiao hu da kai", "good", '"da kai", said every day, is in it'),
        ("hu da kai", "poor", "1 syllables tell it apart"),
        ("xiao bai ni hao", "cannot be trained", "'bai'; the nearest: "),
        ("ling", "cannot be trained", "1 syllables: expected 2 to 8"),
        ("ling " * 9, "cannot be trained", "9 syllables: expected 2 to 8"),
        ("xyz \x1b[2J", "cannot be trained", "no syllable '\\x1b[2j'"),
    ],
)
def test_the_linter_says_how_good_a_phrase_is(phrase, verdict, said):
    report = linter.report(" ".join(phrase.lower().split()))
    assert report.splitlines()[0].endswith(f": {verdict}") and said in report
    if verdict == "cannot be trained":
        with pytest.raises(argparse.ArgumentTypeError):
            linter.checked(phrase)
    else:
        assert linter.checked(phrase) == phrase


def test_neighbours_differ_in_one_sound_or_two():
    near = phonetics.neighbours("ling", inventory(), 200)
    assert {"lin", "ning", "leng", "ding", "li"} <= set(near) and not {"dang", "ling", "hao", "shu"} & set(near)
    assert phonetics.distance("shan", "san") == 1 and phonetics.distance("shan", "shang") == 1
    assert all(phonetics.distance(a, b) == phonetics.distance(b, a) for a in ("yi", "zhong", "er") for b in inventory())


@pytest.mark.parametrize("text", ["xiao hu xian sheng", "hai shi", "xiao fang xiao fang xiao ming kai fa"])
def test_near_misses_of_any_phrase_are_not_the_phrase(text):
    rng, known, phrase = np.random.default_rng(1), list(range(1, 145)), Phrase.of(text)
    seen = set()
    for _ in range(400):
        said, pause = texts.near_miss(rng, known, phrase)
        assert said and (pause is not None) == phrase.is_in(said)
        seen.add(tuple(said))
    assert len(seen) > 60
    close = 0
    for _ in range(400):
        wrong = [(i, c) for i, c in enumerate(texts.one_off(rng, known, phrase)) if c != phrase.said[i]]
        close += bool(wrong) and all(c in phrase.like(i) for i, c in wrong)
    assert close > 240


def test_the_shipped_file_comes_back_from_the_network_that_is_started_with_it():
    """Multipliers may differ by one in 24 bits."""
    tables, model = export.read(PARAMS / "kws.safetensors"), kws.SyllableNetwork()
    kws_tables.load(model, tables)
    again = export.fit("kws", model.tables())
    for name, values in tables.items():
        difference = np.abs(values.astype(np.float64) - again[name])
        assert difference.max() <= (1 if name == "chinese_fix_param" else 0), name


def test_a_phrase_brings_its_recipe_and_writes_a_folder_to_build_with(tmp_path):
    parser = argparse.ArgumentParser()
    data.of("kws").Scenes.add_options(parser)
    arguments = parser.parse_args(["--phrase", " Xiao hu  xian sheng"])
    with pytest.raises(SystemExit):
        parser.parse_args(["--phrase", "xiao hu xian sheng", "--phrase", "ling dang ling dang"])
    arguments.config = arguments.start = arguments.params = None
    arguments.out, arguments.library = tmp_path, None
    arguments.smoke = True
    assert data.of("kws").Scenes.settle(arguments) == "kws-xiao_hu_xian_sheng"
    assert (
        arguments.start == PARAMS / "kws.safetensors" and arguments.params == tmp_path / "params-kws-xiao_hu_xian_sheng-smoke"
    )
    config = configuration("kws", arguments.config, True) | data.of("kws").Scenes.recorded(arguments)
    task = tasks.create("kws", config, data.of("kws").Stub(config))
    task.write_beside(tmp_path)
    (entry,) = keyword_table.read(tmp_path / "keywords.json", inventory())
    assert (entry["phrase"], entry["divisor"]) == (OTHER.text, 4.0)
    assert {p.name for p in tmp_path.glob("*.safetensors")} == {p.name for p in PARAMS.glob("*.safetensors")}
    assert json.loads(json.dumps(task.metadata()))["phrase"] == OTHER.text


def test_the_decoder_s_score_is_of_the_phrase_that_is_asked_for():
    p = torch.full((1, 40, 146), 1e-4)
    p[..., -1] = 0.9
    for i, c in enumerate(OTHER.said):
        p[0, 8 + 6 * i, c], p[0, 8 + 6 * i, -1] = 0.9, 0.05
    score = decoder.scores(p.log(), OTHER.said)[0]
    assert decoder.cost(score.amax(), 4.0) < 0.6
    assert decoder.cost(decoder.scores(p.log(), shipped.said)[0].amax()) > 2


def test_the_voices_say_the_phrase_once_and_are_then_heard(tmp_path, monkeypatch):
    """By the recipe's number of lines; a folder that somebody names himself and that is none is an error."""
    scenes, called = data.of("kws"), []

    def run(command, check):
        called.append([str(part) for part in command[1:]])
        folder = command[2]
        folder.mkdir()
        (folder / "manifest.csv").write_text("path,speaker,pinyin,ends,split\n1.wav,neural a,xiao hu xian sheng,,train\n")
        (folder / "1.wav").write_bytes(b"")

    monkeypatch.setattr(scenes.subprocess, "run", run)
    arguments = argparse.Namespace(data=None, out=tmp_path, voices=tmp_path / "said", library=None)
    config = {"phrase": OTHER.text, "data": {"voice_lines": 6}}
    for _ in range(2):
        spoken = scenes.Scenes(config, arguments)
        spoken.say()
        assert [c for c in spoken.corpus.clips("mandarin", "train") if c.pinyin == OTHER.text]
    assert called == [["voices", str(tmp_path / "said"), "--phrase", OTHER.text, "--lines", "6"]]
    arguments.voices = tmp_path / "nowhere"
    with pytest.raises(SystemExit, match="no manifest.csv"):
        scenes.Scenes({"data": {}}, arguments).corpus  # noqa: B018
