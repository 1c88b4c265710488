#!/usr/bin/env python3
"""Makes report.html, the command's template: viewer.js and what it imports in one script, the style beside it.

    viewer/build.py [OUTPUT]      default: report.html beside this file, which is kept under version control so that
                                  building the command needs no JavaScript tool

Needs esbuild (Debian has it).
"""

import pathlib
import subprocess
import sys

HERE = pathlib.Path(__file__).resolve().parent


def bundle(entry, *options):
    """The script of an entry file with its imports, as text."""
    command = ["esbuild", entry.name, "--bundle", "--charset=utf8", "--log-level=warning", *options]
    run = subprocess.run(command, check=True, stdout=subprocess.PIPE, encoding="utf-8", cwd=entry.parent)
    return run.stdout


def main():
    script = bundle(HERE / "viewer.js", "--format=iife").replace("</script", "<\\/script")
    page = (HERE / "template.html").read_text(encoding="utf-8")
    page = page.replace("/* quibo:style */", (HERE / "style.css").read_text(encoding="utf-8").strip())
    page = page.replace("/* quibo:viewer */", script.strip())
    output = pathlib.Path(sys.argv[1]) if len(sys.argv) > 1 else HERE / "report.html"
    output.write_text(page, encoding="utf-8")


if __name__ == "__main__":
    main()
