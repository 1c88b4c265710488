#include "aec/aecpostapi.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "aec/laec_restart.h"
#include "dsp/convert.h"
#include "dsp/kernels.h"
#include "dsp/memory.h"

// The guard. With a tonal reference the gradient constraint mixes bins that hold the tone with bins
// that hold next to nothing and are normalised by that: for some frequencies the update then points
// away from the minimum, and the weights grow without bound. What shows is an output louder than the
// microphone. Speech and music make it louder too, while the filter is new to them, but not for
// seconds; with a flat reference, as tones are, it is waited no longer than a third of one. The
// canceller then starts anew, and `delta` follows the reference's power, which takes the empty bins
// out of the update, for as long as the reference stays flat. docs/reliability.md has the distances.

namespace {

constexpr float kFrameFloor = LAEC_SHIFT * 1e-8f;  // -80 dBFS: below this nothing is loud
constexpr float kLoud = 3.98f;                     // 6 dB, in energy
constexpr int kLoudFrames = 5;                     // 0.32 s; the fifth is already the microphone
constexpr float kFlatCrest = 5.0f;          // 7 dB: peak against mean power, of two tones at most
constexpr float kDoubtful = 2.0f;           // 3 dB
constexpr float kDoubtfulEstimate = 3.98f;  // 6 dB
constexpr int kDoubtfulFrames = 64;         // 4 s
constexpr float kBeyondFullScale = LAEC_SHIFT * 4.0f;  // 6 dB above a full-scale square wave

// Share of the reference's mean power in `delta` after a restart: a first one, a factor for each
// further one, and the way back to none, by the loud frames with peaks.
constexpr float kDelta = 0.001f;
constexpr float kFirstShare = 0.03f, kShareGrowth = 3.2f, kLargestShare = 1.0f;
constexpr float kShareDecay = 0.8f, kSmallestShare = 0.001f;

float energy(const float* x) {
  return quibo::kernels().net.arr_mul_arr_float(x, x, LAEC_SHIFT);
}

// The energy of a reference frame, negative for one with peaks.
float flat_energy(const float* ref) {
  const float sum = energy(ref);
  float peak = 0.0f;
  for (int n = 0; n < LAEC_SHIFT; ++n) {
    const float power = ref[n] * ref[n];
    if (power > peak) peak = power;
  }
  return peak * LAEC_SHIFT <= kFlatCrest * sum ? sum : -sum;
}

// Comparisons are written so that a NaN counts as diverged.
bool has_diverged(AEC_POST* post) {
  const float mic = energy(post->laec.micdata) + kFrameFloor;
  const float out = energy(post->outputf), estimate = energy(post->laec.yn);
  if (!(out <= kBeyondFullScale) || !(estimate <= kBeyondFullScale)) return true;

  const bool loud = out > kLoud * mic;
  post->loud_frames = loud ? post->loud_frames + 1 : 0;
  post->flat_energy = loud ? post->flat_energy + flat_energy(post->data_in2) : 0.0f;
  const bool doubtful = out > kDoubtful * mic || estimate > kDoubtfulEstimate * mic;
  post->doubtful_frames = doubtful ? post->doubtful_frames + 1 : 0;
  return (post->loud_frames >= kLoudFrames && post->flat_energy > 0.0f) ||
         post->doubtful_frames >= kDoubtfulFrames;
}

// The current frame becomes the microphone's, without an echo estimate.
void restart(AEC_POST* post) {
  LAEC* st = &post->laec;
  quibo::forget_echo_path(st);
  memcpy(post->outputf, st->micdata, sizeof post->outputf);
  post->loud_frames = post->doubtful_frames = 0;
  post->flat_energy = 0.0f;
  if (post->restarts < INT32_MAX) ++post->restarts;
  if (post->delta_share == 0.0f) {
    float sum = 0.0f;
    for (float power : st->pmk) sum += power;
    post->ref_power = sum / LAEC_BINS;
  }
  const float share = post->delta_share * kShareGrowth;
  post->delta_share = share < kFirstShare     ? kFirstShare
                      : share < kLargestShare ? share
                                              : kLargestShare;
}

// Sets `delta` for the frame about to be processed.
void follow_reference(AEC_POST* post) {
  LAEC* st = &post->laec;
  // Parseval: a block's energy is the mean of |X|^2 over its bins, and a block is two frames.
  const float flat = 2.0f * flat_energy(post->data_in2);
  const float power = flat < 0.0f ? -flat : flat;
  post->ref_power = st->gamma * post->ref_power + (1.0f - st->gamma) * power;
  // The edges of a gated tone have peaks too, but less energy.
  if (flat < -0.5f * post->ref_power) post->delta_share *= kShareDecay;
  if (post->delta_share < kSmallestShare) post->delta_share = 0.0f;
  st->delta = kDelta + post->delta_share * post->ref_power;
}

}  // namespace

void* kesto_Laec_Post_init(void) {
  AEC_POST* post = quibo::allocate<AEC_POST>();
  if (!post) {
    printf("malloc AEC_POST error\n");
    return nullptr;
  }
  init_laec(&post->laec);
  return post;
}

int32_t kesto_Laec_Post_write(void* handle, const int16_t* mic, const int16_t* ref, float* out) {
  if (!handle || !mic || !ref) {
    printf("NULL\n");
    return -1;
  }
  AEC_POST* post = static_cast<AEC_POST*>(handle);
  for (int n = 0; n < LAEC_SHIFT; ++n) {
    post->data_in1[n] = quibo::int16_to_float(mic[n]);
    post->data_in2[n] = quibo::int16_to_float(ref[n]);
  }
  if (post->delta_share != 0.0f) follow_reference(post);
  linear_aec_proc(&post->laec, post->data_in1, post->data_in2, post->outputf);
  if (has_diverged(post)) restart(post);
  memcpy(out, post->outputf, sizeof post->outputf);
  return LAEC_SHIFT;
}

float* kesto_laec_micdata(void* handle) {
  return static_cast<AEC_POST*>(handle)->laec.micdata;
}

float* kesto_laec_yn(void* handle) {
  return static_cast<AEC_POST*>(handle)->laec.yn;
}

int32_t kesto_laec_restarts(void* handle) {
  return handle ? static_cast<AEC_POST*>(handle)->restarts : -1;
}

int32_t kesto_Laec_Post_unit(void* handle) {
  if (!handle) return -1;
  free(handle);
  return 0;
}
