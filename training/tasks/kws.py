"""Wake-up network: syllables of Mandarin speech by connectionist temporal classification (Graves et al. 2006).

Three losses, one after the other: cross-entropy on the known places of the syllables; CTC within a window around each
syllable's end, so that nothing is said before it has been heard; beside it, in the last part, the decoder's own score.
"""

from __future__ import annotations

import functools
import math
import pathlib
import shutil
from collections.abc import Callable, Iterable, Sequence

import numpy as np
import torch

from params import keyword_table
from params.syllable_names import class_names

from .. import tasks
from ..data import kws as scenes
from ..device_facts import BLANK, CLASSES, FILLER, THRESHOLD
from ..evaluate import listening, new_phrase
from ..models import kws, kws_tables
from ..models.quantise import set_mode
from ..shared import PARAMS, Config, Tables
from ..syllables import batch as batches
from ..syllables import decoder
from ..syllables.inventory import Phrase, shipped

NOT_NOW = -20.0  # log probability taken from a class outside its windows
SAID = 3  # steps from a syllable's end in which cross-entropy wants its class
OPERATING_POINTS = "operating_points.md"  # in the folder of another phrase
PER_TEXT = 4.0  # weighs texts of different length: nats per (syllables + this)


class Task(tasks.Task):
    data: scenes.Scenes | scenes.Stub

    def __init__(self, config: Config, source: scenes.Scenes | scenes.Stub) -> None:
        super().__init__(config, source)
        self.phrase = scenes.phrase_of(config)

    def model(self) -> kws.SyllableNetwork:
        return kws.SyllableNetwork()

    def sample(self, rng: np.random.Generator, split: str, progress: float = 1.0) -> dict[str, np.ndarray]:
        c = self.config["data"]
        return self.data.batch(rng, c["batch"], c["seconds"], split, progress)

    def log_posteriors(self, model: torch.nn.Module, batch: tasks.Batch, chained: int = 1) -> torch.Tensor:
        """As the decoder has them. chained: so many utterances follow each other without a reset of the network."""
        x = batch["features"]
        chained = math.gcd(chained, len(x))
        y = model(x.reshape(len(x) // chained, -1, x.shape[-1]))
        return decoder.merged(kws.posteriors(y).reshape(len(x), -1, y.shape[-1]))

    def loss(
        self, model: torch.nn.Module, batch: tasks.Batch, rng: np.random.Generator
    ) -> tuple[torch.Tensor, dict[str, float]]:
        c, progress = self.config["loss"], float(batch["progress"])
        p = self.log_posteriors(model, batch, c["chained"] if rng.random() < c["chained_share"] else 1)
        ramp = lambda begin, end: min(1.0, max(0.0, (progress - begin) / (end - begin)))
        share, values, total = ramp(*c["ctc_from"]), {}, 0.0
        values["cross_entropy"] = cross_entropy(p, batch, whole=share < 1)
        total = total + (c["cross_entropy"] + share * (c["cross_entropy_last"] - c["cross_entropy"])) * values["cross_entropy"]
        values["ctc"] = ctc(p, batch)
        total = total + (c["ctc_first"] + (1 - c["ctc_first"]) * share) * values["ctc"]
        share = ramp(*c["hinge_from"])
        if share > 0:
            score, may_wake = decoder.scores(p, self.phrase.said)
            values["missed"], values["false"] = hinge(score, may_wake, batch, c["enough"], c["too_much"], self.phrase)
            self.mine(score.detach(), batch)
            total = total + share * (c["missed"] * values["missed"] + c["false"] * values["false"])
        return total, {name: value.item() for name, value in values.items()}

    def mine(self, score: torch.Tensor, batch: tasks.Batch) -> None:
        """Which near misses of a batch of training would wake a device."""
        woke = decoder.cost(score.amax(1), len(self.phrase.said)) < THRESHOLD
        for row in torch.nonzero(batch["kind"] == batches.KINDS.index("near miss")).flatten():
            self.data.confusions.heard([int(c) for c in batch["labels"][row] if c > 0], bool(woke[row]))

    def state(self) -> Tables:
        return {"confusions": self.data.confusions.rates}

    def resume(self, state: Tables) -> None:
        if "confusions" in state:
            self.data.confusions.rates.copy_(state["confusions"])

    def validate(self, model: torch.nn.Module, batch: tasks.Batch) -> dict[str, float]:
        p = self.log_posteriors(model, batch)
        wrong = total = 0
        for path, row, kind in zip(p.argmax(-1), batch["labels"].long(), batch["kind"].long()):
            if batches.KINDS[kind] in ("string", "words"):
                heard = [int(c) for c in torch.unique_consecutive(path) if c not in (BLANK, FILLER)]
                said = [int(c) for c in row if c > 0]
                wrong, total = wrong + edit_distance(heard, said), total + len(said)
        score, may_wake = decoder.scores(p, self.phrase.said)
        wakes = (torch.where(may_wake, decoder.cost(score, len(self.phrase.said)), torch.inf).amin(1) < THRESHOLD).float()
        results = {"ctc": ctc(p, batch).item(), "syllable_error": wrong / max(1, total)}
        for i, kind in enumerate(batches.KINDS):
            of_kind = batch["kind"] == i
            if of_kind.any():
                results[f"wakes on {kind}"] = wakes[of_kind].mean().item()
        return results

    def start(self, model: kws.SyllableNetwork, tables: Tables) -> None:
        kws_tables.load(model, tables)

    def set_operating_point(self, model: kws.SyllableNetwork, phrase: float) -> None:
        """phrase: nats added to what the phrase's syllables score. The decoder's thresholds are fixed."""
        model.favour(self.phrase.said, phrase)

    @torch.no_grad()
    def calibrate(self, model: torch.nn.Module, batches: Iterable[tasks.Batch]) -> None:
        """Ranges of all codes from batches of training audio; afterwards the model rounds."""
        model.eval()
        set_mode(model, "observe")
        for batch in batches:
            self.log_posteriors(model, batch)
        set_mode(model, "codes")

    def write_beside(self, folder: pathlib.Path) -> None:
        """Another phrase makes a whole folder of parameters, to build with, at an operating point chosen for it."""
        if self.phrase == shipped:
            return
        keyword_table.write(folder / keyword_table.FILE, [keyword_table.keyword(self.phrase.text.split())])
        for path in PARAMS.glob("*.safetensors"):
            if not (folder / path.name).exists():
                shutil.copy(path, folder)
        if table := self.listened(new_phrase.settle, folder):
            (folder / OPERATING_POINTS).write_text(table, encoding="utf-8")
            print(table)

    def examine(self, folder: pathlib.Path) -> None:
        """Another phrase has a card of its own, made of what export has left in the folder."""
        if self.phrase == shipped or not (folder / OPERATING_POINTS).exists():
            return
        if figures := self.listened(new_phrase.heard, folder):
            parts = [(folder / name).read_text(encoding="utf-8") for name in (OPERATING_POINTS, "kws.draft.md")]
            path = folder / f"{self.phrase.text.replace(' ', '_')}.md"
            path.write_text(new_phrase.card(self.phrase.text, parts[0], figures, parts[1]), encoding="utf-8")
            print(f"{figures}\nwrote {path}")

    def listened(self, how: Callable[..., str], folder: pathlib.Path) -> str:
        """What one of new_phrase's functions says of a folder, or nothing where that cannot be had."""
        d = self.data
        if not isinstance(d, scenes.Scenes) or d.library is None:
            return ""
        try:
            return how(d.library, folder, d.corpus, d.bank, d.folder("listening"), self.config["listen"])
        except listening.Unsaid as reason:
            print(f"training: not listened to: {reason}")
            return ""

    def metadata(self) -> dict[str, str]:
        return {"classes": class_names(), "phrase": self.phrase.text}


def edit_distance(a: Sequence[int], b: Sequence[int]) -> int:
    row = list(range(len(b) + 1))
    for i, x in enumerate(a, 1):
        diagonal, row[0] = row[0], i
        for j, y in enumerate(b, 1):
            diagonal, row[j] = row[j], min(row[j] + 1, row[j - 1] + 1, diagonal + (x != y))
    return row[-1]


def windows(batch: tasks.Batch, steps: int) -> torch.Tensor:
    """[B, T, 146]: where each class may be said."""
    t = torch.arange(steps, device=batch["labels"].device)
    inside = (t >= batch["first"][..., None]) & (t <= batch["last"][..., None]) & (batch["labels"][..., None] > 0)
    classes = torch.nn.functional.one_hot(batch["labels"].long(), CLASSES).float()
    allowed = torch.bmm(inside.float().transpose(1, 2), classes) > 0
    allowed[..., BLANK] = True
    return allowed


def ctc(p: torch.Tensor, batch: tasks.Batch) -> torch.Tensor:
    """Nats per syllable. Syllables without a class are part of the blank, as they are for the decoder. Speech in other
    languages may sound like syllables and is left to the hinge."""
    labels = batch["labels"].long()
    lengths = (labels > 0).sum(1)
    steps = torch.full_like(lengths, p.shape[1])
    p = torch.where(windows(batch, p.shape[1]), p, p + NOT_NOW)
    nats = torch.nn.functional.ctc_loss(
        p.transpose(0, 1), labels, steps, lengths, blank=BLANK, reduction="none", zero_infinity=True
    )
    weight = (batch["kind"] != batches.KINDS.index("far")).float()
    return (weight * nats / (lengths + PER_TEXT)).mean()


def cross_entropy(p: torch.Tensor, batch: tasks.Batch, whole: bool = False) -> torch.Tensor:
    """Of the utterances joined from single syllables: each class for some steps from its syllable's end on (a slow one's
    from a little before), else blank. whole: from the middle of each syllable on, which is learnt sooner."""
    steps = p.shape[1]
    t = torch.arange(steps, device=p.device)
    begin = batch["middle"] if whole else batch["first"] + batches.EARLY
    end = batch["last"] - batches.LATE + SAID
    wanted = torch.full(p.shape[:2], BLANK, device=p.device)
    for label, a, b in zip(batch["labels"].long().unbind(1), begin.unbind(1), end.unbind(1)):
        here = (t >= a[:, None]) & (t < b[:, None]) & (label[:, None] > 0)
        wanted = torch.where(here, label[:, None], wanted)
    nats = torch.nn.functional.nll_loss(p.transpose(1, 2), wanted, reduction="none")
    weight = torch.where(wanted == BLANK, 0.25, 1.0) * batch["certain"][:, None]
    weight = weight * (batch["kind"] != batches.KINDS.index("far")).float()[:, None]
    return (weight * nats).sum() / (weight.sum() + 1e-6)


def hinge(
    score: torch.Tensor, may_wake: torch.Tensor, batch: tasks.Batch, enough: float, too_much: float, of: Phrase = shipped
) -> tuple[torch.Tensor, torch.Tensor]:
    """Of decoder.scores(): how far the phrase's cost is above `enough`; how far, in nats per syllable, anything else scores
    above `too_much`, the score of a phrase of DIVISOR syllables."""
    cost = functools.partial(decoder.cost, divisor=float(len(of.said)))
    phrase = (batch["kind"] == batches.KINDS.index("phrase")).float()
    best = torch.where(may_wake, score, score * 0).amax(1)
    missed = torch.relu(cost(best) - enough)
    worst = score.amax(1)
    false = torch.relu(decoder.cost(worst.new_tensor(too_much)) - cost(worst))
    return ((phrase * missed).sum() / (phrase.sum() + 1e-6), ((1 - phrase) * false).sum() / ((1 - phrase).sum() + 1e-6))
