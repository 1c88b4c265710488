"""How much is evaluated: the short set takes minutes on one core, the long one is for releases."""

from __future__ import annotations

import dataclasses

INPUTS = ("noisy", "unprocessed")  # what the systems are given


@dataclasses.dataclass(frozen=True)
class Sizes:
    """Numbers of scenes, each heard in every condition of its section."""

    noise: int
    echo: int
    direction: int
    wake: int
    silence_minutes: float  # without the phrase, half of it noisy talk, half playback
    rooms: int  # in the bank; a tenth of them are test rooms
    opinions: int = 10**6  # scenes of the first two sections whose predicted opinions are asked for: half of the time
    conditions: tuple = ("",)  # of the first two sections: how their names may begin
    systems: tuple = ("",)  # likewise, beside what is given to all of them

    def hears(self, condition: str) -> bool:
        return condition.startswith(self.conditions)

    def asks(self, system: str) -> bool:
        return system in INPUTS or system.startswith(self.systems)


SEED = 20260101
SHORT = Sizes(noise=8, echo=5, direction=15, wake=8, silence_minutes=4.0, rooms=300)
LONG = Sizes(noise=120, echo=60, direction=200, wake=200, silence_minutes=600.0, rooms=3000)

SNRS = (0.0, 5.0, 10.0, 15.0)  # dB
NOISE_KINDS = {"recorded": 0.6, "babble": 0.12, "talker": 0.08, "music": 0.2}  # at those ratios
STEADY = ("white", "fan", "babble of six")  # noises the same scenes are heard in, too
STEADY_SNR = 5.0
SERS = (0.0, -10.0, -20.0)
CHANGED_SER = -10.0  # the condition in which the echo path changes
DIRECTION_CONDITIONS = {  # name -> (RT60 in s, SNR, SER or None in dB)
    "RT60 0.2 s": (0.2, 15.0, None),
    "RT60 0.4 s": (0.4, 15.0, None),
    "RT60 0.6 s": (0.6, 15.0, None),
    "RT60 1.0 s": (1.0, 15.0, None),
    "quiet": (0.4, 30.0, None),
    "noise 5 dB": (0.4, 5.0, None),
    "music playing -10 dB": (0.4, 30.0, -10.0),
    "music playing -20 dB": (0.4, 30.0, -20.0),
}
POINTS_RT60 = 0.4  # s
POINT_NOISES = {  # name -> (noises at a point each, SNR in dB of all together)
    "one noise at a point, 10 dB": (1, 10.0),
    "three noises at points, 20 dB": (3, 20.0),
    "three noises at points, 10 dB": (3, 10.0),
    "three noises at points, 0 dB": (3, 0.0),
}
WAKE_CONDITIONS = {  # name -> (SNR, SER or None) in dB
    "quiet": (30.0, None),
    "noise 5 dB": (5.0, None),
    "playback -10 dB": (30.0, -10.0),
    "playback -20 dB": (30.0, -20.0),
}
