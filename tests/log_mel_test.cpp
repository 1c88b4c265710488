// Log-mel features against a double-precision computation from the filter rule itself.

#include "dsp/log_mel.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <random>
#include <vector>

#include "support/bits.h"
#include "support/variants.h"

namespace {

using quibo::kMelBands;
using quibo::kMelFrame;
using quibo_test::for_each_variant;

constexpr unsigned kSeed = 20251103;
constexpr float kSilence = -36.043652f;

double mel(double hz) {
  return 1127.0 * std::log(1.0 + hz / 700.0);
}

// Height of the triangle of `band` at `hz`.
double triangle(int band, double hz) {
  const double low = mel(100.0), step = (mel(6800.0) - low) / (kMelBands + 1);
  return std::max(0.0, 1.0 - std::abs((mel(hz) - low) / step - (band + 1)));
}

std::vector<double> naive_log_mel(const std::vector<float>& frame) {
  double mean = 0;
  for (float v : frame) mean += v / kMelFrame;
  std::vector<double> x(kMelFrame);
  for (int i = 0; i < kMelFrame; ++i) {
    const double previous = i > 0 ? frame[i - 1] - mean : 0.0;
    x[i] = (frame[i] - mean - 0.97 * previous) * (0.54 - 0.46 * std::cos(2 * M_PI * i / 399));
  }
  std::vector<double> energy(kMelBands);
  for (int k = 0; k <= 256; ++k) {
    std::complex<double> bin;
    for (int i = 0; i < kMelFrame; ++i)
      bin += x[i] * std::polar(1.0, -2 * M_PI * (i * k % 512) / 512);
    for (int m = 0; m < kMelBands; ++m) energy[m] += triangle(m, k * 31.25) * std::norm(bin);
  }
  for (double& e : energy) e = std::log(e);
  return energy;
}

std::vector<float> features_of(std::vector<float> frame) {
  std::vector<float> work(quibo::kMelWork), features(kMelBands);
  quibo::log_mel(frame.data(), work.data(), features.data());
  return features;
}

TEST(LogMel, MatchesTheFilterRuleWithinAThousandthOfANeper) {
  std::mt19937 random(kSeed);
  for (int trial = 0; trial < 6; ++trial) {
    const double level = std::pow(10.0, trial % 3 + 1.5);  // about 30, 300, 3000 of 32768
    std::normal_distribution<double> normal;
    std::vector<float> frame(kMelFrame);
    for (int i = 0; i < kMelFrame; ++i) {
      const double tone = trial < 3 ? 0 : std::sin(0.1 * (trial + 1) * i);
      frame[i] = static_cast<float>(std::lround(level * (normal(random) + 3 * tone) + 500));
    }
    const auto expected = naive_log_mel(frame);
    std::vector<float> scalar;
    for_each_variant([&](const std::string& variant) {
      const auto features = features_of(frame);
      if (variant == "scalar") scalar = features;
      for (int m = 0; m < kMelBands; ++m) {
        EXPECT_NEAR(features[m], expected[m], 1e-3)
            << variant << ", band " << m << ", trial " << trial << ", seed " << kSeed;
      }
      EXPECT_EQ(0, std::memcmp(features.data(), scalar.data(), sizeof(float) * kMelBands))
          << variant;
    });
  }
}

TEST(LogMel, SilenceAndAnyConstantGiveExactlyTheFloor) {
  for (float level : {0.0f, 1.0f, -7.0f, 12345.0f, 32767.0f, -32768.0f}) {
    for (float f : features_of(std::vector<float>(kMelFrame, level)))
      EXPECT_EQ(f, kSilence) << level;
  }
}

TEST(LogMel, TheFaintestSoundIsNotSilence) {
  std::vector<float> frame(kMelFrame);
  frame[0] = 1.0f;  // one step of int16 where the window is lowest
  const auto features = features_of(frame);
  const auto expected = naive_log_mel(frame);
  EXPECT_LT(expected[0], -8.0);
  for (int m = 0; m < kMelBands; ++m) EXPECT_NEAR(features[m], expected[m], 1e-2) << m;
}

TEST(LogMel, GainMovesEveryBandByItsLogarithm) {
  std::mt19937 random(kSeed);
  std::vector<float> quiet(kMelFrame), loud(kMelFrame);
  for (int i = 0; i < kMelFrame; ++i) {
    quiet[i] = static_cast<float>(static_cast<int>(random() % 2001) - 1000);
    loud[i] = 8.0f * quiet[i];
  }
  const auto a = features_of(quiet), b = features_of(loud);
  for (int m = 0; m < kMelBands; ++m) EXPECT_NEAR(b[m] - a[m], std::log(64.0), 1e-5) << m;
}

TEST(LogMel, KeepsItsBits) {
  std::mt19937 random(kSeed);
  quibo_test::Bits bits;
  for (int i = 0; i < 50; ++i) {
    std::vector<float> frame = quibo_test::even_noise(random, kMelFrame);
    for (float& v : frame) v = std::trunc(v * 8000.0f);
    bits.add(features_of(frame));
  }
  EXPECT_EQ(0x2b8b2def8e3d349d, bits.value());
}

}  // namespace
