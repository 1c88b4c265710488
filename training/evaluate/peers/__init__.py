"""What a device maker would otherwise take, behind one interface; none of it is part of the product.

A peer has a name, a description, `suppress_noise(x)` and / or `cancel_echo(mic, ref)` on float [n].
"""

from __future__ import annotations

import inspect
import pathlib
from collections.abc import Callable, Sequence

import numpy as np
from scipy import signal

from training.evaluate.alignment import advance, find_delay

MOST_DELAY = 4096  # samples
PHASE_TAPS = 2048


class Absent(Exception):
    """The peer is not installed; the message says what to install."""


def noise_suppressors(gtcrn_file: pathlib.Path | None = None) -> tuple[list, list[str]]:
    from training.evaluate.peers import gtcrn, rnnoise, speex, webrtc

    return _opened([speex.Speex, webrtc.WebRtc, rnnoise.RNNoise, gtcrn.Gtcrn], [(), (), (), (gtcrn_file,)])


def echo_cancellers() -> tuple[list, list[str]]:
    from training.evaluate.peers import speex, webrtc

    return _opened([speex.Speex, webrtc.WebRtc])


def _opened(classes: Sequence[type], arguments: Sequence[tuple] | None = None) -> tuple[list, list[str]]:
    """(peers that are installed, lines about those that are not)."""
    peers, absent = [], []
    for peer, given in zip(classes, arguments or [()] * len(classes)):
        try:
            peers.append(peer(*given))
        except Absent as reason:
            absent.append(f"{peer.name}: left out, {reason}")
    return peers, absent


class Aligned:
    """A peer's processing with its own constant delay and phase taken off, both measured once on
    clean speech, with silence as reference: a fixed high-pass is no distortion."""

    def __init__(self, process: Callable[..., np.ndarray], speech: np.ndarray) -> None:
        self._process = process
        silence = np.zeros_like(speech)
        references = [silence] * (len(inspect.signature(process).parameters) - 1)
        heard = self._flushed(speech, *references)
        self.delay = find_delay(speech, heard, MOST_DELAY)
        heard = advance(heard, self.delay, len(speech))
        _, cross = signal.csd(speech, heard, nperseg=PHASE_TAPS)
        equaliser = np.fft.irfft(cross.conj() / (np.abs(cross) + 1e-20))
        self._equaliser = np.fft.fftshift(equaliser) * signal.windows.hann(PHASE_TAPS, sym=False)

    def __call__(self, mic: np.ndarray, *reference: np.ndarray) -> np.ndarray:
        y = advance(self._flushed(mic, *reference), self.delay, len(mic))
        y = signal.fftconvolve(y, self._equaliser)[PHASE_TAPS // 2 :][: len(mic)]
        return y.astype(np.float32)

    def _flushed(self, *signals: np.ndarray) -> np.ndarray:
        return self._process(*(np.pad(x, (0, MOST_DELAY)).astype(np.float32) for x in signals))
