// What can be told of the channels frame by frame: levels, floors, spectra, and which of them are
// silent while others are not.
#pragma once

#include <cstdint>
#include <vector>

#include "channels.h"
#include "quibo/quibo.h"

namespace quibo::recordings {

class LevelScan {
 public:
  LevelScan();

  void add(const int16_t track[kTracks][QUIBO_FRAME]);

  int64_t frames() const { return frames_; }
  double level(int track) const;                   // dBFS, of all
  double quantile(int track, double share) const;  // dBFS: a share of the frames lies below
  double floor(int track) const;  // a tenth, where the reference is silent; NaN: nowhere
  int64_t playing() const { return playing_; }  // frames in which the reference is active

  // Frames in which a track is digitally silent and the loudest other one is not.
  int64_t silent_alone(int track) const { return silent_alone_[track]; }

  // How much of track a is not track b times a factor, dB (0: nothing in common), of the signals'
  // differences, so that the low frequencies that any two microphones share do not decide.
  double distance(int a, int b) const;

  // Frequency, Hz, above which a track holds nothing; 0: it has no such edge.
  double band_edge(int track) const;

 private:
  static constexpr int kLevels = 121;  // 0 .. -120 dBFS

  double quantile_of(const int64_t (&histogram)[kLevels], double share) const;

  int64_t frames_ = 0, playing_ = 0;
  double power_[kTracks] = {};
  int64_t all_[kTracks][kLevels] = {}, quiet_[kTracks][kLevels] = {};
  int64_t silent_alone_[kTracks] = {};
  double shared_[kTracks][kTracks] = {};
  std::vector<double> spectrum_[kTracks];
  std::vector<float> hann_;
  int16_t last_[kTracks] = {};
};

}  // namespace quibo::recordings
