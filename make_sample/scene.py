"""The scene of samples/living_room.*: the room, the device in it, what plays, who speaks when and from where."""

from training.device_facts import FRAME, RATE
from training.scenes import array_geometry
from training.scenes.loudspeaker import AsymmetricTanh, Loudspeaker
from training.scenes.room import Room

SEED = 20251107
SAMPLES = 750 * FRAME  # 48 s; whole frames, so that nothing is dropped at the end

ROOM = Room(
    size=(5.2, 4.1, 2.6),
    array=(2.4, 1.9, 0.5),  # on the coffee table
    rt60=0.29,  # by Eyring's formula; the responses of this box measure 0.38 s
    weights=(0.8, 0.5, 1.0, 0.7, 1.0, 0.6),
)
LOUDSPEAKER = Loudspeaker(AsymmetricTanh(full_drive=0.45, asymmetry=0.1), 170.0, 7000.0)
PLAYBACK_DELAY = 240  # samples from the reference to the loudspeaker: 15 ms of output buffer
MIC_GAIN_DB = (0.0, 0.6, -0.5)  # sensitivity spread of the three microphones

# Levels at microphone 1, dBFS, except the reference.
REFERENCE_LEVEL = -20.0
ECHO_LEVEL = -25.0
TALKER_LEVEL = -35.0  # active level: 10 dB below the echo
TAP_LEVEL = -66.0  # a thin stream all along
TAP_OPEN_LEVEL = -45.0  # 10 dB below the talkers
SELF_NOISE_LEVEL = -72.0

TAP = {
    "what": "running tap",
    "file": "noise/speechcommands_running_tap.wav",
    "from": 5.0,
    "attribution": "Speech Commands data set, Google",
}
TAP_OPEN = (24.6, 31.0)  # s
TAP_OFFSET = array_geometry.offset(75.0, 2.6, 0.5)  # the kitchenette

# What the loudspeaker plays: start, end (s), source, where in the source to begin.
PLAYS = (
    {
        "start": 0.0,
        "end": 14.6,
        "what": "music",
        "file": "music/hyperrogue_hr3-laboratory.wav",
        "from": 82.0,
        "attribution": "hr3-laboratory, from HyperRogue, by Shawn Parrotte",
    },
    {
        "start": 31.0,
        "end": 36.5,
        "what": "announcement",
        "file": "speech_other/asterisk_en/vm-intro.wav",
        "from": 0.05,
        "attribution": "Allison Smith (voice), Asterisk core sounds, Digium",
    },
    {
        "start": 36.5,
        "end": 42.9,
        "what": "announcement",
        "file": "speech_other/asterisk_fr/dictate_enter_filename.wav",
        "from": 0.05,
        "attribution": "June Wallack (voice), Asterisk core sounds, Digium",
    },
    {
        "start": 42.9,
        "end": SAMPLES / RATE,
        "what": "music",
        "file": "music/hyperrogue_hr-savino-caribbean.wav",
        "from": 14.0,
        "attribution": "hr-savino-caribbean, from HyperRogue, by Will Savino",
    },
)

HANTTS = "Copyright 2017 Junze Wu, HanTTS; joined from single syllables"
ARCTIC = "CMU Arctic speech database, Copyright Carnegie Mellon University 2003"

# Who speaks in the room: start (s), heading (degrees), distance along the floor and height (m), and
# the pieces of sources said one after the other, each from .. to (s; None: its end).
TALKERS = (
    {
        "start": 8.2,
        "who": "man, Mandarin",
        "text": "铃铛铃铛",
        "pinyin": "ling dang ling dang",
        "wake_phrase": True,
        "heading": 305.0,
        "distance": 1.8,
        "height": 1.2,
        "pieces": [("speech_cmn/wake/junze_wu_10.wav", 0.2, 1.37)],
        "attribution": HANTTS,
    },
    {
        "start": 10.8,
        "who": "man, English",
        "text": "For the twentieth time that evening the two men shook hands.",
        "wake_phrase": False,
        "heading": 210.0,
        "distance": 1.6,
        "height": 1.15,
        "pieces": [("speech_other/arctic/cmu_arctic_us_aew_a0003.wav", 0.0, None)],
        "attribution": ARCTIC,
    },
    {
        "start": 15.8,
        "who": "man, Mandarin",
        "text": "铃铛铃铛",
        "pinyin": "ling dang ling dang",
        "wake_phrase": True,
        "heading": 95.0,
        "distance": 0.8,
        "height": 1.0,
        "pieces": [("speech_cmn/wake/junze_wu_16.wav", 0.2, 1.15)],
        "attribution": HANTTS,
    },
    {
        "start": 18.2,
        "who": "man, Mandarin",
        "text": "铃铛",
        "pinyin": "ling dang",
        "wake_phrase": False,
        "heading": 270.0,
        "distance": 1.2,
        "height": 1.2,
        "pieces": [("speech_cmn/wake/junze_wu_10.wav", 0.2, 0.79)],
        "attribution": HANTTS,
    },
    {
        "start": 19.8,
        "who": "man, Mandarin",
        "text": "铃铛铃铛",
        "pinyin": "ling dang ling dang",
        "wake_phrase": True,
        "heading": 235.0,
        "distance": 2.5,
        "height": 1.65,
        "pieces": [("speech_cmn/wake/junze_wu_07.wav", 0.2, 1.46)],
        "attribution": HANTTS,
    },
    {
        "start": 21.6,
        "who": "woman, English",
        "text": "Lord, but I'm glad to see you again, Phil.",
        "wake_phrase": False,
        "heading": 45.0,
        "distance": 1.5,
        "height": 1.55,
        "pieces": [("speech_other/arctic/cmu_arctic_us_axb_a0004.wav", 0.0, None)],
        "attribution": ARCTIC,
    },
    {
        "start": 26.4,
        "who": "man, Mandarin",
        "text": "铃铛铃铛",
        "pinyin": "ling dang ling dang",
        "wake_phrase": True,
        "heading": 160.0,
        "distance": 1.5,
        "height": 1.2,
        "pieces": [("speech_cmn/wake/junze_wu_13.wav", 0.2, 1.25)],
        "attribution": HANTTS,
    },
    {
        "start": 28.6,
        "who": "woman, Mandarin",
        "text": "我相信很好吃",
        "pinyin": "wo xiang xin hen hao chi",
        "wake_phrase": False,
        "heading": 330.0,
        "distance": 1.4,
        "height": 1.15,
        "pieces": [("speech_cmn/aishell3/SSB02670376.wav", 0.24, 1.84)],
        "attribution": "AISHELL-3, Beijing Shell Shell Technology, speaker SSB0267",
    },
    {
        "start": 38.2,
        "who": "man, Mandarin",
        "text": "铃铛铃铛",
        "pinyin": "ling dang ling dang",
        "wake_phrase": True,
        "heading": 20.0,
        "distance": 2.0,
        "height": 1.2,
        "pieces": [("speech_cmn/wake/junze_wu_04.wav", 0.2, 1.55)],
        "attribution": HANTTS,
    },
    {
        "start": 41.0,
        "who": "man, Mandarin",
        "text": "铃铛铃灯",
        "pinyin": "ling dang ling deng",
        "wake_phrase": False,
        "heading": 130.0,
        "distance": 1.6,
        "height": 1.2,
        "pieces": [
            ("speech_cmn/wake/junze_wu_04.wav", 0.2, 1.30),
            ("speech_cmn/junze_wu/deng5.wav", 0.06, None),
        ],
        "attribution": HANTTS,
    },
)

STRETCHES = (
    {"kind": "far_end", "start": 0.0, "end": 7.0, "what": "music starts, the room is learnt"},
    {"kind": "double_talk", "start": 7.0, "end": 14.6, "what": "two men speak over music"},
    {"kind": "near_end", "start": 14.6, "end": 24.6, "what": "voices from four sides, nothing plays"},
    {"kind": "near_end", "start": 24.6, "end": 31.0, "what": "two people speak, a tap runs"},
    {"kind": "far_end", "start": 31.0, "end": 36.5, "what": "an announcement is played"},
    {"kind": "double_talk", "start": 36.5, "end": 42.9, "what": "a man speaks over an announcement"},
    {"kind": "far_end", "start": 42.9, "end": SAMPLES / RATE, "what": "music alone again"},
)

# The share-alike sources decide; public domain, CC-BY, Apache, MIT and BSD-like ones may go along.
LICENCE = "CC-BY-SA-3.0"
