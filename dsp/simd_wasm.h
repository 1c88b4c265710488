// Four lanes: WebAssembly's 128-bit SIMD. Contract in simd_scalar.h.
#pragma once

#include <wasm_simd128.h>

#include "dsp/simd_scalar.h"

namespace quibo {
namespace {

struct WasmF32 {
  using Four = WasmF32;
  using Reg = v128_t;
  static constexpr int kWidth = 4;
  static constexpr int kRegisters = 16;

  static Reg load(const float* p) { return wasm_v128_load(p); }
  static void store(float* p, Reg v) { wasm_v128_store(p, v); }
  static Reg splat(float v) { return wasm_f32x4_splat(v); }
  static Reg add(Reg a, Reg b) { return wasm_f32x4_add(a, b); }
  static Reg sub(Reg a, Reg b) { return wasm_f32x4_sub(a, b); }
  static Reg mul(Reg a, Reg b) { return wasm_f32x4_mul(a, b); }
  static Reg mul_add(Reg sum, Reg a, Reg b) { return add(sum, mul(a, b)); }
  static Reg div(Reg a, Reg b) { return wasm_f32x4_div(a, b); }
  static Reg sqrt(Reg a) { return wasm_f32x4_sqrt(a); }
  static Reg larger(Reg a, Reg b) { return wasm_f32x4_pmax(b, a); }   // b < a ? a : b
  static Reg smaller(Reg a, Reg b) { return wasm_f32x4_pmin(b, a); }  // a < b ? a : b
  static Reg where_greater(Reg a, Reg b, Reg x, Reg y) {
    return wasm_v128_bitselect(x, y, wasm_f32x4_gt(a, b));
  }
  static Reg shift_to_exponent(Reg a) { return wasm_i32x4_shl(a, 23); }
  static void transpose(Reg& a, Reg& b, Reg& c, Reg& d) {
    const Reg ab0 = wasm_i32x4_shuffle(a, b, 0, 4, 1, 5),
              ab2 = wasm_i32x4_shuffle(a, b, 2, 6, 3, 7);
    const Reg cd0 = wasm_i32x4_shuffle(c, d, 0, 4, 1, 5),
              cd2 = wasm_i32x4_shuffle(c, d, 2, 6, 3, 7);
    a = wasm_i64x2_shuffle(ab0, cd0, 0, 2);
    b = wasm_i64x2_shuffle(ab0, cd0, 1, 3);
    c = wasm_i64x2_shuffle(ab2, cd2, 0, 2);
    d = wasm_i64x2_shuffle(ab2, cd2, 1, 3);
  }
  static float fold(Reg a) {
    const Reg pair = add(a, wasm_i64x2_shuffle(a, a, 1, 1));
    return wasm_f32x4_extract_lane(pair, 0) + wasm_f32x4_extract_lane(pair, 1);
  }
  static void load_pairs(const float* p, Reg& re, Reg& im) {
    const Reg a = load(p), b = load(p + 4);
    re = wasm_i32x4_shuffle(a, b, 0, 2, 4, 6);
    im = wasm_i32x4_shuffle(a, b, 1, 3, 5, 7);
  }
  static void store_pairs(float* p, Reg re, Reg im) {
    store(p, wasm_i32x4_shuffle(re, im, 0, 4, 1, 5));
    store(p + 4, wasm_i32x4_shuffle(re, im, 2, 6, 3, 7));
  }
  static Reg reverse(Reg v) { return wasm_i32x4_shuffle(v, v, 3, 2, 1, 0); }
  template <int count>
  static Reg lead(Reg a, Reg b) {
    return count == 1 ? wasm_i32x4_shuffle(a, b, 0, 5, 6, 7) : a;
  }
  static Reg load_repeat4(const float* p) { return wasm_v128_load32_splat(p); }
  static void store_columns(float* p, Reg y0, Reg y1, Reg y2, Reg y3) {
    transpose(y0, y1, y2, y3);
    store_quads(p, y0, y1, y2, y3);
  }
  static void store_quads(float* p, Reg y0, Reg y1, Reg y2, Reg y3) {
    store(p, y0);
    store(p + 4, y1);
    store(p + 8, y2);
    store(p + 12, y3);
  }
};

}  // namespace
}  // namespace quibo
