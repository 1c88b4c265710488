#include "aec/Laec.h"

#include <string.h>

#include "aec/laec_restart.h"

#include "dsp/fft.h"
#include "dsp/kernels.h"
#include "dsp/memory.h"

// Lower case is time, upper case is frequency: d microphone, y echo estimate, e = d - y; X, W, E
// their spectra.

namespace {

using quibo::copy;

constexpr int kShift = LAEC_SHIFT;
constexpr int kFft = LAEC_FFT;
constexpr int kBins = LAEC_BINS;

void my_fft(const float* input, laec_complex_t* output) {
  quibo::my_fft<kFft>(input, output);
}

void my_ifft(const laec_complex_t* input, float* output) {
  quibo::my_ifft<kFft>(input, output);
}

void clear(float* to, int count) {
  memset(to, 0, static_cast<size_t>(count) * sizeof(float));
}

// Keeps the first 1024 taps of a filter given by its spectrum, so that the circular convolution
// stays a linear one.
void constrain(LAEC* st, laec_complex_t* spectrum) {
  my_ifft(spectrum, st->w);
  clear(st->w + kShift, kShift);
  my_fft(st->w, spectrum);
}

float square(float x) {
  return x * x;
}

// Post stage.
constexpr float kPostSmoothing = 0.9f;
constexpr float kPostInnovation = 1.0f - kPostSmoothing;
constexpr float kCoherenceFloor = 1e-7f;
constexpr int kEdgeBins = 16;  // bins at each end that carry no speech worth keeping
constexpr float kEdgeGain = 0.01f;
constexpr int kCoherenceReach = 3;  // the coherence is averaged over 7 bins
constexpr float kPostMinGain = 0.001f;

void update_coherence(LAEC* st, int k) {
  const laec_complex_t x = st->xk[0][k], d = st->fftdata[k];
  const float a = kPostSmoothing, b = kPostInnovation;
  st->Sx[k] = a * st->Sx[k] + b * (square(x.real) + square(x.img));
  st->Sd[k] = a * st->Sd[k] + b * (square(d.real) + square(d.img));
  laec_complex_t* s = &st->Sxd[k];
  s->real = a * s->real + b * (x.real * d.real + x.img * d.img);
  s->img = a * s->img + b * (x.img * d.real - x.real * d.img);
  st->cohxd[k] = (square(s->real) + square(s->img)) / (st->Sx[k] * st->Sd[k] + kCoherenceFloor);
}

float post_gain(const LAEC* st, int k) {
  if (k < kEdgeBins || k >= kBins - kEdgeBins) return kEdgeGain;
  float sum = 0.0f;
  for (int i = k - kCoherenceReach; i <= k + kCoherenceReach; ++i) sum += st->cohxd[i];
  const float gain = 1.0f - sum / (2 * kCoherenceReach + 1);
  if (gain < kPostMinGain) return kPostMinGain;
  return gain > 1.0f ? 1.0f : gain;
}

}  // namespace

int32_t init_laec(LAEC* st) {
  memset(st, 0, sizeof *st);
  st->filtTotLen = LAEC_PARTITIONS * kShift;
  st->numPartition = LAEC_PARTITIONS;
  st->frameLen = kFft;
  st->fftLen = kFft;
  st->frameShift = kShift;
  st->frameOvlp = kFft - kShift;
  st->pconst = 0.001f;
  st->pfMin = 0.25118864f;  // -12 dB
  st->pfMax = 1.0f;
  st->muMax = 0.025f;
  st->muMin = 0.0f;
  st->delay = LAEC_DELAY;
  st->gamma = 0.9394131f;  // e^(-1/16): a time constant of 16 frames, about one second
  st->delta = 0.001f;
  st->min_mu = 0.025f;
  for (int k = 0; k < kBins; ++k) st->pmk[k] = 0.001f;
  quibo::forget_echo_path(st);
  return 0;
}

void quibo::forget_echo_path(LAEC* st) {
  memset(st->wk, 0, sizeof st->wk);
  memset(st->yn, 0, sizeof st->yn);
  memset(st->outBuff, 0, sizeof st->outBuff);
  for (int k = 0; k < kBins; ++k) {
    st->muk[k] = st->muMax;
    st->gk[k] = 1.0f;
    st->hk[k] = {1.0f, 0.0f};
  }
}

int32_t linear_aec_proc(LAEC* st, const float* mic, const float* ref, float* out) {
  const quibo::LaecKernels& run = quibo::kernels().laec;

  memmove(st->xk[1], st->xk[0], (LAEC_PARTITIONS - 1) * sizeof st->xk[0]);
  copy(st->refdata, st->refdata + kShift, kShift);
  copy(st->refdata + kShift, ref, kShift);
  my_fft(st->refdata, st->xk[0]);

  // Delayed, so that an echo up to 20 samples early still meets its reference.
  copy(st->micdata, st->micdata + kShift, LAEC_DELAY);
  copy(st->micdata + LAEC_DELAY, mic, kShift);
  const float* d = st->micdata;

  run.estimate_echo(st);
  my_ifft(st->fftdata, st->w);
  copy(st->yn, st->w + kShift, kShift);  // overlap-save: the second half is the linear convolution

  clear(st->w, kShift);
  for (int n = 0; n < kShift; ++n) st->w[kShift + n] = d[n] - st->yn[n];
  my_fft(st->w, st->fftdata);

  run.adapt(st);
  for (int p = 0; p < LAEC_PARTITIONS; ++p) constrain(st, st->wk[p]);

  run.update_gain(st);
  constrain(st, st->hk);
  run.apply_gain(st);
  my_ifft(st->fftdata, st->w);

  // The error stands in the second half of its block; what the gain filter spills past the end
  // comes back circularly in the first half and is the next frame's overlap.
  for (int n = 0; n < kShift; ++n) out[n] = st->outBuff[n] + st->w[kShift + n];
  copy(st->outBuff, st->w, kShift);
  return 1;
}

void linear_aec_post(LAEC* st, float* data) {
  copy(st->w, st->prev_aec_out, kShift);
  copy(st->w + kShift, data, kShift);
  copy(st->prev_aec_out, data, kShift);
  my_fft(st->w, st->fftdata);

  for (int k = 0; k < kBins; ++k) update_coherence(st, k);
  for (int k = 0; k < kBins; ++k) {
    const float gain = post_gain(st, k);
    st->fftdata[k].real *= gain;
    st->fftdata[k].img *= gain;
  }
  my_ifft(st->fftdata, st->w);

  // Both blocks that hold the previous frame, averaged: one frame of delay.
  for (int n = 0; n < kShift; ++n) data[n] = 0.5f * (st->post_ovlp[kShift + n] + st->w[n]);
  copy(st->post_ovlp, st->w, kFft);
}
