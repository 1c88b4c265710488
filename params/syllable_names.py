"""The classes of the wake-up network by name: the syllables of syllables.txt, the filler before and the blank behind them."""

import pathlib

FILE = pathlib.Path(__file__).parent / "syllables.txt"
FILLER, BLANK = "<filler>", "<blank>"


def classes() -> dict[str, int]:
    """{syllable: class}"""
    rows = (line.split() for line in FILE.read_text().splitlines())
    return {name: int(number) for number, name in rows}


def class_names() -> str:
    """All names in the order of their classes."""
    names = classes()
    return " ".join([FILLER, *sorted(names, key=names.get), BLANK])
