// One front end with everything a person wants to know about a wake.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "frames.h"
#include "phrase.h"

namespace quibo::recordings {

// Samples by which the outputs follow the input.
constexpr int kCancelledDelay = 20;  // out[] of a microphone
constexpr int kCleanDelay = 2580;  // clean: the canceller's 20, the suppressor's 4 + 1 hops of 512

struct Wake {
  int64_t frame;      // counted from 0
  int64_t sample;     // end of that frame, when an application hears of it
  double start, end;  // s in the recording: estimated span of the phrase
  float cost, threshold;
  int angle;           // degrees; -1: none was given
  float angle_length;  // of the vector that gave the angle, 0 to about 1: how sure it is
};

struct Output {
  int16_t mic[kMics][QUIBO_FRAME];  // echo-cancelled, kCancelledDelay late
  int16_t clean[QUIBO_FRAME];  // microphone 1 with the residual echo suppressed, kCleanDelay late
  std::optional<Wake> wake;
  // Of microphone 1 and its linear echo estimate in this frame: powers and what they share.
  double mic_power, echo_power, shared_power;
};

struct FrontEndOptions {
  double threshold =
      1.2;  // cost below which the phrase counts; after ten minutes without, 1/1.2 of it
  bool silence = true;  // keep the library's lines from standard output
};

// The library's rule holds: one at a time per process. Each starts like the first: the noise
// suppressors' recurrent states, which outlive a front end, are cleared.
class FrontEnd {
 public:
  explicit FrontEnd(const FrontEndOptions& options = {});  // throws std::bad_alloc
  ~FrontEnd();
  FrontEnd(const FrontEnd&) = delete;
  FrontEnd& operator=(const FrontEnd&) = delete;

  void process(const Frame& frame, Output* output);

  // How often the canceller of a microphone, counted from 0, has started anew.
  int32_t restarts(int mic) const { return Quibo_aec_restarts(handle_, mic + 1); }

 private:
  static void observe(void* self, const KWS_STEP* step);
  void describe(Wake* wake) const;

  KTWakeup handle_ = nullptr;
  float threshold_scale_ = 1.0f;  // of the engine's costs to those told
  PhraseFinder phrase_;
  int64_t frame_ = 0;
  int64_t block_end_ = 0;  // of the wake-up engine's current block, samples in the recording
  std::optional<Wake> woken_;
};

}  // namespace quibo::recordings
