#!/usr/bin/env python3
"""Reads the JSON files of one or several runs of a benchmark and prints, per row, the smallest time and its ratio to ours.

bench/ratios.py fft1.json fft2.json ...
"""

import collections
import json
import sys

rows = collections.defaultdict(dict)  # "forward/512" -> {"quibo": smallest time, ...}
runs = []
for path in sys.argv[1:]:
    with open(path) as file:
        runs += [run for run in json.load(file)["benchmarks"] if run["run_type"] == "iteration"]
for run in sorted(runs, key=lambda run: run["family_index"]):  # repetitions may be interleaved
    row, library = run["run_name"].rsplit("/", 1)
    rows[row][library] = min(run["cpu_time"], rows[row].get(library, float("inf")))

libraries = list(dict.fromkeys(name for times in rows.values() for name in times))
print(f"{runs[0]['time_unit']:14}" + "".join(f"{name:>20}" for name in libraries))
for row, times in rows.items():
    cells = (f"{times[name]:12.1f} ({times[name] / times['quibo']:4.2f}x)" if name in times else " " * 20 for name in libraries)
    print(f"{row:14}" + "".join(cells))
