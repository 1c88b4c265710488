// Log-mel energies of one 25 ms frame: the input of the wake-up engine and of the direction
// estimator.
//
// Mean removal, pre-emphasis, Hamming window, power spectrum of 512 points, 40 triangular filters
// equally spaced in mel from 100 Hz to 6800 Hz (mel(f) = 1127 ln(1 + f/700), weights linear in
// mel), natural logarithm. Samples are int16 values, not scaled to 1.0.
#pragma once

namespace quibo {

constexpr int kMelFrame = 400;    // samples, 25 ms
constexpr int kMelHop = 160;      // samples, 10 ms
constexpr int kMelBands = 40;     // features per frame
constexpr int kMelFft = 512;      // transform length
constexpr int kMelWork = 514;     // floats of transform scratch: 257 complex bins
constexpr int kMelWeights = 414;  // filter weights of all bands

// frame: 400 samples, overwritten with the 257 bins of the power spectrum. work: kMelWork floats of
// scratch. features: receives 40 values, each the logarithm of a band's energy, or -36.043652
// (ln 2^-52) where that energy is exactly 0.
void log_mel(float* frame, float* work, float* features);

}  // namespace quibo

// Filter weights, band after band, each band's for consecutive bins from its first one on. A
// parameter (params/kws.safetensors), since the networks were trained on it.
extern const float fbank_filter1[quibo::kMelWeights];
