#include "aec/aecpostapi.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "aec/laec_restart.h"
#include "dsp/convert.h"
#include "dsp/kernels.h"
#include "dsp/memory.h"

// The guard. With a tonal reference the gradient constraint mixes bins that hold the tone with bins
// that hold next to nothing and are normalised by that: for some frequencies the update then points
// away from the minimum, and the weights grow without bound. What shows is an output louder than the
// microphone. Speech and music make it louder too, while the filter is new to them, but not for
// seconds; with a flat reference, as tones are and speech is not, it is waited no longer than a third
// of one. The canceller then starts anew, and `delta` follows the reference's power, which takes the
// empty bins out of the update, for as long as the reference stays flat. docs/reliability.md has the
// distances.

namespace {

constexpr float kFrameFloor = LAEC_SHIFT * 1e-8f;  // -80 dBFS: below this nothing is loud
constexpr float kLoud = 3.98f;                     // 6 dB, in energy
constexpr int kLoudFrames = 5;                     // 0.32 s; the fifth is already the microphone
constexpr float kFlatCrest = 4.37f;         // 6.4 dB: peak against mean power; of two tones it is 6
constexpr int kPart = 32;                   // 2 ms: a part of a frame
constexpr float kSilence = 0.003f;          // 25 dB below the loudest part
constexpr float kDoubtful = 2.0f;           // 3 dB
constexpr float kDoubtfulEstimate = 3.98f;  // 6 dB
constexpr int kDoubtfulFrames = 64;         // 4 s
constexpr float kBeyondFullScale = LAEC_SHIFT * 4.0f;  // 6 dB above a full-scale square wave

// Share of the reference's mean power in `delta` after a restart: a first one, a factor for each
// further one, and the way back to none, by the loud frames with peaks.
constexpr float kDelta = 0.001f;
constexpr float kFirstShare = 0.03f, kShareGrowth = 3.2f, kLargestShare = 1.0f;
constexpr float kShareDecay = 0.8f, kSmallestShare = 0.001f;
constexpr float kPeakCrest = 5.0f;  // 7 dB: a frame with peaks

float energy(const float* x, int count = LAEC_SHIFT) {
  return quibo::kernels().laec.energy(x, count);
}

// The largest power of a sample. Integers, since a compiler makes vectors of them.
float peak_power(const int16_t* x) {
  int16_t low = 0, high = 0;
  for (int n = 0; n < LAEC_SHIFT; ++n) {
    low = std::min(low, x[n]);
    high = std::max(high, x[n]);
  }
  const float l = quibo::int16_to_float(low), h = quibo::int16_to_float(high);
  return std::max(l * l, h * h);
}

// Above 0 for a flat frame, below for one with peaks, in proportion to its energy. Silent parts,
// which are a gated tone's, are left out.
float flatness(const float* x, float peak) {
  constexpr int kParts = LAEC_SHIFT / kPart;
  float parts[kParts], loudest = 0.0f;
  for (int p = 0; p < kParts; ++p) {
    parts[p] = energy(x + p * kPart, kPart);
    loudest = std::max(loudest, parts[p]);
  }
  float sum = 0.0f;
  for (float part : parts) {
    if (part > kSilence * loudest) sum += kFlatCrest * part - kPart * peak;
  }
  return sum;
}

// Comparisons are written so that a NaN counts as diverged.
bool has_diverged(AEC_POST* post, const int16_t* ref) {
  const float mic = energy(post->laec.micdata) + kFrameFloor;
  const float out = energy(post->outputf), estimate = energy(post->laec.yn);
  if (!(out <= kBeyondFullScale) || !(estimate <= kBeyondFullScale)) return true;

  const bool loud = out > kLoud * mic;
  post->loud_frames = loud ? post->loud_frames + 1 : 0;
  post->flatness = loud ? post->flatness + flatness(post->data_in2, peak_power(ref)) : 0.0f;
  const bool doubtful = out > kDoubtful * mic || estimate > kDoubtfulEstimate * mic;
  post->doubtful_frames = doubtful ? post->doubtful_frames + 1 : 0;
  return (post->loud_frames >= kLoudFrames && post->flatness > 0.0f) ||
         post->doubtful_frames >= kDoubtfulFrames;
}

// The current frame becomes the microphone's, without an echo estimate.
void restart(AEC_POST* post) {
  LAEC* st = &post->laec;
  quibo::forget_echo_path(st);
  memcpy(post->outputf, st->micdata, sizeof post->outputf);
  post->loud_frames = post->doubtful_frames = 0;
  post->flatness = 0.0f;
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
void follow_reference(AEC_POST* post, const int16_t* ref) {
  LAEC* st = &post->laec;
  // Parseval: a block's energy is the mean of |X|^2 over its bins, and a block is two frames.
  const float power = 2.0f * energy(post->data_in2);
  post->ref_power = st->gamma * post->ref_power + (1.0f - st->gamma) * power;
  // The edges of a gated tone have peaks too, but less energy.
  const bool peaks = 2.0f * LAEC_SHIFT * peak_power(ref) > kPeakCrest * power;
  if (peaks && power > 0.5f * post->ref_power) post->delta_share *= kShareDecay;
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
  if (post->delta_share != 0.0f) follow_reference(post, ref);
  linear_aec_proc(&post->laec, post->data_in1, post->data_in2, post->outputf);
  if (has_diverged(post, ref)) restart(post);
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
