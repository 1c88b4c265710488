"""The wake-up engine alone, on what the front end feeds it: the wake phrase, what is nearly it and hours of anything
else, by speakers, in rooms and among noises it was not trained with.

Phrases are joined from isolated syllables of test speakers, each with a length and a place of its own, or fluent: clips in
which a test speaker says the whole. Every utterance is heard in every condition of its set, and its speakers take turns, so
that a voice that is heard less than others shows. What the engine hears is made once and kept (mixes are a function of seed
and number, and of made_from()). The microphones' mean goes to the engine; where the device plays, each microphone goes through
the canceller first.
"""

from __future__ import annotations

import argparse
import collections
import json
import pathlib
from collections.abc import Callable, Iterable, Iterator, Sequence

import numpy as np
import torch
import tqdm

from training import cache_keys, train
from training.corpus import ROLES, Clip, Corpus
from training.device_facts import BLOCK, RATE, THRESHOLD
from training.evaluate import device as devices
from training.evaluate import intervals, material, scenes
from training.evaluate.device import Device
from training.evaluate.material import Material
from training.evaluate.scenes import TestRooms
from training.library import WakeUp
from training.models import kws
from training.scenes import echo, mixing, noisy, sources
from training.scenes.audio import active_power, gain
from training.scenes.bank import RoomBank
from training.shared import Record
from training.syllables import decoder, texts, waves
from training.syllables.inventory import Phrase, classes_of, shipped

SEED = 20260102
LEAD, AFTER = 2.0, 1.2  # s before and behind an utterance
LEARNING = 6.0  # s of playback before it
LENGTH, SLOW = (0.17, 0.36), 0.6  # s per syllable
LEVEL = (-40.0, -20.0)  # dBFS of the talker
QUIET = 30.0  # dB
LONGEST = 6.0  # s of four syllables
PAUSED = 0.25  # of the "other orders", those that are the phrase with a pause in its middle
STRETCH = 60.0  # s of one scene without the phrase
STEP = BLOCK / RATE
SOONEST = 1.0  # s before an utterance's end; what wakes earlier was not it
REFRACTORY = 1.0  # s in which a second wake is not counted
RECIPE = (
    "device_facts",
    "evaluate.device",
    "evaluate.listening",
    "evaluate.scenes",
    "evaluate.sets",
    "scenes.array_geometry",
    "scenes.audio",
    "scenes.bank",
    "scenes.direction",
    "scenes.echo",
    "scenes.loudspeaker",
    "scenes.mixing",
    "scenes.noisy",
    "scenes.room",
    "scenes.sources",
    "scenes.steady",
    "syllables.inventory",
    "syllables.texts",
    "syllables.voices",
    "syllables.waves",
)

Condition = tuple[str, float, float | None]  # name, SNR, SER
CONDITIONS = (
    ("quiet", QUIET, None),
    ("noise 10 dB", 10.0, None),
    ("noise 5 dB", 5.0, None),
    ("music played, -10 dB", QUIET, -10.0),
)
# Set -> (utterances, conditions).
SETS = {
    "phrase": (200, CONDITIONS),
    "slow phrase": (100, CONDITIONS[:2]),
    "one syllable off": (300, CONDITIONS[:2]),
    "other order": (150, CONDITIONS[:1]),
    "fluent phrase": (200, CONDITIONS),
    "fluent near miss": (300, CONDITIONS[:2]),
}
PHRASES = ("phrase", "slow phrase")
HEARD = (*PHRASES, "fluent phrase")  # the other sets are not to wake the device


class Unsaid(Exception):
    """Nobody says the phrase."""


def speakers(corpus: Corpus, phrase: Phrase) -> list[str]:
    """Test speakers who say each of the phrase's syllables by itself."""
    said = {}
    for clip in corpus.clips("mandarin", scenes.SPLIT):
        said.setdefault(clip.speaker, set()).add(clip.pinyin)
    return sorted(s for s, names in said.items() if set(phrase.text.split()) <= names)


def fluent(corpus: Corpus, what: str, phrase: Phrase) -> dict[str, list[Clip]]:
    """{test speaker: clips} of the phrase, or of what is nearly the phrase."""
    found, wanted = {}, phrase.is_in if what == "fluent phrase" else phrase.is_nearly
    for clip in corpus.clips("mandarin", scenes.SPLIT):
        said = classes_of(clip.pinyin.split())
        if clip.ends and len(said) == len(phrase.said) and wanted(said):
            found.setdefault(clip.speaker, []).append(clip)
    return found


class Sayings:
    """What a set's utterances are, by its speakers."""

    def __init__(self, corpus: Corpus, what: str, phrase: Phrase) -> None:
        self.corpus, self.what, self.phrase, self.fluent = corpus, what, phrase, what.startswith("fluent")
        if self.fluent:
            self.clips = fluent(corpus, what, phrase)
        else:
            self.clips = {s: waves.Clips(corpus, s, scenes.SPLIT) for s in speakers(corpus, phrase)}
        self.speakers = sorted(self.clips)

    def draw(self, rng: np.random.Generator, speaker: str) -> tuple[np.ndarray, list[int]]:
        """The wave of an utterance and its syllables' classes."""
        if not self.fluent:
            return utterance(rng, self.clips[speaker], speaker, self.what, self.phrase)
        clip = self.clips[speaker][rng.integers(len(self.clips[speaker]))]
        return sources.levelled(waves.trimmed(self.corpus.read(clip))), classes_of(clip.pinyin.split())


def utterance(
    rng: np.random.Generator, clips: waves.Clips, speaker: str, what: str, phrase: Phrase
) -> tuple[np.ndarray, list[int]]:
    """The wave of an utterance and its syllables' classes."""
    known, said, pause = list(clips.syllables[speaker]), list(phrase.said), None
    length = SLOW if what == "slow phrase" else rng.uniform(*LENGTH)
    if what == "one syllable off":
        said = texts.one_off(rng, known, phrase)
    elif what == "other order":
        middle = (len(said) - 1) // 2
        said, pause = (said, middle) if rng.random() < PAUSED else (texts.disordered(rng, known, phrase), None)
    if what not in PHRASES and pause is None and phrase.is_in(said):
        return utterance(rng, clips, speaker, what, phrase)
    longest = LONGEST * max(1.0, len(phrase.said) / 4) * texts.FRAMES_PER_SECOND
    pieces = texts.joined(rng, clips, speaker, said, longest, pause, length)
    if pieces is None:
        return utterance(rng, clips, speaker, what, phrase)
    silence = pieces[0].begin
    for piece in pieces:
        piece.begin -= silence
    return waves.say(clips, pieces, round((pieces[-1].begin + pieces[-1].frames) / texts.FRAMES_PER_SECOND * RATE)), said


def heard(
    device: Device,
    corpus: Corpus,
    rooms: TestRooms,
    sayings: Sayings,
    speaker: str,
    number: int,
    conditions: Sequence[Condition],
) -> Iterator[tuple[str, np.ndarray, float, list[int]]]:
    """Yields (condition, int16 wave, s at which the utterance ends, classes)."""
    rng = np.random.default_rng([SEED, list(SETS).index(sayings.what), number])
    dry, said = sayings.draw(rng, speaker)
    end = len(dry)
    room = rooms.draw(rng, scenes.SPLIT)
    way = int(rooms.rooms["onset"][room][0][0]) - scenes.SIMULATOR_DELAY
    level, mic_gain = rng.uniform(*LEVEL), gain(rng.uniform(-noisy.MIC_GAIN, noisy.MIC_GAIN, (3, 1))).astype(np.float32)
    for name, snr, ser in conditions:
        own = np.random.default_rng([SEED, 9, number])  # the same surroundings in every condition
        lead = LEARNING if ser is not None else LEAD
        start = round(lead * RATE)
        samples = -(-(start + end + round(AFTER * RATE)) // scenes.FRAME) * scenes.FRAME
        x = np.zeros(samples, np.float32)
        x[start : start + end] = dry
        near = mixing.convolve(x, rooms.responses(room, "talker"))
        noise = scenes.ambience(corpus, own, rooms, room, samples)
        mics = scenes.at_power(near, active_power(near[0]), level)
        mics = mics + scenes.at_power(noise, mixing.power(noise[0]), level - snr)
        mics = mics + gain(scenes.SELF_NOISE) * own.standard_normal((3, samples), np.float32)
        if ser is not None:
            ref = echo.at_reference_level(own, sources.excerpts(corpus, own, "music", scenes.SPLIT, samples)[0])
            responses = rooms.responses(room, "loudspeaker")
            echoes = echo.echo(scenes.still_path(own), ref, responses, responses)
            mics = mics + scenes.at_power(echoes, active_power(echoes[0]), level - ser)
        mics = mics * mic_gain
        down = np.float32(min(1.0, scenes.PEAK / np.abs(mics).max()))
        wave = cancelled(device, mics * down, ref) if ser is not None else devices.mean(devices.to_int16(mics * down))
        yield name, wave, (start + way + end) / RATE, said


def cancelled(device: Device, mics: np.ndarray, ref: np.ndarray) -> np.ndarray:
    return devices.mean(np.stack([devices.to_int16(device.cancel(mic, ref)) for mic in mics]))


def without_phrase(device: Device, corpus: Corpus, rooms: TestRooms, number: int) -> np.ndarray:
    """A stretch of talk among noises, or of playback, in turns."""
    if number % 2 == 0:
        return devices.mean(devices.to_int16(scenes.noisy_talk(corpus, rooms, 10000 + number, STRETCH)))
    return cancelled(device, *scenes.playback_alone(corpus, rooms, 10000 + number, STRETCH))


class Kept:
    """Waves of a set with what is known about them, made once."""

    def __init__(self, folder: pathlib.Path, name: str) -> None:
        self.audio, self.rows = folder / f"{name}.i16", folder / f"{name}.json"

    def make(self, waves_and_rows: Iterable[tuple[np.ndarray, Record]]) -> Kept:
        if not self.rows.exists():
            rows, at = [], 0
            with open(self.audio, "wb") as f:
                for wave, row in waves_and_rows:
                    f.write(wave.tobytes())
                    rows.append({"start": at, "samples": len(wave), **row})
                    at += len(wave)
            self.rows.write_text(json.dumps(rows))
        return self

    def __iter__(self) -> Iterator[tuple[np.ndarray, Record]]:
        audio = np.memmap(self.audio, np.int16, "r")
        for row in json.loads(self.rows.read_text()):
            yield np.array(audio[row["start"] : row["start"] + row["samples"]]), row


def utterances(
    device: Device, corpus: Corpus, rooms: TestRooms, sayings: Sayings, count: int, conditions: Sequence[Condition]
) -> Iterator[tuple[np.ndarray, Record]]:
    """Yields (wave, what is known about it) of a set, its speakers taking turns."""
    for number in tqdm.trange(count, desc=sayings.what, mininterval=60):
        speaker = sayings.speakers[number % len(sayings.speakers)]
        for name, wave, end, said in heard(device, corpus, rooms, sayings, speaker, number, conditions):
            yield wave, {"condition": name, "end": end, "said": said, "speaker": speaker}


def prepare(
    of: Material, folder: pathlib.Path, hours: float, share: float = 1.0, sets: Iterable[str] = tuple(SETS)
) -> dict[str, Kept]:
    """{set: Kept}; hours of what is not the phrase; share: of the sets' utterances."""
    device, kept = Device(of.library), {}
    for what in sets:
        sayings, (whole, conditions) = Sayings(of.corpus, what, of.phrase), SETS[what]
        if sayings.speakers:
            count = max(1, round(whole * share))
            made = utterances(device, of.others, of.rooms, sayings, count, conditions)
            name = what.replace(" ", "_") + f"_{count}" * (count != whole)
            kept[what] = Kept(folder, name).make(made)
    if not set(kept) & set(HEARD):
        raise Unsaid(
            f"no {of.split} speaker says {of.phrase.text!r}, nor each of its syllables by itself: ./run voices --phrase"
        )
    if not hours:
        return kept
    stretches = (
        (without_phrase(device, of.others, of.rooms, i), {"condition": ("talk", "playback")[i % 2]})
        for i in tqdm.trange(round(hours * 3600 / STRETCH), desc="without the phrase", mininterval=60)
    )
    kept["without"] = Kept(folder, f"without_{hours:g}_h").make(stretches)
    return kept


class EngineListener:
    """The library: seconds at which it wakes on a wave, from a fresh start."""

    def __init__(self, of: Material) -> None:
        self.library, self.keyword = of.engine(), of.phrase.keyword

    def __call__(self, wave: np.ndarray) -> list[float]:
        with WakeUp(self.library, self.keyword) as listening:
            return [(step + 1) * STEP for step, heard in enumerate(listening.steps(wave)) if heard]


class FloatListener:
    """The averaged float network of a training under the decoder's rules; it is not started afresh after a wake."""

    def __init__(self, folder: pathlib.Path, nats: float, phrase: Phrase = shipped) -> None:
        """nats: its operating point."""
        self.model, self.phrase = kws.SyllableNetwork(), phrase
        self.model.load_state_dict(train.averaged(folder))
        self.model.favour(phrase.said, nats)
        self.model.eval()

    @torch.no_grad()
    def __call__(self, wave: np.ndarray) -> list[float]:
        whole = torch.from_numpy(wave[: len(wave) // BLOCK * BLOCK]).float()
        p = decoder.merged(kws.posteriors(self.model(kws.inputs(whole)[None])))
        said, divisor = self.phrase.keyword
        score, may_wake = decoder.scores(p, said)
        wakes = may_wake & (decoder.cost(score, divisor) < THRESHOLD)
        steps = wakes[0].nonzero()[:, 0].tolist()
        return [(t + 1) * STEP for i, t in enumerate(steps) if i == 0 or t - steps[i - 1] > 1]


def summary(kept: dict[str, Kept], listen: Callable[[np.ndarray], list[float]]) -> Record:
    """listen: int16 wave -> seconds at which it wakes. {set: {condition: share}, "without": {condition: rate}, "latency",
    "voices": {set: {speaker: {condition or "all": share}}}}"""
    result, voices, latencies = {}, {}, []
    for what, waves_of_set in kept.items():
        if what == "without":
            result[what] = false_wakes(waves_of_set, listen)
            continue
        found = []  # (speaker, condition, whether it was heard)
        for wave, row in waves_of_set:
            times = [t for t in listen(wave) if t > row["end"] - SOONEST]
            found.append((row["speaker"], row["condition"], bool(times)))
            if times and what == "phrase":
                latencies.append(times[0] - row["end"])
        result[what] = shares((condition, woke) for _, condition, woke in found)
        voices[what] = {
            speaker: shares((name, woke) for who, condition, woke in found if who == speaker for name in (condition, "all"))
            for speaker in sorted({who for who, _, _ in found})
        }
    result["latency"] = {f"p{q}": float(np.percentile(latencies, q)) for q in (5, 50, 95)} if latencies else {}
    return result | {"voices": voices}


def shares(found: Iterable[tuple[str, bool]]) -> Record:
    """{name: share} of (name, whether) pairs."""
    of = collections.defaultdict(list)
    for name, woke in found:
        of[name].append(woke)
    return {name: intervals.share(sum(woke), len(woke)) for name, woke in of.items()}


def false_wakes(stretches: Iterable[tuple[np.ndarray, Record]], listen: Callable[[np.ndarray], list[float]]) -> Record:
    """{condition or "all": rate}"""
    found = collections.defaultdict(list)
    for wave, row in stretches:
        times = listen(wave)
        spaced = [t for i, t in enumerate(times) if i == 0 or t - times[i - 1] > REFRACTORY]
        found[row["condition"]].append((len(spaced), len(wave) / RATE / 3600))
    found["all"] = [r for rows in found.values() for r in rows]
    return {name: intervals.rate(*map(sum, zip(*rows))) | {"hours": sum(h for _, h in rows)} for name, rows in found.items()}


def table(results: Record) -> str:
    """results: {listener: summary()}."""
    lines = []
    for listener, result in results.items():
        lines.append(listener)
        for what in (w for w in (*SETS, "without") if w in result):
            for name, r in result[what].items():
                if what == "without":
                    lines.append(
                        f"  {'wakes without the phrase, ' + name:45} {r['n']} in {r['hours']:.2f} h: "
                        f"{r['value']:.2f} per hour ({r['low']:.2f} to {r['high']:.2f})"
                    )
                else:
                    lines.append(f"  {what + ', ' + name:45} {percent(r)} of {r['n']}")
        if result["latency"]:
            lines.append(
                "  wake after the phrase's end, 5/50/95 %        "
                + " / ".join(f"{t:+.2f} s" for t in result["latency"].values())
            )
        for what, speakers_of_set in result["voices"].items():
            conditions = list(result[what])
            lines.append(f"  {what}, by voice: all conditions; {'; '.join(conditions)}, in %")
            for speaker, of in sorted(speakers_of_set.items(), key=lambda item: item[1]["all"]["value"]):
                each = " ".join(f"{100 * of[c]['value']:4.0f}" for c in conditions)
                lines.append(f"    {speaker:43} {percent(of['all'])} of {of['all']['n']:<5}{each}")
    return "\n".join(lines)


def percent(r: Record) -> str:
    """A share with its interval."""
    return f"{100 * r['value']:5.1f} % ({100 * r['low']:.1f} to {100 * r['high']:.1f})"


def made_from(
    corpus: Corpus, bank: RoomBank, library: pathlib.Path, phrase: Phrase = shipped, split: str = scenes.SPLIT
) -> Record:
    """What the waves are a function of (cache_keys.py). corpus: the one in which that split counts as the test split."""
    return {
        "library": cache_keys.file_digest(library),
        "corpus": corpus.used(ROLES, scenes.SPLIT),
        "bank": bank.contents(bank.numbers(split)),
        "recipe": cache_keys.constants(*RECIPE),
    } | ({} if phrase == shipped else {"phrase": phrase.text})


def kept_of(
    of: Material, parent: pathlib.Path, hours: float, share: float = 1.0, sets: Iterable[str] = tuple(SETS)
) -> dict[str, Kept]:
    """prepare() in the folder of what it is a function of."""
    made = made_from(of.corpus, of.bank, of.library, of.phrase, of.split)
    return prepare(of, cache_keys.begin(parent, made), hours, share, sets)


def add_options(parser: argparse.ArgumentParser) -> None:
    material.add_options(parser)
    parser.add_argument("--trained", type=pathlib.Path, help="folder of a training: its float network is measured too")
    parser.add_argument("--nats", type=float, default=0.0, help="operating point of the float network")
    parser.add_argument("--hours", type=float, default=12.0, help="without the phrase")
    parser.add_argument("--share", type=float, default=1.0, help="of the utterances (default: all)")
    parser.add_argument("--out", type=pathlib.Path, help="JSON to write")
    parser.add_argument("--only-prepare", action="store_true", help="make the waves and stop")


def run(arguments: argparse.Namespace) -> None:
    of = Material.of(arguments)
    try:
        kept = kept_of(of, arguments.cache / "listening", arguments.hours, arguments.share)
    except Unsaid as reason:
        raise SystemExit(f"listen: {reason}") from None
    if arguments.only_prepare:
        return
    results = {"engine": summary(kept, EngineListener(of))}
    if arguments.trained:
        results["float network"] = summary(kept, FloatListener(arguments.trained, arguments.nats, of.phrase))
    print(table(results))
    if arguments.out:
        arguments.out.write_text(json.dumps(results, indent=1))
