"""Builds samples/living_room.flac and samples/living_room.json: one six-channel capture.

Real speech, music and a running tap are played into a simulated living room around the device. The
scene is in scene.py, the acoustics are in training/scenes; see README.md beside this file.
"""

import argparse
import json
import pathlib

import numpy as np
import soundfile

from make_sample.description import describe
from make_sample.recordings import Recordings
from make_sample.tracks import record
from training.device_facts import RATE


def main() -> None:
    parser = argparse.ArgumentParser(prog="python -m make_sample", description=__doc__.splitlines()[0])
    parser.add_argument("--data", required=True, help="folder of source audio, see README.md")
    parser.add_argument("--output", default="samples", help="folder to write to")
    args = parser.parse_args()

    recordings = Recordings(args.data)
    recording = record(recordings)
    scene = describe(recording, recordings)
    flac = pathlib.Path(args.output) / scene["file"]
    soundfile.write(flac, recording.channels.T, RATE, subtype="PCM_16", compression_level=1.0)
    if not np.array_equal(soundfile.read(flac, dtype="int16")[0], recording.channels.T):
        raise AssertionError(f"{flac} does not hold what was written")
    text = json.dumps(scene, indent=2, ensure_ascii=False) + "\n"
    flac.with_suffix(".json").write_text(text, encoding="utf-8")
    print(f"{flac}: {flac.stat().st_size / 1e6:.2f} MB, RT60 {scene['room']['rt60_measured_s']} s")
    print(json.dumps(scene["levels_dbfs"], indent=2))


if __name__ == "__main__":
    main()
