"""Where a phrase was lost: on posteriors and costs made up for each case."""

import numpy as np
import pytest

from training.device_facts import BLANK, BLOCK, RATE
from training.evaluate import diagnosis
from training.syllables.inventory import PHRASE, inventory

END = 40 * BLOCK / RATE


def heard(said, sure=0.9, cost=5.0, at=36, blank=None):
    """One class per place, seven steps apart."""
    p = np.full((70, 146), 1e-4)
    p[:, BLANK] = 0.96
    for i, c in enumerate(said):
        p[10 + 8 * i, c], p[10 + 8 * i, BLANK] = sure, 1 - sure
    costs = np.full(70, 8.0)
    costs[at] = cost
    if blank:
        p[at, BLANK] = blank
    return diagnosis.Heard(p, costs, END)


LIN = inventory()["lin"]


@pytest.mark.parametrize(
    "given, outcome, instead",
    [
        (heard(PHRASE, cost=1.0, blank=0.5), "heard", list(PHRASE)),
        (heard(PHRASE, cost=1.0, at=36), "gate", list(PHRASE)),
        (heard(PHRASE, cost=1.0, at=2, blank=0.5), "outside", list(PHRASE)),  # too soon to be this phrase
        (heard(PHRASE, cost=1.0, at=64, blank=0.5), "outside", list(PHRASE)),
        (heard(PHRASE, cost=1.0, at=2), "decoder", list(PHRASE)),
        (heard(PHRASE, cost=1.3), "decoder", list(PHRASE)),
        (heard((PHRASE[0], PHRASE[1], LIN, PHRASE[3])), "network", [PHRASE[0], PHRASE[1], LIN, PHRASE[3]]),
        (heard((BLANK, *PHRASE[1:])), "network", [BLANK, *PHRASE[1:]]),
    ],
)
def test_what_is_lost_is_put_down_to_gate_decoder_or_network(given, outcome, instead):
    assert diagnosis.outcome(given, PHRASE) == (outcome, instead)


def test_the_table_has_a_row_per_voice_and_condition():
    """Of several voices one of their sum, and of their own those who said enough."""
    rows = [
        {"set": what, "voice": v, "condition": "quiet", "said": PHRASE, "outcome": o, "spoken": s}
        for what, v, o, s in (
            ("phrase", "a", "heard", list(PHRASE)),
            ("phrase", "a", "network", [LIN, *PHRASE[1:]]),
            ("fluent phrase", "b", "gate", list(PHRASE)),
            *[("fluent phrase", "c", "heard", list(PHRASE))] * diagnosis.FEWEST,
        )
    ]
    found = diagnosis.by_voice(rows)
    assert found["a", "quiet"]["heard"]["value"] == 0.5 and found["a", "quiet"]["places"][0] == {
        "lost": 0.5,
        "instead": {"lin": 1},
    }
    text = diagnosis.table(found)
    assert len(text.splitlines()) == 5 and ("b", "quiet") not in found and "50 % (lin 1); 0 %; 0 %; 0 %" in text
    assert found["fluent phrase, 2 voices", "quiet"]["n"] == diagnosis.FEWEST + 1 and list(found)[0] == (
        "fluent phrase, 2 voices",
        "quiet",
    )
