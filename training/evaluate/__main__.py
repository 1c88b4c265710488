"""python -m training.evaluate: see --help. Runs from the repository root."""

import argparse
import os

os.environ.setdefault("OMP_NUM_THREADS", "1")  # read when numpy is imported, here and in workers

from training.evaluate import cli

if __name__ == "__main__":
    parser = argparse.ArgumentParser(prog="python -m training.evaluate", description=cli.__doc__)
    cli.add_options(parser)
    cli.run(parser.parse_args())
