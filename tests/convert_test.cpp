// Float to int16: toward zero, saturating at 32 bits, low 16 bits kept.

#include "dsp/convert.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace {

TEST(Convert, TruncatesThenWrapsAndIsDefinedForEveryFloat) {
  constexpr float kLsb = 1.0f / 32768, kInfinity = std::numeric_limits<float>::infinity();
  const struct {
    float from;
    int to;
  } kCases[] = {
      {0.0f, 0},
      {-0.0f, 0},
      {kLsb, 1},
      {-kLsb, -1},
      {0.99f * kLsb, 0},
      {-0.99f * kLsb, 0},
      {1.99f * kLsb, 1},
      {-1.99f * kLsb, -1},
      {0.99999f, 32767},
      {-0.99999f, -32767},
      {1.0f, -32768},  // the wrap
      {-1.0f, -32768},
      {1.5f, -16384},
      {-1.5f, 16384},
      {2.0f, 0},
      {65535.0f, -32768},
      {65535.996f, -128},  // the largest float below the 32-bit limit
      {65536.0f, -1},      // 2^31 saturates to 0x7fffffff
      {-65536.0f, 0},      // -2^31 is 0x80000000 itself
      {-65537.0f, 0},
      {3e38f, -1},  // infinite once scaled
      {-3e38f, 0},
      {kInfinity, -1},
      {-kInfinity, 0},
      {std::nanf(""), 0},
      {std::numeric_limits<float>::denorm_min(), 0},
  };
  for (const auto& c : kCases) EXPECT_EQ(quibo::float_to_int16(c.from), c.to) << c.from;
}

TEST(Convert, EverySampleSurvivesTheRoundTrip) {
  for (int x = INT16_MIN; x <= INT16_MAX; ++x) {
    ASSERT_EQ(quibo::float_to_int16(quibo::int16_to_float(static_cast<int16_t>(x))), x);
  }
  EXPECT_EQ(quibo::int16_to_float(INT16_MAX), 0.999969482421875f);
  EXPECT_EQ(quibo::int16_to_float(INT16_MIN), -1.0f);
}

}  // namespace
