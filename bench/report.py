#!/usr/bin/env python3
"""Measures the library and writes docs/performance.md. `./run bench` builds what is needed and calls it; by hand:

    bench/report.py build-bench build-aarch64 build-armhf [--from build-bench/performance.json]

What was measured is kept in build-bench/performance.json; --from writes the page again from it.
"""

import argparse
import datetime
import hashlib
import json
import os
import pathlib
import platform
import statistics
import subprocess
import tempfile

import cycles
import instructions
import peers
import wasm

ROOT = pathlib.Path(__file__).resolve().parent.parent
FRAME_US = 64000
SILENT_FRAMES = 2000  # 128 s; after some 112 s the cancellers' smoothed powers are denormal
DIGEST_FRAMES = 40
QUIET_LOAD = 0.5  # of the cores
ROUNDS = 8  # in which the kernels take turns: a machine may be slow for some ten seconds
COLDER = 1.03  # times as long in the chain as alone, from which the caches are named


def text_of(*command, **options):
    return subprocess.run([str(word) for word in command], check=True, capture_output=True, text=True, **options).stdout


def with_kernels(variant):
    return {**os.environ, "QUIBO_KERNELS": variant, "OMP_NUM_THREADS": "1"}


# ---- Measuring -------------------------------------------------------------------------------------------------


def machine():
    cpu = {}
    for line in open("/proc/cpuinfo"):
        name, _, value = line.partition(":")
        cpu.setdefault(name.strip(), value.strip())
    compiler = text_of("c++", "--version").splitlines()[0]
    # The revision's newest change outside this page itself.
    revision = text_of("git", "log", "-1", "--format=%h", "--", ".", ":!docs/performance.md", cwd=ROOT).strip()
    return {
        "date": datetime.date.today().isoformat(),
        "revision": revision,
        "compiler": compiler,
        "processor": cpu.get("model name", platform.machine()),
        "cores": os.cpu_count(),
        "family": f"family {cpu.get('cpu family', '?')}, model {cpu.get('model', '?')}",
    }


def chain(build, capture, variant, silent=0):
    with tempfile.NamedTemporaryFile("r") as out:
        text_of(build / "bench/chain_bench", capture, out.name, silent, env=with_kernels(variant))
        return json.load(out)


def chains(build, capture, variants):
    """{variant: run}; the last variant, the fastest, comes first. The input is the same every time, and so is what the front
    end computes: the smallest time of each frame over the rounds leaves the machine's other work out, but not what a frame
    itself costs more than its neighbours."""
    best = {}
    for number in range(ROUNDS):
        for variant in reversed(variants):
            if variant == "scalar" and number > 0:
                continue
            run = chain(build, capture, variant, SILENT_FRAMES if variant == variants[-1] else 0)
            before = best.setdefault(variant, run)
            for part in ("recording", "silence"):
                for module, times in run.get(part, {}).items():
                    before[part][module] = [min(pair) for pair in zip(times, before[part][module])]
    return best


def rows_of(build, program, pattern):
    """{name: smallest run} of a Google benchmark."""
    out = text_of(
        build / "bench" / program,
        f"--benchmark_filter={pattern}",
        "--benchmark_repetitions=7",
        "--benchmark_min_time=0.02",
        "--benchmark_format=json",
        env=with_kernels(""),
    )
    best = {}
    for run in json.loads(out)["benchmarks"]:
        if run["run_type"] == "iteration" and run["cpu_time"] < best.get(run["run_name"], run)["cpu_time"] + 1e-9:
            best[run["run_name"]] = run
    return best


def sections(library):
    sizes = {}
    for line in text_of("size", "-A", library).splitlines():
        words = line.split()
        if len(words) == 3 and words[0].startswith("."):
            sizes[words[0]] = int(words[1])
    return {
        "code (.text)": sizes[".text"],
        "tables (.rodata)": sizes[".rodata"],
        "static data (.data, .bss)": sizes[".data"] + sizes[".bss"],
    }


def digests(program, capture, emulator=()):
    """[variant, wakes, digest of all digests]"""
    rows = []
    for variant in text_of(*emulator, program, "--variants").split():
        lines = text_of(*emulator, program, capture, DIGEST_FRAMES, env=with_kernels(variant))
        rows.append([variant, lines.count("wake 0 at"), hashlib.sha256(lines.encode()).hexdigest()[:16]])
    return rows


def measure(build, arm, arm32):
    load = [os.getloadavg()[0]]
    capture = build / "capture.raw"
    text_of(
        "flac",
        "-d",
        "-s",
        "-f",
        "--force-raw-format",
        "--endian=little",
        "--sign=signed",
        "-o",
        capture,
        ROOT / "samples/living_room.flac",
    )
    samples = capture.read_bytes()
    variants = text_of(build / "quibo_digest", "--variants").split()
    found = {"machine": machine(), "sizes": sections(build / "libquibo.so")}
    found["chain"] = chains(build, capture, variants)
    load.append(os.getloadavg()[0])
    found["networks"] = {
        name: {key: run[key] for key in ("cpu_time", "MAC/s", "of_peak") if key in run}
        for name, run in rows_of(build, "net_bench", "^(ns|naec)/quibo:").items()
    }
    found["layers"] = {
        name: {key: run[key] for key in ("cpu_time", "MAC/s", "of_peak") if key in run}
        for name, run in rows_of(build, "net_bench", f"^naec:.*/quibo:{variants[-1]}$").items()
    }
    found["transforms"] = {
        name: run["cpu_time"]
        for name, run in rows_of(build, "fft_bench", "^(forward|inverse)/[0-9]*/(quibo|fftw|kissfft)$").items()
    }
    found["direction"] = {
        name: run["cpu_time"] for name, run in rows_of(build, "doa_bench", "^block/(quibo|srp-phat.*)$").items()
    }
    found["peers"] = [vars(row) for row in peers.measure(build / "libquibo.so")]
    load.append(os.getloadavg()[0])

    found["instructions"] = {
        "x86-64, " + v: instructions.under_callgrind(build.resolve() / "quibo_demo", samples, v)
        for v in variants
        if v in ("scalar", "sse2", "avx2")
    }
    found["digests"] = {"x86-64": digests(build / "quibo_digest", capture)}
    if (arm / "quibo_demo_static").exists():
        found["digests"]["AArch64 (qemu)"] = digests(arm / "quibo_digest", capture, instructions.QEMU)
        on_arm = cycles.measure(arm.resolve() / "quibo_demo_static", samples, ("scalar", "neon", "neon_i8mm", "neon_fused"))
        found["instructions"] |= {"AArch64, " + v: count for v, count in on_arm["instructions"].items()}
        found["cycles"] = on_arm["cycles"]
    if (arm32 / "quibo_demo_static").exists():
        on_arm32 = cycles.count(
            arm32.resolve() / "quibo_demo_static", samples, ("scalar", "neon_int8", "neon_fused"), instructions.QEMU_32
        )
        found["instructions"] |= {"32-bit ARM, " + v: count for v, count in on_arm32.items()}
    found["wasm"] = wasm.measure(ROOT, build, DIGEST_FRAMES)
    if found["wasm"]:
        found["digests"]["WebAssembly (node)"] = wasm.digests(found["wasm"])
    found["load"] = max(load)
    return found


# ---- The page --------------------------------------------------------------------------------------------------


def table(head, rows, align=None):
    align = align or ["---"] + ["---:"] * (len(head) - 1)
    return "\n".join("| " + " | ".join(map(str, row)) + " |" for row in [head, align, *rows]) + "\n"


def percentile(times, share):
    return sorted(times)[min(len(times) - 1, int(share * len(times)))]


def us(value):
    return f"{value:,.0f}" if value >= 100 else f"{value:.1f}"


def cost_section(found):
    best, *_ = found["chain"]
    recording, silence = (found["chain"][best][name] for name in ("recording", "silence"))
    medians = {name: statistics.median(run["recording"]["total"]) for name, run in found["chain"].items()}
    everything = statistics.mean(recording["total"])
    modules = [
        [name, *(us(percentile(times, p)) for p in (0.5, 0.99, 0.999)), f"{100 * statistics.mean(times) / everything:.1f} %"]
        for name, times in recording.items()
    ]
    silent, middle = silence["total"], statistics.median(silence["total"])
    kernels = [
        [name, us(t), f"{t / medians[best]:.2f}", f"{100 * t / FRAME_US:.1f}"]
        for name, t in sorted(medians.items(), key=lambda item: -item[1])
    ]
    return f"""{table([f"us per frame, {best}", "p50", "p99", "p99.9", "share of the total"], modules)}
The median frame takes {100 * medians[best] / FRAME_US:.2f} % of one core. A frame holds two or three of the 30 ms blocks in
which the wake-up engine and the direction estimator work, hence the spread.

In the {len(silent)} silent frames after the recording ({len(silent) * 0.064:.0f} s) the median is {us(middle)} us and the slowest
frame {us(max(silent))} us, {max(silent) / middle:.2f} times as much.

{table(["kernels", "us per frame, p50", f"times {best}", "% of a core"], kernels)}"""


def instruction_section(found):
    columns = found["instructions"]
    names = [*instructions.MODULES, "total"]
    return table(
        ["thousand instructions per frame", *columns],
        [[name, *(f"{c[name] / 1000:,.0f}" if name in c else "" for c in columns.values())] for name in names],
    )


def size_section(found):
    run = next(iter(found["chain"].values()))
    rows = [
        *found["sizes"].items(),
        ("heap after start", run["heap"]),
        ("stack, with the caller's own buffers of 20 KiB", run["stack"]),
    ]
    return table(["", "KiB"], [[name, f"{size / 1024:,.0f}"] for name, size in rows])


def peer_section(found):
    def row(what, ours, peer, theirs, note, unit=us):
        times = ("-", "-") if theirs is None else (unit(theirs), f"{theirs / ours:.2f}")
        return [what, unit(ours), peer, *times, note]

    rows = [row(*(r[name] for name in ("what", "ours", "peer", "theirs", "note"))) for r in found["peers"]]
    for group, what, note, unit in (
        (found["direction"], lambda name: "direction, 30 ms", lambda peer: "a plain one on a grid of azimuths", us),
        (
            found["transforms"],
            lambda name: f"{name.replace('/', ' FFT, ')} points",
            lambda peer: "planned patiently" if peer == "fftw" else "",
            lambda ns: f"{ns / 1000:.2f}",
        ),
    ):
        for name, time in group.items():
            work, peer = name.rsplit("/", 1)
            if peer != "quibo":
                rows.append(row(what(work), group[work + "/quibo"], peer, time, note(peer), unit))
    return table(["work", "ours, us", "peer", "us", "peer / ours", ""], rows, ["---", "---:", "---", "---:", "---:", "---"])


def peak_section(found):
    def row(name, run):
        share = f"{100 * run['of_peak']:.0f} %" if "of_peak" in run else ""
        return [name, us(run["cpu_time"]), f"{run['MAC/s'] / 1e9:.1f}", share]

    head = ["us", "GMAC/s", "of the peak"]
    best, *_ = found["chain"]
    alone = found["networks"][f"naec/quibo:{best}"]["cpu_time"]
    chained = statistics.median(found["chain"][best]["recording"]["echo suppressor"])
    layers = {name.split(":")[1].split("/")[0]: run for name, run in found["layers"].items()}
    networks = [row(name.replace("/quibo:", ", "), run) for name, run in found["networks"].items()]
    parts = [row(name, run) for name, run in layers.items()]
    recurrent = 3 * (layers["time_gru"]["cpu_time"] + layers["freq_gru"]["cpu_time"])
    caches = (
        f"""- The caches. Alone the echo suppressor takes {us(alone)} us, in the chain {us(chained)}: between two of its frames the other
  modules' weights have taken the place of its own.
"""
        if chained > COLDER * alone
        else ""
    )
    return f"""{table(["network, kernels", *head], networks)}
{table(["part of the echo suppressor", *head], parts)}
What stands between the echo suppressor and the peak:

{caches}- The recurrent blocks, {us(recurrent)} us of a frame. Along frequency every position waits for the gates of the one before; along
  time the products are small, so that starting, ending and folding their sums weighs more.
- Loads of 64 bytes that straddle two cache lines, since taps step by one value, and one broadcast per weight beside every
  eight multiplications and additions, in the convolutions.
"""


def digest_section(found):
    rows = [[place, *row] for place, rows in found["digests"].items() for row in rows]
    return table(["platform", "kernels", "wakes", "digest"], rows, ["---", "---", "---:", "---"])


def page(found):
    m = found["machine"]
    busy = found["load"] > QUIET_LOAD * m["cores"]
    shared = (
        f"The machine was shared with other work (load {found['load']:.1f}): ratios within a table and\n"
        "instruction counts hold, times may be a third too long."
        if busy
        else "It was otherwise idle."
    )
    return f"""# Performance

Written by `./run bench` on {m["date"]}, revision {m["revision"]}: {m["processor"]} ({m["family"]}), {m["cores"]} cores,
{m["compiler"]}. {shared}

Times are processor time of one thread, of the sample recording played through the whole front end; of each frame the
smallest of several passes, which leaves out what else the machine did but not what a frame costs more than its
neighbours. A frame is 64 ms: three cancellers, the echo suppressor, three noise suppressors, 2.13 steps of wake-up engine
and direction estimator.

## Cost

{cost_section(found)}
### In WebAssembly

{wasm.section(found.get("wasm"), table)}
## Instructions

Executed instructions do not depend on the machine: callgrind on x86 (which does not know AVX-512), qemu-user on ARM.

{instruction_section(found)}
### Estimated cycles on devices' cores

Nobody here has these cores: the counts of the basic blocks above, weighted by what llvm-mca says of each on a core's
pipelines (`bench/cycles.py`; caches always hit, branches are always foreseen). `bound` is the busiest unit alone; the rest
is the whole pipeline, which llvm-mca makes complete in order, so that it loses cycles beside loads that the real cores do not.
The truth should lie between the two.

{cycles.table(found) if "cycles" in found else "Not measured: no build for AArch64."}

## Memory

{size_section(found)}
## Beside others

One process, one thread, in turns, the smallest of many rounds. Above 1 in the last column of figures: the peer takes
longer.

{peer_section(found)}
## Distance to the peak

The peak is that of separate multiplications and additions in registers of the variant's width, measured in the same
run; the library does not fuse them, so that every processor gives the same bits. The parts are layers of one shape each,
two steps of a frame, {next(iter(found["chain"]))}.

{peak_section(found)}
## The same bits

Digest of everything every module computed over {DIGEST_FRAMES} frames, wakes and angles included (`quibo_digest`, any score made
to wake). Tests compare these at every run; 32-bit ARM, which `./run check` runs too, has the scalar kernels
and exact NEON integers.

{digest_section(found)}"""


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("arm", type=pathlib.Path)
    parser.add_argument("arm32", type=pathlib.Path)
    parser.add_argument("--from", dest="earlier", type=pathlib.Path)
    arguments = parser.parse_args()
    kept = arguments.build / "performance.json"
    if arguments.earlier:
        found = json.loads(arguments.earlier.read_text())
    else:
        found = measure(arguments.build, arguments.arm, arguments.arm32)
        kept.write_text(json.dumps(found))
    (ROOT / "docs/performance.md").write_text(page(found))
    print(f"docs/performance.md; what was measured in {kept}")


if __name__ == "__main__":
    main()
