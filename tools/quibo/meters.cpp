#include "meters.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "quibo/quibo.h"
#include "samples.h"

namespace quibo::recordings {

namespace {

constexpr int kSecond = QUIBO_SAMPLE_RATE;
constexpr double kFullScale = 32768.0;
constexpr double kExplained = 0.95;
constexpr float kActive = -60.0f;  // dBFS: a reference below plays nothing that could be heard

}  // namespace

void LevelMeter::add(const int16_t* samples, int count) {
  const int skipped = std::min(skip_, count);
  skip_ -= skipped;
  for (int i = skipped; i < count;) {
    const int end = std::min(count, i + kSecond - filled_);
    filled_ += end - i;
    for (; i < end; ++i) {
      const int x = samples[i];
      power_ += x * x;
      loudest_ = std::max(loudest_, std::abs(x));
    }
    if (filled_ == kSecond) close();
  }
}

void LevelMeter::close() {
  level_.push_back(static_cast<float>(
      power_db(static_cast<double>(power_) / filled_ / (kFullScale * kFullScale))));
  const double peak = loudest_ / kFullScale;
  peak_.push_back(static_cast<float>(power_db(peak * peak)));
  filled_ = loudest_ = 0;
  power_ = 0;
}

void LevelMeter::finish() {
  if (filled_ > 0) close();
}

void EchoMeter::add(double mic, double echo, double shared, int samples) {
  mic_ += mic;
  echo_ += echo;
  shared_ += shared;
  filled_ += samples;
  if (filled_ >= kSecond) close();
}

void EchoMeter::close() {
  explained_.push_back(shared_ > 0 && shared_ * shared_ > kExplained * mic_ * echo_);
  // Frames do not end with the second: what is over belongs to the next one.
  filled_ = std::max(0, filled_ - kSecond);
  mic_ = echo_ = shared_ = 0;
}

void EchoMeter::finish() {
  if (filled_ > 0) close();
}

EchoReduction echo_reduction(const std::vector<float>& mic, const std::vector<float>& ref,
                             const std::vector<float>& clean, const std::vector<bool>& explained) {
  EchoReduction result;
  std::vector<float> counted;
  const size_t seconds = std::min({mic.size(), ref.size(), clean.size()});
  for (size_t s = 0; s < seconds; ++s) {
    const bool active = ref[s] > kActive;
    result.per_second.push_back(active ? mic[s] - clean[s] : NAN);
    result.only_device.push_back(active && s < explained.size() && explained[s]);
    if (result.only_device.back()) counted.push_back(mic[s] - clean[s]);
  }
  const auto middle = counted.begin() + static_cast<std::ptrdiff_t>(counted.size() / 2);
  std::nth_element(counted.begin(), middle, counted.end());
  result.median = counted.empty() ? NAN : *middle;
  return result;
}

}  // namespace quibo::recordings
