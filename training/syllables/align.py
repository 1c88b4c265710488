"""Words and sentences cut into their syllables, by a network that has learnt some already.

Isolated syllables are few per voice, and said differently; what a speaker says in words and sentences is cut out by the
best path of the known text through the network's posteriors, a syllable ending where its class is first said.
"""
import numpy as np
import torch

from ..models import kws
from . import batch, decoder, spectra, voices

LEVEL = -30.0  # dBFS at which the network hears a piece
FLOOR = -75.0
BEFORE, AFTER = 30, 20  # frames of silence around a piece
UNKNOWN = np.log(0.02)  # of a syllable without a class, at any step
CERTAIN = np.log(0.05)  # log posterior of a class that is taken to have been heard
LENGTH = (0.09, 0.55)  # s of a syllable that is kept


def features(rows):
    """Log power spectra of a piece, 5 ms apart -> log mel, 10 ms apart, in silence."""
    energy = np.exp(np.float32(rows[::2])) @ spectra.mel() * np.float32(10**(LEVEL / 10))
    energy = np.pad(energy, ((BEFORE, AFTER + (-len(energy)) % batch.BLOCK_FRAMES), (0, 0)))
    floor = np.float32(10**(FLOOR / 10) / spectra.level_weights() / 40)
    return np.log(energy + floor)[:(len(energy) // batch.BLOCK_FRAMES) * batch.BLOCK_FRAMES]


def path(log_posteriors, said):
    """The step at which each syllable is first said on the best path (Viterbi), its log posterior there."""
    blank = log_posteriors[:, kws.BLANK]
    own = [log_posteriors[:, c] if c else np.full_like(blank, UNKNOWN) for c in said]
    emit = np.stack([blank if j % 2 == 0 else own[j // 2] for j in range(2 * len(said) + 1)], 1)
    steps, states = emit.shape
    skip = np.array([j > 1 and j % 2 == 1 and said[j // 2] != said[j // 2 - 1] for j in range(states)])
    best, came = np.full(states, -np.inf), np.zeros((steps, states), int)
    best[:2] = emit[0, :2]
    for t in range(1, steps):
        choices = np.stack([best, np.r_[-np.inf, best[:-1]], np.where(skip, np.r_[-np.inf, -np.inf, best[:-2]], -np.inf)])
        came[t] = choices.argmax(0)
        best = choices.max(0) + emit[t]
    j = states - 1 if best[-1] > best[-2] else states - 2
    first = np.zeros(len(said), int)
    for t in range(steps - 1, -1, -1):
        if j % 2:
            first[j // 2] = t
        j -= came[t, j]
    return first, np.array([own[i][max(0, t):t + 3].max() for i, t in enumerate(first)])


@torch.no_grad()
def cut(model, bank):
    """Pieces [speaker, first frame, frames, [class]] from those of several syllables."""
    found = []
    per_step = batch.BLOCK_FRAMES * spectra.FEATURE_HOP // voices.HOP
    for speaker, at, frames, said in bank.pieces:
        if len(said) < 2 or not any(said):
            continue
        x = torch.from_numpy(features(bank.spectra[at:at + frames]))[None]
        p = decoder.merged(kws.posteriors(model(x)))[0].numpy()
        if len(p) < len(said) + 1:
            continue
        first, heard = path(p, said)
        ends = np.clip((first + 1) * per_step - 2 * BEFORE, 0, frames)
        ends[-1] = frames
        begin = 0
        for i, (c, end) in enumerate(zip(said, ends)):
            known = i == 0 or heard[i - 1] > CERTAIN
            seconds = (end - begin) * voices.HOP / spectra.RATE
            if c and known and heard[i] > CERTAIN and LENGTH[0] < seconds < LENGTH[1]:
                found.append([speaker, int(at + begin), int(end - begin), [c]])
            begin = end
    return found
