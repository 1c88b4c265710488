"""Recordings for the tests of the command: the sample with its microphones in clear, and WAV files."""

import ctypes
import pathlib
import subprocess
import wave

import numpy

SAMPLE = pathlib.Path(__file__).parent.parent / "samples" / "living_room.flac"
RATE = 16000


def plain_sample(library):
    """int16, one row per instant: microphones 1 to 3, descrambled by the library itself, and the reference."""
    decode = "flac -d -s -c --force-raw-format --endian=little --sign=signed".split()
    raw = subprocess.run([*decode, SAMPLE], check=True, stdout=subprocess.PIPE).stdout
    tracks = numpy.frombuffer(raw, "<i2").reshape(-1, 6)[:, [0, 1, 2, 4]].copy()
    dec_data = ctypes.CDLL(str(library)).dec_data
    for channel in range(3):
        mic = numpy.ascontiguousarray(tracks[:, channel])
        dec_data(mic.ctypes.data_as(ctypes.POINTER(ctypes.c_int16)), ctypes.c_int32(len(mic)))
        tracks[:, channel] = mic
    return tracks


def write_wav(path, samples, rate=RATE):
    """samples: one row per instant, rounded and limited to int16."""
    with wave.open(str(path), "wb") as f:
        f.setparams((samples.shape[1], 2, rate, 0, "NONE", ""))
        f.writeframes(numpy.clip(numpy.rint(samples), -32768, 32767).astype("<i2").tobytes())
    return path


def upsampled(samples, factor):
    """Band-limited interpolation of all rows (zeros behind their spectrum)."""
    spectrum = numpy.zeros((factor * len(samples) // 2 + 1, samples.shape[1]), complex)
    spectrum[: len(samples) // 2 + 1] = numpy.fft.rfft(samples, axis=0)
    return factor * numpy.fft.irfft(spectrum, factor * len(samples), axis=0)
