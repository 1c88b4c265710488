"""Measures the built library on fixed simulated scenes, beside what else is at hand: a table on the
terminal, JSON and an HTML report in a folder."""

from __future__ import annotations

import argparse
import dataclasses
import json
import pathlib
import time

from quibo.fleet import engines

from params import keyword_table
from training.data import SEED
from training.evaluate import report, revision, sets, work
from training.scenes.bank import build_bank
from training.shared import ROOT
from training.syllables.inventory import Phrase

SIZED = ("noise", "echo", "direction", "wake")


def add_options(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("--short", action="store_true", help="minutes instead of hours")
    parser.add_argument(
        "--data",
        type=pathlib.Path,
        help="folder of audio as for training; without it synthetic speech only",
    )
    parser.add_argument("--voices", type=pathlib.Path, help="what ./run voices has made, if it is not in that folder")
    parser.add_argument("--library", type=pathlib.Path, default=ROOT / "build-release/libquibo.so")
    parser.add_argument(
        "--params",
        type=pathlib.Path,
        default=ROOT / "params",
        help="the parameter files the library was built with; their keyword table names the wake phrase",
    )
    parser.add_argument(
        "--cache",
        type=pathlib.Path,
        default=ROOT / "build-training",
        help="where rooms and converted audio are kept, as in training",
    )
    parser.add_argument("--bank", type=pathlib.Path, help="room bank (default: bank in the cache)")
    parser.add_argument("--out", type=pathlib.Path, default=ROOT / "build-evaluate")
    parser.add_argument(
        "--gtcrn", type=pathlib.Path, help="gtcrn_simple.onnx of Xiaobin-Rong/gtcrn: one more noise suppressor to compare with"
    )
    parser.add_argument("--sections", default=",".join(work.SECTIONS), help=f"of {','.join(work.SECTIONS)}")
    parser.add_argument(
        "--conditions", help="of noise and echo, comma-separated: how their names begin, such as '5 dB,white' (default: all)"
    )
    parser.add_argument(
        "--opinions", type=int, help="scenes of noise and echo of which DNSMOS and AECMOS are asked (default: all)"
    )
    parser.add_argument(
        "--systems", help="of noise and echo, likewise, semicolons between them: 'Quibo;speexdsp' (default: all)"
    )
    for name in SIZED:
        parser.add_argument(f"--{name}-scenes", type=int, help="instead of the set's number")
    engines.add_options(parser, "scenes")


def run(arguments: argparse.Namespace) -> None:
    wanted = arguments.sections.split(",")
    if unknown := set(wanted) - set(work.SECTIONS):
        raise SystemExit(f"evaluate: no section {' '.join(sorted(unknown))}")
    try:
        engines.check(arguments)
    except ValueError as error:
        raise SystemExit(f"evaluate: {error}") from None
    if not arguments.library.exists():
        raise SystemExit(f"evaluate: no library {arguments.library}: build it, or name one with --library")
    if not (arguments.params / keyword_table.FILE).exists():
        raise SystemExit(f"evaluate: no {keyword_table.FILE} in {arguments.params}, which is to name the wake phrase")
    sizes = sets.SHORT if arguments.short else sets.LONG
    chosen = {name: getattr(arguments, f"{name}_scenes") for name in SIZED}
    sizes = dataclasses.replace(sizes, **{name: n for name, n in chosen.items() if n is not None})
    if arguments.conditions:
        sizes = dataclasses.replace(sizes, conditions=tuple(arguments.conditions.split(",")))
    if arguments.opinions is not None:
        sizes = dataclasses.replace(sizes, opinions=arguments.opinions)
    if arguments.systems:
        sizes = dataclasses.replace(sizes, systems=tuple(arguments.systems.split(";")))

    started = time.time()
    place = arguments.cache.resolve()
    folder = (arguments.bank or place / "bank").resolve()
    build_bank(folder, sizes.rooms, SEED)
    given = work.Given(
        arguments.library.resolve(),
        absolute(arguments.data),
        place / "corpus",
        folder,
        sizes,
        absolute(arguments.gtcrn),
        phrase=Phrase.in_folder(arguments.params),
        voices=absolute(arguments.voices),
    )
    opened = work.opened(given)
    results = {
        "about": {
            "set": "short" if arguments.short else "long",
            "sizes": dataclasses.asdict(sizes),
            "seed": sets.SEED,
            "data": opened.corpus.digest(),
            "speech": "recordings" if arguments.data else "synthetic",
            "phrase": given.phrase.text,
            "rooms": opened.bank.digest(),
            **revision.describe(arguments.library, arguments.params),
        }
    }
    results |= work.measured(given, wanted, arguments)
    results["about"]["minutes"] = round((time.time() - started) / 60, 1)

    arguments.out.mkdir(parents=True, exist_ok=True)
    (arguments.out / "evaluation.json").write_text(json.dumps(results, indent=1), encoding="utf-8")
    report.write(results, arguments.out / "evaluation.html")
    print(report.terminal(results))
    print(f"wrote {arguments.out / 'evaluation.json'} and {arguments.out / 'evaluation.html'}")


def absolute(path: pathlib.Path | None) -> pathlib.Path | None:
    """As workers find it, wherever they run."""
    return path and path.resolve()
