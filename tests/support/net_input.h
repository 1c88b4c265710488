// Random tables and test signals for the float networks.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "quibo/quibo.h"
#include "support/variants.h"

namespace quibo_test {

constexpr unsigned kSeed = 20251103;

// Enough frames for 2,000 steps; under the sanitizers a tenth of them. The scalar variant, ten
// times slower, runs a fifth.
#ifdef __SANITIZE_ADDRESS__
constexpr int kManyFrames = 100;
#else
constexpr int kManyFrames = 1000;
#endif
constexpr int kManyScalarFrames = kManyFrames / 5;

// Runs `output_of(frames)` on every variant; all must agree, as far as each went.
template <class OutputOf>
void expect_equal_outputs(const OutputOf& output_of) {
  std::vector<int16_t> longest;
  for_each_variant([&](const std::string& variant) {
    std::vector<int16_t> output = output_of(variant == "scalar" ? kManyScalarFrames : kManyFrames);
    if (output.size() > longest.size()) std::swap(output, longest);
    EXPECT_TRUE(std::equal(output.begin(), output.end(), longest.begin()))
        << variant << ", seed " << kSeed;
  });
}

// Random tables of one network: uniform around zero, with the variance that keeps sums of fan_in
// products in range, times `heat` squared.
class Tables {
 public:
  explicit Tables(unsigned seed, float heat = 1.0f) : random_(seed), heat_(heat) {}
  const float* make(size_t size, size_t fan_in) {
    const float limit = heat_ * std::sqrt(3.0f / static_cast<float>(fan_in));
    std::uniform_real_distribution<float> uniform(-limit, limit);
    tables_.emplace_back(size);
    for (float& v : tables_.back()) v = uniform(random_);
    return tables_.back().data();
  }

 private:
  std::mt19937 random_;
  float heat_;
  std::vector<std::vector<float>> tables_;
};

inline int16_t to_int16(double v) {
  return static_cast<int16_t>(std::lround(std::max(-32768.0, std::min(32767.0, v))));
}

// Noise whose level sweeps over 60 dB, a chirp, silence at times.
inline std::vector<int16_t> audio(int samples, unsigned seed) {
  std::mt19937 random(seed);
  std::normal_distribution<double> normal;
  std::vector<int16_t> x(samples);
  for (int n = 0; n < samples; ++n) {
    if (n / 4096 % 7 == 5) continue;
    const double level = 6000 * std::pow(10, -1.5 * (1 - std::cos(n / 9000.0)));
    x[n] = to_int16(level * normal(random) + 3000 * std::sin(1e-6 * n * n));
  }
  return x;
}

// Sines at bin centres of the 1024-point transform: the Hann window spreads each over three bins
// only.
inline std::vector<int16_t> tones(const std::vector<int>& bins, int frames) {
  std::vector<int16_t> x(frames * QUIBO_FRAME);
  for (size_t n = 0; n < x.size(); ++n) {
    double v = 0;
    for (int k : bins) v += 4000 * std::sin(2 * M_PI * k * static_cast<double>(n) / 1024);
    x[n] = to_int16(v);
  }
  return x;
}

}  // namespace quibo_test
