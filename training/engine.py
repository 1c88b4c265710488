"""The compiled library with tables of one's own choice: what parity is checked against.

Every table is an exported constant array, read when an instance is created. A private copy of the library is loaded
(fresh recurrent states) and its tables are overwritten in this process's memory before anything runs.
"""
import contextlib
import ctypes
import mmap
import pathlib
import shutil
import tempfile
from _ctypes import dlclose

import numpy as np

FRAME, BLOCK = 1024, 480
SUPPRESSOR_DELAY = 2560  # samples: four hops of look-ahead and one of overlap-add
DIRECTION_FLOOR = 0.3  # of the noise suppressors in front of the direction estimator


def load(path, tables):
    """path: libquibo.so; tables: {name: array of the table's element type}."""
    with tempfile.TemporaryDirectory() as folder:
        copy = pathlib.Path(folder) / "library.so"
        shutil.copy(path, copy)
        library = ctypes.CDLL(str(copy))
    for name, values in tables.items():
        overwrite(library, name, np.ascontiguousarray(values))
    return library


@contextlib.contextmanager
def loaded(path, tables):
    """load(), and the library is gone afterwards."""
    library = load(path, tables)
    try:
        yield library
    finally:
        dlclose(library._handle)


def overwrite(library, name, values):
    address = ctypes.addressof(ctypes.c_char.in_dll(library, name))
    page = address & -mmap.PAGESIZE
    c = ctypes.CDLL(None, use_errno=True)
    c.mprotect.argtypes = ctypes.c_void_p, ctypes.c_size_t, ctypes.c_int
    if c.mprotect(page, address - page + values.nbytes, mmap.PROT_READ | mmap.PROT_WRITE):
        raise OSError(ctypes.get_errno(), "mprotect")
    ctypes.memmove(address, values.ctypes.data, values.nbytes)


def suppress_noise(library, microphones, floor):
    """int16 [M, samples] -> int16 [M, samples]; the instances take turns frame by frame, as in the front end."""
    handles = [ctypes.c_void_p() for _ in microphones]
    for handle in handles:
        assert library.QuibAncInit(ctypes.byref(handle), ctypes.c_float(floor)) == 0
    out = np.zeros_like(microphones)
    for start in range(0, microphones.shape[1], FRAME):
        for handle, samples, cleaned in zip(handles, microphones, out):
            frame = np.ascontiguousarray(samples[start:start + FRAME])
            library.QuibAncRun(handle, pointer(frame), pointer(cleaned[start:start + FRAME]))
    for handle in handles:
        library.QuibAncUnit(ctypes.byref(handle))
    return out


def suppress_echo(library, microphone, echo):
    """float32 waves -> int16."""
    handle = ctypes.c_void_p()
    assert library.QuibNAecInit(ctypes.byref(handle)) == 0
    out = np.zeros(len(microphone), np.int16)
    for start in range(0, len(microphone), FRAME):
        part = slice(start, start + FRAME)
        library.QuibNAecRun(handle, pointer(microphone[part]), pointer(echo[part]), pointer(out[part]))
    library.QuibNAecUnit(handle)
    return out


class DirectionState(ctypes.Structure):
    """The start of LAYER_DATA_DOA (doa/ring_doa.h)."""

    _fields_ = [("samples", ctypes.c_int16 * (3 * 832)), ("spectra", ctypes.c_float * (9 * 513 * 2)),
                ("transform", ctypes.c_float * 2048), ("left", ctypes.c_float * (160 + 304 + 224 + 64 + 4 * 648)),
                ("micfft", ctypes.c_float * 512), ("afreq", ctypes.c_float * 400), ("out1", ctypes.c_float * 2048),
                ("out2", ctypes.c_float * 2048), ("window", ctypes.c_float * (25 * 4)), ("xy", ctypes.c_float * 2)]


def directions(library, microphones):
    """int16 [3, samples] -> vectors [blocks, 2]."""
    net = (ctypes.c_void_p * 11)()  # DoaNet: the working record's pointer, then the layers'
    assert library.init_doa_net(net) == 0
    state = ctypes.cast(net[0], ctypes.POINTER(DirectionState)).contents
    vectors = []
    for start in range(0, microphones.shape[1], BLOCK):
        block = [np.ascontiguousarray(m[start:start + BLOCK]) for m in microphones]
        library.proc_one_frame(net, *map(pointer, block), 0)
        vectors.append(state.xy[:])
    library.destroy_doa_net(net)
    return np.float32(vectors)


class WakeState(ctypes.Structure):
    """LAYER_DATA (wakeup/ChineseConv.h)."""

    _fields_ = [("samples", ctypes.c_float * 720), ("micfft", ctypes.c_float * 1024), ("posteriors", ctypes.c_float * 400),
                ("out1", ctypes.c_uint8 * 3600), ("scores", ctypes.c_uint8 * 3600), ("conv_left", ctypes.c_uint8 * 728),
                ("state", ctypes.c_uint8 * 128), ("memory", ctypes.c_uint8 * (4 * 164 * 8)),
                ("features", ctypes.c_float * 1024)]


def wake_states(library, wave):
    """int16 samples -> per block (WakeState, whether the phrase was heard, which clears all state)."""
    handle = ctypes.c_void_p()
    assert library.QuibWakeupInit(ctypes.byref(handle), 0) == 0
    first = lambda address: ctypes.cast(address, ctypes.POINTER(ctypes.c_void_p))[0]
    data = ctypes.cast(first(first(handle)), ctypes.POINTER(WakeState)).contents
    for start in range(0, len(wave), BLOCK):
        heard = library.QuibWakeupWriteData(handle, pointer(wave[start:start + BLOCK])) == 0
        yield data, heard
    library.QuibWakeupUnit(handle)


def syllables(library, wave):
    """int16 samples -> per block (features [3, 40], recurrent state, memories [4, 164, 8], score codes [146]), or None
    for a block at which the phrase was heard and all state cleared."""
    array = lambda field: np.ctypeslib.as_array(field)
    for data, heard in wake_states(library, wave):
        yield None if heard else (array(data.features)[:120].reshape(3, 40).copy(), array(data.state).copy(),
                                  array(data.memory).reshape(4, 164, 8).copy(), array(data.scores)[:146].copy())


def posteriors(library, wave):
    """int16 samples -> per block the posteriors [146] as the decoder has them, the filler's share in the blank's."""
    for data, _ in wake_states(library, wave):
        yield data.posteriors[:146]


def pointer(array):
    assert array.flags.c_contiguous
    return ctypes.c_void_p(array.ctypes.data)
