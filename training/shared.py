"""What training shares with the build of the library: the code in params/."""
import pathlib
import sys

ROOT = pathlib.Path(__file__).resolve().parents[1]
PARAMS = ROOT / "params"
sys.path.append(str(PARAMS))

import mel_filters  # noqa: E402,F401
import safetensors_file  # noqa: E402,F401
from make_kws_untrained import class_names  # noqa: E402,F401
