// The float network kernels: order of sums, accuracy of the exponentials, limits of the
// activations, on every instruction set.

#include "nn/float_kernels.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "support/variants.h"

namespace {

using quibo::Activation;
using quibo_test::for_each_variant;

constexpr unsigned kSeed = 20251103;
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

const quibo::FloatKernels& net() {
  return quibo::kernels().net;
}

std::vector<float> noise(size_t n, unsigned seed, float scale = 1.0f) {
  std::mt19937 random(seed);
  std::normal_distribution<float> normal(0.0f, scale);
  std::vector<float> x(n);
  for (float& v : x) v = normal(random);
  return x;
}

// Four partial sums by column modulo 4, then even pair plus odd pair.
float four_lane_dot(const float* a, const float* b, int n) {
  float lane[4] = {};
  for (int j = 0; j < n; ++j) {
    volatile float product = a[j] * b[j];  // rounded on its own, whatever the compiler may fuse
    lane[j % 4] = lane[j % 4] + product;
  }
  const float even = lane[0] + lane[2], odd = lane[1] + lane[3];
  return even + odd;
}

TEST(FloatKernels, ProductsSumInFourLanesToTheBit) {
  constexpr int kRows = 20, kColumns = 576;
  const std::vector<float> mat = noise(kRows * kColumns, kSeed), vec = noise(kColumns, kSeed + 1);
  for_each_variant([&](const std::string& variant) {
    for (int columns : {4, 32, 128, kColumns}) {
      std::vector<float> out(kRows);
      net().mat_mul_vec_float(out.data(), mat.data(), vec.data(), kRows, columns);
      for (int r = 0; r < kRows; ++r) {
        const float* row = &mat[r * columns];
        EXPECT_EQ(out[r], four_lane_dot(row, vec.data(), columns)) << variant << ", row " << r;
        EXPECT_EQ(out[r], net().arr_mul_arr_float(row, vec.data(), columns)) << variant;
      }
    }
  });
}

// What the canceller's guard decides is the same in every family, the fused ones among them.
TEST(FloatKernels, TheGuardsEnergiesAreNeverFused) {
  const std::vector<float> x = noise(1024, kSeed);
  const float expected = four_lane_dot(x.data(), x.data(), 1024);
  for_each_variant([&](const std::string& variant) {
    EXPECT_EQ(quibo::kernels().laec.energy(x.data(), 1024), expected) << variant;
  });
  for (int i = 0; const quibo::Kernels* fused = quibo::fused_kernels(i); ++i) {
    EXPECT_EQ(fused->laec.energy(x.data(), 1024), expected) << fused->name;
  }
}

TEST(FloatKernels, ExactExponentialIsWithinOneUlpUpTo87) {
  for (float x = -87.0f; x <= 87.0f; x += 0.00037f) {
    int exponent;
    const double expected = std::exp(static_cast<double>(x));
    std::frexp(expected, &exponent);
    ASSERT_NEAR(quibo::exact_exp<quibo::ScalarF32>(x), expected, std::ldexp(1.0, exponent - 24))
        << "x = " << x;
  }
}

// Double-precision sigmoid and tanh; the fast exponential is (1 + x/1024)^1024 by definition.
double reference(double x, Activation flag, bool fast) {
  auto e = [fast](double v) { return fast ? std::pow(1 + v / 1024, 1024) : std::exp(v); };
  if (flag == Activation::kSigmoid) return x > 10 ? 1 : x < -10 ? 0 : 1 / (1 + e(-x));
  return x > 10 ? 1 : x < -10 ? -1 : (e(2 * x) - 1) / (e(2 * x) + 1);
}

TEST(FloatKernels, ActivationsFollowTheFormulaAndTheirLimits) {
  std::vector<float> x = {0.0f, -0.0f, 10.0f, -10.0f, 10.0001f, -10.0001f, 1e30f, -1e30f};
  for (float v = -10.5f; v < 10.5f; v += 0.0173f) x.push_back(v);
  std::vector<float> y(x.size());
  for_each_variant([&](const std::string& variant) {
    for (Activation flag : {Activation::kSigmoid, Activation::kTanh}) {
      for (bool fast : {false, true}) {
        (fast ? net().act_h : net().vec_act_h)(y.data(), x.data(), static_cast<int>(x.size()),
                                               flag);
        for (size_t i = 0; i < x.size(); ++i) {
          // Ten squarings double a relative rounding error ten times: 1024 half ulps.
          ASSERT_NEAR(y[i], reference(x[i], flag, fast), fast ? 3.1e-5 : 3e-7)
              << variant << ", x = " << x[i] << ", fast " << fast;
        }
        EXPECT_TRUE(flag == Activation::kTanh || y[3] > 0.0f) << "-10 itself has a value";
        EXPECT_EQ(y[4], 1.0f);
        EXPECT_EQ(y[5], flag == Activation::kSigmoid ? 0.0f : -1.0f);
      }
    }
  });
}

TEST(FloatKernels, EveryVariantGivesTheScalarBitsAtAnyLength) {
  std::vector<float> x = noise(1021, kSeed + 2, 6.0f);
  x[7] = kNan;
  std::vector<float> expected[4];
  for_each_variant([&](const std::string& variant) {
    for (int f = 0; f < 4; ++f) {
      std::vector<float> y(x.size());
      const int n = static_cast<int>(x.size());
      const Activation flag = f % 2 ? Activation::kTanh : Activation::kSigmoid;
      (f < 2 ? net().act_h : net().vec_act_h)(y.data(), x.data(), n, flag);
      EXPECT_TRUE(std::isnan(y[7])) << variant << ", function " << f;
      y[7] = 0;
      if (variant == "scalar") expected[f] = y;
      EXPECT_EQ(0, std::memcmp(y.data(), expected[f].data(), y.size() * sizeof y[0]))
          << variant << ", function " << f << ", seed " << kSeed;
    }
  });
}

// A frequency block's steps are independent of each other: two at a time, which share the weights, give what each
// gives alone, and the state kept is the second one's.
TEST(FloatKernels, AFrequencyBlockKeepsTheStateOfItsLastStep) {
  constexpr int H = 32, kMap = H * quibo::kGruPositions;
  const std::vector<float> weights = noise(8 * H * H, kSeed + 40, 0.1f);
  const std::vector<float> input = noise(2 * kMap, kSeed + 41);
  std::vector<float> scratch(quibo::gru_scratch(H));
  for_each_variant([&](const std::string& variant) {
    auto run = [&](const float* from, int steps, float* state) {
      std::vector<float> output(steps * kMap);
      quibo::GruJob job = {};
      job.weight_ir = weights.data();
      job.weight_iz = job.weight_ir + 2 * H * H;
      job.weight_in_x = job.weight_iz + 2 * H * H;
      job.weight_in_h = job.weight_in_x + H;
      job.weight_in_stride = 2 * H;
      job.linear_weight = job.weight_in_x + 2 * H * H;
      job.bias_ir = job.bias_iz = job.bias_in1 = job.bias_in2 = job.linear_bias = weights.data();
      job.state = state;
      job.input = from;
      job.output = output.data();
      job.steps = steps;
      job.scratch = scratch.data();
      net().denoise_gru.frequency(job);
      return output;
    };
    float first[H], second[H], both[H];
    std::vector<float> alone = run(input.data(), 1, first);
    const std::vector<float> other = run(input.data() + kMap, 1, second);
    alone.insert(alone.end(), other.begin(), other.end());
    EXPECT_EQ(alone, run(input.data(), 2, both)) << variant;
    EXPECT_EQ(0, std::memcmp(both, second, sizeof both)) << variant;
    EXPECT_NE(0, std::memcmp(first, second, sizeof first)) << variant;
  });
}

}  // namespace
