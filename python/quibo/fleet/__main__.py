"""python -m quibo.fleet RECORDINGS... --out DIR"""

from __future__ import annotations

import argparse
import functools
import pathlib
import sys

from . import addresses, engines, progress, work
from .retry import Died

EXAMPLES = """\
examples:
  python -m quibo.fleet recordings/ --out results
  python -m quibo.fleet 'field/**/*.flac' @more.txt --out results --jobs 8
  python -m quibo.fleet s3://bucket/field --out results --engine ray --address auto

RECORDINGS are files, folders, globs, @lists (a pattern per line), or fsspec addresses of these. The rows are in
results/recordings.parquet and results/events.parquet. A run that was stopped goes on where it was.
"""


def arguments(argv: list[str] | None) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="python -m quibo.fleet",
        description="Many recordings through the front end: a row per recording and per event, as Parquet.",
        epilog=EXAMPLES,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    parser.add_argument("recordings", nargs="+", metavar="RECORDINGS")
    parser.add_argument("--out", required=True, type=pathlib.Path, metavar="DIR")
    engines.add_options(parser, "recordings")
    parser.add_argument("--channels", help="which is which, as quibo.run takes it (default: guessed per recording)")
    parser.add_argument("--encoding", choices=("guess", "plain", "scrambled"), default="guess")
    parsed = parser.parse_args(argv)
    try:
        engines.check(parsed)
    except ValueError as error:
        parser.error(str(error))
    return parsed


def main(argv: list[str] | None = None) -> int:
    options = arguments(argv)
    try:
        from .store import Store
    except ImportError as error:
        print(f"quibo.fleet: {error.name} is missing: pip install quibo[fleet]", file=sys.stderr)
        return 2
    reading = {"channels": options.channels or "", "encoding": options.encoding}
    try:
        names = addresses.find(options.recordings)
        store = Store(options.out, {**reading, **work.about()})
    except (OSError, ValueError, ImportError) as error:
        print(f"quibo.fleet: {error}", file=sys.stderr)
        return 2
    finished = store.done()
    left = [name for name in names if name not in finished]
    shown = progress.Progress(len(names), len(names) - len(left))
    failed = 0
    try:
        for name, row in engines.run(options, functools.partial(work.analyse, **reading), left):
            row = work.failed(name, str(row)) if isinstance(row, Died) else row
            failed += row["error"] is not None
            store.add(row)
            shown.add(row["seconds"], row["error"] is not None)
    except (ImportError, RuntimeError, ConnectionError) as error:
        print(f"quibo.fleet: {error}", file=sys.stderr)
        return 2
    except KeyboardInterrupt:
        print("\nstopped; the same command goes on from here", file=sys.stderr)
        return 130
    finally:
        recordings, events = store.finish()
    shown.tell(end=True)
    print(f"{recordings} recordings, {events} events in {options.out}", file=sys.stderr)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
