"""What the wake-up network learns from, and the decoder's score it is trained on."""

import numpy as np
import pytest
import soundfile
import tomllib
import torch

from training import engine
from training.device_facts import BLANK, CLASSES, FRAMES_PER_BLOCK
from training.library import WakeUp
from training.models import features, kws
from training.neural_voices import __main__ as speech
from training.neural_voices import lines
from training.scenes.audio import RATE
from training.shared import ROOT
from training.syllables import batch, cutting, decoder, inventory, phonetics, spectra, splicing, texts, waves
from training.syllables import confusions as confusion
from training.tasks import kws as task

torch.set_num_threads(1)


def test_spectra_are_those_of_the_engine_s_features():
    """Same frames, windows and filters; and levels read off them are those of the wave."""
    rng = np.random.default_rng(1)
    x = np.float32(0.05 * rng.standard_normal(4 * 480 * 10))
    mel = np.log(spectra.power(x, spectra.FEATURE_HOP) @ spectra.mel())
    # A frame here is centred on its time; the engine's ends with its block, 40 samples earlier.
    wave = torch.from_numpy(np.concatenate([x[40:], np.zeros(40, np.float32)]) * 32768)
    expected = features.log_mel(wave, kws.MEL_HISTORY).numpy()
    assert np.abs(mel[3 : len(expected) - 3] - expected[3:-3]).max() < 1e-3
    level = 10 * np.log10((np.exp(mel) @ spectra.level_weights()).mean())
    assert abs(level - 20 * np.log10(0.05)) < 1.5  # some of white noise lies outside the bands


def test_a_voice_s_formants_and_pitch_move_by_the_factors_asked_for():
    k = np.arange(spectra.BINS)
    log_power = 10 + 6 * np.exp(-(((k - 60) / 12) ** 2)) + np.cos(2 * np.pi * k / 5)  # one formant, harmonics 5 bins apart
    bent = log_power @ spectra.voice(1.2, 0.8, 1.0)
    smooth = spectra.envelope() @ bent
    assert abs(int(smooth[20:150].argmax()) + 20 - 72) <= 2
    comb = np.abs(np.fft.rfft((bent - smooth)[40:200] * np.hanning(160)))
    assert 160 / comb.argmax() == pytest.approx(5 * 0.8, rel=0.03)


class Everything:
    """Every class, said by one speaker."""

    def __init__(self):
        self.syllables = {"s": {c: [c] for c in range(145)}}
        self.frequency, self.phrase = np.full(145, 1 / 144), inventory.Phrase()
        self.frequency[0] = 0

    def choose(self, rng, speaker, syllable):
        return syllable


def test_what_is_nearly_the_phrase_is_not_the_phrase():
    rng, known = np.random.default_rng(2), list(range(145))
    seen = set()
    for _ in range(500):
        said, pause = texts.near_miss(rng, known)
        assert pause == 1 and tuple(said) == inventory.PHRASE or not inventory.shipped.is_in(said)
        seen.add(tuple(said))
    a, b = inventory.LING, inventory.DANG
    assert {(a, b, a), (b, a, b, a), (a, b, b, a)} <= seen  # the decoder's own weak spots are among them


def test_near_misses_that_wake_come_again():
    a, b, lin, da = inventory.LING, inventory.DANG, *inventory.classes_of(["lin", "da"])
    confusions, rng = confusion.Confusions(inventory.shipped), np.random.default_rng(7)
    for _ in range(100):
        confusions.heard([7, a, b, lin, b], woke=True)
        confusions.heard([a, da, a, da], woke=False)
        confusions.heard([lin, da, a, b], woke=True)  # two wrong ones: nothing to learn
    assert confusions.rates[2, lin] > 0.9 and confusions.rates[[1, 3], da].max() < 0.01
    assert confusions.rates[0, lin] == confusions.rates[0, inventory.classes_of(["ning"])[0]]
    drawn = [confusions.draw(rng, 2, [lin, da]) for _ in range(500)]
    assert drawn.count(lin) > 400
    said = [texts.one_off(rng, list(range(1, 145)), confusions=confusions) for _ in range(2000)]
    wrong = [s[2] for s in said if s[2] != a and s[0] == a]
    assert wrong.count(lin) > 0.05 * len(wrong) and all(tuple(s) != inventory.PHRASE for s in said if len(set(s)) > 2)


def test_syllables_may_be_said_once_they_have_been_heard():
    """Windows lie around the syllables' ends, in order, and the last one inside the utterance."""
    rng = np.random.default_rng(3)
    for _ in range(50):
        pieces = None
        while pieces is None:
            pieces = texts.joined(rng, Everything(), "s", list(inventory.PHRASE), 345)
        labels, first, last, _, certain = batch.alignment(pieces, 120)
        ends = [(p.begin + p.frames) / FRAMES_PER_BLOCK for p in pieces]
        assert labels == list(inventory.PHRASE) and certain
        assert all(l - batch.LATE == int(e) for l, e in zip(last, ends))
        for f, e, piece in zip(first, ends, pieces):
            assert int(e) - f == batch.EARLY or piece.frames > 10 * FRAMES_PER_BLOCK and e - f < 0.5 * piece.frames
        assert first == sorted(first) and last[-1] < 120


def test_what_is_said_as_a_whole_keeps_its_syllables_places():
    """Whatever its tempo becomes, and whatever is said around it."""
    rng, voices = np.random.default_rng(5), Everything()
    ends, others = [0.2, 0.5, 0.8, 1.0], [7, 8]
    voices.pieces = [["s", 0, 200, list(inventory.PHRASE), ends, 0], ["s", 200, 90, others, [0.5, 1.0], 0]]
    voices.words, voices.seconds = {"s": [1]}, lambda number: voices.pieces[number][2] / 200
    longer = 0
    for _ in range(60):
        pieces = texts.words(rng, voices, "s", 345, core=0)
        labels, _, last, _, certain = batch.alignment(pieces, 120)
        at = labels.index(inventory.LING)
        assert certain and labels[at : at + 4] == list(inventory.PHRASE) and labels.count(inventory.LING) == 2
        core = next(p for p in pieces if p.number == 0)
        assert 1 / texts.TEMPO_FACTORS[1] <= core.frames / 100 <= 1 / texts.TEMPO_FACTORS[0] + 1e-9
        assert [l - batch.LATE for l in last[at : at + 4]] == [int((core.begin + e * core.frames) / 3) for e in ends]
        longer += len(pieces) > 1
    assert 10 < longer < 50


@pytest.mark.parametrize(
    "name, expected",
    [
        ("liang", ("l", "iang", "i")),
        ("zhuang", ("zh", "uang", "u")),
        ("ying", ("", "ing", "i")),
        ("shi", ("sh", "i", "-")),
        ("xu", ("x", "v", "v")),
        ("ang", ("", "ang", "a")),
    ],
)
def test_syllables_fall_into_initial_and_final(name, expected):
    assert phonetics.parts(name) == expected


class Recordings:
    """Syllables as noise-free spectra: a consonant, a vowel, an ending, each one band of frequency."""

    BANDS = {"l": 50, "i": 110, "a": 190, "n": 150, "e": 80}

    def __init__(self, **pieces):
        classes = inventory.inventory()
        self.spectra = [
            np.concatenate([self.sound(s, 20 if i else 8) for i, s in enumerate(sounds)]) for sounds in pieces.values()
        ]
        self.pieces = [["s", 0, len(x), [classes[name]], 0] for name, x in zip(pieces, self.spectra)]
        self.syllables = {"s": {classes[name]: [i] for i, name in enumerate(pieces)}}

    def sound(self, name, frames):
        k = np.arange(spectra.BINS)
        level = 12 if name in "iae" else 6  # vowels are loudest
        return np.tile(np.float32(level - ((k - self.BANDS[name]) / 30) ** 2).clip(-6), (frames, 1))

    def at(self, piece, frames):
        return self.spectra[piece][np.clip(frames, 0, len(self.spectra[piece]) - 1).astype(int)]


def test_a_splice_begins_as_one_syllable_and_ends_as_the_other():
    voices = Recordings(li="li", nin="nin", lang="lan")
    rng, classes = np.random.default_rng(4), inventory.inventory()
    splices = splicing.Splices(voices, classes)
    splice = splices.choose(rng, "s", classes["lin"])
    assert (splice.head, splice.tail) == (0, 1)
    heard = splices.rows(splice, np.linspace(0, 0.999, splice.frames)).argmax(1)
    changes = heard[np.flatnonzero(np.diff(heard, prepend=-1))]
    assert abs(changes - [Recordings.BANDS[s] for s in "lin"]).max() <= 1
    assert splices.choose(rng, "s", classes["ling"]) is None  # nobody ends in "ing"
    assert splices.choose(rng, "s", classes["nang"]) is None  # "nin" and "lang" have no vowel in common


def test_ing_may_have_a_schwa_before_its_nasal(monkeypatch):
    monkeypatch.setattr(splicing, "SCHWA_SHARE", 1.0)
    monkeypatch.setattr(splicing, "SCHWA_FADE", (2, 3))
    voices = Recordings(li="li", leng="len")
    rng, classes = np.random.default_rng(5), inventory.inventory()
    splices = splicing.Splices(voices, classes)
    splice = max((splices.choose(rng, "s", classes["ling"]) for _ in range(20)), key=lambda s: s.leave)
    heard = splices.rows(splice, np.linspace(0, 0.999, splice.frames)).argmax(1)
    heard = heard[[0, splice.leave - 2, splice.leave + 2, -1]]  # on either side of the glide
    assert abs(heard - [Recordings.BANDS[s] for s in "lien"]).max() <= 1
    assert splices.choose(rng, "s", classes["lin"]) is None  # "-in" has none


def test_words_are_cut_where_their_syllables_end():
    classes = [inventory.LING, inventory.LING, inventory.DANG]
    places, p = [10, 17, 24], said([10, 17, 24], classes=[inventory.LING, inventory.LING, inventory.DANG])[0].exp().numpy()
    assert [step for step, _ in cutting.last_steps(p, classes)] == places
    assert cutting.last_steps(p[:2], classes) is None
    log_mel = np.repeat([[1.0, 5.0], [3.0, 2.0]], [40, 60], axis=0)
    assert cutting.boundary(log_mel, 0.22) == pytest.approx(0.2)


def test_a_synthesiser_s_attention_tells_where_syllables_end():
    """Though after a pause has begun it may rest on the end of the line."""
    chain, row = 2, [11, 40, 72, 2, 7, 33, 75, 2, 131, 2, 15, 47, 72, 2, 1, 0]  # two syllables, a pause, another one
    symbols = [0, 1, 1, 2, 4, 5, 6, 6, 8, 15, 15, 10, 11, 12, 12]
    attention = np.eye(len(row))[symbols]
    found, rests = speech.spans(attention, row, chain)
    assert [found[n] for n in (0, 1)] == [(0, 4), (4, 8)] and found[3] == (11, 15)
    samples = np.zeros(15 * speech.SPEECH_HOP)
    some = list(speech.clips(np.tile(samples, 10), np.repeat(attention, 10, 0), row, [["a1", "b2"], ["c3"]], chain))
    assert [said for said, _, _ in some] == [["a1", "b2"], ["c3"]]
    assert some[0][2] == pytest.approx([n * 10 * speech.SPEECH_HOP / speech.SPEECH_RATE for n in (4, 8)])


@pytest.mark.parametrize(
    "text, groups", [("ling dang ling dang", 3), ("da kai", 6), ("xiao hu xian sheng", 3), ("xiao hu " * 4, 1)]
)
def test_lines_for_a_synthesiser_are_equally_long_and_say_what_they_claim(text, groups):
    known, phrase = sorted(inventory.inventory()), inventory.Phrase.of(text)
    source = lines.Lines(np.random.default_rng(1), [["ling2", "mu4"], ["ma1"] * 20], known, phrase)
    said = lambda group: " ".join(s[:-1] for s in group)
    phrases = 0
    for _ in range(300):
        line = source.line()
        assert len(line) == groups and sum(map(len, line)) == groups * len(phrase.said) <= lines.SYLLABLES
        phrases += sum(said(group) == phrase.text for group in line)
        assert all(s[:-1] in known and s[-1] in "12345" for group in line for s in group)
    assert phrases > 50
    nearly = [said(source.near_miss()) for _ in range(300)]
    assert phrase.text not in nearly and len(set(nearly)) > 50


def test_a_voice_too_loud_to_have_formants_is_left_out(tmp_path, capsys):
    """Of the folder's manifest, not of its own."""
    for name, rms in (("Quiet", 0.1), ("Loud", 0.4), ("None", None)):
        rows = [] if rms is None else [{"path": f"{name}.wav", "speaker": f"neural {name}"}]
        if rows:
            soundfile.write(tmp_path / f"{name}.wav", np.tile([rms, -rms], 800), RATE)
        speech.write(tmp_path / f"{name}.csv", rows)
    for _ in range(2):
        speech.together(tmp_path)
        assert "neural Quiet" in (text := (tmp_path / "manifest.csv").read_text()) and "Loud" not in text
    assert "Loud: -8 dBFS, dropped" in capsys.readouterr().err and "Loud" in (tmp_path / "Loud.csv").read_text()


def test_invented_voices_hold_nothing_of_those_they_are_kept_from():
    unit = lambda name: np.array(speech.speaker(name)) / np.linalg.norm(speech.speaker(name))
    held_out, named = [np.stack([unit(v) for v in voices]) for voices in (speech.HELD_OUT, speech.VOICES)]
    for n in range(5):
        invented, unknown = unit(f"Invented{n:03}"), unit(f"Unknown{n:03}")
        assert np.abs(held_out @ invented).max() < 1e-9 and np.abs(named @ unknown).max() < 1e-9
        assert abs(invented @ unknown) < 1e-9 and np.abs(named @ invented).max() > 0.1
    split = tomllib.loads((ROOT / "training/corpora/default.toml").read_text())["speakers"]
    kept = {name.removeprefix("neural ") for name in split["valid"] + split["test"] if name.startswith("neural ")}
    assert kept == set(speech.HELD_OUT)
    assert np.allclose(speech.speaker("Aida+Aiqi"), np.mean([speech.speaker("Aida"), speech.speaker("Aiqi")], 0))


def said(places, steps=40, classes=inventory.PHRASE):
    """Log posteriors of a network that says `classes` at `places` and is silent elsewhere."""
    p = torch.full((1, steps, CLASSES), 1e-4)
    p[..., BLANK] = 0.98
    for c, t in zip(classes, places):
        p[0, t, BLANK], p[0, t, c] = 0.02, 0.97
    return decoder.merged((p / p.sum(-1, keepdim=True)).log())


def test_the_losses_want_what_the_device_needs():
    """The phrase early, or in the wrong place, costs; so does a wake on anything else."""
    places = [10, 17, 24, 31]
    example = {
        "labels": torch.tensor([inventory.PHRASE]).float(),
        "first": torch.tensor([places]) - batch.EARLY,
        "last": torch.tensor([places]) + batch.LATE,
        "certain": torch.ones(1),
        "kind": torch.tensor([batch.KINDS.index("phrase")]),
    }
    in_time, early = said(places), said([t - 4 for t in places])
    assert task.ctc(in_time, example) < 0.5 < task.ctc(early, example)
    assert task.cross_entropy(in_time, example) < task.cross_entropy(early, example)
    missed, false = task.hinge(*decoder.scores(in_time), example, 0.3, 1e-4)
    assert missed == 0 and false == 0
    example["kind"] = torch.tensor([batch.KINDS.index("near miss")])
    assert task.hinge(*decoder.scores(in_time), example, 0.3, 1e-4)[1] > 1


def test_the_score_is_the_decoder_s(library_path):
    """On the sample recording, step by step: what is trained is what decides."""
    mic, rate = soundfile.read(ROOT / "samples/living_room.flac", dtype="int16")
    wave = np.ascontiguousarray(mic[:, 0] if mic.ndim > 1 else mic)[: 12 * RATE]
    assert rate == RATE
    posteriors, scores = [], []
    with WakeUp(engine.load(library_path, {})) as listening:
        listening.word.thres = -np.inf  # a wake would clear what is compared
        for _ in listening.steps(wave):
            posteriors.append(listening.data.posteriors())
            scores.append(listening.word.score())
            listening.word.thres = -np.inf
    p = torch.tensor(posteriors)  # the filler's share is in the blank's already
    ours = decoder.scores(torch.log(p.clamp_min(1e-30))[None])[0][0].numpy()
    assert len(scores) > 100 and np.allclose(ours, scores, rtol=1e-3, atol=1e-12)


@pytest.mark.parametrize("tempo", [0.5, 0.8, 1.3])
def test_another_tempo_keeps_the_pitch(tempo):
    t = np.arange(8000) / RATE
    x = np.float32(sum(np.sin(2 * np.pi * 150 * k * t) / k for k in range(1, 6)))
    y = waves.time_scaled(x, int(len(x) * tempo))
    assert len(y) == int(len(x) * tempo)
    spectrum = np.abs(np.fft.rfft(y[400:-400] * np.hanning(len(y) - 800)))
    assert abs(spectrum.argmax() * RATE / (len(y) - 800) - 150) < 6
