"""The compiled library with tables of one's own choice: what parity is checked against.

Every table is an exported constant array, read when an instance is created. A private copy of the library is loaded
(fresh recurrent states) and its tables are overwritten in this process's memory before anything runs.
"""

from __future__ import annotations

import contextlib
import ctypes
import mmap
import pathlib
import shutil
import tempfile
from _ctypes import dlclose
from collections.abc import Iterator

import numpy as np

from . import library as libraries
from .device_facts import BLOCK, FRAME
from .library import pointer
from .shared import Tables


def load(path: pathlib.Path, tables: Tables) -> ctypes.CDLL:
    """path: libquibo.so; tables: {name: array of the table's element type}."""
    with tempfile.TemporaryDirectory() as folder:
        copy = pathlib.Path(folder) / "library.so"
        shutil.copy(path, copy)
        library = libraries.load(copy)
    for name, values in tables.items():
        overwrite(library, name, np.ascontiguousarray(values))
    return library


@contextlib.contextmanager
def loaded(path: pathlib.Path, tables: Tables) -> Iterator[ctypes.CDLL]:
    """load(), and the library is gone afterwards."""
    library = load(path, tables)
    try:
        yield library
    finally:
        dlclose(library._handle)


def overwrite(library: ctypes.CDLL, name: str, values: np.ndarray) -> None:
    address = ctypes.addressof(ctypes.c_char.in_dll(library, name))
    page = address & -mmap.PAGESIZE
    c = ctypes.CDLL(None, use_errno=True)
    c.mprotect.argtypes = ctypes.c_void_p, ctypes.c_size_t, ctypes.c_int
    if c.mprotect(page, address - page + values.nbytes, mmap.PROT_READ | mmap.PROT_WRITE):
        raise OSError(ctypes.get_errno(), "mprotect")
    ctypes.memmove(address, values.ctypes.data, values.nbytes)


def suppress_noise(library: ctypes.CDLL, microphones: np.ndarray, floor: float) -> np.ndarray:
    """int16 [M, samples] -> int16 [M, samples]; the instances take turns frame by frame, as in the front end."""
    handles = [ctypes.c_void_p() for _ in microphones]
    for handle in handles:
        assert library.QuibAncInit(ctypes.byref(handle), floor) == 0
    out = np.zeros_like(microphones)
    for start in range(0, microphones.shape[1], FRAME):
        for handle, samples, cleaned in zip(handles, microphones, out):
            frame = np.ascontiguousarray(samples[start : start + FRAME])
            library.QuibAncRun(handle, pointer(frame), pointer(cleaned[start : start + FRAME]))
    for handle in handles:
        library.QuibAncUnit(ctypes.byref(handle))
    return out


def suppress_echo(library: ctypes.CDLL, microphone: np.ndarray, echo: np.ndarray) -> np.ndarray:
    """float32 waves -> int16."""
    handle = ctypes.c_void_p()
    assert library.QuibNAecInit(ctypes.byref(handle)) == 0
    out = np.zeros(len(microphone), np.int16)
    for start in range(0, len(microphone), FRAME):
        part = slice(start, start + FRAME)
        library.QuibNAecRun(handle, pointer(microphone[part]), pointer(echo[part]), pointer(out[part]))
    library.QuibNAecUnit(handle)
    return out


def directions(library: ctypes.CDLL, microphones: np.ndarray) -> np.ndarray:
    """int16 [3, samples] -> vectors [blocks, 2]."""
    net, vectors = libraries.DoaNet(), []
    assert library.init_doa_net(ctypes.byref(net)) == 0
    for start in range(0, microphones.shape[1], BLOCK):
        block = [np.ascontiguousarray(m[start : start + BLOCK]) for m in microphones]
        library.proc_one_frame(ctypes.byref(net), *map(pointer, block), 0)
        vectors.append(net.dlayer[0].xy[:])
    library.destroy_doa_net(ctypes.byref(net))
    return np.float32(vectors)


def syllables(library: ctypes.CDLL, wave: np.ndarray) -> Iterator[tuple[np.ndarray, np.ndarray, np.ndarray, np.ndarray] | None]:
    """int16 samples -> per block (features [3, 40], recurrent state, memories [4, 164, 8], score codes [146]), or None
    for a block at which the phrase was heard and all state cleared."""
    with libraries.WakeUp(library) as engine:
        for heard in engine.steps(wave):
            data = engine.data
            yield None if heard else (data.features(), data.state(), data.memories(), data.scores())


def posteriors(library: ctypes.CDLL, wave: np.ndarray) -> Iterator[list[float]]:
    """int16 samples -> per block the posteriors [146] as the decoder has them, the filler's share in the blank's."""
    with libraries.WakeUp(library) as engine:
        for _ in engine.steps(wave):
            yield engine.data.posteriors()
