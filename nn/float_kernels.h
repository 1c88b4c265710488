// The float kernels of the neural networks, one body for every instruction set.
//
// ORDER OF SUMS. A row of a product is summed in four lanes: lane l takes the products of columns
// j = l, l+4, l+8, ... in increasing order, starting from zero, each product rounded before it is
// added. The sum is (lane0 + lane2) + (lane1 + lane3); a bias is added after that. The networks'
// parameters are trained against this order, and it is what every instruction set reproduces to the
// bit: a wider register holds more rows or positions, each with four lanes of its own.
//
// Lengths of products are multiples of 4; element-wise kernels take any length, and `out` may be
// `in`. Nothing is aligned, allocated or kept.
#pragma once

#include <stddef.h>

#include "dsp/kernels.h"
#include "dsp/simd_scalar.h"

namespace quibo {
namespace {

// ---- Products ------------------------------------------------------------------------------

// Dot product of two arrays of `len` values.
template <class V>
float arr_mul_arr_float(const float* in1, const float* in2, int len) {
  using F = typename V::Four;
  typename F::Reg sum = F::splat(0.0f);
#pragma GCC unroll 4
  for (int j = 0; j < len; j += 4) {
    sum = F::mul_add(sum, F::load(in1 + j), F::load(in2 + j));
  }
  return F::fold(sum);
}

// out[r] = dot(row r of mat, vec) for kRows consecutive rows, which share each load of the vector.
template <class F, int kRows>
void dot_rows(float* out, const float* mat, const float* vec, int N) {
  typename F::Reg sum[kRows];
#pragma GCC unroll 8
  for (int r = 0; r < kRows; ++r) sum[r] = F::splat(0.0f);
  for (int j = 0; j < N; j += 4) {
    const typename F::Reg x = F::load(vec + j);
#pragma GCC unroll 8
    for (int r = 0; r < kRows; ++r) sum[r] = F::mul_add(sum[r], x, F::load(mat + r * N + j));
  }
#pragma GCC unroll 8
  for (int r = 0; r < kRows; ++r) out[r] = F::fold(sum[r]);
}

// out[r] = dot(row r of mat, vec) for a row-major M x N matrix, M and N multiples of 4. Eight rows
// at a time hide the latency of the additions.
template <class V>
void mat_mul_vec_float(float* out, const float* mat, const float* vec, int M, int N) {
  using F = typename V::Four;
  int r = 0;
  for (; r + 8 <= M; r += 8) dot_rows<F, 8>(out + r, mat + r * N, vec, N);
  if (r < M) dot_rows<F, 4>(out + r, mat + r * N, vec, N);
}

// ---- Exponentials --------------------------------------------------------------------------

// e^x for |x| <= 87, within one unit in the last place (0.98 at worst, all floats tried). A fixed
// polynomial instead of the C library's function, so that results do not depend on the platform.
// Cody & Waite, "Software Manual for the Elementary Functions" (1980): x = n*ln 2 + r, |r| <= ln
// 2/2, e^r = 1 + r + r^2 q(r) with q a minimax polynomial of relative error 3e-9.
template <class V>
typename V::Reg exact_exp(typename V::Reg x) {
  using Reg = typename V::Reg;
  // Added to a small number, 1.5 * 2^23 leaves it rounded to an integer in the low bits; 127 more
  // is the exponent bias.
  const Reg round = V::splat(12582912.0f + 127.0f);
  const Reg biased = V::mul_add(round, x, V::splat(1.44269504f));
  const Reg n = V::sub(biased, round);
  Reg r = V::sub(x, V::mul(n, V::splat(0.693359375f)));  // ln 2 in two parts; the first product
  r = V::sub(r, V::mul(n, V::splat(-2.12194440e-4f)));   // is exact
  Reg q = V::splat(0.00138145406f);
  q = V::mul_add(V::splat(0.00836874545f), q, r);
  q = V::mul_add(V::splat(0.0416683890f), q, r);
  q = V::mul_add(V::splat(0.166665211f), q, r);
  q = V::mul_add(V::splat(0.499999940f), q, r);
  const Reg mantissa = V::add(V::mul_add(r, V::mul(r, r), q), V::splat(1.0f));
  return V::mul(mantissa, V::shift_to_exponent(biased));
}

// (1 + x/1024)^1024 by ten squarings: e^x to 0.05 % at |x| = 1, 5 % at 10, 18 % at 20. Callers
// discard it beyond that.
template <class V>
typename V::Reg fast_exp(typename V::Reg x) {
  typename V::Reg y = V::mul_add(V::splat(1.0f), x, V::splat(1.0f / 1024));
  for (int i = 0; i < 10; ++i) y = V::mul(y, y);
  return y;
}

// ---- Activations ---------------------------------------------------------------------------
// Logistic sigmoid and hyperbolic tangent, exactly at their limits beyond a bound and by the
// formula up to and including it. A NaN gives a NaN. Which exponential and which bound a network
// uses is part of what it was trained against; tanh is not computed as an odd function, because
// fast_exp(-x) is not the reciprocal of fast_exp(x).

constexpr float kActivationBound = 10.0f;

template <class V>
struct FastExp {
  static typename V::Reg exp(typename V::Reg x) { return fast_exp<V>(x); }
};

template <class V>
struct ExactExp {
  static typename V::Reg exp(typename V::Reg x) { return exact_exp<V>(x); }
};

template <class V, template <class> class Exp>
typename V::Reg sigmoid(typename V::Reg x, float bound = kActivationBound) {
  const typename V::Reg zero = V::splat(0.0f), one = V::splat(1.0f);
  const typename V::Reg e = Exp<V>::exp(V::sub(zero, x));
  const typename V::Reg y = V::div(one, V::add(one, e));
  return V::where_greater(x, V::splat(bound), one, V::where_greater(V::splat(-bound), x, zero, y));
}

template <class V, template <class> class Exp>
typename V::Reg tanh(typename V::Reg x, float bound = kActivationBound) {
  const typename V::Reg one = V::splat(1.0f);
  const typename V::Reg e = Exp<V>::exp(V::add(x, x));
  const typename V::Reg y = V::div(V::sub(e, one), V::add(e, one));
  return V::where_greater(x, V::splat(bound), one,
                          V::where_greater(V::splat(-bound), x, V::splat(-1.0f), y));
}

// x < 0 ? slope * x : x
template <class V>
typename V::Reg prelu(typename V::Reg x, typename V::Reg slope) {
  return V::where_greater(V::splat(0.0f), x, V::mul(slope, x), x);
}

// Runs body(register tag, i) over 0 .. len-1, in whole registers first.
template <class V, class Body>
void for_each_lane(int len, const Body& body) {
  int i = 0;
  for (; i + V::kWidth <= len; i += V::kWidth) body(V{}, i);
  for (; i < len; ++i) body(ScalarF32{}, i);
}

template <class V, template <class> class Exp>
void activate(float* out, const float* in, int len, Activation flag) {
  for_each_lane<V>(len, [=](auto v, int i) {
    using W = decltype(v);
    const typename W::Reg x = W::load(in + i);
    W::store(out + i, flag == Activation::kSigmoid ? sigmoid<W, Exp>(x) : tanh<W, Exp>(x));
  });
}

// With fast_exp.
template <class V>
void act_h(float* out, const float* in, int len, Activation flag) {
  activate<V, FastExp>(out, in, len, flag);
}

// With the exact exponential; this is also what the direction network's fast_sigmoid and fast_tanh
// are.
template <class V>
void vec_act_h(float* out, const float* in, int len, Activation flag) {
  activate<V, ExactExp>(out, in, len, flag);
}

}  // namespace
}  // namespace quibo
