// Sample rate conversion of the tracks (libsoxr, 20 bit, linear phase), lined up with the input.
#pragma once

#include <vector>

#include "channels.h"

namespace quibo::recordings {

class Resampler {
 public:
  Resampler(int from, int to);
  ~Resampler();
  Resampler(const Resampler&) = delete;
  Resampler& operator=(const Resampler&) = delete;

  // Appends to `out` what `count` more samples of a track give; count 0 ends the track.
  void process(int track, const float* in, int count, std::vector<float>* out);

 private:
  double ratio_;
  void* state_[kTracks] = {};
};

}  // namespace quibo::recordings
