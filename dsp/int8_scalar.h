// One-lane integer register of the quantised kernels: the scalar truth.
//
// Each int8_*.h defines one struct with the same static functions over a register of kLanes 32-bit
// integers. Everything is exact; sums wrap at 32 bits.
//   kTaps                    products that one multiply-add puts into each lane
//   load_codes(p)            kLanes * kTaps uint8 codes, as a multiply-add takes them
//   repeat_codes(p)          the kTaps codes at p, in every lane
//   multiply_add(s, c, w)    lane i: s_i plus the sum over t < kTaps of code kTaps*i+t times
//                            w[kTaps*i+t] (int8)
//   pair_sums(a, b)          the lanes of a, then those of b, added in adjacent pairs
//   load_bytes, store_bytes  kLanes uint8 values, one per lane; stored values lie in 0..255
//   round(x)                 nearest integer, halves away from zero, for |x| < 2^31
// Float is the float register of the same number of lanes. Anonymous namespace: see simd_scalar.h.
#pragma once

#include <stdint.h>

#include "dsp/rounding.h"
#include "dsp/simd_scalar.h"

namespace quibo {
namespace {

struct ScalarInt8 {
  using Float = ScalarF32;
  using Reg = int32_t;
  using Codes = int32_t;
  static constexpr int kLanes = 1;
  static constexpr int kTaps = 1;

  static Reg load(const int32_t* p) { return *p; }
  static void store(int32_t* p, Reg v) { *p = v; }
  static Reg splat(int32_t v) { return v; }
  static Reg add(Reg a, Reg b) {
    return static_cast<Reg>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
  }
  static Codes load_codes(const uint8_t* p) { return *p; }
  static Codes repeat_codes(const uint8_t* p) { return *p; }
  static Reg multiply_add(Reg s, Codes c, const int8_t* w) { return add(s, c * *w); }
  static Reg pair_sums(Reg a, Reg b) { return add(a, b); }
  static Reg load_bytes(const uint8_t* p) { return *p; }
  static void store_bytes(uint8_t* p, Reg v) { *p = static_cast<uint8_t>(v); }
  static Float::Reg to_float(Reg v) { return static_cast<float>(v); }
  static Reg round(Float::Reg x) { return static_cast<Reg>(x + copysignf(kBelowHalf, x)); }
};

}  // namespace
}  // namespace quibo
