// The one-lane register: the plain scalar truth that every wider register must equal to the bit.
//
// Each simd_*.h defines one struct with the same static functions, so that one algorithm body
// serves every instruction set. All arithmetic is the IEEE single-precision operation, rounded
// once; nothing is fused, but for the registers of simd_fused.h. A register of W lanes holds W
// independent positions:
//
// - mul_add(sum, a, b): sum + a * b, the product rounded before it is added
// - larger(a, b): a > b ? a : b per lane, so b when either is a NaN
// - smaller(a, b): a < b ? a : b per lane, likewise
// - where_greater(a, b, x, y): a > b ? x : y per lane, so y when a or b is a NaN
// - shift_to_exponent(a): the bits of each lane moved up to where a float keeps its exponent
// - load_pairs: W (real, imaginary) pairs into two registers; store_pairs is its inverse
// - reverse: lane i to lane W-1-i
// - lead<count>(a, b): the first `count` (1 or 4) lanes of a, then those of b; all of a where
//   W <= count
// - load_repeat4(p): p[0] four times, p[1] four times, ... (one value for W = 1)
// - store_columns: p[4*i + r] = lane i of y_r, four registers written as rows of four
// - store_quads: p[16*g + 4*r + i] = lane 4*g+i of y_r (p[4*r] = y_r for W = 1)
//
// `Four` is the register of exactly four lanes in which one row of a matrix is summed, whatever W:
// load, store, splat, add, mul and mul_add as above, fold(a) = (a0 + a2) + (a1 + a3), and transpose of a 4 x
// 4 matrix held in four registers.
//
// These headers are included by units compiled for their instruction set (kernels/kernels_*.cpp).
// Everything in them sits in an anonymous namespace: a copy compiled for a newer processor must
// never be what the linker keeps for an older one.
#pragma once

#include <math.h>
#include <stdint.h>
#include <string.h>

namespace quibo {
namespace {

// In how many lanes a large product of the networks is summed (nn/float_kernels.h).
template <class V>
constexpr int kSumLanes = 4;

struct ScalarFour {
  struct Reg {
    float a[4];
  };

  static Reg load(const float* p) { return {{p[0], p[1], p[2], p[3]}}; }
  static Reg splat(float v) { return {{v, v, v, v}}; }
  static Reg add(Reg x, Reg y) {
    return {{x.a[0] + y.a[0], x.a[1] + y.a[1], x.a[2] + y.a[2], x.a[3] + y.a[3]}};
  }
  static Reg mul(Reg x, Reg y) {
    return {{x.a[0] * y.a[0], x.a[1] * y.a[1], x.a[2] * y.a[2], x.a[3] * y.a[3]}};
  }
  static Reg mul_add(Reg sum, Reg x, Reg y) { return add(sum, mul(x, y)); }
  static float fold(Reg x) { return (x.a[0] + x.a[2]) + (x.a[1] + x.a[3]); }
  static void store(float* p, Reg x) { memcpy(p, x.a, sizeof x.a); }
  static void transpose(Reg& x0, Reg& x1, Reg& x2, Reg& x3) {
    const Reg y0 = x0, y1 = x1, y2 = x2, y3 = x3;
    x0 = {{y0.a[0], y1.a[0], y2.a[0], y3.a[0]}};
    x1 = {{y0.a[1], y1.a[1], y2.a[1], y3.a[1]}};
    x2 = {{y0.a[2], y1.a[2], y2.a[2], y3.a[2]}};
    x3 = {{y0.a[3], y1.a[3], y2.a[3], y3.a[3]}};
  }
};

struct ScalarF32 {
  using Four = ScalarFour;
  using Reg = float;
  static constexpr int kWidth = 1;
  static constexpr int kRegisters = 16;

  static Reg load(const float* p) { return *p; }
  static void store(float* p, Reg v) { *p = v; }
  static Reg splat(float v) { return v; }
  static Reg add(Reg a, Reg b) { return a + b; }
  static Reg sub(Reg a, Reg b) { return a - b; }
  static Reg mul(Reg a, Reg b) { return a * b; }
  static Reg mul_add(Reg sum, Reg a, Reg b) { return sum + a * b; }
  static Reg div(Reg a, Reg b) { return a / b; }
  static Reg sqrt(Reg a) { return sqrtf(a); }
  static Reg larger(Reg a, Reg b) { return a > b ? a : b; }
  static Reg smaller(Reg a, Reg b) { return a < b ? a : b; }
  static Reg where_greater(Reg a, Reg b, Reg x, Reg y) { return a > b ? x : y; }
  static Reg shift_to_exponent(Reg a) {
    uint32_t bits;
    memcpy(&bits, &a, sizeof bits);
    bits <<= 23;
    memcpy(&a, &bits, sizeof bits);
    return a;
  }
  static void load_pairs(const float* p, Reg& re, Reg& im) {
    re = p[0];
    im = p[1];
  }
  static void store_pairs(float* p, Reg re, Reg im) {
    p[0] = re;
    p[1] = im;
  }
  static Reg reverse(Reg v) { return v; }
  template <int count>
  static Reg lead(Reg a, Reg) {
    return a;
  }
  static Reg load_repeat4(const float* p) { return *p; }
  static void store_columns(float* p, Reg y0, Reg y1, Reg y2, Reg y3) {
    p[0] = y0;
    p[1] = y1;
    p[2] = y2;
    p[3] = y3;
  }
  static void store_quads(float* p, Reg y0, Reg y1, Reg y2, Reg y3) {
    p[0] = y0;
    p[4] = y1;
    p[8] = y2;
    p[12] = y3;
  }
};

}  // namespace
}  // namespace quibo
