"""Scenes of the device in a room: what the networks are trained and judged on."""

from training.scenes.cache import aec_cache
from training.scenes.noisy import ns_batch
from training.scenes.playback import aec_clip

__all__ = ["aec_cache", "aec_clip", "ns_batch"]
