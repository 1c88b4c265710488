"""The device's numbers, each in one place: what the library computes with, and what its output means.

quibo.h and the headers of its modules document them; tests compare the records (library.py) with those headers, and the
decoder, the features and the networks with the library itself.
"""

RATE = 16000  # Hz
FULL_SCALE = 32768.0  # of int16 samples
MICROPHONES = 3
FRAME = 1024  # samples per channel and call of the front end
BLOCK = 480  # samples per step of wake-up and direction, 30 ms
HOP, FRAMES_PER_BLOCK = 160, 3  # of the features, 10 ms
MEAN_FACTOR = 0.3333333  # float32: of the microphones' sum, which the wake-up engine hears

MIC_DELAY = 20  # samples by which the canceller delays its microphone
SUPPRESSOR_DELAY = 2560  # samples: four hops of look-ahead and one of overlap-add
DIRECTION_FLOOR = 0.3  # of the noise suppressors in front of the direction estimator
HEADING_OFFSET = 30  # degrees from the direction network's zero to the device's, docs/direction.md
DECISION_BLOCKS = 15  # the direction's decision looks back

# Syllables of the wake-up network.
CLASSES = 146
FILLER, BLANK = 0, 145
FILLER_GAIN, BLANK_GAIN = 0.9, 0.95  # on positive scores, before the softmax

# Its decoder (wakeup/decoder.cpp); steps are blocks.
SILENT = 0.95  # blank posterior above which a step never wakes
DECAY_AFTER, DECAY = (10, 15), (0.9, 0.8)  # silent steps
RESET_AFTER = 25  # silent steps
SMALLEST_SCORE = 1e-8
DIVISOR = 4.0  # of the score's negative logarithm: the cost
THRESHOLD = 1.2  # cost below which the device wakes
