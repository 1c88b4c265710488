#!/usr/bin/env python3
"""Instructions per frame, by module, and an estimate of the cycles they take on cores that nobody here has.

    bench/cycles.py BUILD [--json FILE]      BUILD: the cross build for AArch64, with quibo_demo_static in it
    bench/cycles.py BUILD --here             BUILD: one for x86-64; estimates for Zen 4 beside what is measured here

QEMU counts how often each basic block runs (count_blocks.c) while the demonstration driver plays two lengths of the
recording; the difference is what the frames between them cost. llvm-mca, which knows a core's pipelines, says how many
cycles a block takes when it is repeated, and the sum over the blocks is the estimate. What it leaves out: caches and the
branch predictor (every load hits, every branch is foreseen). What it overdoes: its in-order cores also complete in order,
so that a load between two floating-point operations costs three cycles that the real ones do not lose. Hence two figures:
`bound` counts the busiest unit of each block alone, `estimate` the whole pipeline; the truth should lie between them.

--here checks the method where a core can be asked: the same counts and the same sum for this machine's, beside its processor
time, which a chain of dependent additions turns into cycles.
"""

import argparse
import collections
import json
import pathlib
import re
import resource
import subprocess
import tempfile

import instructions

ROOT = pathlib.Path(__file__).resolve().parent.parent
HERTZ, FRAME_SECONDS = 1.2e9, 0.064
COVERED = 0.98  # of the instructions; the rest is scaled
REPEATED = 100
HERE_QEMU, HERE_CORE, HERE_TOOLS = ["qemu-x86_64", "-cpu", "max"], "znver4", "-19"  # LLVM 14 knows no Zen 4
HERE_LENGTHS, HERE_ROUNDS = (20, 220), 5  # frames; the driver alone is fast
HERE_VARIANTS = ("sse2", "avx2")
STRING_INSTRUCTION = re.compile("f3(48)?a[45ab]")  # rep movs, rep stos
ADDITIONS = 1 << 30
BREAKPOINTS = {"aarch64": ("0x00 0x00 0x20 0xd4", "brk"), "x86_64": ("0xcc", "int3")}
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


def cycles(counted, core, triple="aarch64", tools=""):
    """({module: estimate}, {module: bound}) in cycles per frame."""
    weight = {key: key[2] * sum(times) for key, times in counted.items()}
    total, covered, kept = sum(weight.values()), 0.0, []
    for key in sorted(weight, key=weight.get, reverse=True):
        kept.append(key)
        covered += weight[key]
        if covered > COVERED * total:
            break
    stop, name_of_stop = BREAKPOINTS[triple]  # between the blocks: a prefix may make one instruction two lines
    code = "".join(" ".join(f"0x{key[1][i : i + 2]}" for i in range(0, len(key[1]), 2)) + f"\n{stop}\n" for key in kept)
    listing = subprocess.run(
        ["llvm-mc" + tools, "--disassemble", f"-triple={triple}"], input=code, check=True, text=True, capture_output=True
    ).stdout
    regions, block = ["# LLVM-MCA-BEGIN 0"], 0
    for line in listing.splitlines():
        if line.split()[:1] == [name_of_stop]:
            block += 1
            regions += ["# LLVM-MCA-END", f"# LLVM-MCA-BEGIN {block}"]
        elif line.strip() and ".text" not in line:
            regions.append(line)
    regions.pop()  # behind the last block
    # Of libc's blocks one holds what llvm-mca cannot parse. (LLVM 14 does not know the option, nor needs it.)
    skip = ["-skip-unsupported-instructions=any"] if tools else []
    told = subprocess.run(
        ["llvm-mca" + tools, f"-mtriple={triple}", f"-mcpu={core}", f"-iterations={REPEATED}", "-json", *skip],
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


def seconds(command, capture, frames, variant):
    """Processor time of one run."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN).ru_utime
    instructions.play(command, capture, frames, variant)
    return resource.getrusage(resource.RUSAGE_CHILDREN).ru_utime - before


def chain_of_additions(folder):
    """A program that takes a cycle for each of ADDITIONS additions."""
    source, program = pathlib.Path(folder, "chain.c"), pathlib.Path(folder, "chain")
    step = 'asm volatile("' + "addq $1, %0\\n" * 64 + '" : "+r"(x));'
    source.write_text(f"int main(void) {{ long x = 0; while (x < {ADDITIONS}L) {step} return 0; }}")
    subprocess.run(["cc", "-O2", "-o", program, source], check=True)
    return program


def check_here(demo, capture, variants):
    """{variant: {"estimate", "bound", "measured"}} in cycles per frame of this machine's core."""
    found = {}
    with tempfile.TemporaryDirectory() as folder:
        library, chain = plugin(folder), chain_of_additions(folder)
        for variant in variants:
            counted = blocks(demo, capture, variant, library, HERE_QEMU)
            # QEMU goes around a string instruction once per element; the core does them many at a time.
            counted = {key: times for key, times in counted.items() if not STRING_INSTRUCTION.match(key[1])}
            estimate, bound = cycles(counted, HERE_CORE, "x86_64", HERE_TOOLS)
            # Smallest of a few: the machine's other work only ever adds.
            short, long = (
                min(seconds([demo], capture, frames, variant) for _ in range(HERE_ROUNDS)) for frames in HERE_LENGTHS
            )
            hertz = ADDITIONS / min(seconds([chain], capture, 0, variant) for _ in range(HERE_ROUNDS))
            found[variant] = {
                "estimate": estimate["total"],
                "bound": bound["total"],
                "measured": (long - short) / (HERE_LENGTHS[1] - HERE_LENGTHS[0]) * hertz,
            }
    return found


def here_table(found):
    rows = [
        f"| {variant} | "
        + " | ".join(f"{f[name] / 1e6:.2f}" for name in ("bound", "estimate", "measured"))
        + f" | {f['bound'] / f['measured']:.2f} | {f['estimate'] / f['measured']:.2f} |"
        for variant, f in found.items()
    ]
    head = "| million cycles per frame, Zen 4 | bound | estimate | measured | bound / measured | estimate / measured |"
    return "\n".join([head, "| --- |" + " ---: |" * 5, *rows])


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
    parser.add_argument("--here", action="store_true")
    arguments = parser.parse_args()
    capture = subprocess.run(
        ["flac", "-d", "-s", "-c", "--force-raw-format", "--endian=little", "--sign=signed", ROOT / "samples/living_room.flac"],
        check=True,
        capture_output=True,
    ).stdout
    if arguments.here:
        print(here_table(check_here(arguments.build.resolve() / "quibo_demo_static", capture, HERE_VARIANTS)))
        return
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
