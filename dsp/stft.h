// The short-time transform of the two suppressors: frames of 1024 samples, a hop of 512, Hann
// analysis, and the synthesis window for which plain overlap-add of unchanged spectra gives back
// the input.
#pragma once

#include <string.h>

#include "dsp/complex.h"
#include "dsp/fft.h"
#include "dsp/fft_tables.h"
#include "dsp/memory.h"

namespace quibo {

constexpr int kHop = 512;
constexpr int kStftFrame = 2 * kHop;
constexpr int kBins = kHop + 1;
constexpr int kSpectra = 5;  // spectra kept; the masks apply to the oldest, four hops behind

struct StftWindow {
  float at[kStftFrame];
};

constexpr double hann(int n) {
  return 0.5 - 0.5 * cos_turn(n % kStftFrame, kStftFrame);
}

constexpr StftWindow make_hann1024() {
  StftWindow w{};
  for (int n = 0; n < kStftFrame; ++n) w.at[n] = round6(hann(n));
  return w;
}

constexpr StftWindow make_ihann1024() {
  StftWindow w{};
  for (int n = 0; n < kStftFrame; ++n) {
    const double h = hann(n), shifted = hann(n + kHop);
    w.at[n] = round6(h / (h * h + shifted * shifted));
  }
  return w;
}

// Six decimals, as the networks were trained with.
constexpr StftWindow hann1024 = make_hann1024();
constexpr StftWindow ihann1024 = make_ihann1024();

// A spectrum of 513 bins in two arrays.
struct Spectrum {
  float real[kBins], imag[kBins];
};

// Shifts a hop of new samples into the frame `kept` and transforms it.
inline void analyse_hop(float* kept, const float* hop, Spectrum* spectrum) {
  copy(kept, kept + kHop, kHop);
  copy(kept + kHop, hop, kHop);
  float windowed[kStftFrame];
  complex_t bins[kBins];
  for (int n = 0; n < kStftFrame; ++n) windowed[n] = kept[n] * hann1024.at[n];
  my_fft<kStftFrame>(windowed, bins);
  for (int k = 0; k < kBins; ++k) {
    spectrum->real[k] = bins[k].real;
    spectrum->imag[k] = bins[k].imag;
  }
}

// The windowed frame of 1024 samples that overlap-add sums up.
inline void synthesise_frame(const Spectrum& spectrum, float* frame) {
  complex_t bins[kBins];
  for (int k = 0; k < kBins; ++k) bins[k] = {spectrum.real[k], spectrum.imag[k]};
  my_ifft<kStftFrame>(bins, frame);
  for (int n = 0; n < kStftFrame; ++n) frame[n] *= ihann1024.at[n];
}

// Appends a spectrum to five kept ones, real and imaginary parts of 5 x 513 values, oldest first.
inline void push_spectrum(float* spec_real, float* spec_imag, const Spectrum& newest) {
  constexpr int kRest = (kSpectra - 1) * kBins;
  memmove(spec_real, spec_real + kBins, kRest * sizeof(float));
  memmove(spec_imag, spec_imag + kBins, kRest * sizeof(float));
  copy(spec_real + kRest, newest.real, kBins);
  copy(spec_imag + kRest, newest.imag, kBins);
}

// Keeps synthesis clear of the wrap at full scale in the conversion to int16. A NaN stays.
inline float limit_output(float x) {
  constexpr float kLimit = 0.99f;
  if (x > kLimit) return kLimit;
  return x < -kLimit ? -kLimit : x;
}

}  // namespace quibo
