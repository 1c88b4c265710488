#!/usr/bin/env python3
"""Draws docs/pipeline.svg: the chain with the shape of the data and the delay on every arrow."""

import pathlib

BOX = {"io": "#eef1f4", "dsp": "#dbe9f6", "net": "#fbe6cf", "state": "#e4f0dd"}
BOX_HEIGHT = 58
out = []


def text(x, y, lines, size=12, weight="normal", anchor="middle", fill="#1b2430"):
    for i, line in enumerate(lines):
        out.append(
            f'<text x="{x}" y="{y + i * (size + 3)}" font-size="{size}" font-weight="{weight}" '
            f'text-anchor="{anchor}" fill="{fill}">{line}</text>'
        )


def box(x, y, width, kind, title, note):
    out.append(f'<rect x="{x}" y="{y}" width="{width}" height="{BOX_HEIGHT}" rx="7" fill="{BOX[kind]}" stroke="#5b6b7b"/>')
    text(x + width / 2, y + 23, [title], 13, "bold")
    text(x + width / 2, y + 42, [note], 11, fill="#44525f")


def arrow(points, label, at=None):
    path = " ".join(f"{'L' if i else 'M'}{x},{y}" for i, (x, y) in enumerate(points))
    out.append(f'<path d="{path}" fill="none" stroke="#38495a" stroke-width="1.6" marker-end="url(#head)"/>')
    if at:
        text(*at, label, 11, anchor="start", fill="#8a3b12")
    else:  # above and below the last, horizontal run
        (x0, y), (x1, _) = points[-2:]
        for line, offset in zip(label, (-7, 15)):
            text((x0 + x1) / 2 - 3, y + offset, [line], 11, fill="#8a3b12")


def band(y, height, title, note):
    out.append(
        f'<rect x="14" y="{y}" width="1132" height="{height}" rx="10" fill="none" stroke="#b9c4ce" stroke-dasharray="5 4"/>'
    )
    text(28, y + 20, [title], 13, "bold", "start")
    text(28, y + 37, [note], 11, "normal", "start", "#44525f")


band(16, 276, "Echo path: Quibo_wakeup_three_write_data", "one frame: 1024 samples per channel, 64 ms")
box(32, 96, 130, "io", "3 microphones", "scrambled int16")
box(32, 206, 130, "io", "loudspeaker", "reference, int16")
box(276, 96, 150, "dsp", "dec_data", "descramble, in place")
box(540, 96, 190, "dsp", "linear canceller × 3", "3 × 1024 taps, FFT 2048")
box(540, 206, 190, "net", "neural echo suppressor", "microphone 1, 513 bins")
box(976, 96, 150, "io", "outdata1..3", "echo-cancelled")
box(976, 206, 150, "io", "naecout", "residual suppressed")
arrow([(162, 125), (276, 125)], ["3 × 1024 int16", "0 ms"])
arrow([(426, 125), (540, 125)], ["3 × 1024 int16", "0 ms"])
arrow([(162, 235), (516, 235), (516, 145), (540, 145)], ["1024 int16, shared by all three, 0 ms"], (206, 228))
arrow([(730, 125), (976, 125)], ["3 × 1024 float → int16, wrapping", "1.25 ms (20 samples)"])
arrow([(635, 154), (635, 206)], ["microphone 1 and its echo estimate,", "2 × 1024 float, 1.25 ms"], (645, 176))
arrow([(730, 235), (976, 235)], ["1024 int16", "160 ms: 4 hops ahead + 1 overlap"])

band(308, 368, "Detection path: Quibo_doa_three_write_data", "takes outdata1..3; steps in blocks of 480 samples, 30 ms")
box(32, 386, 130, "io", "outdata1..3", "int16")
box(276, 386, 150, "dsp", "mean of three", "× 0.3333333")
box(268, 546, 166, "net", "noise suppressor × 3", "floor 0.3, 513 bins")
box(520, 386, 140, "state", "WData", "FIFO")
box(520, 546, 140, "state", "mic1..3_doa_data", "three FIFOs")
box(752, 386, 140, "net", "wake-up engine", "log-mel → int8 net")
box(752, 546, 140, "net", "direction network", "GCC-PHAT + log-mel")
box(976, 386, 150, "io", "Iswakeup", "0: wake phrase heard")
box(976, 546, 150, "io", "angle", "(decision + 30) mod 360")
arrow([(162, 415), (276, 415)], ["3 × 1024 int16", "0 ms"])
arrow([(97, 444), (97, 575), (268, 575)], ["3 × 1024 int16", "0 ms"])
arrow([(426, 415), (520, 415)], ["1024 int16", "0 ms"])
arrow([(434, 575), (520, 575)], ["3 × 1024", "160 ms"])
arrow([(660, 415), (752, 415)], ["480 int16", "0..30 ms"])
arrow([(660, 575), (752, 575)], ["3 × 480", "0..30 ms"])
arrow([(892, 415), (976, 415)], ["0 / −1", "30 ms"])
arrow([(892, 575), (976, 575)], ["degrees", "30 ms"])
arrow([(822, 444), (822, 546)], ["wake flag of this block: decide on the", "last 15 vectors (x, y), 450 ms"], (832, 492))
text(
    28,
    652,
    ["The four FIFOs share one fill counter, data_doa_len (0..479 between calls); an angle empties them all."],
    11,
    anchor="start",
    fill="#44525f",
)

svg = (
    '<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 1160 692" font-family="Helvetica, Arial, sans-serif">'
    '<defs><marker id="head" markerWidth="9" markerHeight="9" refX="8" refY="4" orient="auto">'
    '<path d="M0,0 L9,4 L0,8 z" fill="#38495a"/></marker></defs>'
    '<rect width="1160" height="692" fill="white"/>' + "\n".join(out) + "</svg>\n"
)
pathlib.Path(__file__).with_name("pipeline.svg").write_text(svg)
