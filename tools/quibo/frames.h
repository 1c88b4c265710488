// Tracks at any rate to frames of the front end.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "quibo/quibo.h"
#include "tracks.h"

namespace quibo::recordings {

// A frame of plain int16 samples at 16 kHz, zero behind the last one.
struct Frame {
  int16_t track[kTracks][QUIBO_FRAME];
  int samples;  // of the recording: QUIBO_FRAME in all frames but the last
};

class Resampler;

class FrameReader {
 public:
  explicit FrameReader(TrackSource& source);
  ~FrameReader();

  // False at the end.
  bool next(Frame* frame);

  bool resamples() const { return resampler_ != nullptr; }
  int64_t samples() const;                      // per track at 16 kHz as promised; -1: not known
  int64_t clipped() const { return clipped_; }  // samples that int16 did not hold

  // Called with every block of tracks as it is read, at the source's rate.
  std::function<void(const float* const tracks[kTracks], int frames)> on_read;

 private:
  void read_more();

  TrackSource& source_;
  std::unique_ptr<Resampler> resampler_;
  std::vector<float> read_[kTracks];
  std::vector<float> ready_[kTracks];  // at 16 kHz, not yet in a frame
  bool ended_ = false;
  int64_t clipped_ = 0;
};

}  // namespace quibo::recordings
