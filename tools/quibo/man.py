#!/usr/bin/env python3
"""The manual page, from what the command says about itself: man.py COMMAND VERSION > quibo.1"""

import re
import subprocess
import sys

EXIT = """.SH EXIT STATUS
.TP
.B 0
all fine
.TP
.B 1
something to look at
.TP
.B 2
wrong use
.TP
.B 3
a file could not be read or written
.TP
.B 130
ended by Ctrl-C
"""


def help_of(*arguments):
    return subprocess.run([*arguments, "--help"], check=True, capture_output=True, text=True).stdout


def escaped(text):
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return re.sub(r"^([.'])", r"\\&\1", text, flags=re.M)


def section(text):
    """The description, the options as (names, what they do), and the example of a help text."""
    text, _, example = text.partition("Example:\n")
    about, _, rest = text.partition("Usage:")
    usage, _, rest = rest.partition("\n")
    options = []
    for line in rest.splitlines():
        if entry := re.match(r"  (\S+) .*REQUIRED +(.*)$|  (\S.*?)  +(\S.*)$", line):
            options.append([entry[1] or entry[3], entry[2] or entry[4]])
        elif re.match(r"  \S", line):
            options.append([line.strip(), ""])
        elif options and re.match(r" {10,}\S", line):
            options[-1][1] += " " + line.strip()
    return about.strip(), usage.strip(), options, example.strip("\n")


def main():
    command, version = sys.argv[1:]
    about, _, options, _ = section(help_of(command).split("\nExit status:")[0])
    names = [name for name, _ in options if re.fullmatch(r"[a-z]+", name)]
    print(f'.TH QUIBO 1 "" "Quibo {version}" "User commands"')
    print(".SH NAME\nquibo \\- speech front end for recordings and captures\n.SH SYNOPSIS\n.B quibo\n.I COMMAND\n[options]")
    print(f".SH DESCRIPTION\n{escaped(about)}")
    for name in names:
        about, usage, options, example = section(help_of(command, name))
        print(f".SH QUIBO {name.upper()}\n.B {escaped(usage)}\n.PP\n{escaped(about)}")
        for option, what in options:
            print(f".TP\n.B {escaped(option)}\n{escaped(what.strip())}")
        print(f".PP\nExample:\n.PP\n.nf\n{escaped(example)}\n.fi")
    print(EXIT, end="")


if __name__ == "__main__":
    main()
