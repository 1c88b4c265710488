"""The operating point of a phrase that was trained for, and its card."""

import numpy as np
import pytest

from training.device_facts import RATE
from training.evaluate import listening, new_phrase
from training.syllables.inventory import Phrase

OTHER = Phrase.of("xiao hu xian sheng")
NATS = [-1.0, 0.0, 1.0]
WAVE = np.zeros(36 * RATE, np.int16)  # a hundredth of an hour


def found(said, nearly, without):
    """Rows where the device wakes at those operating points; each a list of utterances or stretches."""
    row = {"condition": "quiet", "end": 3.0, "speaker": "anna"}
    kept = {"fluent phrase": said, "one syllable off": nearly, "without": without}
    times = iter([[[3.2] if woke else [1.0] for woke in one] for some in kept.values() for one in some])
    return new_phrase.rows({what: [(WAVE, row)] * len(some) for what, some in kept.items()}, NATS, lambda wave: next(times))


def test_the_operating_point_hears_phrases_rather_than_near_misses_within_few_false_wakes():
    """What woke long before the phrase's end did not hear it; a stretch counts whenever the device woke."""
    rows = found([(0, 1, 1), (0, 0, 1)], [(0, 0, 1), (0, 0, 1), (0, 0, 0)], [(0, 0, 0)])
    assert [r["heard"]["value"] for r in rows] == [0.0, 0.5, 1.0] and rows[2]["nearly"]["n"] == 3
    assert rows[0]["false_wakes"]["hours"] == pytest.approx(0.01) and rows[0]["false_wakes"]["n"] == 1
    assert new_phrase.best(rows, 100) == 1  # 0.5 - 0 is more than 1 - 2/3
    assert "**+0.00** |  50.0 %" in new_phrase.table(rows, 1) and len(new_phrase.table(rows, 1).splitlines()) == 5


def test_where_no_operating_point_wakes_seldom_enough_the_fewest_false_wakes_count():
    rows = found([(0, 1, 1)], [(0, 0, 0)], [(0, 0, 0)])
    for row, n in zip(rows, (1, 2, 3)):
        row["false_wakes"] |= {"n": n, "value": 100.0 * n}
    assert [new_phrase.best(rows, most) for most in (10, 200, 1000)] == [0, 1, 1]


def test_a_card_holds_what_was_said_of_the_phrase_and_what_was_measured():
    row = {"condition": "quiet", "end": 3.0, "speaker": "anna"}
    times = iter([[3.2], []])
    figures = listening.table({"engine": listening.summary({"phrase": [(WAVE, row)] * 2}, lambda wave: next(times))})
    text = new_phrase.card(OTHER.text, "| nats |", figures, "### kws.safetensors")
    assert text.startswith(f'# "{OTHER.text}"\n') and "said every day" in text and "50.0 % (9.5 to 90.5) of 2" in text
