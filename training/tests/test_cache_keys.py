"""What is kept is kept by the content it was made from: a change of any ingredient makes it anew, any other change does not."""

import ast
import importlib.util
import shutil

import numpy as np
import pytest
import soundfile
from conftest import ROOT, SEED

from training import cache_keys, synthetic
from training.corpus import SPLITS, open_corpus
from training.evaluate import listening
from training.scenes import bank as banks
from training.scenes import cache, direction
from training.scenes.audio import RATE
from training.syllables import backgrounds, cutting, voices


def made_from(maker, corpus, bank, library):
    """Ingredients of each cache, by its maker."""
    cutter = cutting.made_from(library, library)
    return {
        "echo": lambda: cache.made_from(corpus, bank, library, 2.0, SEED, "train"),
        "direction": lambda: direction.made_from(corpus, bank, library, SEED, "train"),
        "voices": lambda: voices.made_from(corpus, "train", SEED, 3, cutter),
        "backgrounds": lambda: backgrounds.made_from(corpus, bank, None, "train"),
        "listening": lambda: listening.made_from(corpus, bank, library),
    }[maker]()


MAKERS = ("echo", "direction", "voices", "backgrounds", "listening")
SPLIT_OF = dict.fromkeys(MAKERS, "train") | {"listening": "test"}


@pytest.fixture
def scene(audio, bank, library_path, tmp_path):
    """A corpus folder of its own with Mandarin in it, a library of its own; key(maker) opens them afresh."""
    root, library = tmp_path / "audio", tmp_path / "libquibo.so"
    shutil.copytree(audio, root)
    shutil.copy(library_path, library)
    say(root, "train", "anna", "ma")
    say(root, "test", "emil", "ma")

    class Scene:
        def __init__(self):
            self.root, self.library, self.bank = root, library, bank

        def key(self, maker):
            corpus = open_corpus(self.root, tmp_path / "cache", SEED)
            return cache_keys.digest(made_from(maker, corpus, self.bank, self.library))

    return Scene()


def say(root, split, speaker, pinyin, roles="mandarin"):
    """Adds a clip to the corpus; a corpus.toml of the folder above leaves it its manifest's roles and split."""
    folder = root / f"speech_{speaker}"
    folder.mkdir(exist_ok=True)
    soundfile.write(folder / "a.wav", 0.1 * np.random.default_rng(SEED).standard_normal(RATE // 2), RATE)
    row = f"path,speaker,roles,split,pinyin\na.wav,{speaker},{roles},{split},{pinyin}\n"
    (folder / "manifest.csv").write_text(row, encoding="utf-8")


def rewrite(path):
    """Other samples of the same number."""
    x, rate = soundfile.read(path)
    soundfile.write(path, 0.5 * x, rate)


@pytest.mark.parametrize("maker", MAKERS)
def test_nothing_is_made_anew_for_nothing(scene, maker):
    assert scene.key(maker) == scene.key(maker)


@pytest.mark.parametrize("maker", ("echo", "direction", "voices", "listening"))
def test_another_library_makes_anew_what_ran_through_it(scene, maker):
    """By its content: a copy elsewhere, written later, is the same one."""
    before = scene.key(maker)
    moved = scene.library.with_name("moved.so")
    shutil.move(scene.library, moved)
    scene.library = moved
    assert scene.key(maker) == before
    moved.write_bytes(moved.read_bytes() + b"\0")
    assert scene.key(maker) != before


@pytest.mark.parametrize(
    "maker, role",
    [(m, r) for m in ("echo", "direction", "listening") for r in ("near", "far", "noise", "music")]
    + [("backgrounds", r) for r in ("far", "noise", "music")]
    + [("voices", "mandarin"), ("listening", "mandarin")],
)
def test_other_recordings_make_anew_what_draws_from_them(scene, maker, role):
    before, corpus = scene.key(maker), open_corpus(scene.root, scene.root / "cache", SEED)
    rewrite(scene.root / corpus.clips(role, SPLIT_OF[maker])[0].path)
    assert scene.key(maker) != before


@pytest.mark.parametrize("maker", MAKERS)
def test_a_grown_corpus_throws_away_only_what_it_touches(scene, maker):
    before = scene.key(maker)
    say(scene.root, SPLIT_OF[maker], "berta", "ling")
    assert (scene.key(maker) != before) == (maker in ("voices", "listening"))
    before = scene.key(maker)
    say(scene.root, "valid", "carl", "ling", roles="near far mandarin")
    assert scene.key(maker) == before


def test_labels_count_where_they_are_heard(scene):
    before = {maker: scene.key(maker) for maker in MAKERS}
    say(scene.root, "train", "anna", "mo")
    assert {maker for maker in MAKERS if scene.key(maker) != before[maker]} == {"voices"}


@pytest.mark.parametrize(
    "maker, module, name, value",
    [
        ("echo", "scenes.playback", "SER", (-30.0, 10.0)),
        ("echo", "scenes.sources", "SPEEDS", ((9, 8),)),
        ("echo", "device_facts", "MIC_DELAY", 21),
        ("direction", "scenes.direction", "LEVEL", (-40.0, -14.0)),
        ("voices", "syllables.cutting", "SURE", 0.2),
        ("voices", "synthetic", "_SEED", 1),
        ("backgrounds", "syllables.backgrounds", "PIECE", 10.0),
        ("backgrounds", "models.features", "PRE_EMPHASIS", 0.9),
        ("listening", "evaluate.listening", "LEVEL", (-40.0, -19.0)),
        ("listening", "evaluate.scenes", "PEAK", 0.9),
    ],
)
def test_another_constant_of_the_recipe_makes_anew(scene, maker, module, name, value, monkeypatch):
    synthetic.made_from.cache_clear()
    before = scene.key(maker)
    monkeypatch.setattr(f"training.{module}.{name}", value)
    synthetic.made_from.cache_clear()
    assert scene.key(maker) != before
    monkeypatch.undo()
    synthetic.made_from.cache_clear()
    assert scene.key(maker) == before


def test_another_suppressor_or_feature_makes_only_features_anew(scene, monkeypatch, tmp_path):
    """Of the direction network's clips, which lie in the same folder."""
    parameters, clips = tmp_path / "ns.safetensors", scene.key("direction")
    parameters.write_bytes(b"one")
    before = direction.heard_from(None), direction.heard_from(parameters)
    parameters.write_bytes(b"two")
    assert direction.heard_from(None) == before[0] and direction.heard_from(parameters) != before[1]
    monkeypatch.setattr("training.models.features.GCC_FFT", 2048)
    assert direction.heard_from(None) != before[0] and scene.key("direction") == clips


def test_other_rooms_make_anew_what_uses_them_and_more_rooms_do_not(bank, tmp_path):
    few = banks.build_bank(tmp_path / "few", 12, SEED)
    numbers = few.numbers("train")
    assert few.contents(numbers) == bank.contents(numbers)
    assert few.contents(numbers) != bank.contents(bank.numbers("train"))
    other = banks.build_bank(tmp_path / "other", 12, SEED + 1)
    assert few.contents(numbers) != other.contents(numbers)


def test_a_bank_of_another_simulation_is_refused(tmp_path, monkeypatch):
    banks.build_bank(tmp_path, 2, SEED)
    monkeypatch.setattr(banks, "MIXING_TIME", 0.05)
    with pytest.raises(ValueError, match="another constants"):
        banks.build_bank(tmp_path, 2, SEED)


def test_clips_are_made_again_for_another_library_and_kept_for_the_first(scene, capsys, monkeypatch, tmp_path):
    """And a line says why."""
    corpus, made = open_corpus(scene.root, tmp_path / "cache", SEED), []
    make = cache.make_clip

    def counted(*arguments):
        made.append(arguments[-1])
        return make(*arguments)

    monkeypatch.setattr(cache, "make_clip", counted)
    monkeypatch.setattr("training.scenes.clip_store.ProcessPoolExecutor", InThisProcess)

    def clips():
        return cache.aec_cache(corpus, scene.bank, tmp_path / "aec", 2, 1.0, SEED, "train", scene.library)

    first = clips()
    assert clips().path == first.path and made == [0, 1]
    original = scene.library.rename(tmp_path / "original.so")  # which this process has mapped
    scene.library.write_bytes(original.read_bytes() + b"\0")
    assert clips().path != first.path and made == [0, 1, 0, 1]
    assert capsys.readouterr().err.splitlines()[-1].endswith(f"other than {first.path.name}: library")
    scene.library = original
    assert clips().path == first.path and len(made) == 4


class InThisProcess:
    """ProcessPoolExecutor of no process."""

    def __init__(self, jobs, initializer, initargs):
        initializer(*initargs)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        pass

    map = staticmethod(map)


def test_a_recording_that_is_replaced_is_converted_again(tmp_path):
    folder = tmp_path / "audio/speech_x"
    folder.mkdir(parents=True)
    soundfile.write(folder / "a.flac", np.full(RATE, 0.5), RATE)

    def heard():
        corpus = open_corpus(tmp_path / "audio", tmp_path / "cache", SEED)
        (clip,) = [c for s in SPLITS for c in corpus.clips("far", s) if c.speaker == "speech_x"]
        return corpus.read(clip).mean()

    assert heard() == pytest.approx(0.5, abs=1e-4)
    soundfile.write(folder / "a.flac", np.full(RATE, 0.25), RATE)
    assert heard() == pytest.approx(0.25, abs=1e-4)


def imported(module):
    """Modules of scenes/ that a module imports."""
    spec = importlib.util.find_spec(f"training.{module}")
    with open(spec.origin, encoding="utf-8") as f:
        imports = [n for n in ast.walk(ast.parse(f.read())) if isinstance(n, ast.ImportFrom)]
    names = set()
    for n in imports:
        base = importlib.util.resolve_name("." * n.level + (n.module or ""), spec.parent)
        names |= {base} | {f"{base}.{alias.name}" for alias in n.names}
    names = {n.removeprefix("training.") for n in names}
    return {n for n in names if n.startswith("scenes.") and (ROOT / f"training/{n.replace('.', '/')}.py").exists()}


@pytest.mark.parametrize("maker", [cache, direction, listening])
def test_no_module_of_scenes_is_forgotten_in_a_recipe(maker):
    """clip_store.py keeps what others make."""
    needed = set().union(*map(imported, maker.RECIPE))
    assert needed - {"scenes.clip_store"} <= set(maker.RECIPE)


def test_a_key_takes_values_and_no_addresses():
    value = {"a": np.arange(3), "b": ({1, 2}, None, banks.Recipe())}
    same = {"a": np.arange(3), "b": ({2, 1}, None, banks.Recipe())}
    assert cache_keys.digest(value) == cache_keys.digest(same)
    assert cache_keys.digest(value) != cache_keys.digest(dict(reversed(value.items())))  # draws go by a dict's order
    assert cache_keys.digest(imported) == cache_keys.digest(imported) != cache_keys.digest(rewrite)  # functions by name
    with pytest.raises(TypeError):
        cache_keys.digest(object())
