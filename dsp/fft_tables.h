// Twiddle factors of the real FFT, computed by the compiler.
//
// The rule is the split-radix package's own (T. Ooura, "General Purpose FFT Package"), every entry
// rounded to six decimals. The package stores its first table in bit-reversed order because it
// works on bit-reversed data; here the stages read their input in natural order (see
// fft_kernels.h), so the same values are laid out in the order in which each stage consumes them.
#pragma once

namespace quibo {

// Sine and cosine for the compiler: Taylor series after reduction to |x| <= pi/4, good to about
// 1e-16, far finer than the six decimals that are kept.
constexpr double kPi = 3.14159265358979323846;

constexpr double taylor_sin(double x) {
  double term = x, sum = x;
  for (int i = 1; i < 12; ++i) {
    term *= -x * x / ((2.0 * i) * (2.0 * i + 1.0));
    sum += term;
  }
  return sum;
}

constexpr double taylor_cos(double x) {
  double term = 1.0, sum = 1.0;
  for (int i = 1; i < 12; ++i) {
    term *= -x * x / ((2.0 * i - 1.0) * (2.0 * i));
    sum += term;
  }
  return sum;
}

// cos(2*pi*numerator/denominator) for 0 <= numerator < denominator. Folding the fraction into the
// first octant keeps the argument small and makes symmetric entries exactly equal.
constexpr double cos_turn(int numerator, int denominator) {
  int k = 8 * numerator;  // octants are `denominator` wide
  if (k > 4 * denominator) k = 8 * denominator - k;
  const bool negative = k > 2 * denominator;
  if (negative) k = 4 * denominator - k;
  const double value = k <= denominator ? taylor_cos(kPi / 4 * k / denominator)
                                        : taylor_sin(kPi / 4 * (2 * denominator - k) / denominator);
  return negative ? -value : value;
}

constexpr double sin_turn(int numerator, int denominator) {
  // sin(t) = cos(t - 90 degrees)
  return cos_turn((4 * numerator + 3 * denominator) % (4 * denominator), 4 * denominator);
}

// Rounds half away from zero at the sixth decimal, as the tables are stored.
constexpr float round6(double x) {
  const double scaled = x * 1e6;
  const long long units = static_cast<long long>(scaled < 0 ? scaled - 0.5 : scaled + 0.5);
  return static_cast<float>(static_cast<double>(units) / 1e6);
}

// Twiddles of one radix-4 stage over sub-transforms of length 4*count: entry i multiplies the
// outputs 1, 2, 3 of the butterfly that starts at input i, with w1 = e^(+2*pi*j*i/(4*count)), w2 =
// w1^2, w3 = w1^3.
template <int count>
struct StageTwiddles {
  alignas(64) float w1r[count], w1i[count], w2r[count], w2i[count], w3r[count], w3i[count];
};

template <int count>
constexpr StageTwiddles<count> make_stage_twiddles() {
  StageTwiddles<count> t{};
  for (int i = 0; i < count; ++i) {
    t.w1r[i] = round6(cos_turn(i, 4 * count));
    t.w1i[i] = round6(sin_turn(i, 4 * count));
    if (2 * i < count) {
      t.w2r[i] = round6(cos_turn(2 * i, 4 * count));
      t.w2i[i] = round6(sin_turn(2 * i, 4 * count));
    } else {  // a quarter turn further: the table holds one quadrant only
      t.w2r[i] = -round6(sin_turn(2 * i - count, 4 * count));
      t.w2i[i] = round6(cos_turn(2 * i - count, 4 * count));
    }
    // w3 is not stored by the package but derived from w1 and w2 in single precision.
    t.w3r[i] = t.w1r[i] - 2.0f * t.w2i[i] * t.w1i[i];
    t.w3i[i] = 2.0f * t.w2i[i] * t.w1r[i] - t.w1i[i];
  }
  return t;
}

// Factors of the pass between a complex transform of n/2 points and the real one of n points, for
// bins 1 .. n/4-1.
template <int n>
struct RealTwiddles {
  alignas(64) float wr[n / 4], wi[n / 4];
};

template <int n>
constexpr RealTwiddles<n> make_real_twiddles() {
  RealTwiddles<n> t{};
  for (int k = 1; k < n / 4; ++k) {
    t.wr[k] = 0.5f - round6(0.5 * sin_turn(k, n));
    t.wi[k] = round6(0.5 * cos_turn(k, n));
  }
  return t;
}

}  // namespace quibo
