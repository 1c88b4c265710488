"""Runs every fuzz target for its share of the time and says what it did.

    fuzz.py BUILD MINUTES

BUILD is the folder of the fuzz build. As many targets run at once as there are processors. What a target learns is kept
in BUILD/corpus, what it finds in BUILD/found, its log in BUILD/logs. Exit status 1 when anything was found.
"""

import concurrent.futures
import importlib.util
import os
import pathlib
import re
import subprocess
import sys

FUZZ = pathlib.Path(__file__).resolve().parent
OPTIONS = ["-max_len=256", "-len_control=10", "-timeout=60", "-rss_limit_mb=4096", "-print_final_stats=1"]


def commands(build):
    """{target: command} of the programs built and of the parser's, which is Python."""
    found = {path.name.removesuffix("_fuzz"): [path] for path in sorted((build / "fuzz").glob("*_fuzz"))}
    if importlib.util.find_spec("atheris"):  # there is none for every processor
        found["parameters"] = [sys.executable, FUZZ / "parameters_fuzz.py"]
    return found


def run(build, target, command, seconds):
    """Returns (log, processor seconds, exit status)."""
    corpus = build / "corpus" / target
    corpus.mkdir(parents=True, exist_ok=True)
    options = [*OPTIONS, f"-max_total_time={seconds}", f"-artifact_prefix={build}/found/{target}-"]
    log = build / "logs" / f"{target}.log"
    with open(log, "w", encoding="utf-8") as f:
        process = subprocess.Popen([*command, *options, corpus, FUZZ / "corpus" / target], stdout=f, stderr=f)
        _, status, usage = os.wait4(process.pid, 0)
    return log, usage.ru_utime + usage.ru_stime, os.waitstatus_to_exitcode(status)


def row(target, log, cpu, status):
    text = log.read_text(encoding="utf-8", errors="replace")
    inputs = int(([0] + re.findall(r"number_of_executed_units:\s*(\d+)", text))[-1])
    covered = ([0] + re.findall(r"cov: (\d+)", text))[-1]
    return (
        f"{target:12} {inputs:>10} {inputs / max(cpu, 0.01):>10.0f} {cpu:>8.0f} {covered:>8} "
        f"{'nothing' if status == 0 else 'see ' + str(log)}"
    )


def main():
    build, minutes = pathlib.Path(sys.argv[1]).resolve(), float(sys.argv[2])
    targets = commands(build)
    at_once = len(os.sched_getaffinity(0))
    seconds = max(1, int(60 * minutes * at_once / len(targets)))
    for folder in "found", "logs":
        (build / folder).mkdir(exist_ok=True)
    print(f"{'target':12} {'inputs':>10} {'a CPU s':>10} {'CPU s':>8} {'covered':>8} found", flush=True)
    failed = False
    with concurrent.futures.ThreadPoolExecutor(at_once) as pool:
        running = {pool.submit(run, build, target, command, seconds): target for target, command in targets.items()}
        for done in concurrent.futures.as_completed(running):
            log, cpu, status = done.result()
            print(row(running[done], log, cpu, status), flush=True)
            failed |= status != 0
    if failed:
        print(f"What was found is in {build}/found; run a target on such a file to see it again.")
    sys.exit(failed)


if __name__ == "__main__":
    main()
