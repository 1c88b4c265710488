"""Wake-up network: syllables of Mandarin speech by connectionist temporal classification (Graves et al. 2006)."""
import torch

from ..models import kws
from ..models.quantise import set_mode


class Task:
    def __init__(self, config, data):
        self.config, self.data = config, data

    def model(self):
        return kws.SyllableNetwork()

    def sample(self, rng, split):
        c = self.config["data"]
        return self.data.kws_batch(rng, c["batch"], c["seconds"], split)

    def log_posteriors(self, model, batch):
        with torch.no_grad():
            features = kws.inputs(batch["wave"])
        return kws.posteriors(model(features))

    def loss(self, model, batch, rng):
        p = self.log_posteriors(model, batch)
        labels = batch["labels"].long()
        lengths = (labels > 0).sum(1)
        steps = torch.full_like(lengths, p.shape[1])
        return torch.nn.functional.ctc_loss(p.transpose(0, 1), labels, steps, lengths, blank=kws.BLANK,
                                            zero_infinity=True), {}

    def validate(self, model, batch):
        best = self.log_posteriors(model, batch).argmax(-1)
        wrong = total = 0
        for path, row in zip(best, batch["labels"].long()):
            heard = [int(c) for c in torch.unique_consecutive(path) if c not in (kws.BLANK, kws.FILLER)]
            said = [int(c) for c in row if c > 0]
            wrong, total = wrong + edit_distance(heard, said), total + len(said)
        return {"loss": self.loss(model, batch, None)[0].item(), "syllable_error": wrong / total}

    @torch.no_grad()
    def calibrate(self, model, batches):
        """Ranges of all codes from batches of training audio; afterwards the model rounds."""
        model.eval()
        set_mode(model, "observe")
        for batch in batches:
            self.log_posteriors(model, batch)
        set_mode(model, "codes")


def edit_distance(a, b):
    row = list(range(len(b) + 1))
    for i, x in enumerate(a, 1):
        diagonal, row[0] = row[0], i
        for j, y in enumerate(b, 1):
            diagonal, row[j] = row[j], min(row[j] + 1, row[j - 1] + 1, diagonal + (x != y))
    return row[-1]
