#!/usr/bin/env python3
"""Instructions per frame, by module, and an estimate of the cycles they take on cores that nobody here has.

    bench/cycles.py BUILD [--json FILE]      BUILD: the cross build, with quibo_demo_static in it

QEMU counts how often each basic block runs (count_blocks.c) while the demonstration driver plays two lengths of the
recording; the difference is what the frames between them cost. llvm-mca, which knows a core's pipelines, says how many
cycles a block takes when it is repeated, and the sum over the blocks is the estimate. What it leaves out: caches and the
branch predictor (every load hits, every branch is foreseen). What it overdoes: its in-order cores also complete in order,
so that a load between two floating-point operations costs three cycles that the real ones do not lose. Hence two figures:
`bound` counts the busiest unit of each block alone, `estimate` the whole pipeline; the truth should lie between them.
"""

import argparse
import collections
import json
import pathlib
import subprocess
import tempfile

import instructions

ROOT = pathlib.Path(__file__).resolve().parent.parent
HERTZ, FRAME_SECONDS = 1.2e9, 0.064
COVERED = 0.98  # of the instructions; the rest is scaled
REPEATED = 100
CORES = {"Cortex-A53": "cortex-a53", "Cortex-A55": "cortex-a55", "Cortex-A72": "cortex-a72"}
MODULES = ["rest", *instructions.MODULES]


def plugin(folder):
    path = pathlib.Path(folder, "count_blocks.so")
    subprocess.run(["cc", "-shared", "-fPIC", "-O2", "-o", path, ROOT / "bench/count_blocks.c"], check=True)
    return path


def blocks(demo, capture, variant, library, qemu=instructions.QEMU):
    """{(symbol, bytes): (instructions, executions per frame by module)}"""
    names = [f"module{i}={call}" for i, call in enumerate(instructions.MODULES.values(), 1)]
    names += [
        f"rest{i}={call}" for i, call in enumerate(("Quibo_wakeup_three_write_data", "Quibo_doa_three_write_data", "main"))
    ]

    def count(text):
        runs = collections.defaultdict(lambda: [0] * len(MODULES))
        for line in text.splitlines():
            if line.startswith("block "):
                _, length, symbol, code, *times = line.split()
                for i, n in enumerate(times):
                    runs[symbol, code, int(length)][i] += int(n)
        return runs

    command = [*qemu, "-plugin", ",".join([str(library), *names]), demo]
    short, long = (
        count(instructions.play(command, capture, frames, variant)) for frames in (instructions.SHORT, instructions.LONG)
    )
    frames = instructions.LONG - instructions.SHORT
    return {key: [(n - m) / frames for n, m in zip(times, short.get(key, [0] * len(times)))] for key, times in long.items()}


def per_module(counted):
    totals = [sum(key[2] * times[i] for key, times in counted.items()) for i in range(len(MODULES))]
    return dict(zip(MODULES, totals)) | {"total": sum(totals)}


def cycles(counted, core, triple="aarch64"):
    """({module: estimate}, {module: bound}) in cycles per frame."""
    weight = {key: key[2] * sum(times) for key, times in counted.items()}
    total, covered, kept = sum(weight.values()), 0.0, []
    for key in sorted(weight, key=weight.get, reverse=True):
        kept.append(key)
        covered += weight[key]
        if covered > COVERED * total:
            break
    code = "\n".join(" ".join(f"0x{key[1][i : i + 2]}" for i in range(0, len(key[1]), 2)) for key in kept)
    listing = subprocess.run(
        ["llvm-mc", "--disassemble", f"-triple={triple}"], input=code, check=True, text=True, capture_output=True
    ).stdout
    lines = iter([line for line in listing.splitlines() if line.strip() and ".text" not in line])
    regions = []
    for i, key in enumerate(kept):
        regions += [f"# LLVM-MCA-BEGIN {i}", *(next(lines) for _ in range(key[2])), "# LLVM-MCA-END"]
    told = subprocess.run(
        ["llvm-mca", f"-mtriple={triple}", f"-mcpu={core}", f"-iterations={REPEATED}", "-json"],
        input="\n".join(regions),
        check=True,
        text=True,
        capture_output=True,
    ).stdout
    result = [[0.0] * len(MODULES), [0.0] * len(MODULES)]
    for region in json.loads(told)["CodeRegions"]:
        summary, times = region["SummaryView"], counted[kept[int(region["Name"])]]
        for into, of_block in zip(result, (summary["TotalCycles"] / REPEATED, summary["BlockRThroughput"])):
            for i, n in enumerate(times):
                into[i] += n * of_block * total / covered
    return tuple(dict(zip(MODULES, row)) | {"total": sum(row)} for row in result)


def count(demo, capture, variants, qemu=instructions.QEMU):
    """{variant: {module: instructions per frame}}"""
    with tempfile.TemporaryDirectory() as folder:
        library = plugin(folder)
        return {variant: per_module(blocks(demo, capture, variant, library, qemu)) for variant in variants}


def measure(demo, capture, variants):
    found = {"instructions": {}, "cycles": {}}
    with tempfile.TemporaryDirectory() as folder:
        library = plugin(folder)
        for variant in variants:
            counted = blocks(demo, capture, variant, library)
            found["instructions"][variant] = per_module(counted)
            for name, core in CORES.items():
                estimate, bound = cycles(counted, core)
                found["cycles"][f"{name}, {variant}"] = {"estimate": estimate, "bound": bound}
    return found


def table(found):
    """The page's, of what measure() found."""

    def share(count):
        return f"{100 * count / (HERTZ * FRAME_SECONDS):.0f} %"

    lines = [
        "| estimated, million cycles per frame | " + " | ".join(MODULES[1:]) + " | total | bound | of a core at 1.2 GHz |",
        "| --- |" + " ---: |" * (len(MODULES) + 2),
    ]
    for name, both in found["cycles"].items():
        cells = [f"{both['estimate'][module] / 1e6:.2f}" for module in MODULES[1:]]
        total, bound = both["estimate"]["total"], both["bound"]["total"]
        lines.append(
            f"| {name} | " + " | ".join(cells) + f" | {total / 1e6:.1f} | {bound / 1e6:.1f} | "
            f"{share(bound)} to {share(total)} |"
        )
    return "\n".join(lines)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--json", type=pathlib.Path)
    arguments = parser.parse_args()
    capture = subprocess.run(
        ["flac", "-d", "-s", "-c", "--force-raw-format", "--endian=little", "--sign=signed", ROOT / "samples/living_room.flac"],
        check=True,
        capture_output=True,
    ).stdout
    found = measure(arguments.build.resolve() / "quibo_demo_static", capture, ("neon", "neon_fused"))
    if arguments.json:
        arguments.json.write_text(json.dumps(found, indent=1))
    for variant, modules in found["instructions"].items():
        print(
            f"{variant}: " + ", ".join(f"{name} {count / 1e6:.2f}" for name, count in modules.items()) + " million instructions"
        )
    print(table(found))


if __name__ == "__main__":
    main()
