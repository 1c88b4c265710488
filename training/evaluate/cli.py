"""Measures the built library on fixed simulated scenes, beside what else is at hand: a table on the
terminal, JSON and an HTML report in a folder."""

import json
import os
import pathlib
import time

from training.shared import ROOT

SECTIONS = ("noise", "echo", "devices", "direction", "wake")
SIZED = ("noise", "echo", "direction", "wake")


def add_options(parser):
    parser.add_argument("--short", action="store_true", help="minutes instead of hours")
    parser.add_argument(
        "--data",
        type=pathlib.Path,
        help="folder of audio as for training; without it synthetic speech only",
    )
    parser.add_argument("--library", type=pathlib.Path, default=ROOT / "build-release/libquibo.so")
    parser.add_argument(
        "--params",
        type=pathlib.Path,
        default=ROOT / "params",
        help="the parameter files the library was built with",
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
    parser.add_argument("--sections", default=",".join(SECTIONS), help=f"of {','.join(SECTIONS)}")
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


def run(arguments):
    os.environ.setdefault("OMP_NUM_THREADS", "1")
    import dataclasses

    import tqdm

    from training.corpus import open_corpus
    from training.data import SEED
    from training.evaluate import devices, direction, echo_path, noise, report, revision, scenes, sets, wake
    from training.evaluate.device import Device
    from training.scenes.bank import build_bank

    wanted = arguments.sections.split(",")
    if unknown := set(wanted) - set(SECTIONS):
        raise SystemExit(f"evaluate: no section {' '.join(sorted(unknown))}")
    if not arguments.library.exists():
        raise SystemExit(f"evaluate: no library {arguments.library}: build it, or name one with --library")
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
    device = Device(arguments.library)
    corpus = open_corpus(arguments.data, arguments.cache / "corpus", SEED)
    bank = build_bank(arguments.bank or arguments.cache / "bank", sizes.rooms, SEED)
    rooms = scenes.TestRooms(bank, sizes.rooms)
    others = scenes.without_phrases(corpus)
    speech = clean_speech(others)
    results = {
        "about": {
            "set": "short" if arguments.short else "long",
            "sizes": dataclasses.asdict(sizes),
            "seed": sets.SEED,
            "data": corpus.digest(),
            "speech": "recordings" if arguments.data else "synthetic",
            "rooms": bank.digest(),
            **revision.describe(arguments.library, arguments.params),
        }
    }
    counts = {
        "noise": sizes.noise,
        "echo": sizes.echo,
        "devices": None,
        "direction": sizes.direction,
        "wake": sizes.wake + round(sizes.silence_minutes),
    }
    for name in SECTIONS:
        if name not in wanted or name == "devices" and not has_devices(corpus):
            continue
        with tqdm.tqdm(total=counts[name], desc=name, unit="scene", mininterval=1 if os.isatty(2) else 60) as bar:
            if name == "wake":
                results[name] = wake.run(device, corpus, rooms, sizes, bar.update)
            elif name == "direction":
                results[name] = direction.run(device, others, sizes, bar.update)
            elif name == "devices":
                results[name] = devices.run(device, corpus.root, speech, bar.update)
            elif name == "noise":
                results[name] = noise.run(device, others, rooms, sizes, speech, bar.update, arguments.gtcrn)
            else:
                results[name] = echo_path.run(device, others, rooms, sizes, speech, bar.update)
    results["about"]["minutes"] = round((time.time() - started) / 60, 1)

    arguments.out.mkdir(parents=True, exist_ok=True)
    (arguments.out / "evaluation.json").write_text(json.dumps(results, indent=1), encoding="utf-8")
    report.write(results, arguments.out / "evaluation.html")
    print(report.terminal(results))
    print(f"wrote {arguments.out / 'evaluation.json'} and {arguments.out / 'evaluation.html'}")


def has_devices(corpus):
    """Whether the corpus has recordings of real devices."""
    from training.evaluate.devices import FOLDER

    return corpus.root is not None and (corpus.root / FOLDER).exists()


def clean_speech(corpus):
    """4 s of talk, on which the peers' delays are measured."""
    import numpy as np

    from training.evaluate import sets
    from training.scenes import sources
    from training.scenes.audio import RATE

    return sources.talk(corpus, np.random.default_rng(sets.SEED), "near", "test", 4 * RATE)
