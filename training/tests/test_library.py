"""The binding and the device's numbers against the headers the library is built from, by the compiler."""

import ctypes
import subprocess

import pytest
from conftest import ROOT

from training import device_facts, library

RECORDS = {
    "wakeup/ChineseConv.h": (library.Q_CONV_LEFT, library.LAYER_DATA, library.WORD_ITEM, library.DECODER, library.EWordNet),
    "doa/ring_doa.h": (library.Q_DOA_LEFT, library.LAYER_DATA_DOA, library.DoaNet),
}
WHOLE = (library.Q_CONV_LEFT, library.LAYER_DATA, library.Q_DOA_LEFT, library.DoaNet)  # others are their beginnings
FACTS = {
    "FRAME": "QUIBO_FRAME",
    "BLOCK": "QUIBO_BLOCK",
    "CLASSES": "KWS_CLASSES",
    "BLANK": "KWS_BLANK",
    "FRAMES_PER_BLOCK": "KWS_FRAMES",
    "HOP": "DOA_HOP",
    "MICROPHONES": "DOA_MICS",
}


def compiled(lines, tmp_path):
    """What the compiler says to these lines behind the headers; nothing if all is well."""
    includes = [f'#include "{header}"' for header in ("cstddef", "quibo/quibo.h", *RECORDS)]
    source = tmp_path / "check.cpp"
    source.write_text("\n".join([*includes, *lines, ""]).replace('"cstddef"', "<cstddef>"), encoding="utf-8")
    command = ["g++", "-std=c++17", "-fsyntax-only", f"-I{ROOT}", f"-I{ROOT}/include", source]
    return subprocess.run(command, capture_output=True, text=True, check=False).stderr


def places(record):
    """Assertions on every field and, where it is whole, on the record."""
    for name, kind in record._fields_:
        if name == "layers":
            continue
        field = f"{record.__name__}, {name.removesuffix('_')}"
        yield f'static_assert(offsetof({field}) == {getattr(record, name).offset}, "{field}");'
        size = ctypes.sizeof(kind)
        yield f'static_assert(sizeof(((({record.__name__}*)0)->{name.removesuffix("_")})) == {size}, "{field}");'
    if record in WHOLE:
        size = ">=" if record is library.LAYER_DATA else "=="
        yield f'static_assert(sizeof({record.__name__}) {size} {ctypes.sizeof(record)}, "{record.__name__}");'


@pytest.mark.parametrize("record", [r for records in RECORDS.values() for r in records])
def test_records_lie_as_the_library_has_them(record, tmp_path):
    assert compiled(places(record), tmp_path) == ""


def test_a_record_that_lies_otherwise_is_noticed(tmp_path):
    class LAYER_DATA(ctypes.Structure):
        _fields_ = [("in_", ctypes.c_float * 719), ("micfft", ctypes.c_float * 1024)]

    assert "LAYER_DATA, micfft" in compiled(places(LAYER_DATA), tmp_path)


def test_numbers_are_the_headers(tmp_path):
    facts = vars(device_facts)
    lines = [f'static_assert({theirs} == {facts[ours]}, "{ours}");' for ours, theirs in FACTS.items()]
    assert compiled(lines, tmp_path) == ""


def test_every_call_has_the_types_of_the_header(tmp_path):
    """As many arguments, results and numbers of the declared kind, addresses where it has pointers."""
    kinds = {
        None: "std::is_void_v<{}>",
        ctypes.c_int32: "std::is_same_v<{}, int32_t>",
        ctypes.c_float: "std::is_same_v<{}, float>",
    }
    lines = [
        "#include <tuple>",
        "#include <type_traits>",
        "template <class R, class... A> std::tuple<R (*)(), A...> of(R (*)(A...));",
    ]
    for name, (result, arguments) in library.CALLS.items():
        call = f"decltype(of({name}))"
        lines.append(f'static_assert(std::tuple_size_v<{call}> == {len(arguments) + 1}, "{name}");')
        kind = kinds.get(result, "std::is_pointer_v<{}>").format(f"decltype(std::declval<std::tuple_element_t<0, {call}>>()())")
        lines.append(f'static_assert({kind}, "{name}");')
        for i, argument in enumerate(arguments, 1):
            kind = kinds.get(argument, "std::is_pointer_v<{}>").format(f"std::tuple_element_t<{i}, {call}>")
            lines.append(f'static_assert({kind}, "{name}, {i}");')
    assert compiled(lines, tmp_path) == ""


def test_the_library_has_every_call(library_path):
    so = library.load(library_path)
    assert all(hasattr(so, name) for name in library.CALLS)
