// The library's own elementary functions against the C library's in double or extended precision.

#include "dsp/elementary.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

namespace {

namespace ours = quibo::elementary;

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr uint32_t kStride = 9973;  // a prime: all exponents, mantissas of all kinds

template <class Function, class Reference>
void expect_correct_rounding(const Function& function, const Reference& reference) {
  int compared = 0, neighbours = 0;
  for (uint64_t i = 0; i <= UINT32_MAX; i += kStride) {
    const uint32_t bits = static_cast<uint32_t>(i);
    float x;
    std::memcpy(&x, &bits, sizeof x);
    const float value = function(x);
    const float exact = static_cast<float>(reference(static_cast<long double>(x)));
    if (std::isnan(exact)) {
      ASSERT_TRUE(std::isnan(value)) << x;
      continue;
    }
    ++compared;
    if (value == exact) continue;
    ASSERT_TRUE(value == std::nextafter(exact, kInfinity) ||
                value == std::nextafter(exact, -kInfinity))
        << x << ": " << value << " instead of " << exact;
    ++neighbours;
  }
  EXPECT_GT(compared, 200000);
  EXPECT_LE(neighbours, 3);
}

TEST(Elementary, ExponentialsAndLogarithmsAreTheCorrectlyRoundedOnesButForOneInAHundredThousand) {
  expect_correct_rounding(ours::exp, [](long double x) { return std::exp(x); });
  expect_correct_rounding(ours::exp10, [](long double x) { return std::pow(10.0L, x); });
  expect_correct_rounding(ours::log, [](long double x) { return std::log(x); });
  expect_correct_rounding(ours::log10, [](long double x) { return std::log10(x); });
}

TEST(Elementary, LimitsAreThoseOfTheCLibrary) {
  EXPECT_EQ(ours::exp(-kInfinity), 0.0f);
  EXPECT_EQ(ours::exp(kInfinity), kInfinity);
  EXPECT_EQ(ours::exp(0.0f), 1.0f);
  EXPECT_EQ(ours::log(0.0f), -kInfinity);
  EXPECT_EQ(ours::log(1.0f), 0.0f);
  EXPECT_EQ(ours::log(kInfinity), kInfinity);
  EXPECT_TRUE(std::isnan(ours::log(-1.0f)));
}

TEST(Elementary, ArcTangentIsWithin5e16) {
  for (double x = 1e-12; x < 1e12; x *= 1.0003) {
    ASSERT_NEAR(ours::atan(x), std::atan(x), 5e-16) << x;
    ASSERT_EQ(ours::atan(-x), -ours::atan(x)) << x;
  }
  EXPECT_EQ(ours::atan(0.0), 0.0);
  EXPECT_EQ(ours::atan(HUGE_VAL), std::atan(HUGE_VAL));
  EXPECT_TRUE(std::isnan(ours::atan(NAN)));
}

TEST(Elementary, PowersOfTwoAreExactIntoTheDenormalsAndBeyond) {
  for (int n = -170; n <= 150; ++n) EXPECT_EQ(ours::power_of_two(n), std::ldexp(1.0f, n)) << n;
  EXPECT_EQ(ours::power_of_two(int64_t{1} << 31), kInfinity);
  EXPECT_EQ(ours::power_of_two(-(int64_t{1} << 31)), 0.0f);
}

}  // namespace
