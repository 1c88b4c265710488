"""Our modules beside others, in one process, one thread, in turns: processor time per call, the least of many rounds.

    python3 -m venv .venv-bench && .venv-bench/bin/pip install -r bench/requirements.txt
    .venv-bench/bin/python bench/peers.py build-bench/libquibo.so

Everything is called through ctypes or a Python extension (about a microsecond a call). A library that is missing is
left out.
"""

import ctypes
import ctypes.util
import dataclasses
import importlib.util
import pathlib
import sys
import time

import numpy as np

FRAME, BLOCK, RATE, TAIL = 1024, 480, 16000, 3072
ROUNDS, ROUND_SECONDS = 30, 0.02


@dataclasses.dataclass
class Row:
    what: str  # the work, with its length
    ours: float  # microseconds
    peer: str
    theirs: float | None  # None: not installed
    note: str


def seconds(call, times):
    start = time.process_time()
    for _ in range(times):
        call()
    return (time.process_time() - start) / times


def in_turns(*calls):
    """Microseconds per call of each."""
    times = [max(1, int(ROUND_SECONDS / max(seconds(call, 5), 1e-6))) for call in calls]
    rounds = [[seconds(call, n) for call, n in zip(calls, times)] for _ in range(ROUNDS)]
    return [1e6 * best for best in map(min, zip(*rounds))]


def speech_like(samples, seed):
    """Noise that swells and fades at the rate of syllables, int16."""
    rng = np.random.default_rng(seed)
    swell = 0.55 + 0.45 * np.sin(2 * np.pi * 4 * np.arange(samples) / RATE)
    return np.int16(np.clip(3000 * swell * rng.standard_normal(samples), -32767, 32767))


def pointer(array):
    return array.ctypes.data_as(ctypes.c_void_p)


def in_pieces(x, size):
    """A function that gives the next piece of x at each call, over and over."""
    pieces = [np.ascontiguousarray(piece) for piece in x[: len(x) // size * size].reshape(-1, size)]
    pointers = [pointer(piece) for piece in pieces]
    state = {"at": -1, "keep": pieces}

    def following():
        state["at"] = (state["at"] + 1) % len(pointers)
        return pointers[state["at"]]

    return following


MIC, REF = speech_like(64 * FRAME, 1), speech_like(64 * FRAME, 2)


class Quibo:
    def __init__(self, path):
        self.so = ctypes.CDLL(str(path))
        self.so.kesto_Laec_Post_init.restype = ctypes.c_void_p
        self.out = np.zeros(FRAME, np.float32)

    def handle(self, create, *arguments):
        handle = ctypes.c_void_p()
        if create(ctypes.byref(handle), *arguments) != 0:
            raise RuntimeError("the library does not start")
        return handle

    def canceller(self):
        handle, mic, ref = ctypes.c_void_p(self.so.kesto_Laec_Post_init()), in_pieces(MIC, FRAME), in_pieces(REF, FRAME)
        return lambda: self.so.kesto_Laec_Post_write(handle, mic(), ref(), pointer(self.out))

    def noise_suppressor(self):
        handle, mic = self.handle(self.so.QuibAncInit, ctypes.c_float(0.3)), in_pieces(MIC, FRAME)
        return lambda: self.so.QuibAncRun(handle, mic(), pointer(self.out))

    def echo_suppressor(self):
        handle, scale = self.handle(self.so.QuibNAecInit), np.float32(1 / 32768)
        mic, echo = in_pieces(MIC * scale, FRAME), in_pieces(REF * scale, FRAME)
        return lambda: self.so.QuibNAecRun(handle, mic(), echo(), pointer(self.out))

    def wake_up(self):
        handle, mic = self.handle(self.so.QuibWakeupInit, 0), in_pieces(MIC, BLOCK)
        return lambda: self.so.QuibWakeupWriteData(handle, mic())


def speexdsp_canceller():
    library = ctypes.util.find_library("speexdsp")
    if not library:
        raise ImportError("libspeexdsp")
    so = ctypes.CDLL(library)
    so.speex_echo_state_init.restype = ctypes.c_void_p
    state = ctypes.c_void_p(so.speex_echo_state_init(FRAME, TAIL))
    rate = ctypes.c_int(RATE)
    set_rate = 24
    so.speex_echo_ctl(state, set_rate, ctypes.byref(rate))
    mic, ref, out = in_pieces(MIC, FRAME), in_pieces(REF, FRAME), np.zeros(FRAME, np.int16)
    return lambda: so.speex_echo_cancellation(state, mic(), ref(), pointer(out))


# The wheel takes whole stretches of audio: 6400 samples are 6.25 frames.
STRETCH = 6400


def webrtc_canceller():
    import pywebrtc_audio

    canceller = pywebrtc_audio.EchoCanceller(sample_rate=RATE)
    mic, ref = MIC[:STRETCH].copy(), REF[:STRETCH].copy()
    return lambda: canceller.process(mic, ref)


def webrtc_noise_suppressor():
    import pywebrtc_audio

    suppressor, mic = pywebrtc_audio.NoiseSuppressor(sample_rate=RATE), MIC[:STRETCH].copy()
    return lambda: suppressor.process(mic)


def rnnoise():
    package = importlib.util.find_spec("pyrnnoise")  # for its library alone
    if not package:
        raise ImportError("pyrnnoise")
    (library,) = pathlib.Path(package.origin).parent.glob("librnnoise*.so")
    so = ctypes.CDLL(str(library))
    so.rnnoise_create.restype = ctypes.c_void_p
    state, out = ctypes.c_void_p(so.rnnoise_create(None)), np.zeros(480, np.float32)
    frames = in_pieces(MIC.astype(np.float32), 480)
    return lambda: so.rnnoise_process_frame(state, pointer(out), frames())


def graph(name):
    """A suppressor of ours on onnxruntime."""

    def make():
        import graphs_float

        return getattr(graphs_float, name)()

    return make


def onnx_wake_up():
    import graphs_int8

    return graphs_int8.bound(graphs_int8.network())


def measure(path):
    ours = Quibo(path)
    cancel = "echo canceller, 64 ms, one microphone", ours.canceller
    denoise = "noise suppressor, 64 ms, one microphone", ours.noise_suppressor
    suppress = "echo suppressor, 64 ms", ours.echo_suppressor
    wake = "wake-up engine, 30 ms", ours.wake_up
    same = "the same graph, random weights, without transforms and masking"
    rows = []
    for (what, make), peer, make_peer, calls, note in [
        (cancel, "speexdsp", speexdsp_canceller, 1, "same frame and tail of 192 ms"),
        (cancel, "WebRTC AEC3", webrtc_canceller, FRAME / STRETCH, "with its residual-echo suppressor"),
        (denoise, "onnxruntime", graph("noise_suppressor"), 1, same),
        (denoise, "RNNoise", rnnoise, 6.4, "48 kHz, a far smaller network"),
        (denoise, "WebRTC", webrtc_noise_suppressor, FRAME / STRETCH, "no neural network"),
        (suppress, "onnxruntime", graph("echo_suppressor"), 1, same),
        (wake, "onnxruntime", onnx_wake_up, 1, "the same graph alone; ours with features and decoder"),
    ]:
        try:
            mine, theirs = in_turns(make(), make_peer())
            rows.append(Row(what, mine, peer, theirs * calls, note))
        except ImportError:
            rows.append(Row(what, in_turns(make())[0], peer, None, "not installed"))
    return rows


def main():
    for row in measure(sys.argv[1]):
        theirs = "-" if row.theirs is None else f"{row.theirs:8.1f} us {row.theirs / row.ours:6.2f}x"
        print(f"{row.what:42} {row.ours:8.1f} us   {row.peer:12} {theirs}   {row.note}")


if __name__ == "__main__":
    main()
