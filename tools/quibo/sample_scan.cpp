#include "sample_scan.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace quibo::recordings {

namespace {

constexpr float kFullScale = 32766.5f / 32768.0f;
constexpr float kSameTop = 1.0f - 1e-4f;  // of the largest magnitude
constexpr float kTopWorthIt = 0.1f;       // -20 dBFS: lower tops are flat by quantisation alone
constexpr int kTopRun = 4;

constexpr float kLoud = 0.01f;          // -40 dBFS: a block that begins or ends louder was cut
constexpr double kLostBlock = 0.002;    // s
constexpr double kAroundBlock = 0.005;  // s looked at before and behind it
constexpr double kPlaybackPause = 0.5;  // s

constexpr int kFingerprint = 16;  // samples
constexpr int kShortestBlock = 32;
constexpr int kLongestBlock = 4096;
constexpr int kPeriodic = 4;              // repetitions
constexpr float kRich = 8.0f / 32768.0f;  // quieter windows repeat by chance

constexpr size_t kMostSpans = 10000;  // kept; a file that bad is told apart by fewer

void keep(std::vector<Span>* spans, Span span) {
  if (spans->size() < kMostSpans) spans->push_back(span);
}

}  // namespace

Span SampleScan::seconds(int64_t from, int64_t to) const {
  return {static_cast<double>(from) / rate_, static_cast<double>(to) / rate_};
}

void SampleScan::add(const float* samples, int count) {
  for (int i = 0; i < count; ++i) {
    const float x = samples[i];
    look_at_level(x);
    look_for_zeros(x);
    history_[static_cast<size_t>(seen_ & (kHistory - 1))] = x;
    ++seen_;
    look_for_repeats(x);
  }
}

void SampleScan::look_at_level(float x) {
  sum_ += static_cast<double>(x);
  const float magnitude = std::fabs(x);
  if (magnitude >= kFullScale) {
    ++clipped_;
    if (first_clipped_ < 0) first_clipped_ = seen_;
    last_clipped_ = seen_;
  }
  if (magnitude * kSameTop > peak_) {
    flat_ = flat_run_ = 0;
    if (clipped_ == 0) first_clipped_ = -1;
  }
  peak_ = std::max(peak_, magnitude);
  flat_run_ = magnitude > kTopWorthIt && magnitude >= peak_ * kSameTop ? flat_run_ + 1 : 0;
  if (flat_run_ < kTopRun) return;
  flat_ += flat_run_ == kTopRun ? kTopRun : 1;
  if (first_clipped_ < 0) first_clipped_ = seen_;
  last_clipped_ = seen_;
}

// Of the samples before index `end`, which lie in the history.
float SampleScan::loudest_before(int64_t end, int samples) const {
  float loudest = 0;
  for (int64_t i = std::max<int64_t>({0, end - samples, seen_ - kHistory}); i < end; ++i) {
    loudest = std::max(loudest, std::fabs(history_[static_cast<size_t>(i & (kHistory - 1))]));
  }
  return loudest;
}

// A block counts once what follows it has been seen.
void SampleScan::look_for_zeros(float x) {
  const int around = static_cast<int>(kAroundBlock * rate_);
  if (pending_zeros_end_ >= 0 && seen_ == pending_zeros_end_ + around) {
    if (loudest_before(seen_, around) > kLoud) {
      keep(&zero_blocks_, seconds(pending_zeros_start_, pending_zeros_end_));
    }
    pending_zeros_end_ = -1;
  }
  if (x == 0.0f) {
    // How loud it was is known now, and no more when a long block ends.
    if (zeros_ == 0) zeros_cut_ = loudest_before(seen_, around) > kLoud;
    ++zeros_;
    return;
  }
  const double length = static_cast<double>(zeros_) / rate_;
  if (zeros_cut_ && length >= kLostBlock && (microphone_ || length < kPlaybackPause)) {
    pending_zeros_start_ = seen_ - zeros_;
    pending_zeros_end_ = seen_;
  }
  zeros_ = 0;
}

void SampleScan::look_for_repeats(float x) {
  if (repeat_lag_ > 0) {
    if (x == before(repeat_lag_ + 1)) {
      ++repeat_length_;
      return;
    }
    end_repeat();
  }
  if (seen_ < kFingerprint) return;
  uint32_t hash = 2166136261u;
  float loudest = 0, previous = before(1);
  int changes = 0;
  for (int k = 1; k <= kFingerprint; ++k) {
    const float value = before(k);
    uint32_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    hash = (hash ^ bits) * 16777619u;
    loudest = std::max(loudest, std::fabs(value));
    changes += value != previous;
    previous = value;
  }
  hash ^= hash >> 15;
  int64_t& last = last_seen_[hash & (kHistory - 1)];
  const int64_t lag = last < 0 ? 0 : seen_ - last;
  last = seen_;
  if (lag < kShortestBlock || lag > kLongestBlock || loudest < kRich || changes < kFingerprint / 2)
    return;
  for (int k = 1; k <= kFingerprint; ++k) {
    if (before(k) != before(k + lag)) return;
  }
  repeat_lag_ = lag;
  repeat_length_ = kFingerprint;
}

void SampleScan::end_repeat() {
  if (repeat_length_ >= repeat_lag_ && repeat_length_ < kPeriodic * repeat_lag_) {
    keep(&repeated_blocks_, seconds(seen_ - 1 - repeat_length_, seen_ - 1));
  }
  repeat_lag_ = 0;
}

void SampleScan::finish() {
  if (repeat_lag_ > 0) end_repeat();
}

}  // namespace quibo::recordings
