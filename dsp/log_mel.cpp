#include "dsp/log_mel.h"

#include <stdint.h>
#include <string.h>

#include "dsp/elementary.h"
#include "dsp/fft.h"
#include "dsp/fft_tables.h"

namespace quibo {
namespace {

constexpr int kBins = kMelFft / 2 + 1;
constexpr float kPreEmphasis = 0.97f;
constexpr float kSilence = -36.043652f;  // ln(2^-52)

// First half of a symmetric 400-point Hamming window; the second half mirrors it.
struct HalfWindow {
  float w[kMelFrame / 2];
};

constexpr HalfWindow make_half_hamming() {
  HalfWindow half{};
  for (int i = 0; i < kMelFrame / 2; ++i) {
    half.w[i] = static_cast<float>(0.54 - 0.46 * cos_turn(i, kMelFrame - 1));
  }
  return half;
}

constexpr HalfWindow hanWin = make_half_hamming();

// First bin of each band, and where its weights start in fbank_filter1.
constexpr int16_t mel_bank_start[kMelBands] = {
    4,  5,  7,  8,  10, 12, 14, 16, 18, 20,  22,  25,  27,  30,  33,  36,  39,  43,  46,  50,
    54, 59, 63, 68, 73, 78, 84, 90, 96, 103, 110, 117, 125, 133, 142, 151, 161, 171, 182, 193};
constexpr int16_t mel_bank_idx[kMelBands + 1] = {
    0,   3,   6,   9,   13,  17,  21,  25,  29,  33,  38,  43,  48,  54,
    60,  66,  73,  80,  87,  95,  104, 113, 122, 132, 142, 153, 165, 177,
    190, 204, 218, 233, 249, 266, 284, 303, 323, 344, 366, 389, 414};
static_assert(mel_bank_idx[kMelBands] == kMelWeights, "one weight per bin of each band");

// Integer samples: the sum is below 2^24 and so exact in any order.
float mean(const float* x) {
  float lanes[4] = {};
  for (int i = 0; i < kMelFrame; i += 4) {
    for (int j = 0; j < 4; ++j) lanes[j] += x[i + j];
  }
  return (lanes[0] + lanes[2] + (lanes[1] + lanes[3])) / kMelFrame;
}

void condition(float* frame, float* windowed) {
  const float offset = mean(frame);
  for (int i = 0; i < kMelFrame; ++i) frame[i] -= offset;
  // The first sample has no predecessor in its frame and stays as it is.
  for (int i = kMelFrame - 1; i > 0; --i) frame[i] -= kPreEmphasis * frame[i - 1];
  constexpr int kHalf = kMelFrame / 2;
  for (int i = 0; i < kHalf; ++i) {
    windowed[i] = frame[i] * hanWin.w[i];
    windowed[kHalf + i] = frame[kHalf + i] * hanWin.w[kHalf - 1 - i];
  }
}

float band_energy(const float* power, int band) {
  const float* weights = fbank_filter1 + mel_bank_idx[band];
  const float* bins = power + mel_bank_start[band];
  const int count = mel_bank_idx[band + 1] - mel_bank_idx[band];
  float sum = 0.0f;
  for (int j = 0; j < count; ++j) sum += weights[j] * bins[j];
  return sum;
}

}  // namespace

void log_mel(float* frame, float* work, float* features) {
  condition(frame, work);
  memset(work + kMelFrame, 0, (kMelFft - kMelFrame) * sizeof(float));
  my_fft<kMelFft>(work, reinterpret_cast<float(*)[2]>(work));
  float* power = frame;
  for (int k = 0; k < kBins; ++k) {
    power[k] = work[2 * k] * work[2 * k] + work[2 * k + 1] * work[2 * k + 1];
  }
  for (int m = 0; m < kMelBands; ++m) {
    const float energy = band_energy(power, m);
    features[m] = energy != 0.0f ? elementary::log(energy) : kSilence;
  }
}

}  // namespace quibo
