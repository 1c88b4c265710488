#include "frames.h"

#include <algorithm>
#include <cstring>

#include "resampler.h"
#include "samples.h"

namespace quibo::recordings {

namespace {

constexpr int kReadBlock = 4 * QUIBO_FRAME;

}  // namespace

FrameReader::FrameReader(TrackSource& source) : source_(source) {
  if (source.rate() != QUIBO_SAMPLE_RATE) {
    resampler_ = std::make_unique<Resampler>(source.rate(), QUIBO_SAMPLE_RATE);
  }
  for (auto& block : read_) block.resize(kReadBlock);
}

FrameReader::~FrameReader() = default;

int64_t FrameReader::samples() const {
  const int64_t frames = source_.frames();
  return frames < 0 ? -1 : frames * QUIBO_SAMPLE_RATE / source_.rate();
}

void FrameReader::read_more() {
  float* tracks[kTracks];
  for (int t = 0; t < kTracks; ++t) tracks[t] = read_[t].data();
  const int got = source_.read(tracks, kReadBlock);
  ended_ = got == 0;
  if (on_read && got > 0) on_read(tracks, got);
  for (int t = 0; t < kTracks; ++t) {
    if (resampler_) {
      resampler_->process(t, tracks[t], got, &ready_[t]);
    } else {
      ready_[t].insert(ready_[t].end(), tracks[t], tracks[t] + got);
    }
  }
}

bool FrameReader::next(Frame* frame) {
  while (!ended_ && ready_[0].size() < QUIBO_FRAME) read_more();
  const size_t samples = std::min<size_t>(ready_[0].size(), QUIBO_FRAME);
  if (samples == 0) return false;
  std::memset(frame->track, 0, sizeof frame->track);
  frame->samples = static_cast<int>(samples);
  for (int t = 0; t < kTracks; ++t) {
    for (size_t i = 0; i < samples; ++i) frame->track[t][i] = to_int16(ready_[t][i], &clipped_);
    ready_[t].erase(ready_[t].begin(), ready_[t].begin() + static_cast<std::ptrdiff_t>(samples));
  }
  return true;
}

}  // namespace quibo::recordings
