"""Mandarin by the voices of a neural synthesiser, with the places of the syllables, as a folder of a training corpus.

Two dozen voices that speak connectedly, where recordings are isolated syllables of few. The synthesiser is a package of
its own (requirements.txt); where in a clip each syllable ends is read off its attention.
"""

from __future__ import annotations

import argparse
import csv
import hashlib
import importlib.util
import pathlib
import sys
from collections.abc import Iterator

import numpy as np
import soundfile
import torch
import tqdm
from scipy import signal

from training.device_facts import FULL_SCALE, RATE
from training.neural_voices import lines
from training.syllables import linter
from training.syllables.inventory import Phrase, shipped

SPEECH_RATE, SPEECH_HOP = 22050, 256  # of the synthesiser
STEPS = 450  # the longest line takes less
ENDED = 0.5  # gate at which an utterance is over
SURE = 0.5  # attention a syllable gets in one of its frames, at least
SMALLEST = 1e-4
MARGIN = 0.06  # s kept around a group
SHORTEST, LONGEST = 0.06, 0.7  # s of a syllable that can be right
LICENCE = "ttskit, MIT"
# One of the package's voices is left out: the recordings it was made from are not for commercial use.
VOICES = (
    "Aibao Aicheng Aida Aijia Aijing Aimei Aina Aiqi Aitong Aiwei Aixia Aiya Aiyu Aiyue Siyue Xiaobei Xiaogang "
    "Xiaomei Xiaomeng Xiaowei Xiaoxue Xiaoyun Yina"
).split()
# What is half one voice and half another is a voice, too. None of them has a part in a voice that is held out.
MIXED = (
    "Aicheng+Aiyue Aicheng+Aibao Xiaogang+Aina Xiaogang+Xiaowei Aicheng+Xiaogang Aibao+Yina Aitong+Xiaoyun "
    "Aiwei+Aijia Aixia+Xiaoxue Aiya+Aicheng Xiaomeng+Xiaogang Aimei+Aitong"
).split()


# A speaker is a vector made from a name, so any name is a voice. Those of INVENTED are for training: nothing of a voice that
# is held out is in their vectors. Those of UNKNOWN are for testing: nothing of any voice named above is in theirs.
HELD_OUT = "Aida Aijing Aiqi Aiyu Siyue Xiaobei Xiaomei".split()
INVENTED, UNKNOWN = "Invented", "Unknown"
COUNTS = {INVENTED: 60, UNKNOWN: 20}
FEW = 20  # lines of a voice that is nobody's: many voices tell more than many lines
# The package's own voices speak at -38 to -14 dBFS. A vector far from theirs may come out louder, and then without formants:
# the synthesiser aligns what nobody can understand.
LOUDEST = -12.0
INTELLIGIBLE = 0.8  # of a voice's groups that must have come out right; what is below is dropped


def vector(name: str) -> np.ndarray:
    """The mean of what the package makes of the names."""
    return np.mean(
        [[(int(digit, 16) - 7) / 10 for digit in hashlib.md5(n.encode()).hexdigest()] for n in name.split("+")], axis=0
    )


def nobody() -> list[str]:
    """Names of the invented voices that are made unless others are named."""
    return [f"{kind}{n:03}" for kind, count in COUNTS.items() for n in range(1, count + 1)]


def span(names: list[str]) -> np.ndarray:
    """Orthonormal rows."""
    return np.linalg.qr(np.stack([vector(name) for name in names]).T)[0].T


def speaker(name: str) -> list[float]:
    """An invented voice's vector is as long as it was before what it must not hold was taken away."""
    v = vector(name)
    named, held_out = span(VOICES), span(HELD_OUT)
    inside = named.T @ (named @ v)
    if name.startswith(UNKNOWN):
        kept = v - inside
    elif name.startswith(INVENTED):
        kept = inside - held_out.T @ (held_out @ v)
    else:
        return v.tolist()
    return (kept * np.linalg.norm(v) / np.linalg.norm(kept)).tolist()


class Synthesiser:
    def __init__(self) -> None:
        package = pathlib.Path(importlib.util.find_spec("ttskit").origin).parent
        sys.path.append(str(package))  # its stored models name their modules so
        from mellotron import text
        from phkit.chinese.phoneme import shengyun2ph_dict

        folder = package / "resource" / "model"
        self.text = text
        self.speech = torch.load(folder / "mellotron.kuangdd-mspk.pt", map_location="cpu")
        self.vocoder = torch.load(folder / "melgan.kuangdd.pt", map_location="cpu")
        self.speech.decoder.max_decoder_steps = STEPS
        self.speech.eval()
        self.vocoder.eval()
        self.known = sorted(shengyun2ph_dict)

    @torch.no_grad()
    def speak(self, name: str, texts: list[list[list[str]]]) -> Iterator[tuple[np.ndarray, np.ndarray, list[int]]]:
        """Texts (groups of syllables) of equal length -> per text samples and attention [frames, symbols], symbols."""
        rows = [self.text.text_to_sequence(" , ".join(" ".join(group) for group in text) + " .", "pinyin") for text in texts]
        speakers = torch.tensor([speaker(name)] * len(rows))
        _, mel, gate, attention = self.speech.inference((torch.tensor(rows), 0, speakers, None))
        gate = torch.sigmoid(gate.reshape(len(rows), -1)).numpy()
        for i, row in enumerate(rows):
            over = np.flatnonzero(gate[i] > ENDED)
            over = over[over > len(row) // 2]  # some voices seem to end before they begin
            frames = int(over[0]) if len(over) else mel.shape[2]
            yield self.vocoder.inference(mel[i : i + 1, :, :frames]).numpy() / FULL_SCALE, attention[i, :frames].numpy(), row


def spans(attention: np.ndarray, row: list[int], chain: int) -> tuple[list[tuple[int, int]], np.ndarray]:
    """First frame and the one behind the last of each syllable and pause of a line, along the best way through the
    attention that takes them one after the other: once a pause has begun, it may rest anywhere."""
    number = np.cumsum([0] + [symbol == chain for symbol in row[:-1]])
    rests = np.stack([attention[:, number == n].sum(1) for n in range(number[-1])])  # [syllables and pauses, frames]
    scores = np.log(rests + SMALLEST)
    best, moved = np.full(len(scores), -np.inf), []
    best[0] = 0.0
    for column in scores.T:
        before = np.concatenate([[-np.inf], best[:-1]])
        moved.append(before >= best)
        best = np.maximum(best, before) + column
    at, way = len(scores) - 1, []
    for frame in reversed(range(len(moved))):
        way.append(at)
        at -= moved[frame][at]
    way = np.array(way[::-1])
    return [(int(np.searchsorted(way, n)), int(np.searchsorted(way, n, "right"))) for n in range(len(scores))], rests


def clips(
    samples: np.ndarray, attention: np.ndarray, row: list[int], text: list[list[str]], chain: int
) -> Iterator[tuple[list[str], np.ndarray, list[float]]]:
    """Yields (syllables, samples, ends in s) of the groups that came out right."""
    (found, rests), at = spans(attention, row, chain), 0
    for group in text:
        numbers = range(at, at + len(group))
        at += len(group) + 1  # and the pause
        places = [found[n] for n in numbers]
        lengths = [(end - begin) * SPEECH_HOP / SPEECH_RATE for begin, end in places]
        sure = all(rests[n, begin:end].max(initial=0) > SURE for n, (begin, end) in zip(numbers, places))
        if not sure or min(lengths) < SHORTEST or max(lengths) > LONGEST:
            continue
        begin = max(0, round(places[0][0] * SPEECH_HOP - MARGIN * SPEECH_RATE))
        end = min(len(samples), round(places[-1][1] * SPEECH_HOP + MARGIN * SPEECH_RATE))
        yield group, samples[begin:end], [(e * SPEECH_HOP - begin) / SPEECH_RATE for _, e in places]


def main(argv: list[str] | None = None) -> None:
    parser = argparse.ArgumentParser(prog="python -m training.neural_voices", description=__doc__)
    parser.add_argument("out", type=pathlib.Path, help="folder to make, in a corpus")
    parser.add_argument("--texts", type=pathlib.Path, help="corpus whose words are said; without it strings of syllables")
    parser.add_argument("--phrase", type=linter.checked, default=shipped.text, help="the wake phrase, in syllables")
    parser.add_argument("--lines", type=int, default=160, help=f"of three groups, per voice; at most {FEW} of an invented one")
    parser.add_argument("--batch", type=int, default=32)
    parser.add_argument(
        "--voices",
        nargs="*",
        default=[*VOICES, *MIXED, *nobody()],
        help=f"any {INVENTED}... and {UNKNOWN}... beside the package's",
    )
    arguments = parser.parse_args(argv)
    torch.set_num_threads(1)
    synthesiser = Synthesiser()
    chain = synthesiser.text.text_to_sequence("a1", "pinyin")[3]
    recorded = lines.words(arguments.texts) if arguments.texts else []
    phrase = Phrase.of(arguments.phrase)
    if unknown := set(phrase.text.split()) - set(synthesiser.known):
        raise SystemExit(f"voices: the synthesiser cannot say {' '.join(sorted(unknown))}")
    arguments.out.mkdir(parents=True, exist_ok=True)
    for name in tqdm.tqdm(arguments.voices, mininterval=30):
        manifest = arguments.out / f"{name}.csv"
        if manifest.exists():
            continue
        source, rows = lines.Lines(np.random.default_rng(list(name.encode())), recorded, synthesiser.known, phrase), []
        invented = name.startswith((INVENTED, UNKNOWN))
        texts = [source.line() for _ in range(min(FEW, arguments.lines) if invented else arguments.lines)]
        torch.manual_seed(0)  # the synthesiser's dropout stays on
        for start in range(0, len(texts), arguments.batch):
            some = texts[start : start + arguments.batch]
            for text, spoken in zip(some, synthesiser.speak(name, some)):
                for said, samples, ends in clips(*spoken, text, chain):
                    path = f"{name}/{len(rows):05d}.wav"
                    x = signal.resample_poly(samples, 320, 441)
                    (arguments.out / name).mkdir(exist_ok=True)
                    soundfile.write(arguments.out / path, np.clip(x, -1, 1), RATE, subtype="PCM_16")
                    rows.append(
                        {
                            "path": path,
                            "seconds": f"{len(x) / RATE:.3f}",
                            "speaker": f"neural {name}",
                            "pinyin": " ".join(s[:-1] for s in said),
                            "pinyin_tones": " ".join(said),
                            "ends": " ".join(f"{e:.3f}" for e in ends),
                            "licence": LICENCE,
                        }
                    )
        groups = sum(map(len, texts))
        kept = len(rows) >= INTELLIGIBLE * groups
        print(f"{name}: {len(rows)} of {groups} groups{'' if kept else ', dropped'}", file=sys.stderr)
        write(manifest, rows if kept else [])
    together(arguments.out)


def write(path: pathlib.Path, rows: list[dict[str, str]]) -> None:
    with open(path, "w", newline="", encoding="utf-8") as f:
        writer = csv.DictWriter(f, ["path", "seconds", "speaker", "pinyin", "pinyin_tones", "ends", "licence"])
        writer.writeheader()
        writer.writerows(rows)


def level(folder: pathlib.Path, rows: list[dict[str, str]]) -> float:
    """Of a voice, in dBFS."""
    powers = [np.square(soundfile.read(folder / row["path"])[0]).mean() for row in rows]
    return float(10 * np.log10(np.mean(powers) + 1e-12))


def together(folder: pathlib.Path) -> None:
    """The voices' manifests as the folder's, but for those that are too loud."""
    rows = []
    for path in sorted(folder.glob("*.csv")):
        if path.name != "manifest.csv":
            with open(path, newline="", encoding="utf-8") as f:
                of_voice = list(csv.DictReader(f))
            if of_voice and (loud := level(folder, of_voice)) > LOUDEST:
                print(f"{path.stem}: {loud:.0f} dBFS, dropped", file=sys.stderr)
            else:
                rows += of_voice
    write(folder / "manifest.csv", rows)


if __name__ == "__main__":
    main()
