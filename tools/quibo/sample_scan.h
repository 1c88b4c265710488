// What can be told of one channel sample by sample, at the rate it was recorded with: offset,
// clipping, lost and repeated blocks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace quibo::recordings {

// Where in a recording something was, s.
struct Span {
  double start, end;
};

class SampleScan {
 public:
  SampleScan(int rate, bool microphone) : rate_(rate), microphone_(microphone) {}

  void add(const float* samples, int count);
  void finish();

  double mean() const { return seen_ > 0 ? sum_ / static_cast<double>(seen_) : 0; }
  float peak() const { return peak_; }

  // Samples at full scale, and those that stand in flat tops (four and more in a row at the largest
  // magnitude) of a channel whose largest magnitude is lower.
  int64_t clipped() const { return clipped_; }
  int64_t flat() const { return flat_; }
  Span clipped_span() const { return seconds(first_clipped_, last_clipped_); }

  // Blocks of at least 2 ms of exact zeros between loud samples. Playback may stop for longer: in
  // the reference they are shorter than half a second.
  const std::vector<Span>& zero_blocks() const { return zero_blocks_; }
  // Blocks that are exactly what came before them, once to three times. Periodic signals repeat for
  // longer and are none.
  const std::vector<Span>& repeated_blocks() const { return repeated_blocks_; }

 private:
  static constexpr int kHistory = 8192;  // a power of two

  Span seconds(int64_t from, int64_t to) const;
  float before(int64_t back) const {
    return history_[static_cast<size_t>((seen_ - back) & (kHistory - 1))];
  }
  float loudest_before(int64_t end, int samples) const;
  void look_at_level(float x);
  void look_for_zeros(float x);
  void look_for_repeats(float x);
  void end_repeat();

  int rate_;
  bool microphone_;
  int64_t seen_ = 0;
  double sum_ = 0;
  float peak_ = 0;
  int64_t clipped_ = 0, flat_ = 0, first_clipped_ = -1, last_clipped_ = -1;
  int flat_run_ = 0;
  int64_t zeros_ = 0;       // in a row, up to now
  bool zeros_cut_ = false;  // they followed something loud
  int64_t pending_zeros_start_ = -1, pending_zeros_end_ = -1;
  std::vector<float> history_ = std::vector<float>(kHistory);
  std::vector<int64_t> last_seen_ = std::vector<int64_t>(kHistory, -1);  // by fingerprint
  int64_t repeat_lag_ = 0, repeat_length_ = 0;
  std::vector<Span> zero_blocks_, repeated_blocks_;
};

}  // namespace quibo::recordings
