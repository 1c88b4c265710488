"""Plays hours of device time through one front end, faster than real time, and watches it.

A device's day in episodes of a minute: the sample recording, its talkers over speech, music, tones or noise, silence;
each with one thing that goes wrong, or nothing. Signals come from samples/living_room.flac and from formulas; the same
seed gives the same hours.

    python3 tools/soak.py HOURS [--library LIBRARY] [--data AUDIO] [--out DIR] [--seed N]

Leaves soak.json and soak.png in DIR; interrupted, of what was played by the end of its episode. The exit code is 1
where a bar is broken.
"""

import argparse
import collections
import ctypes
import json
import pathlib
import signal
import subprocess
import sys
import time
import wave
from ctypes import c_int32, c_void_p

import numpy as np

ROOT = pathlib.Path(__file__).resolve().parent.parent
RATE, FRAME = 16000, 1024
EPISODE = 938 * FRAME  # a minute
FRAMES_PER_HOUR = 3600 * RATE / FRAME
PLAYED = ("speech", "music", "tone", "gated tone", "noise", "silence")
FAULTS = (
    "none",
    "level steps",
    "clipping",
    "lost frames",
    "repeated frames",
    "drift",
    "delay jumps",
    "dead microphone",
    "all microphones dead",
)
SCENE_EVERY = 12  # episodes: the sample as it is
LOUDER = 3.98  # 6 dB, in energy
FLOOR = FRAME * 1e-7 * 2**30  # -70 dBFS: nothing below it is loud
WAKE_LATE = 1.5  # s after a phrase

# Bars. A front end that plays tones starts its cancellers anew; nothing else may show.
LONGEST_LOUD = {"tone": 0.33, "gated tone": 0.33}  # s with the output more than 6 dB above the microphone
LONGEST_LOUD_ELSEWHERE = 4.2
LONGEST_SILENT = 0.5  # s of zeros out of the suppressor under a live microphone
FALSE_WAKES_PER_HOUR = 1.0
HEARD = 0.9  # of the sample's phrases, played as they are
GROWTH = 1 << 20  # bytes in use after the first hour

RECORD_WORDS = 1044 + 2048 + 17 + 1024 + 1025 + 2048 + 2 * 1025 + 2 * 3 * 2 * 1025 + 2 * 2 * 1025 + 1024


class Library:
    def __init__(self, path):
        self.so = ctypes.CDLL(str(pathlib.Path(path).resolve()))
        self.so.enc_data.argtypes = self.so.dec_data.argtypes = [c_void_p, c_int32]
        self.so.Quibo_wakeup_three_write_data.argtypes = [c_void_p] * 9
        self.so.Quibo_doa_three_write_data.argtypes = [c_void_p] * 6 + [c_int32]
        self.so.Quibo_aec_restarts.argtypes = [c_void_p, c_int32]
        self.so.Quibo_wakeup_unit.argtypes = [c_void_p]
        self.handle = c_void_p()
        if self.so.Quibo_wakeup_init(ctypes.byref(self.handle), 0):
            sys.exit("soak: Quibo_wakeup_init failed")
        # The record begins with five pointers; the second to fourth are the cancellers, whose records begin with
        # words that are floats or small integers.
        pointers = ctypes.cast(self.handle, ctypes.POINTER(c_void_p))
        self.records = [
            np.ctypeslib.as_array(ctypes.cast(pointers[i], ctypes.POINTER(ctypes.c_float)), (RECORD_WORDS,)) for i in (1, 2, 3)
        ]
        self.out = np.zeros((4, FRAME), np.int16)
        self.wake = c_int32()

    def frame(self, mics, ref):
        """One frame: mics [3, FRAME] plain, ref [FRAME]. Returns whether it woke, and the CPU seconds of both calls."""
        for mic in mics:
            self.so.enc_data(mic.ctypes.data, FRAME)
        outs = [x.ctypes.data for x in self.out]
        started = time.thread_time()
        self.so.Quibo_wakeup_three_write_data(self.handle, *(m.ctypes.data for m in mics), ref.ctypes.data, *outs)
        self.so.Quibo_doa_three_write_data(self.handle, ctypes.byref(self.wake), *outs, FRAME)
        return self.wake.value >= 0, time.thread_time() - started

    def restarts(self):
        return sum(self.so.Quibo_aec_restarts(self.handle, m) for m in (1, 2, 3))

    def finite(self):
        return all(np.isfinite(r).all() for r in self.records)


class Sample:
    """The sample recording: microphones and reference, and what its talkers say but the phrase and the like."""

    def __init__(self, library):
        decode = ["flac", "-dcs", "--force-raw-format", "--endian=little", "--sign=signed"]
        raw = subprocess.run([*decode, str(ROOT / "samples/living_room.flac")], check=True, capture_output=True).stdout
        channels = np.frombuffer(raw, "<i2").reshape(-1, 6).T.copy()
        for mic in channels[:3]:
            library.so.dec_data(mic.ctypes.data, mic.size)
        self.mics, self.ref, self.talkers = channels[:3], channels[4], channels[3] / 32768
        scene = json.loads((ROOT / "samples/living_room.json").read_text(encoding="utf-8"))
        said = [s for stretch in scene["stretches"] for s in stretch["speaks"]]
        self.phrases = [(s["start"], s["end"]) for s in said if s["wake_phrase"]]
        # Near misses are left out: said one after another they make the phrase.
        others = [s for s in said if "ling" not in s.get("pinyin", "")]
        self.others, self.texts = [self.cut(s) for s in others], [s["text"] for s in others]

    def cut(self, speech):
        return self.talkers[int((speech["start"] - 0.05) * RATE) : int((speech["end"] + 0.1) * RATE)]


# ---- signals -----------------------------------------------------------------------------------------------------


def talk(rng, clips, samples):
    """Clips one after another; returns the signal and [(second, number of the clip)]."""
    x, at, said = np.zeros(samples), 0, []
    while at < samples:
        number = rng.integers(len(clips))
        clip = clips[number][: samples - at]
        x[at : at + len(clip)] = clip
        said.append((at / RATE, number))
        at += len(clip) + int(rng.uniform(0.2, 1.5) * RATE)
    return x / (np.abs(x).max() + 1e-9), said


def music(rng, samples):
    """Decaying chords of a few harmonics."""
    x, at = np.zeros(samples), 0
    while at < samples:
        n = min(int(rng.uniform(0.3, 1.2) * RATE), samples - at)
        t = np.arange(n) / RATE
        root = 110 * 2 ** (rng.integers(24) / 12)
        for step in (0, rng.choice((3, 4)), 7):
            for harmonic in range(1, 5):
                pitch = root * 2 ** (step / 12) * harmonic
                x[at : at + n] += np.sin(2 * np.pi * pitch * t + rng.uniform(0, 6.3)) * np.exp(-3 * t) / harmonic
        at += n
    return x / np.abs(x).max()


def tone(rng, samples, gated):
    phase = np.cumsum(np.full(samples, np.exp(rng.uniform(np.log(200), np.log(7000))) / RATE))
    shape = rng.integers(3)
    x = np.sin(2 * np.pi * phase) if shape == 0 else np.where(phase % 1 < 0.5, 1.0, -1.0)
    if shape == 2:
        x = 4 * np.abs(phase % 1 - 0.5) - 1
    if gated:
        on, off = rng.uniform(0.1, 2.0, 2)
        x = x * (np.arange(samples) / RATE % (on + off) < on)
    return x


def played(rng, kind, samples, sources):
    if kind == "silence":
        return np.zeros(samples)
    if kind in sources:
        x = sources[kind](rng, samples)
    elif kind == "noise":
        x = np.clip(0.3 * rng.standard_normal(samples), -1, 1)
    else:
        x = tone(rng, samples, kind == "gated tone")
    return x * 10 ** (rng.uniform(-26, -3) / 20)


def convolved(x, response):
    n = 1 << (x.size + response.size - 1).bit_length()
    return np.fft.irfft(np.fft.rfft(x, n) * np.fft.rfft(response, n), n)[: x.size]


def room(rng):
    """Three responses of 100 ms, with the delay of a device's buffers."""
    decay = np.exp(-np.arange(1600) / rng.uniform(100, 400))
    h = rng.standard_normal((3, 1600)) * decay
    h[:, 0] += 3
    h *= rng.uniform(0.05, 0.7) / np.sqrt((h**2).sum(1, keepdims=True))
    return np.pad(h, ((0, 0), (int(rng.integers(20, 1000)), 0)))


def episode(rng, sample, sources, kind, fault):
    """Microphones [3, EPISODE] and reference [EPISODE] as int16, and what the talkers say, as talk() returns it."""
    ref = np.round(np.clip(played(rng, kind, EPISODE, sources), -1, 0.9999) * 32767) / 32768
    source = ref
    if fault == "drift":
        ppm = rng.choice((-200, 200)) * 1e-6
        at = np.arange(EPISODE) * (1 + ppm)
        source = np.interp(at, np.arange(EPISODE), ref)
    paths = room(rng)
    echo = np.stack([convolved(source, h) for h in paths])
    if fault == "delay jumps":
        for at in sorted(rng.integers(0, EPISODE, 4)):
            echo[:, at:] = np.roll(echo[:, at:], int(rng.integers(1, 800)), axis=1)
    near, said = talk(rng, sample.others, EPISODE)
    near *= rng.uniform(0.01, 0.2)
    arrival = [convolved(near, h) for h in room(rng)]
    hiss = 10 ** (rng.uniform(-75, -50) / 20) * rng.standard_normal((3, EPISODE))
    mics = echo + 3 * np.stack(arrival) + hiss
    if fault == "level steps":
        mics *= np.repeat(10 ** (rng.uniform(-20, 6, 15) / 20), -(-EPISODE // 15))[:EPISODE]
    if fault == "clipping":
        mics *= rng.uniform(2, 20) / np.abs(mics).max()
    mics = np.int16(np.clip(mics, -1, 0.9999) * 32768)
    frames = mics.reshape(3, -1, FRAME)
    struck = np.flatnonzero(rng.random(frames.shape[1] - 1) < 0.02) + 1
    if fault == "lost frames":
        frames[:, struck] = 0
    if fault == "repeated frames":
        frames[:, struck] = frames[:, struck - 1]
    dead = {"dead microphone": [rng.integers(3)], "all microphones dead": [0, 1, 2]}.get(fault, [])
    frames[dead, frames.shape[1] // 3 : frames.shape[1] // 2] = 0
    return mics, np.int16(ref * 32768), said


def recordings(folder):
    """Clips of the WAV files of 16 kHz, mono, 16 bit below a folder."""
    clips = []
    for path in sorted(pathlib.Path(folder).rglob("*.wav")):
        with wave.open(str(path)) as file:
            if (file.getframerate(), file.getnchannels(), file.getsampwidth()) == (RATE, 1, 2):
                clips.append(path)
    if not clips:
        sys.exit(f"soak: no 16 kHz mono WAV files in {folder}")

    def read(rng, samples):
        x = np.zeros(0)
        while x.size < samples:
            with wave.open(str(clips[rng.integers(len(clips))])) as file:
                x = np.append(x, np.frombuffer(file.readframes(samples), "<i2") / 32768)
        return x[:samples]

    return read


# ---- watching ----------------------------------------------------------------------------------------------------


class Heap(ctypes.Structure):
    """glibc's struct mallinfo2."""

    _fields_ = [(name, ctypes.c_size_t) for name in "arena free1 free2 blocks mapped peak free3 in_use free4 top".split()]


class Watch:
    """What is seen: longest runs in seconds by what is played, counts, frame times by hour."""

    def __init__(self):
        self.loud = {}
        self.silent = 0.0
        self.not_finite = self.heard = self.said = 0
        self.false_wakes = []
        self.hours, self.times = [], []
        self.first = None
        self._run, self._zero = np.zeros(3, int), 0
        self._mallinfo = ctypes.CDLL(None).mallinfo2
        self._mallinfo.restype = Heap

    def begin(self):
        self._run[:], self._zero = 0, 0

    def frame(self, kind, mics, out):
        energy = lambda x: (x.astype(np.float64) ** 2).sum(-1)
        loud = energy(out[:3]) > LOUDER * energy(mics) + FLOOR
        self._run = np.where(loud, self._run + 1, 0)
        self.loud[kind] = max(self.loud.get(kind, 0.0), self._run.max() * FRAME / RATE)
        self._zero = self._zero + 1 if not out[3].any() and energy(mics[0]) > FLOOR else 0
        self.silent = max(self.silent, self._zero * FRAME / RATE)

    def hour(self, restarts):
        # What malloc has given and not got back: of the process's pages Python leaves more and more half empty.
        heap = self._mallinfo()
        times = np.array(self.times) * 1e3
        self.hours.append(
            {
                "hours": len(times) / FRAMES_PER_HOUR,
                "frame_ms_median": float(np.median(times)),
                "frame_ms_p999": float(np.quantile(times, 0.999)),
                "frame_ms_largest": float(times.max()),
                "memory_kib": (heap.in_use + heap.mapped) // 1024,
                "restarts": restarts,
            }
        )
        self.times = []


def play(library, watch, kind, mics, ref, tracks):
    """Plays an episode; returns the seconds at which it woke."""
    woke = []
    watch.begin()
    for f in range(ref.size // FRAME):
        part = slice(f * FRAME, (f + 1) * FRAME)
        plain = np.ascontiguousarray(mics[:, part])
        wake, seconds = library.frame(plain.copy(), np.ascontiguousarray(ref[part]))
        watch.times.append(seconds)
        watch.frame(kind, plain, library.out)
        if f % 16 == 0:
            watch.not_finite += not library.finite()
        if wake:
            woke.append((f + 1) * FRAME / RATE)
    tracks.append(
        [10 * np.log10(np.mean(x.astype(np.float64) ** 2) / 2**30 + 1e-10) for x in (ref, mics[0])] + [library.restarts()]
    )
    return woke


def broken(watch, hours):
    """The bars that do not hold."""
    faults = []
    if watch.not_finite:
        faults.append(f"a canceller held a number that is not finite, {watch.not_finite} times")
    for kind, seconds in watch.loud.items():
        if seconds > LONGEST_LOUD.get(kind, LONGEST_LOUD_ELSEWHERE):
            faults.append(f"{kind}: output more than 6 dB above the microphone for {seconds:.2f} s")
    if watch.silent > LONGEST_SILENT:
        faults.append(f"the echo suppressor was silent for {watch.silent:.2f} s under a live microphone")
    if len(watch.false_wakes) > max(1, FALSE_WAKES_PER_HOUR * hours):
        faults.append(f"{len(watch.false_wakes)} false wakes in {hours:g} hours")
    if watch.heard < HEARD * watch.said:
        faults.append(f"{watch.heard} of {watch.said} phrases of the sample heard")
    memory = [h["memory_kib"] for h in watch.hours]
    if (memory[-1] - memory[0]) * 1024 > GROWTH:
        faults.append(f"memory grew from {memory[0]} to {memory[-1]} KiB")
    return faults


def picture(path, watch, kinds, tracks):
    import matplotlib

    matplotlib.use("Agg")
    from matplotlib import pyplot

    figure, (levels, restarts, times) = pyplot.subplots(3, 1, figsize=(11, 8), constrained_layout=True)
    hours = np.arange(len(tracks)) * EPISODE / RATE / 3600
    tracks = np.array(tracks)
    levels.plot(hours, tracks[:, 1], ".", color="#1f6f8b", label="microphone 1")
    levels.plot(hours, tracks[:, 0], ".", color="#d98b2b", label="reference")
    levels.set(ylabel="dBFS, mean of an episode", xlabel="hours", title="What was played")
    levels.legend(loc="lower right")
    restarts.step(hours, tracks[:, 2], where="post", color="#8b1f3f")
    tonal = np.array([k in LONGEST_LOUD for k in kinds])
    restarts.plot(hours[tonal], np.zeros(tonal.sum()), "|", color="#555555", label="episodes of tones")
    restarts.set(ylabel="restarts, all cancellers", xlabel="hours", title="The cancellers' guard")
    restarts.legend(loc="upper left")
    of_hour = np.arange(1, len(watch.hours) + 1)
    for key, name in (("frame_ms_median", "median"), ("frame_ms_p999", "99.9 %")):
        times.plot(of_hour, [h[key] for h in watch.hours], "o-", label=name)
    times.set(ylabel="CPU ms per frame", xlabel="hour", ylim=(0, None), title="Frame time (a frame lasts 64 ms)")
    times.set_xticks(of_hour)
    times.legend()
    figure.savefig(path, dpi=110)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", 1)[0])
    parser.add_argument("hours", type=float)
    parser.add_argument("--library", default=ROOT / "build-release/libquibo.so")
    parser.add_argument("--data", help="a folder of 16 kHz mono WAV files, played as speech and music too")
    parser.add_argument("--out", type=pathlib.Path, default=ROOT / "build-soak")
    parser.add_argument("--seed", type=int, default=20251103)
    arguments = parser.parse_args()
    if not 0 < arguments.hours < 10000:
        parser.error("HOURS is a positive number")
    arguments.out.mkdir(parents=True, exist_ok=True)

    library, watch = Library(arguments.library), Watch()
    sample = Sample(library)
    sources = {"speech": lambda rng, n: talk(rng, sample.others, n)[0], "music": music}
    if arguments.data:
        sources["speech"] = sources["music"] = recordings(arguments.data)
    total, frames, number = arguments.hours * FRAMES_PER_HOUR, 0, 0
    kinds, tracks, sayings = [], [], collections.Counter()
    stopped = []
    signal.signal(signal.SIGINT, lambda *_: stopped.append(True))
    while frames < total and not stopped:
        rng = np.random.default_rng([arguments.seed, number])
        if number % SCENE_EVERY == 0:
            kind, fault, (mics, ref, said) = "scene", "none", (sample.mics, sample.ref, [])
        else:
            kind, fault = PLAYED[rng.integers(len(PLAYED))], FAULTS[rng.integers(len(FAULTS))]
            mics, ref, said = episode(rng, sample, sources, kind, fault)
            sayings.update(sample.texts[clip] for _, clip in said)
        woke = play(library, watch, kind, mics, ref, tracks)
        kinds.append(kind)
        if kind == "scene":
            hits = [any(start < t < end + WAKE_LATE for t in woke) for start, end in sample.phrases]
            watch.heard, watch.said = watch.heard + sum(hits), watch.said + len(hits)
            woke = [t for t in woke if not any(start < t < end + WAKE_LATE for start, end in sample.phrases)]
        for t in woke:
            text = next((sample.texts[clip] for start, clip in reversed(said) if start < t), None)
            wake = {"hour": (frames * FRAME / RATE + t) / 3600, "episode": number, "played": kind, "fault": fault}
            watch.false_wakes.append({**wake, "second": t, "last_said": text})
        frames, number = frames + ref.size // FRAME, number + 1
        if len(watch.times) >= FRAMES_PER_HOUR or frames >= total or stopped:
            watch.hour(library.restarts())
            print(f"{frames / FRAMES_PER_HOUR:.2f} hours: {json.dumps(watch.hours[-1])}", flush=True)

    hours = frames / FRAMES_PER_HOUR
    faults = broken(watch, hours)
    report = {
        "hours": hours,
        "episodes": number,
        "seed": arguments.seed,
        "longest_loud_s": watch.loud,
        "longest_silent_s": watch.silent,
        "not_finite": watch.not_finite,
        "false_wakes": watch.false_wakes,
        "sayings": sayings,
        "sample_phrases": {"said": watch.said, "heard": watch.heard},
        "restarts": library.restarts(),
        "by_hour": watch.hours,
        "broken": faults,
    }
    (arguments.out / "soak.json").write_text(json.dumps(report, indent=1) + "\n", encoding="utf-8")
    picture(arguments.out / "soak.png", watch, kinds, tracks)
    print(json.dumps({k: v for k, v in report.items() if k != "by_hour"}, indent=1))
    library.so.Quibo_wakeup_unit(library.handle)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
