#include "doa/doa_features.h"

#include <string.h>

#include "dsp/fft.h"
#include "dsp/kernels.h"
#include "dsp/log_mel.h"

namespace {

static_assert(DOA_MEL_FRAME == quibo::kMelFrame && DOA_MEL_BANDS == quibo::kMelBands &&
                  DOA_HOP == quibo::kMelHop && 2 * DOA_FFT >= quibo::kMelWork,
              "the filterbank is the wake-up engine's");

constexpr int kPairFeatures = DOA_FRAMES * DOA_LAGS;
constexpr int kNegativeLags = DOA_LAGS / 2;
// The filterbank frames end with the block.
constexpr int kMelStart = DOA_HISTORY - DOA_MEL_FRAME - (DOA_FRAMES - 1) * DOA_HOP;

static_assert(DOA_MEL_BANDS == DOA_LAGS, "both kinds of feature fill one channel of the input map");

void append(int16_t* history, const int16_t* samples) {
  constexpr int kept = DOA_HISTORY - QUIBO_BLOCK;
  memmove(history, history + QUIBO_BLOCK, kept * sizeof(int16_t));
  memcpy(history + kept, samples, QUIBO_BLOCK * sizeof(int16_t));
}

// Unscaled, since the phase transform discards the magnitudes, and without a window.
void spectrum(LAYER_DATA_DOA* dlayer, int mic, int frame) {
  float* padded = &dlayer->rfft[0].real;
  const int16_t* samples = dlayer->in[mic] + frame * DOA_HOP;
  for (int n = 0; n < DOA_GCC_FRAME; ++n) padded[n] = samples[n];
  memset(padded + DOA_GCC_FRAME, 0, (DOA_FFT - DOA_GCC_FRAME) * sizeof(float));
  quibo::my_fft<DOA_FFT>(padded, dlayer->mic_fft[DOA_MICS * frame + mic]);
}

}  // namespace

void doa_add_samples(LAYER_DATA_DOA* dlayer, const int16_t* mic1, const int16_t* mic2,
                     const int16_t* mic3) {
  append(dlayer->in[0], mic1);
  append(dlayer->in[1], mic2);
  append(dlayer->in[2], mic3);
}

void doa_fbank_gcc_phat_feature(LAYER_DATA_DOA* dlayer) {
  for (int mic = 0; mic < DOA_MICS; ++mic) {
    for (int frame = 0; frame < DOA_FRAMES; ++frame) spectrum(dlayer, mic, frame);
  }
  doa_get_two_mics_gcc_feat(dlayer, 0, 1, dlayer->out1);
  doa_get_two_mics_gcc_feat(dlayer, 0, 2, dlayer->out1 + kPairFeatures);
  doa_get_two_mics_gcc_feat(dlayer, 1, 2, dlayer->out1 + 2 * kPairFeatures);
  doa_get_fbank_feature(dlayer, dlayer->out1 + DOA_PAIRS * kPairFeatures);
}

void doa_get_two_mics_gcc_feat(LAYER_DATA_DOA* dlayer, int mic_a, int mic_b, float* out) {
  const quibo::DoaKernels& run = quibo::kernels().doa;
  float* correlation = &dlayer->rfft[0].real;
  for (int frame = 0; frame < DOA_FRAMES; ++frame) {
    const complex_t(*spectra)[DOA_BINS] = dlayer->mic_fft + DOA_MICS * frame;
    run.phase_transform(spectra[mic_a], spectra[mic_b], dlayer->rfft);
    quibo::my_ifft<DOA_FFT>(dlayer->rfft, correlation);
    // Negative lags stand at the end of the circular correlation.
    float* lags = out + DOA_LAGS * frame;
    memcpy(lags, correlation + DOA_FFT - kNegativeLags, kNegativeLags * sizeof(float));
    memcpy(lags + kNegativeLags, correlation, (DOA_LAGS - kNegativeLags) * sizeof(float));
  }
}

void doa_get_fbank_feature(LAYER_DATA_DOA* dlayer, float* out) {
  float* frame = dlayer->afreq;
  for (int f = 0; f < DOA_FRAMES; ++f) {
    const int16_t* samples = dlayer->in[0] + kMelStart + f * DOA_HOP;
    for (int n = 0; n < DOA_MEL_FRAME; ++n) frame[n] = samples[n];
    quibo::log_mel(frame, &dlayer->rfft[0].real, out + DOA_MEL_BANDS * f);
  }
}
