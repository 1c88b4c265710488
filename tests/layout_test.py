"""Who includes whom: each folder of the library itself and those below it."""

import os
import re

# Bottom to top; folders of one row do not include each other.
ORDER = [["include"], ["dsp"], ["nn"], ["aec", "denoise", "doa", "limiter", "wakeup"], ["api", "kernels"]]
LEVEL = {folder: level for level, row in enumerate(ORDER) for folder in row}


def included(source, path, name):
    """The included file, found as the compiler finds it: beside the file, then in the roots."""
    for root in path.parent, source, source / "include":
        if (root / name).is_file():
            return os.path.relpath(root / name, source)
    return None


def test_no_folder_includes_one_above_it(source):
    upward = []
    for folder, level in LEVEL.items():
        for path in (source / folder).rglob("*"):
            if path.suffix in (".h", ".cpp"):
                for name in re.findall(r'^#include "(.+)"', path.read_text(), flags=re.M):
                    other = included(source, path, name)
                    assert other, f"{path}: {name} is not there"
                    below = other.split(os.sep)[0]
                    if below != folder and LEVEL.get(below, len(ORDER)) >= level:
                        upward.append(f"{path.relative_to(source)}: {name}")
    assert upward == []
