"""The keyword table: what the wake-up engine listens for, in syllables the network has classes for (keywords.json).

    {"keywords": [{"identifier": 0, "phrase": "ling dang ling dang", "threshold": 0.6, "divisor": 4.0}]}

The first keyword wakes the device; the engine keeps the others' scores up to date and decides nothing by them. A phrase costs
-ln(score) / divisor: with a divisor of one per syllable, nats per syllable, so that one threshold serves phrases of any
length. `threshold` counts in an engine's first step only, 1.2 (or 1.0) from then on (docs/wake_phrase.md).
"""

from __future__ import annotations

import difflib
import json
import pathlib
from collections.abc import Sequence

FILE = "keywords.json"  # in a folder of parameters
NAME = "keywords_index"  # the library's table
LONGEST = 38  # syllables
LARGEST = 2**15 - 1  # of the table's whole numbers
FIELDS = ("identifier", "phrase", "threshold", "divisor")
THRESHOLD = 0.6

Entry = dict  # of FIELDS


class TableError(Exception):
    """The file is not a keyword table; the reason is one line of printable ASCII."""


def keyword(syllables: Sequence[str], identifier: int = 0) -> Entry:
    """An entry with the usual threshold and divisor. syllables: names."""
    return {"identifier": identifier, "phrase": " ".join(syllables), "threshold": THRESHOLD, "divisor": float(len(syllables))}


def read(path: pathlib.Path, classes: dict[str, int]) -> list[Entry]:
    """The entries of a file. classes: {syllable: class}."""
    return parse(path.read_bytes(), classes)


def parse(text: bytes, classes: dict[str, int]) -> list[Entry]:
    try:
        table = json.loads(text.decode("utf-8"))
    except RecursionError:
        raise TableError("nested too deeply") from None
    except ValueError as error:
        raise TableError(f"not JSON in UTF-8 ({error})") from None
    entries = table.get("keywords") if isinstance(table, dict) and len(table) == 1 else None
    if not isinstance(entries, list) or not entries or len(entries) > LARGEST:
        raise TableError('not {"keywords": [at least one]}')
    for number, entry in enumerate(entries, 1):
        if not isinstance(entry, dict) or sorted(entry) != sorted(FIELDS):
            raise TableError(f"keyword {number} is not {', '.join(FIELDS)}")
        _whole(number, entry, "identifier", 1, 0)
        _whole(number, entry, "threshold", 100, 1)
        _whole(number, entry, "divisor", 10, 1)
        said = entry["phrase"].split() if isinstance(entry["phrase"], str) else []
        if not 1 <= len(said) <= LONGEST:
            raise TableError(f"keyword {number}: the phrase has {len(said)} syllables, expected 1 to {LONGEST}")
        for syllable in said:
            if syllable not in classes:
                raise TableError(f"keyword {number}: {unknown(syllable, classes)}")
    return entries


def unknown(syllable: str, classes: dict[str, int]) -> str:
    """What to say of a syllable that the network has no class for."""
    like = nearest(syllable, classes)
    return f"the network knows no syllable {ascii(syllable)[:40]}" + (f" (the nearest: {', '.join(like)})" if like else "")


def nearest(syllable: str, classes: dict[str, int], count: int = 4) -> list[str]:
    return difflib.get_close_matches(syllable.lower(), classes, count, 0.4)


def _whole(number: int, entry: Entry, field: str, factor: int, smallest: int) -> None:
    """The table holds hundredths of the threshold, tenths of the divisor."""
    value = entry[field]
    good = type(value) in (int, float) and abs(value) <= LARGEST and abs(value * factor - round(value * factor)) < 1e-6
    if not good or not smallest <= round(value * factor) <= LARGEST:
        raise TableError(f"keyword {number}: {field} {ascii(value)[:40]}, expected {smallest}/{factor} to {LARGEST}/{factor}")


def values(entries: list[Entry], classes: dict[str, int]) -> list[int]:
    """The library's table: how many; then per keyword identifier, hundredths of the threshold, tenths of the divisor, how many
    syllables, their classes."""
    row = [len(entries)]
    for entry in entries:
        said = entry["phrase"].split()
        row += [entry["identifier"], round(entry["threshold"] * 100), round(entry["divisor"] * 10), len(said)]
        row += [classes[syllable] for syllable in said]
    return row


def write(path: pathlib.Path, entries: list[Entry]) -> None:
    rows = ",\n".join("    " + json.dumps({field: entry[field] for field in FIELDS}) for entry in entries)
    path.write_text(f'{{\n  "keywords": [\n{rows}\n  ]\n}}\n')
