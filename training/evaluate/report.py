"""results -> one self-contained HTML page, and the lines for the terminal."""

from __future__ import annotations

import html
import pathlib
from collections.abc import Iterator, Sequence

from training.device_facts import THRESHOLD
from training.evaluate import devices, direction, plots, sets
from training.evaluate.metrics import ERLE_WINDOW, HIGH_PASS_HZ
from training.evaluate.peers.gtcrn import Gtcrn
from training.evaluate.peers.rnnoise import RNNoise
from training.evaluate.peers.speex import Speex
from training.evaluate.peers.webrtc import WebRtc
from training.shared import Record

# measure -> (heading, digits, better: +1 more, -1 less, 0 neither)
NOISE_COLUMNS = {
    "si_sdr": ("SI-SDR, dB", 1, 1),
    "si_sdr_gain": ("gained, dB", 1, 1),
    "estoi": ("ESTOI", 2, 1),
    "ovrl": ("DNSMOS overall", 2, 1),
    "sig": ("speech", 2, 1),
    "bak": ("background", 2, 1),
}
ECHO_COLUMNS = {
    "erle_end": ("ERLE, dB", 1, 1),
    "echo_far_end": ("echo MOS", 2, 1),
    "si_sdr": ("SI-SDR, dB", 1, 1),
    "estoi": ("ESTOI", 2, 1),
    "echo_double_talk": ("echo MOS", 2, 1),
    "deg_double_talk": ("degrad. MOS", 2, 1),
    "near_si_sdr": ("SI-SDR, dB", 1, 1),
    "near_estoi": ("ESTOI", 2, 1),
    "deg_near_end": ("degrad. MOS", 2, 1),
}
ECHO_GROUPS = (("playback alone", 2), ("both at once", 4), ("talker alone", 3))
DEVICES_COLUMNS = {"echo": ("echo MOS", 2, 1), "degradation": ("degrad. MOS", 2, 1)}
DIRECTION_COLUMNS = {
    "median": ("median, °", 0, -1),
    "p90": ("90th percentile, °", 0, -1),
    "within": (f"within {direction.POINTED:.0f}°, %", 0, 1),
}

STYLE = """
:root { color-scheme: light; }
body { font: 15px/1.5 system-ui, "Helvetica Neue", Arial, sans-serif; color: #22262c; background: #fff;
  max-width: 1120px; margin: 2.2em auto 4em; padding: 0 1.2em; }
h1 { font-size: 1.7em; margin: 0 0 .2em; } h2 { margin: 2.2em 0 .3em; font-size: 1.3em;
  border-top: 2px solid #22262c; padding-top: .5em; } h3 { margin: 1.6em 0 .3em; font-size: 1.02em; }
p, li { max-width: 78ch; } .lead { color: #555b64; margin-top: 0; }
.warn { background: #fff5dd; border-left: 4px solid #d99a00; padding: .6em .9em; max-width: none; }
table { border-collapse: collapse; margin: .4em 0 1em; font-size: .87em; width: 100%; }
th { text-align: right; font-weight: 600; color: #555b64; vertical-align: bottom; padding: .25em .5em; }
td { text-align: right; padding: .25em .5em; border-top: 1px solid #e8eaed; white-space: nowrap;
  font-variant-numeric: tabular-nums; }
th:first-child, td:first-child { text-align: left; padding-left: 0; }
td small { color: #8a8f98; display: block; font-size: .82em; line-height: 1.1; }
th.group { text-align: center; border-bottom: 1px solid #b8bdc5; color: #22262c; }
td.best { font-weight: 700; } td.best small { font-weight: 400; } tr.ours td { background: #f0f5fe; }
code { font-size: .86em; overflow-wrap: anywhere; } figure { margin: .8em 0; } svg { max-width: 100%; height: auto; }
table.plain td, table.plain th { text-align: left; white-space: normal; }
.note { color: #555b64; font-size: .88em; }
"""


def write(results: Record, path: pathlib.Path) -> None:
    about = results["about"]
    parts = [
        "<!doctype html><html lang=en><meta charset=utf-8>",
        "<meta name=viewport content='width=device-width, initial-scale=1'>",
        f"<title>Quibo, evaluation of {about['revision']}</title><style>{STYLE}</style>",
        "<h1>Quibo: evaluation</h1>",
        f"<p class=lead>Revision {html.escape(about['revision'])}, {about['set']} set, seed {about['seed']}. "
        "Simulated scenes; no training has seen their speakers, noises and rooms. Small figures are "
        "95&nbsp;% intervals over scenes; bold marks the best system of a column.</p>",
        _warnings(about),
    ]
    for name, section in SECTIONS.items():
        if name in results:
            parts += section(results[name], about)
    parts += _about(results)
    path.write_text("\n".join(parts), encoding="utf-8")


def _warnings(about: Record) -> str:
    lines = []
    untrained = [n for n, f in about["parameters"].items() if n != "codec.safetensors" and f["trained"] != "yes"]
    if untrained:
        lines.append(f"Untrained: {', '.join(untrained)}. What these networks do here means nothing yet.")
    other = [n for n, f in about["parameters"].items() if not f["compiled_in"]]
    if other:
        lines.append(f"The library was not built with these files: {', '.join(other)}.")
    if about["speech"] == "synthetic":
        lines.append("Synthetic speech: figures are not those of people.")
    return "".join(f"<p class=warn>{html.escape(line)}</p>" for line in lines)


def _noise(section: Record, about: Record) -> Iterator[str]:
    yield "<h2>Noise suppressor</h2>"
    yield (
        f"<p>{about['sizes']['noise']} scenes, each at every SNR: a talker 0.5 to 5 m away and recorded noise, babble, "
        "music or a second talker; then the same with white noise, a fan or six talkers instead. Microphone 1 is "
        "judged against the talker as it hears him, with late reverberation "
        "6 to 10 dB down.</p>"
    )
    if all(f"{snr:g} dB" in section["summary"] for snr in sets.SNRS):
        yield f"<figure>{plots.noise(section['summary'])}</figure>"
    for condition, systems in section["summary"].items():
        yield f"<h3>{condition.removesuffix(' dB')} dB signal-to-noise</h3>" + _table(systems, NOISE_COLUMNS)
    yield (
        f"<p class=note>SI-SDR is taken above {HIGH_PASS_HZ:.0f} Hz of both signals: the suppressor holds the lowest "
        "bins down on purpose. The mask's floor limits how much can be taken away: 0.1 is 20 dB, 0.3 is 10 dB. "
        "<em>Three microphones</em>: three instances in turns, sharing recurrent states, as the front end runs them."
        f"</p>{_peers(section)}"
    )


def _echo(section: Record, about: Record) -> Iterator[str]:
    yield "<h2>Echo path</h2>"
    yield (
        f"<p>{about['sizes']['echo']} scenes, each at every signal-to-echo ratio at the microphone: 8 s of playback "
        "alone, 8 s with somebody talking over it, 6 s of the talker alone. Playback is speech, music or tones, bent by "
        "a small loudspeaker, 0 to 120 ms late; the noise is 40 dB below the echo, so no more than about 40 dB of "
        "reduction can be seen.</p>"
    )
    if len(section["summary"]) > len(sets.SERS):
        yield "<h3>Echo reduction while the device plays alone</h3>"
        still, *_, changed = section["summary"].values()  # the stretch is the same at every ratio
        panels = {"path stays": still, "path changes after 4 s": changed}
        yield f"<figure>{plots.echo_over_time(panels, ERLE_WINDOW)}</figure>"
        yield "<h3>Both at once: echo removed against speech kept</h3>"
        yield f"<figure>{plots.double_talk(section['summary'])}</figure>"
        yield (
            "<p class=note>Up and to the right is better. What buys less echo with the talker's voice moves right and down.</p>"
        )
    for condition, systems in section["summary"].items():
        yield f"<h3>Signal-to-echo {condition}</h3>" + _table(systems, ECHO_COLUMNS, ECHO_GROUPS)
    yield (
        "<p class=note>ERLE: microphone power over output power in the last 2 s of playback alone. MOS: AECMOS, 1 to 5. "
        "AECMOS finds fault with reverberant speech as it is: compare with the unprocessed microphone. "
        "<em>Path changes</em>: after 4 s of playback alone the room is another one.</p>" + _peers(section)
    )


def _devices(section: Record, about: Record) -> Iterator[str]:
    yield "<h2>Echo path, real devices</h2>"
    count = len({r["recording"] for r in section["rows"]})
    yield (
        f"<p>{count} recordings of microphone and playback by people's own devices, the delay between the two files taken "
        "off. Nobody knows what the talkers alone sounded like: AECMOS is a network's opinion.</p>"
    )
    yield f"<figure>{plots.levels(section['rows'], devices.WINDOW)}</figure>"
    for kind, systems in section["summary"].items():
        title = "Playback alone" if kind == "far_end" else "Both at once"
        yield f"<h3>{title}</h3>" + _table(systems, DEVICES_COLUMNS)
    yield _peers(section)


def _direction(section: Record, about: Record) -> Iterator[str]:
    yield "<h2>Pointed</h2>"
    yield (
        f"<p>{about['sizes']['direction']} calls of 0.6 to 1.2 s in rooms of their own, each in every condition; the "
        "direction is asked for 0.1 s after the call. At every reverberation time room, device and talker stand the "
        "same; SNR 15 dB where nothing else is said. <em>Quiet</em> to <em>music</em>: RT60 0.4 s, SNR 30 dB where "
        "nothing else is said.</p>"
    )
    conditions = list(section["summary"])
    yield f"<figure>{plots.directions(section['rows'], conditions)}</figure>"
    for name, systems in section["summary"].items():
        yield _directions(name, systems)
    yield (
        "<p class=note>Error in degrees from the talker's heading. SRP-PHAT hears the cancelled microphones, once over "
        "the 0.45 s the estimator decides on and once over the whole call, which it would have to be told.</p>"
    )


def _directions(name: str, systems: Record) -> str:
    systems = {s: {**f, "within": _scaled(f["within"], 100)} for s, f in systems.items()}
    return f"<h3>{name[0].upper()}{name[1:]}</h3>" + _table(systems, DIRECTION_COLUMNS)


def _wake(section: Record, about: Record) -> Iterator[str]:
    yield "<h2>Said, heard, pointed</h2>"
    if "left_out" in section:
        yield f"<p class=warn>Left out: {html.escape(section['left_out'])}.</p>"
        return
    summary = section["summary"]
    yield (
        f"<p>“{about['phrase']}” {about['sizes']['wake']} times in rooms, each in every condition, through the two calls per "
        f"frame of the whole front end. {section['clips']} clips of {len(section['voices'])} voice"
        f"{'s' * (len(section['voices']) != 1)}, joined from single syllables: an optimistic test.</p>"
    )
    rows = ""
    for name, c in summary["conditions"].items():
        rows += (
            f"<tr><td>{name}</td><td>{c['said']}</td>{_cell(c['heard'], 0, 100, ' %')}{_cell(c['pointed'], 0, 100, ' %')}"
            f"{_cell(c['latency'], 0, 1000, ' ms')}<td>{c['also_heard']}</td></tr>"
        )
    yield (
        "<table><tr><th>condition<th>said<th>heard<th>heard and pointed<br>within "
        f"{direction.POINTED:.0f}°<th>latency from the<br>phrase's end, median<th>heard, not said</tr>{rows}</table>"
    )
    false = summary["false_accepts"]
    if false:
        yield (
            f"<p>False accepts: <b>{false['value']:.1f} per hour</b> ({false['low']:.1f} to {false['high']:.1f}), "
            f"{false['n']} in {summary['hours'] * 60:.0f} min of noisy talk and playback without the phrase.</p>"
        )
        if max(summary["det"]["false_per_hour"]) > 0 or any(min(m) < 1 for m in summary["det"]["missed"].values()):
            yield f"<figure>{plots.det(summary, THRESHOLD)}</figure>"
            yield (
                "<p class=note>A dot marks the decoder's threshold. The engine alone, kept from waking, on the same "
                "cancelled microphones.</p>"
            )
        else:
            yield "<p class=note>No detection error curve: at no threshold is anything heard, said or not.</p>"
    yield "<h3>Direction, asked for 0.1 s after every phrase, heard or not</h3>"
    yield f"<figure>{plots.directions(section['rows'], list(sets.WAKE_CONDITIONS))}</figure>"
    for name, c in summary["conditions"].items():
        yield _directions(name, c["direction"])
    yield (
        "<p class=note>Error in degrees from the talker's heading. SRP-PHAT hears the cancelled microphones, once over "
        "the 0.45 s the estimator decides on and once over the whole phrase, which it would have to be told.</p>"
    )


def _scaled(figure: Record | None, factor: float) -> Record | None:
    return figure and {k: v * factor if k != "n" else v for k, v in figure.items()}


def _table(systems: Record, columns: dict[str, tuple[str, int, int]], groups: Sequence[tuple[str, int]] = ()) -> str:
    head = "".join(f"<th>{title}" for title, _, _ in columns.values())
    best = {}
    for measure, (_, digits, better) in columns.items():
        values = [f[measure]["value"] for s, f in systems.items() if f[measure] and s not in sets.INPUTS]
        if better and len({round(v, digits) for v in values}) > 1:
            best[measure] = round(max(values) if better > 0 else min(values), digits)
    rows = ""
    for system, figures in systems.items():
        cells = "".join(
            _cell(
                figures[m],
                digits,
                best=figures[m] and system not in sets.INPUTS and best.get(m) == round(figures[m]["value"], digits),
            )
            for m, (_, digits, _) in columns.items()
        )
        rows += f"<tr{' class=ours' * system.startswith('Quibo')}><td>{html.escape(system)}</td>{cells}</tr>"
    above = "".join(f"<th class=group colspan={count}>{title}" for title, count in groups)
    return f"<table>{f'<tr><th>{above}</tr>' if groups else ''}<tr><th>{head}</tr>{rows}</table>"


def _cell(figure: Record | None, digits: int, factor: float = 1, unit: str = "", best: bool = False) -> str:
    if figure is None:
        return "<td>–</td>"
    value, low, high = (f"{round(factor * figure[k], digits) + 0.0:.{digits}f}" for k in ("value", "low", "high"))
    return f"<td{' class=best' * bool(best)}>{value}{unit}<small>{low} to {high}</small></td>"


def _peers(section: Record) -> str:
    about = {peer.name: peer.about for peer in (Speex, WebRtc, RNNoise, Gtcrn)}
    lines = [
        f"{about[name]}; its delay of {delay} samples and its fixed phase are taken off"
        for name, delay in section["delays"].items()
    ] + section["absent"]
    return "<ul class=note>" + "".join(f"<li>{html.escape(line)}.</li>" for line in lines) + "</ul>"


def _about(results: Record) -> Iterator[str]:
    about = results["about"]
    yield "<h2>What was measured</h2><table class=plain><tr><th>file<th>SHA-256<th>compiled in<th>trained</tr>"
    yield f"<tr><td>library<td><code>{about['library']['sha256']}</code><td><td></tr>"
    for name, f in about["parameters"].items():
        trained = f"{f['trained']}{', ' + f['steps'] + ' steps' if f['steps'] else ''}"
        compiled = "yes" if f["compiled_in"] else "no"
        trained = trained if name != "codec.safetensors" else ""
        yield f"<tr><td>{name}<td><code>{f['sha256']}</code><td>{compiled}<td>{trained}</tr>"
    yield (
        f"</table><p class=note>Data {about['data']}, rooms {about['rooms']} (the first {about['sizes']['rooms']}; test rooms "
        f"are a tenth), {about['speech']}; took {about['minutes']} min.</p></html>"
    )


def terminal(results: Record) -> str:
    """Tables in plain text."""
    lines = []
    for name, columns in (("noise", NOISE_COLUMNS), ("echo", ECHO_COLUMNS), ("devices", DEVICES_COLUMNS)):
        for condition, systems in results.get(name, {}).get("summary", {}).items():
            lines += ["", f"{name}, {condition}"]
            lines.append(f"  {'':38}" + "".join(f"{m:>18}" for m in columns))
            for system, figures in systems.items():
                values = "".join(
                    f"{figures[m]['value']:18.{digits}f}" if figures[m] else f"{'-':>18}"
                    for m, (_, digits, _) in columns.items()
                )
                lines.append(f"  {system:38}{values}")
    for name, systems in results.get("direction", {}).get("summary", {}).items():
        lines += ["", f"direction, {name}: degrees off, median [95 %], 90th percentile, within 15"]
        for system, f in systems.items():
            m, p, w = f["median"], f["p90"], f["within"]
            lines.append(
                f"  {system:38}{m['value']:6.1f} [{m['low']:.1f}, {m['high']:.1f}]{p['value']:8.1f} "
                f"[{p['low']:.1f}, {p['high']:.1f}]{100 * w['value']:6.0f} % [{100 * w['low']:.0f}, {100 * w['high']:.0f}]"
            )
    section = results.get("wake", {})
    if "left_out" in section:
        lines += ["", f"wake: left out, {section['left_out']}"]
    elif section:
        lines += ["", "said, heard, pointed"]
        for name, c in section["summary"]["conditions"].items():
            errors = ", ".join(
                f"{system} {f['median']['value']:.0f}/{f['p90']['value']:.0f}" for system, f in c["direction"].items()
            )
            heard, pointed = (round(c[k]["value"] * c["said"]) for k in ("heard", "pointed"))
            lines.append(f"  {name:18} said {c['said']}, heard {heard}, pointed {pointed}; degrees off, median/90 %: {errors}")
        false = section["summary"]["false_accepts"]
        if false:
            lines.append(f"  {false['value']:.1f} false accepts per hour")
    for name in ("noise", "echo"):
        lines += results.get(name, {}).get("absent", [])
    return "\n".join(lines)


SECTIONS = {"noise": _noise, "echo": _echo, "devices": _devices, "direction": _direction, "wake": _wake}
