// Features of the direction network: GCC-PHAT of every microphone pair and the log-mel energies of
// microphone 1, for the three 10 ms frames of a block.
#pragma once

#include "doa/ring_doa.h"

// Drops the oldest block of every history and appends 480 new samples of each microphone.
void doa_add_samples(LAYER_DATA_DOA* dlayer, const int16_t* mic1, const int16_t* mic2,
                     const int16_t* mic3);

// All features of the block in `in`: out1[0..359] GCC-PHAT of the pairs (0, 1), (0, 2), (1, 2) and
// out1[360..479] log-mel energies, each [frame][40].
void doa_fbank_gcc_phat_feature(LAYER_DATA_DOA* dlayer);

// GCC-PHAT of one pair from the spectra in `mic_fft`: out[40f + 20 + lag], frame f = 0..2, lag =
// -20..19 in samples (+20 is not kept). A lag is the arrival at mic_a less the arrival at mic_b: a
// sound that reaches mic_b d samples later peaks at lag -d.
void doa_get_two_mics_gcc_feat(LAYER_DATA_DOA* dlayer, int mic_a, int mic_b, float* out);

// Log-mel energies of the last 720 samples of microphone 1: out[40f + band].
void doa_get_fbank_feature(LAYER_DATA_DOA* dlayer, float* out);
