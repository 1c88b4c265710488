#include "dsp/elementary.h"

#include <math.h>
#include <stdint.h>
#include <string.h>

namespace quibo::elementary {
namespace {

constexpr double kLn2 = 0.693147180559945309, kLn10 = 2.302585092994045684;
constexpr double kHalfPi = 1.570796326794896619;

constexpr int kExponentBias = 1023, kMantissaBits = 52;

double from_bits(int64_t bits) {
  double x;
  memcpy(&x, &bits, sizeof x);
  return x;
}

// 2^n, -1022 <= n <= 1023.
double double_power_of_two(int64_t n) {
  return from_bits((n + kExponentBias) << kMantissaBits);
}

constexpr int kOrder = 10;

// 1 / k!
struct PowerSeries {
  double coefficient[kOrder + 1] = {1.0};
  constexpr PowerSeries() {
    for (int k = 1; k <= kOrder; ++k) coefficient[k] = coefficient[k - 1] / k;
  }
};

constexpr PowerSeries kExponential;

// x = n ln 2 + r, |r| <= ln 2 / 2, and the power series of e^r to the tenth order.
double exp_double(double x) {
  constexpr double kBeyondFloats = 200.0;
  if (!(x < kBeyondFloats)) return x > 0.0 ? HUGE_VAL : x;  // a NaN stays one
  if (x < -kBeyondFloats) return 0.0;
  // Added to a small number, 1.5 * 2^52 leaves it rounded to an integer.
  constexpr double kRound = 6755399441055744.0;
  const double n = (x * (1.0 / kLn2) + kRound) - kRound;
  const double r = x - n * kLn2;
  double series = 0.0;
  for (int k = kOrder; k >= 0; --k) series = kExponential.coefficient[k] + r * series;
  return series * double_power_of_two(static_cast<int64_t>(n));
}

// x = 2^e m with m within a factor of 2^0.5 of 1; ln m = 2 artanh(s), s = (m - 1) / (m + 1).
double log_double(float x) {
  if (!(x > 0.0f)) return x == 0.0f ? -HUGE_VAL : NAN;
  if (x > 3.4028235e38f) return HUGE_VAL;
  const double wide = x;  // a normal number, even where x is denormal
  int64_t bits;
  memcpy(&bits, &wide, sizeof bits);
  constexpr int64_t kHalfRoot = 0x3fe6a09e667f3bcd;  // 2^-0.5
  const int64_t e = (bits - kHalfRoot) >> kMantissaBits;
  const double m = from_bits(bits - e * (int64_t{1} << kMantissaBits));
  const double s = (m - 1.0) / (m + 1.0), s2 = s * s;
  double series = 0.0;
  for (int k = 17; k > 0; k -= 2) series = 1.0 / k + s2 * series;
  return static_cast<double>(e) * kLn2 + 2.0 * s * series;
}

}  // namespace

float exp(float x) {
  return static_cast<float>(exp_double(x));
}

float exp10(float x) {
  return static_cast<float>(exp_double(x * kLn10));
}

float log(float x) {
  return static_cast<float>(log_double(x));
}

float log10(float x) {
  return static_cast<float>(log_double(x) * (1.0 / kLn10));
}

double atan(double x) {
  const double magnitude = fabs(x);
  const bool steep = magnitude > 1.0;
  double t = steep ? 1.0 / magnitude : magnitude;
  for (int i = 0; i < 2; ++i) t /= 1.0 + sqrt(1.0 + t * t);  // half the angle, twice
  const double t2 = t * t;
  double series = 0.0;
  for (int k = 23; k > 0; k -= 2) series = 1.0 / k - t2 * series;
  const double angle = 4.0 * t * series;
  return copysign(steep ? kHalfPi - angle : angle, x);
}

float power_of_two(int64_t n) {
  constexpr int kBeyondFloats = 200;
  if (n > kBeyondFloats) n = kBeyondFloats;
  if (n < -kBeyondFloats) n = -kBeyondFloats;
  return static_cast<float>(double_power_of_two(n));
}

}  // namespace quibo::elementary
