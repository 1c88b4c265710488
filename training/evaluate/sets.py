"""How much is evaluated: the short set takes minutes on one core, the long one is for releases."""

import dataclasses


@dataclasses.dataclass(frozen=True)
class Sizes:
    """Numbers of scenes, each heard in every condition of its section."""

    noise: int
    echo: int
    wake: int
    silence_minutes: float  # without the phrase, half of it noisy talk, half playback
    rooms: int  # in the bank; a tenth of them are test rooms


SEED = 20260101
SHORT = Sizes(noise=8, echo=5, wake=8, silence_minutes=4.0, rooms=300)
LONG = Sizes(noise=120, echo=60, wake=200, silence_minutes=600.0, rooms=3000)

SNRS = (0.0, 5.0, 10.0, 15.0)  # dB
SERS = (0.0, -10.0, -20.0)
CHANGED_SER = -10.0  # the condition in which the echo path changes
WAKE_CONDITIONS = {  # name -> (SNR, SER or None) in dB
    "quiet": (30.0, None),
    "noise 5 dB": (5.0, None),
    "playback -10 dB": (30.0, -10.0),
    "playback -20 dB": (30.0, -20.0),
}
