// The output limiter: its parts one by one, then the whole against a double-precision reference.

#include "limiter/zq_MPO.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "dsp/convert.h"

namespace {

constexpr unsigned kSeed = 20251103;
constexpr int kLookAhead = 15;

stMPO make_limiter(int fs = 16000, int increasedB = 20, int maxLev = -3) {
  stMPO mpo;
  std::memset(&mpo, 0xa5, sizeof mpo);
  EXPECT_EQ(zq_MPO_Init(&mpo, fs, increasedB, maxLev), 0);
  return mpo;
}

std::vector<float> processed(stMPO* mpo, const std::vector<float>& input) {
  std::vector<float> output(input.size());
  EXPECT_EQ(
      zq_MPO_process(mpo, input.data(), output.data(), nullptr, static_cast<int32_t>(input.size())),
      0);
  return output;
}

// Quiet, loud and very loud stretches, with exact zeros.
std::vector<float> bursts(unsigned seed, size_t count) {
  std::mt19937 random(seed);
  std::normal_distribution<float> normal;
  std::vector<float> x(count);
  constexpr float kLevels[] = {0.003f, 0.3f, 0.0f, 0.05f, 2.0f};
  for (size_t i = 0; i < count; ++i) x[i] = kLevels[i / 700 % 5] * normal(random);
  return x;
}

TEST(Limiter, InitSetsEveryField) {
  const stMPO mpo = make_limiter();
  EXPECT_EQ(mpo.fs, 16000);
  EXPECT_EQ(mpo.blkSize, 32);
  EXPECT_EQ(mpo.voiceIncreasedB, 20);
  EXPECT_EQ(mpo.levdB, -3);
  EXPECT_EQ(mpo.gainReducedB, 20.0f);
  EXPECT_EQ(mpo.mpo_att_stepdB, -2.5f);  // 16000 * 0.0005f rounds to 8
  EXPECT_FLOAT_EQ(mpo.mpo_rel_alpha, 0.99937519f);
  EXPECT_EQ(mpo.mpo_att, 0.0005f);
  EXPECT_EQ(mpo.mpo_rel, 0.1f);
  EXPECT_EQ(mpo.af[0], 1.0f);
  EXPECT_EQ(mpo.af[1], -1.648302674293518f);
  EXPECT_EQ(mpo.af[2], 0.6872448921203613f);
  EXPECT_EQ(mpo.bf[0], 0.0f);
  EXPECT_EQ(mpo.bf[1], 0.03879033774137497f);
  EXPECT_EQ(mpo.bf[2], 0.0f);
  EXPECT_EQ(mpo.gain, 10.0f);
  EXPECT_EQ(mpo.mpo_gaindB, 0.0f);
  for (float z : mpo.zz) EXPECT_EQ(z, 0.0f);
  for (float x : mpo.xd) EXPECT_EQ(x, 0.0f);

  const stMPO other = make_limiter(48000, -6, -20);
  EXPECT_FLOAT_EQ(other.mpo_att_stepdB, -20.0f / 24.0f);
  EXPECT_FLOAT_EQ(other.mpo_rel_alpha, static_cast<float>(std::exp(-1.0 / 4800)));
  EXPECT_FLOAT_EQ(other.gain, static_cast<float>(std::pow(10.0, -0.3)));
}

TEST(Limiter, QuietSignalComesOut15SamplesLateWithMakeUpGain) {
  stMPO mpo = make_limiter();
  const std::vector<float> output = processed(&mpo, std::vector<float>(500, 0.01f));
  for (int n = 0; n < kLookAhead; ++n) EXPECT_EQ(output[n], 0.0f) << n;
  EXPECT_NE(output[kLookAhead], 0.0f);
  EXPECT_NEAR(output.back(), 0.01 * 10 * 0.9961, 1e-5);  // 0.9961: the smoothing filter at DC
  EXPECT_EQ(mpo.mpo_gaindB, 0.0f);

  // The delay line drops one sample where its two halves meet: an impulse shows once, at 15.
  std::vector<float> impulse(64);
  impulse[0] = 0.01f;
  processed(&mpo, std::vector<float>(64, 0.0f));
  const std::vector<float> shown = processed(&mpo, impulse);
  for (int n = 0; n < 64; ++n) EXPECT_EQ(shown[n] != 0.0f, n == kLookAhead) << n;
}

TEST(Limiter, AttackStepsAtMost2Point5dBAndReleaseDecays) {
  const struct {
    float sample;
    float reduction;
  } kCases[] = {
      {1.0f, -2.5f},      // 23 dB over: one step
      {-1.0f, -2.5f},     // the level is that of the magnitude
      {0.08f, -1.0618f},  // 1.06 dB over: exactly the excess
      {0.07f, 0.0f},      // below the limit
      {0.0f, 0.0f},       // level -infinity
  };
  for (const auto& c : kCases) {
    stMPO mpo = make_limiter();
    processed(&mpo, {c.sample});
    EXPECT_NEAR(mpo.mpo_gaindB, c.reduction, c.reduction == -1.0618f ? 1e-4 : 0.0) << c.sample;
  }

  stMPO mpo = make_limiter();
  processed(&mpo, std::vector<float>(10, 1.0f));
  EXPECT_EQ(mpo.mpo_gaindB, -23.0f);  // nine steps and the rest of 0.5 dB
  processed(&mpo, {1.0f});            // exactly at the limit is not above it: a release
  EXPECT_EQ(mpo.mpo_gaindB, -23.0f * mpo.mpo_rel_alpha);
  processed(&mpo, std::vector<float>(1600, 0.0f));
  EXPECT_NEAR(mpo.mpo_gaindB, -23.0 * std::exp(-1.0), 0.01);  // 0.1 s later
}

TEST(Limiter, BothOutputsAreOptionalAndTheInt16OneWraps) {
  const std::vector<float> input = bursts(kSeed, 4000);
  const int32_t len = static_cast<int32_t>(input.size());
  stMPO both = make_limiter(), only_float = both, only_int = both, neither = both;
  std::vector<float> output(input.size()), alone(input.size());
  std::vector<int16_t> samples(input.size()), samples_alone(input.size());
  zq_MPO_process(&both, input.data(), output.data(), samples.data(), len);
  zq_MPO_process(&only_float, input.data(), alone.data(), nullptr, len);
  zq_MPO_process(&only_int, input.data(), nullptr, samples_alone.data(), len);
  zq_MPO_process(&neither, input.data(), nullptr, nullptr, len);
  EXPECT_EQ(alone, output);
  EXPECT_EQ(samples_alone, samples);
  for (const stMPO* mpo : {&only_float, &only_int, &neither}) {
    EXPECT_EQ(0, std::memcmp(mpo, &both, sizeof both));
  }

  int wrapped = 0;
  for (size_t n = 0; n < output.size(); ++n) {
    ASSERT_EQ(samples[n], quibo::float_to_int16(output[n])) << n;
    wrapped += std::abs(output[n]) >= 1.0f;
  }
  EXPECT_GT(wrapped, 0) << "the signal does not reach the wrap, seed " << kSeed;
}

TEST(Limiter, ResultDoesNotDependOnTheBlocksAndLenZeroDoesNothing) {
  const std::vector<float> input = bursts(kSeed + 1, 3000);
  stMPO whole = make_limiter(), parts = whole;
  const std::vector<float> expected = processed(&whole, input);
  std::vector<float> output(input.size());
  for (int32_t at = 0, len = 1; at < 3000; at += len, len = std::min(2 * len, 3000 - at)) {
    zq_MPO_process(&parts, &input[at], &output[at], nullptr, len);
    const stMPO before = parts;
    for (int32_t none : {0, -1}) zq_MPO_process(&parts, nullptr, nullptr, nullptr, none);
    EXPECT_EQ(0, std::memcmp(&before, &parts, sizeof parts));
  }
  EXPECT_EQ(output, expected);
}

TEST(Limiter, ANanSampleSpoilsOnlyItself) {
  std::vector<float> input(100, 0.01f);
  input[40] = std::numeric_limits<float>::quiet_NaN();
  stMPO mpo = make_limiter();
  const std::vector<float> output = processed(&mpo, input);
  for (int n = 0; n < 100; ++n) EXPECT_EQ(std::isnan(output[n]), n == 40 + kLookAhead) << n;
}

TEST(Limiter, FollowsDoublePrecisionReference) {
  // The smoothing filter's double pole near 0.83 magnifies rounding; 4.5e-5 was the worst seen.
  constexpr double kBar = 1.5e-4;
  constexpr struct {
    int fs, increasedB, maxLev;
  } kSettings[] = {{16000, 20, -3}, {48000, 6, -20}, {8000, -10, 0}};
  for (const auto& s : kSettings) {
    const std::vector<float> x = bursts(kSeed + 2, 20000);
    stMPO mpo = make_limiter(s.fs, s.increasedB, s.maxLev);
    const std::vector<float> output = processed(&mpo, x);

    const double step = -20.0 / (s.fs * 0.0005), alpha = std::exp(-1.0 / (s.fs * 0.1));
    double reduction = 0, peak = 0, worst = 0;
    double g1 = 0, y1 = 0, y2 = 0;  // the smoothing filter as its difference equation
    for (size_t n = 0; n < x.size(); ++n) {
      const double excess = s.increasedB + 20 * std::log10(std::abs(x[n])) + reduction - s.maxLev;
      reduction = excess > 0 ? reduction + std::max(-excess, step) : reduction * alpha;
      const double y = 0.03879033774137497 * g1 + 1.648302674293518 * y1 - 0.6872448921203613 * y2;
      g1 = std::pow(10.0, reduction / 20);
      y2 = y1;
      y1 = y;
      const double delayed = n < kLookAhead ? 0.0 : x[n - kLookAhead];
      const double expected = y * delayed * std::pow(10.0, s.increasedB / 20.0);
      peak = std::max(peak, std::abs(expected));
      worst = std::max(worst, std::abs(output[n] - expected));
    }
    EXPECT_LT(worst, kBar * peak) << "fs " << s.fs << ", seed " << kSeed + 2;
  }
}

}  // namespace
