"""GTCRN (Rong et al., "GTCRN: a speech enhancement network requiring ultralow computational resources", ICASSP 2024):
48 thousand weights, no look-ahead, trained by its authors on the DNS challenge's 500 hours.

Its streaming network is stream/onnx_models/gtcrn_simple.onnx in the public repository Xiaobin-Rong/gtcrn; nothing of it is
kept here. Name the file with --gtcrn.
"""

from __future__ import annotations

import pathlib

import numpy as np

from training.evaluate.peers import Absent

FRAME, HOP = 512, 256
CACHES = {"conv_cache": (2, 1, 16, 16, 33), "tra_cache": (2, 3, 1, 1, 16), "inter_cache": (2, 1, 33, 16)}
WINDOW = np.sqrt(np.hanning(FRAME + 1)[:-1]).astype(np.float32)


class Gtcrn:
    name = "GTCRN"
    about = "GTCRN's streaming network of the DNS challenge, 48 k weights, through onnxruntime"

    def __init__(self, path: pathlib.Path | None) -> None:
        if path is None:
            raise Absent("name its gtcrn_simple.onnx with --gtcrn")
        if not path.exists():
            raise Absent(f"no file {path}")
        import onnxruntime

        options = onnxruntime.SessionOptions()
        options.intra_op_num_threads = options.inter_op_num_threads = 1
        self._session = onnxruntime.InferenceSession(str(path), options, providers=["CPUExecutionProvider"])

    def suppress_noise(self, x: np.ndarray) -> np.ndarray:
        padded = np.pad(x, (HOP, FRAME)).astype(np.float32)
        out = np.zeros_like(padded)
        state = {name: np.zeros(shape, np.float32) for name, shape in CACHES.items()}
        for start in range(0, len(padded) - FRAME + 1, HOP):
            part = slice(start, start + FRAME)
            spectrum = np.fft.rfft(padded[part] * WINDOW)
            mix = np.stack([spectrum.real, spectrum.imag], -1).astype(np.float32)[None, :, None]
            clean, *caches = self._session.run(None, {"mix": mix, **state})
            state = dict(zip(CACHES, caches))
            out[part] += np.fft.irfft(clean[0, :, 0, 0] + 1j * clean[0, :, 0, 1]).astype(np.float32) * WINDOW
        return out[HOP : HOP + len(x)]
