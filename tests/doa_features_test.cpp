// The direction estimator's features against cross-correlations computed bin by bin in double
// precision.

#include "doa/doa_features.h"

#include <gtest/gtest.h>

#include <complex>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "dsp/log_mel.h"
#include "support/bits.h"
#include "support/variants.h"

namespace {

using Samples = std::vector<int16_t>;
using quibo_test::for_each_variant;

constexpr unsigned kSeed = 20251103;
constexpr int kBlock = 480, kLags = 40, kPairs[3][2] = {{0, 1}, {0, 2}, {1, 2}};

std::unique_ptr<LAYER_DATA_DOA> empty_record() {
  auto record = std::make_unique<LAYER_DATA_DOA>();
  std::memset(record.get(), 0, sizeof *record);
  return record;
}

Samples noise(int count, unsigned seed, float level = 3000.0f) {
  std::mt19937 random(seed);
  std::normal_distribution<float> normal(0.0f, level);
  Samples x;
  for (int n = 0; n < count; ++n) x.push_back(static_cast<int16_t>(normal(random)));
  return x;
}

void add_block(LAYER_DATA_DOA* d, const std::vector<Samples>& mics, int block) {
  const int at = block * kBlock;
  for (complex_t& v : d->rfft) v = {1e4f, -1e4f};  // scratch may hold anything
  doa_add_samples(d, &mics[0][at], &mics[1][at], &mics[2][at]);
  doa_fbank_gcc_phat_feature(d);
}

// GCC-PHAT of 512 samples each, lags -20 .. 19.
std::vector<double> naive_gcc_phat(const int16_t* a, const int16_t* b) {
  constexpr int n = 1024;
  std::vector<std::complex<double>> turn;
  for (int k = 0; k < n; ++k) turn.push_back(std::polar(1.0, -2 * M_PI * k / n));
  std::vector<double> result(kLags);
  for (int k = 0; k < n; ++k) {
    std::complex<double> A, B;
    for (int j = 0; j < 512; ++j) {
      A += static_cast<double>(a[j]) * turn[j * k % n];
      B += static_cast<double>(b[j]) * turn[j * k % n];
    }
    const std::complex<double> g = A * std::conj(B) / std::abs(A * std::conj(B));
    for (int lag = -20; lag < 20; ++lag) {
      result[20 + lag] += (g * std::conj(turn[(lag * k + 20 * n) % n])).real() / n;
    }
  }
  return result;
}

TEST(DoaFeatures, CorrelationsMatchTheNaiveOnesOfTheLast832Samples) {
  constexpr double kBar = 1e-5;
  constexpr int kBlocks = 4;
  std::vector<Samples> mics;
  for (unsigned m = 0; m < 3; ++m) mics.push_back(noise(kBlocks * kBlock, kSeed + m));
  for (size_t n = 2; n < mics[1].size(); ++n) mics[1][n] = (mics[0][n - 2] + mics[1][n]) / 2;
  auto record = empty_record();
  for (int block = 0; block < kBlocks; ++block) add_block(record.get(), mics, block);
  for (int p = 0; p < 3; ++p) {
    for (int f = 0; f < 3; ++f) {
      const int at = kBlocks * kBlock - 832 + 160 * f;
      const auto expected = naive_gcc_phat(&mics[kPairs[p][0]][at], &mics[kPairs[p][1]][at]);
      for (int i = 0; i < kLags; ++i) {
        ASSERT_NEAR(record->out1[120 * p + 40 * f + i], expected[i], kBar)
            << "pair " << p << ", frame " << f << ", lag " << i - 20 << ", seed " << kSeed;
      }
    }
  }
}

TEST(DoaFeatures, ASoundThatReachesTheSecondMicrophoneLaterPeaksAtANegativeLag) {
  constexpr int kReach = 20, kCount = 3 * kBlock;
  const Samples source = noise(kCount + 2 * kReach, kSeed);
  auto delayed = [&](int by) {
    return Samples(source.begin() + kReach - by, source.begin() + kReach - by + kCount);
  };
  for (int d1 : {-19, -7, -1, 0, 1, 4, 20}) {
    for (int d2 : {0, 1}) {
      const std::vector<Samples> mics = {delayed(0), delayed(d1), delayed(d2)};
      auto record = empty_record();
      for (int block = 0; block < 3; ++block) add_block(record.get(), mics, block);
      const int later[3] = {d1, d2, d2 - d1};
      for (int p = 0; p < 3; ++p) {
        if (later[p] == -20) continue;  // lag +20 is not kept
        for (int f = 0; f < 3; ++f) {
          const float* lags = record->out1 + 120 * p + 40 * f;
          EXPECT_EQ(std::max_element(lags, lags + kLags) - lags, 20 - later[p])
              << "pair " << p << ", frame " << f << ", delays " << d1 << ", " << d2;
          if (later[p] == 0) {
            EXPECT_NEAR(lags[20], 1.0f, 1e-5f);
          }
        }
      }
    }
  }
}

TEST(DoaFeatures, SilenceHasNoCorrelationAndTheLowestEnergies) {
  auto record = empty_record();
  add_block(record.get(), std::vector<Samples>(3, Samples(kBlock)), 0);
  for (int i = 0; i < 360; ++i) ASSERT_EQ(record->out1[i], 0.0f) << i;
  for (int i = 360; i < 480; ++i) ASSERT_EQ(record->out1[i], -36.043652f) << i;
}

TEST(DoaFeatures, EnergiesAreThoseOfMicrophoneOneInFramesThatEndWithTheBlock) {
  std::vector<Samples> mics;
  for (unsigned m = 0; m < 3; ++m) mics.push_back(noise(2 * kBlock, kSeed + m));
  auto record = empty_record();
  for (int block = 0; block < 2; ++block) add_block(record.get(), mics, block);
  for (int f = 0; f < 3; ++f) {
    const auto end = mics[0].end() - 160 * (2 - f);
    std::vector<float> frame(end - 400, end), work(quibo::kMelWork), expected(40);
    quibo::log_mel(frame.data(), work.data(), expected.data());
    const float* got = record->out1 + 360 + 40 * f;
    EXPECT_EQ(std::vector<float>(got, got + 40), expected) << "frame " << f;
  }
}

TEST(DoaFeatures, KeepTheirBits) {
  std::mt19937 random(kSeed);
  std::vector<Samples> mics(3);
  for (Samples& mic : mics) {
    for (float v : quibo_test::even_noise(random, 20 * kBlock)) {
      mic.push_back(static_cast<int16_t>(v * 8000.0f));
    }
  }
  auto d = empty_record();
  quibo_test::Bits bits;
  for (int block = 0; block < 20; ++block) {
    add_block(d.get(), mics, block);
    bits.add(d->out1, sizeof d->out1);
  }
  EXPECT_EQ(0x2901be531f3275c2, bits.value());
}

}  // namespace
