// The written loop of nn/tap_loop.h for 32-bit ARM, whose sixteen registers hold four rows of eight
// positions: two taps per round, 12 instructions each, of which 8 multiply and add. The values and
// factors of a tap are under way while those of the one before are in use.
//
// For the registers of the family without exact bits only: NEON flushes denormals here.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "dsp/simd_fused.h"

namespace quibo {
namespace {

// clang-format off

// q8..q15: the sums, a row in two registers. A tap's factors lie in q0 or q3, its values in q1 and q2
// or q4 and q5.
#define QUIBO_ROW(sum_a, sum_b, a, b, factor)           \
  "vmla.f32 " sum_a ", " a ", " factor "\n"             \
  "vmla.f32 " sum_b ", " b ", " factor "\n"
#define QUIBO_TAP(a, b, low, high, step, values, factors) \
  QUIBO_ROW("q8", "q9", a, b, low "[0]") step             \
  QUIBO_ROW("q10", "q11", a, b, low "[1]") values         \
  QUIBO_ROW("q12", "q13", a, b, high "[0]") factors       \
  QUIBO_ROW("q14", "q15", a, b, high "[1]")

#define QUIBO_STEP "ldr %[step], [%[steps]], #4\n"
#define QUIBO_VALUES_A "vld1.32 {d2-d5}, [%[x]], %[step]\n"
#define QUIBO_FACTORS_A "vld1.32 {d0-d1}, [%[factors]]!\n"
#define QUIBO_VALUES_B "vld1.32 {d8-d11}, [%[x]], %[step]\n"
#define QUIBO_FACTORS_B "vld1.32 {d6-d7}, [%[factors]]!\n"
#define QUIBO_LOAD_A QUIBO_STEP QUIBO_VALUES_A QUIBO_FACTORS_A
// A tap's products, and what loads the next one, or nothing.
#define QUIBO_TAP_A(...) QUIBO_TAP("q1", "q2", "d0", "d1", __VA_ARGS__)
#define QUIBO_TAP_B(...) QUIBO_TAP("q4", "q5", "d6", "d7", __VA_ARGS__)
#define QUIBO_NEXT_A QUIBO_STEP, QUIBO_VALUES_A, QUIBO_FACTORS_A
#define QUIBO_NEXT_B QUIBO_STEP, QUIBO_VALUES_B, QUIBO_FACTORS_B
#define QUIBO_NOTHING , ,
// So that the two lists above become arguments.
#define QUIBO_EXPAND(tap, ...) tap(__VA_ARGS__)

// clang-format on

template <>
struct TapLoop<NeonFusedF32> {
  static constexpr bool kWritten = true;
  static constexpr int kRegisters = 2;

  // sums[p], of row c behind c * row_bytes, = sum over t < count of factors[4*t + c] * x[p], where x
  // moves on by steps[t] bytes behind tap t.
  static void sum(float* sums, ptrdiff_t row_bytes, const float* factors, const float* x,
                  const int32_t* steps, int count) {
    ptrdiff_t step;
    int pairs = count / 2 - 1;  // of taps, before the last
    asm volatile(
        "vmov.i32 q8, #0\nvmov.i32 q9, #0\nvmov.i32 q10, #0\nvmov.i32 q11, #0\n"
        "vmov.i32 q12, #0\nvmov.i32 q13, #0\nvmov.i32 q14, #0\nvmov.i32 q15, #0\n"
        "tst %[count], #1\n"
        "beq 1f\n" QUIBO_LOAD_A QUIBO_EXPAND(QUIBO_TAP_A, QUIBO_NOTHING)
        "1:\n"
        "cmp %[pairs], #0\n"
        "blt 4f\n" QUIBO_LOAD_A
        "beq 3f\n"
        "2:\n" QUIBO_EXPAND(QUIBO_TAP_A, QUIBO_NEXT_B) QUIBO_EXPAND(QUIBO_TAP_B, QUIBO_NEXT_A)
        "subs %[pairs], %[pairs], #1\n"
        "bne 2b\n"
        "3:\n" QUIBO_EXPAND(QUIBO_TAP_A, QUIBO_NEXT_B) QUIBO_EXPAND(QUIBO_TAP_B, QUIBO_NOTHING)
        "4:\n"
        "vst1.32 {d16-d19}, [%[sums]], %[row]\n"
        "vst1.32 {d20-d23}, [%[sums]], %[row]\n"
        "vst1.32 {d24-d27}, [%[sums]], %[row]\n"
        "vst1.32 {d28-d31}, [%[sums]], %[row]\n"
        : [factors] "+r"(factors), [x] "+r"(x), [steps] "+r"(steps), [pairs] "+r"(pairs),
          [sums] "+r"(sums), [step] "=&r"(step)
        : [count] "r"(count), [row] "r"(row_bytes)
        : "q0", "q1", "q2", "q3", "q4", "q5", "q8", "q9", "q10", "q11", "q12", "q13", "q14", "q15",
          "cc", "memory");
  }
};

#undef QUIBO_ROW
#undef QUIBO_TAP
#undef QUIBO_STEP
#undef QUIBO_VALUES_A
#undef QUIBO_FACTORS_A
#undef QUIBO_VALUES_B
#undef QUIBO_FACTORS_B
#undef QUIBO_LOAD_A
#undef QUIBO_TAP_A
#undef QUIBO_TAP_B
#undef QUIBO_NEXT_A
#undef QUIBO_NEXT_B
#undef QUIBO_NOTHING
#undef QUIBO_EXPAND

}  // namespace
}  // namespace quibo
