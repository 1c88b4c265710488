// Four lanes of two taps: WebAssembly's 128-bit SIMD. Contract in int8_scalar.h.
#pragma once

#include <string.h>

#include "dsp/int8_scalar.h"
#include "dsp/simd_wasm.h"

namespace quibo {
namespace {

struct WasmInt8 {
  using Float = WasmF32;
  using Reg = v128_t;
  using Codes = v128_t;  // widened to 16 bits, as the multiply-add takes them
  static constexpr int kLanes = 4;
  static constexpr int kTaps = 2;

  static Reg load(const int32_t* p) { return wasm_v128_load(p); }
  static void store(int32_t* p, Reg v) { wasm_v128_store(p, v); }
  static Reg splat(int32_t v) { return wasm_i32x4_splat(v); }
  static Reg add(Reg a, Reg b) { return wasm_i32x4_add(a, b); }
  static Codes load_codes(const uint8_t* p) { return wasm_u16x8_load8x8(p); }
  static Codes repeat_codes(const uint8_t* p) {
    return wasm_u16x8_extend_low_u8x16(wasm_v128_load16_splat(p));
  }
  static Reg multiply_add(Reg s, Codes c, const int8_t* w) {
    return wasm_i32x4_add(s, wasm_i32x4_dot_i16x8(c, wasm_i16x8_load8x8(w)));
  }
  static Reg pair_sums(Reg a, Reg b) {
    return wasm_i32x4_add(wasm_i32x4_shuffle(a, b, 0, 2, 4, 6),
                          wasm_i32x4_shuffle(a, b, 1, 3, 5, 7));
  }
  static Reg load_bytes(const uint8_t* p) {
    return wasm_u32x4_extend_low_u16x8(wasm_u16x8_extend_low_u8x16(wasm_v128_load32_zero(p)));
  }
  static void store_bytes(uint8_t* p, Reg v) {
    const v128_t words = wasm_i16x8_narrow_i32x4(v, v);
    const int32_t four = wasm_i32x4_extract_lane(wasm_u8x16_narrow_i16x8(words, words), 0);
    memcpy(p, &four, sizeof four);
  }
  static Float::Reg to_float(Reg v) { return wasm_f32x4_convert_i32x4(v); }
  static Reg round(Float::Reg x) {
    const v128_t sign = wasm_v128_and(x, wasm_f32x4_splat(-0.0f));
    return wasm_i32x4_trunc_sat_f32x4(
        wasm_f32x4_add(x, wasm_v128_or(sign, wasm_f32x4_splat(kBelowHalf))));
  }
};

}  // namespace
}  // namespace quibo
