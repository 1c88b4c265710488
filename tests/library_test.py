"""The built library and its installation, seen from outside: what it needs, what it exports, who can use it."""

import platform
import re
import subprocess

import pytest

WARNINGS = ["-Wall", "-Wextra", "-pedantic", "-Werror"]

# Uses a function, a table and a record; prints what it saw.
CONSUMER = r"""
#include <stdio.h>
#include <quibo/limiter/zq_MPO.h>
#include <quibo/quibo.h>

int main(void) {
  static int16_t frame[QUIBO_FRAME];
  int16_t sample = 1;
  int32_t wake = 7, angle;
  stMPO limiter;
  KTWakeup front_end = NULL;
  if (Quibo_wakeup_init(&front_end, 0) != 0) return 1;
  Quibo_wakeup_three_write_data(front_end, frame, frame, frame, frame, frame, NULL, NULL, frame);
  angle = Quibo_doa_three_write_data(front_end, &wake, frame, frame, frame, frame, QUIBO_FRAME);
  if (Quibo_wakeup_unit(front_end) != 0) return 1;
  zq_MPO_Init(&limiter, 16000, 20, -3);
  enc_data(&sample, 1);
  printf("%d %d %d %d\n", (int)angle, (int)wake, sample == enc_table[1], (int)limiter.gain);
  return 0;
}
"""
CONSUMER_OUTPUT = 3 * ">QuibNAecInit\n" + "Version:libquibo_wakeup_DOA_v3.3.22_20251103\n-1 -1 1 10\n"

CONSUMER_CMAKE = """
cmake_minimum_required(VERSION 3.25)
project(consumer LANGUAGES C)
find_package(quibo 3.3 REQUIRED)
foreach(kind IN ITEMS shared static)
  add_executable(with_${kind} main.c)
  target_link_libraries(with_${kind} PRIVATE quibo::quibo_${kind})
endforeach()
"""


def run(*command, **options):
    result = subprocess.run([str(word) for word in command], capture_output=True, text=True, **options)
    assert result.returncode == 0, f"{command}\n{result.stdout}{result.stderr}"
    return result.stdout


def symbols(library, *options):
    """[(type, name)] as nm lists them."""
    return [tuple(line.split()[-2:]) for line in run("nm", *options, library).splitlines() if len(line.split()) >= 2]


@pytest.fixture(scope="module")
def library(build):
    return build / "libquibo.so"


def test_needs_libc_only(library, unsanitized):
    dynamic = run("readelf", "-d", library)
    needed = re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic)
    assert {name.split(".so")[0] for name in needed} <= {"libc", "ld-linux-x86-64", "ld-linux-aarch64"}
    assert re.findall(r"\(SONAME\).*\[(.*)\]", dynamic) == ["libquibo.so.3"]


def test_symbols_are_bound_at_start_and_then_read_only(build, library):
    for binary in library, build / "quibo_demo":
        assert "BIND_NOW" in run("readelf", "-d", binary)
        assert "GNU_RELRO" in run("readelf", "-lW", binary)


@pytest.mark.skipif(platform.machine() != "x86_64", reason="marks of x86")
def test_every_object_marks_where_indirect_jumps_may_land(build):
    """So that an application built for control-flow enforcement stays one. The shared library carries no mark where the C
    library's start-up files, which are part of it, have none."""
    archive = build / "libquibo.a"
    members = run("ar", "t", archive).split()
    assert run("readelf", "-n", archive).count("IBT, SHSTK") == len(members)


def test_programs_check_their_stack_and_their_buffers(build, unsanitized):
    undefined = {name.split("@")[0] for _, name in symbols(build / "quibo_demo", "-D", "--undefined-only")}
    assert {"__stack_chk_fail", "__printf_chk"} <= undefined


def test_leaves_no_c_plus_plus_symbol_undefined(build, library, unsanitized):
    undefined = {name for _, name in symbols(library, "-D", "--undefined-only")}
    in_archive = symbols(build / "libquibo.a")
    undefined |= {name for kind, name in in_archive if kind in "Uw"} - {n for k, n in in_archive if k not in "Uw"}
    # __cxa_finalize comes from the C start-up files, not from C++.
    runtime = [name for name in undefined if re.match(r"_Z|__cxa_(?!finalize)|__gxx|_Unwind", name)]
    assert runtime == []


def test_exports_are_those_of_the_map_and_of_the_header(source, library):
    exported = {name.split("@")[0] for kind, name in symbols(library, "-D", "--defined-only") if kind != "A"}
    in_map = (source / "cmake/exports.map").read_text().split("global:")[1].split("local:")[0]
    assert exported == set(re.findall(r"\w+", in_map))
    header = re.sub(r"/\*.*?\*/", "", (source / "include/quibo/quibo.h").read_text(), flags=re.S)
    declared = re.findall(r"^\s*QUIBO_API\s[^;]*?(\w+)\s*[(\[]", header, flags=re.M)
    assert sorted(declared) == sorted(exported)


def test_other_installed_headers_promise_no_function(prefix):
    """They hold the records; what is linked with stands in quibo.h."""
    for header in (prefix / "include").rglob("*.h"):
        if header.name != "quibo.h":
            text = re.sub(r"/\*.*?\*/", "", header.read_text(), flags=re.S)
            assert re.findall(r"^\w[^;{}#]*\([^)]*\)\s*;", text, flags=re.M) == [], header.name


@pytest.fixture(scope="module")
def prefix(build, tmp_path_factory):
    """An installation somewhere else than configured, as packagers make one."""
    folder = tmp_path_factory.mktemp("prefix")
    run("cmake", "--install", build, "--prefix", folder)
    return folder


def test_an_application_may_use_the_same_names(prefix, tmp_path, unsanitized):
    """Its own dec_data and dec_table take nothing away from the library's."""
    (tmp_path / "main.c").write_text(r"""
#include <stdio.h>
#include <stdlib.h>
#include <stdint.h>
typedef struct KTWakeupParams* KTWakeup;
int32_t Quibo_wakeup_init(KTWakeup*, int32_t);
int32_t Quibo_wakeup_three_write_data(KTWakeup, int16_t*, int16_t*, int16_t*, const int16_t*, int16_t*, int16_t*,
                                      int16_t*, int16_t*);
const int16_t dec_table[4801];
void dec_data(int16_t* samples, int32_t len) { printf("stolen\n"); (void)samples, (void)len; }
int main(void) {
  static int16_t mic[3][1024], ref[1024], out[1024];
  KTWakeup front_end = NULL;
  mic[0][0] = 1;
  if (Quibo_wakeup_init(&front_end, 0) != 0) return 1;
  Quibo_wakeup_three_write_data(front_end, mic[0], mic[1], mic[2], ref, out, NULL, NULL, out);
  printf("%d\n", mic[0][0] != 0);
  return 0;
}
""")
    (folder,) = {path.parent for path in prefix.rglob("libquibo.so")}
    run("cc", tmp_path / "main.c", "-o", tmp_path / "main", f"-L{folder}", "-lquibo")
    assert run(tmp_path / "main", env={"LD_LIBRARY_PATH": str(folder)}) == CONSUMER_OUTPUT.replace("-1 -1 1 10", "1")


@pytest.mark.parametrize("compiler", [["cc", "-std=c99"], ["c++", "-std=c++17"]], ids=["c99", "c++17"])
def test_every_installed_header_stands_alone(prefix, compiler):
    headers = list((prefix / "include").rglob("*.h"))
    assert prefix / "include/quibo/quibo.h" in headers
    for header in headers:
        name = header.relative_to(prefix / "include")
        language = "c" if compiler[0] == "cc" else "c++"
        run(
            *compiler,
            *WARNINGS,
            "-fsyntax-only",
            f"-I{prefix}/include",
            "-x",
            language,
            "-",
            input=f"#include <{name}>\n#include <{name}>\ntypedef int used;\n",
        )


def test_a_cmake_project_finds_and_runs_both_libraries(prefix, tmp_path, unsanitized):
    (tmp_path / "main.c").write_text(CONSUMER)
    (tmp_path / "CMakeLists.txt").write_text(CONSUMER_CMAKE)
    run(
        "cmake",
        "-S",
        tmp_path,
        "-B",
        tmp_path / "build",
        f"-DCMAKE_PREFIX_PATH={prefix}",
        f"-DCMAKE_C_FLAGS=-std=c99 {' '.join(WARNINGS)}",
    )
    run("cmake", "--build", tmp_path / "build")
    for kind in "shared", "static":
        assert run(tmp_path / "build" / f"with_{kind}") == CONSUMER_OUTPUT


@pytest.mark.parametrize("kind", ["shared", "static"])
def test_a_pkg_config_user_builds_and_runs(prefix, tmp_path, kind, unsanitized):
    (tmp_path / "main.c").write_text(CONSUMER)
    (library_folder,) = {path.parent for path in prefix.rglob("libquibo.a")}
    found = {"PKG_CONFIG_PATH": str(library_folder / "pkgconfig"), "PATH": "/usr/local/bin:/usr/bin:/bin"}
    flags = run("pkg-config", "--cflags", "--libs", *(["--static"] if kind == "static" else []), "quibo", env=found)
    if kind == "static":
        flags = "-static " + flags
    run("cc", tmp_path / "main.c", "-o", tmp_path / "main", *flags.split())
    assert run(tmp_path / "main", env={"LD_LIBRARY_PATH": str(library_folder)}) == CONSUMER_OUTPUT
    assert run("pkg-config", "--modversion", "quibo", env=found) == "3.3.22\n"
