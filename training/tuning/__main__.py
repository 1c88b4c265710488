"""The wake word's operating point from recordings of one's own: how often the phrase is heard in those of one folder, how
often something else in those of another, over what is added to the scores of the phrase's syllables."""

from __future__ import annotations

import argparse
import collections
import concurrent.futures
import functools
import json
import os
import pathlib
import sys

import numpy as np
import tqdm
from numpy.typing import NDArray

from params import keyword_table
from params.safetensors_file import FormatError
from training.device_facts import RATE
from training.shared import PARAMS, ROOT
from training.tuning import recordings, report, scores


class Worker:
    """In each process: the library with these parameters."""

    def __init__(self, arguments: argparse.Namespace, parameters: scores.Parameters) -> None:
        self.arguments, self.parameters = arguments, parameters
        self.so = parameters.load(arguments.library)

    def every_operating_point(self, wave: NDArray[np.int16]) -> list[list[float]]:
        trace = scores.Trace.of(wave, self.parameters, self.so)
        return scores.wakes(trace, self.parameters, self.parameters.operating_points())

    def engine_itself(self, wave: NDArray[np.int16]) -> list[list[float]]:
        """At the parameters' own operating point."""
        return [scores.engine_wakes(wave, self.parameters, self.so)]


_worker: Worker | None = None


def begin(arguments: argparse.Namespace, parameters: scores.Parameters) -> None:
    global _worker
    _worker = Worker(arguments, parameters)


def attempt(what: str, path: pathlib.Path) -> tuple[report.Found | None, list[str]]:
    assert _worker
    try:
        wave, remarks = recordings.heard(path, _worker.arguments.channels, _worker.arguments.raw)
    except recordings.Unreadable as reason:
        return None, [str(reason)]
    return report.Found(str(path), getattr(_worker, what)(wave), len(wave) / RATE / 3600), remarks


def over(
    what: str, paths: list[pathlib.Path], arguments: argparse.Namespace, parameters: scores.Parameters
) -> tuple[list[report.Found], list[str]]:
    """Worker's method `what` of each recording that can be read, and lines about what is to be known of them."""
    found, lines = [], collections.defaultdict(list)
    with concurrent.futures.ProcessPoolExecutor(arguments.jobs, initializer=begin, initargs=(arguments, parameters)) as pool:
        results = pool.map(functools.partial(attempt, what), paths)
        bar = tqdm.tqdm(results, what.replace("_", " "), len(paths), mininterval=1 if os.isatty(2) else 60)
        for path, (result, remarks) in zip(paths, bar):
            if result:
                found.append(result)
            for remark in remarks:
                lines[remark].append(path.name)
    return found, [line if len(of) == 1 and of[0] in line else f"{named(of)}: {line}" for line, of in lines.items()]


def named(names: list[str]) -> str:
    return names[0] if len(names) == 1 else f"{names[0]} and {len(names) - 1} more"


def chosen(arguments: argparse.Namespace, found: list[report.Row], nats: list[float]) -> int | None:
    if arguments.choose is not None:
        if not nats[0] <= arguments.choose <= nats[-1]:
            raise SystemExit(f"tune: --choose {arguments.choose:g}: expected {nats[0]:.2f} to {nats[-1]:.2f} nats")
        return int(np.argmin(np.abs(np.array(nats) - arguments.choose)))
    if arguments.false_wakes is None:
        return None
    index = report.best(found, arguments.false_wakes)
    if index is None:
        raise SystemExit(f"tune: no operating point has at most {arguments.false_wakes:g} false wakes per hour")
    return index


def run(arguments: argparse.Namespace) -> int:
    for wanted in arguments.library, arguments.params / scores.NETWORK, arguments.params / keyword_table.FILE:
        if not wanted.exists():
            raise SystemExit(f"tune: {wanted}: no such file")
    try:
        parameters = scores.Parameters.of(arguments.params)
        paths = [recordings.find(folder, arguments.raw) for folder in (arguments.positive, arguments.negative)]
    except (FormatError, keyword_table.TableError, recordings.Unreadable) as reason:
        raise SystemExit(f"tune: {reason}") from None
    positive, remarks = over("every_operating_point", paths[0], arguments, parameters)
    negative, more = over("every_operating_point", paths[1], arguments, parameters)
    for remark in remarks + more:
        print(f"tune: {remark}", file=sys.stderr)
    if not positive or not negative:
        raise SystemExit(f"tune: nothing in {arguments.negative if positive else arguments.positive} could be used")

    nats = [float(c) * parameters.nats for c in parameters.operating_points()]
    found = report.rows(nats, positive, negative)
    index = chosen(arguments, found, nats)
    arguments.out.mkdir(parents=True, exist_ok=True)
    told = {"phrase": parameters.phrase, "parameters": str(arguments.params), "operating_points": found}
    hours = sum(r.hours for r in negative)
    print(f'"{parameters.phrase}": {len(positive)} recordings with it, {hours:.2f} h without\n{report.table(found, index)}')
    if index is not None:
        told["chosen"] = write(arguments, parameters, int(parameters.operating_points()[index]), paths, found[index])
    (arguments.out / "tuning.json").write_text(json.dumps(told, indent=1))
    report.picture(found, index, arguments.out / "tuning.png")
    print(f"wrote {arguments.out / 'tuning.json'} and {arguments.out / 'tuning.png'}")
    if index is None:
        print("no parameters written: --false-wakes N takes at most N per hour, --choose NATS a row of the table")
    return 0


def write(
    arguments: argparse.Namespace,
    parameters: scores.Parameters,
    codes: int,
    paths: list[list[pathlib.Path]],
    expected: report.Row,
) -> report.Row:
    """The parameter files of an operating point, and what the engine itself does with them."""
    moved, folder = parameters.moved(codes), arguments.out / "params"
    moved.write(folder, codes)
    (positive, _), (negative, _) = (over("engine_itself", some, arguments, moved) for some in paths)
    (row,) = report.rows([expected["nats"]], positive, negative)
    print("with these parameters the engine itself:\n" + report.line(row, "*"))
    missed = [r.path for r in positive if not r.wakes[0]]
    false = {r.path: [round(t, 2) for t in r.wakes[0]] for r in negative if r.wakes[0]}
    print(f"wrote {folder}: build with cmake -B build-tuned -DQUIBO_PARAMS_DIR={folder.resolve()}")
    return {**row, "missed": missed, "false_wakes_at": false}


def main(argv: list[str] | None = None) -> int:
    parser = argparse.ArgumentParser(prog="./run tune", description=__doc__)
    parser.add_argument("--positive", type=pathlib.Path, required=True, help="folder of recordings in which the phrase is said")
    parser.add_argument("--negative", type=pathlib.Path, required=True, help="folder of recordings in which it is not")
    choice = parser.add_mutually_exclusive_group()
    choice.add_argument("--choose", type=float, metavar="NATS", help="write the parameters of this operating point")
    choice.add_argument("--false-wakes", type=float, metavar="N", help="of the best one with at most N false wakes per hour")
    parser.add_argument("--channels", default="", help="which channel is which, as for quibo run")
    parser.add_argument("--raw", default="", metavar="CHANNELS[,RATE[,SAMPLE]]", help="of headerless .pcm and .raw files")
    parser.add_argument("--params", type=pathlib.Path, default=PARAMS, help="parameter files to begin with")
    parser.add_argument("--library", type=pathlib.Path, default=ROOT / "build-release/libquibo.so")
    parser.add_argument("--out", type=pathlib.Path, default=ROOT / "build-tune", help="table, picture, parameters")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), help="processes")
    return run(parser.parse_args(argv))


if __name__ == "__main__":
    sys.exit(main())
