// The inner loop of every large product, written out for AArch64: four rows times sixteen
// positions, of one lane of the sums (float_kernels.h).
//
// A compiler takes fifty instructions per tap here, spills a sum, and where it keeps the order of
// the source each addition waits for its product. These are 39 (23 fused), and no addition follows its
// product closely, which is what processors that issue in order (Cortex-A53, A55) want: the products of a
// row stand between those of the row before and their additions, and the next tap's values are
// under way before the last additions.
#pragma once

#include <stddef.h>
#include <stdint.h>

#if defined(__aarch64__)
#include "dsp/simd_fused.h"
#endif

namespace quibo {
namespace {

// Where a register has no such loop.
template <class V>
struct TapLoop {
  static constexpr bool kWritten = false;
  static constexpr int kRegisters = 0;
};

#if defined(__aarch64__)

// v0..v3: sixteen values of a tap; v4: the four rows' factors; v16..v31: the sums, a row in four
// registers. The products of a row with what stands between them; the first row's stand alone.
#define QUIBO_PRODUCTS(row, a, b, c, d, after_a, after_b, after_c, after_d)                       \
  "fmul " a ".4s, v0.4s, v4.s[" row "]\n" after_a "fmul " b ".4s, v1.4s, v4.s[" row "]\n" after_b \
  "fmul " c ".4s, v2.4s, v4.s[" row "]\n" after_c "fmul " d ".4s, v3.4s, v4.s[" row "]\n" after_d
#define QUIBO_ADD(sum, product) "fadd " sum ".4s, " sum ".4s, " product ".4s\n"

// clang-format off
#define QUIBO_TAP(offset, address, low, high, factors)                                \
  QUIBO_PRODUCTS("0", "v5", "v6", "v7", "v8", , , , )                                 \
  offset                                                                              \
  QUIBO_PRODUCTS("1", "v9", "v10", "v11", "v12",                                      \
                 QUIBO_ADD("v16", "v5"), QUIBO_ADD("v17", "v6"),                      \
                 QUIBO_ADD("v18", "v7"), QUIBO_ADD("v19", "v8"))                      \
  address                                                                             \
  QUIBO_PRODUCTS("2", "v5", "v6", "v7", "v8",                                         \
                 QUIBO_ADD("v20", "v9"), QUIBO_ADD("v21", "v10"),                     \
                 QUIBO_ADD("v22", "v11"), QUIBO_ADD("v23", "v12"))                    \
  QUIBO_PRODUCTS("3", "v9", "v10", "v11", "v12",                                      \
                 QUIBO_ADD("v24", "v5"), QUIBO_ADD("v25", "v6"),                      \
                 QUIBO_ADD("v26", "v7"), QUIBO_ADD("v27", "v8"))                      \
  low QUIBO_ADD("v28", "v9") QUIBO_ADD("v29", "v10")                                  \
  high QUIBO_ADD("v30", "v11") factors QUIBO_ADD("v31", "v12")

#define QUIBO_FUSED(row, a, b, c, d)      \
  "fmla " a ".4s, v0.4s, v4.s[" row "]\n" \
  "fmla " b ".4s, v1.4s, v4.s[" row "]\n" \
  "fmla " c ".4s, v2.4s, v4.s[" row "]\n" \
  "fmla " d ".4s, v3.4s, v4.s[" row "]\n"
#define QUIBO_FUSED_TAP(offset, address, low, high, factors) \
  QUIBO_FUSED("0", "v16", "v17", "v18", "v19") offset        \
  QUIBO_FUSED("1", "v20", "v21", "v22", "v23") address       \
  QUIBO_FUSED("2", "v24", "v25", "v26", "v27")               \
  QUIBO_FUSED("3", "v28", "v29", "v30", "v31") low high factors

#define QUIBO_ZERO(a, b, c, d) \
  "movi v" a ".4s, #0\nmovi v" b ".4s, #0\nmovi v" c ".4s, #0\nmovi v" d ".4s, #0\n"
#define QUIBO_STORE(at, a, b) "stp q" a ", q" b ", [%[sums], #" at "]\n"
#define QUIBO_OFFSET "ldrsw %[at], [%[offset]], #16\n"
#define QUIBO_ADDRESS "add %[at], %[x], %[at], lsl #2\n"
#define QUIBO_LOW_VALUES "ldp q0, q1, [%[at]]\n"
#define QUIBO_HIGH_VALUES "ldp q2, q3, [%[at], #32]\n"
#define QUIBO_FACTORS "ld1 {v4.4s}, [%[factors]], %[step]\n"

// The last tap loads nothing beyond itself.
#define QUIBO_TAP_LOOP(tap)                                                                 \
  asm volatile(                                                                             \
      QUIBO_ZERO("16", "17", "18", "19") QUIBO_ZERO("20", "21", "22", "23")                 \
      QUIBO_ZERO("24", "25", "26", "27") QUIBO_ZERO("28", "29", "30", "31")                 \
      QUIBO_OFFSET QUIBO_ADDRESS QUIBO_LOW_VALUES QUIBO_HIGH_VALUES QUIBO_FACTORS           \
      "subs %w[count], %w[count], #1\n"                                                     \
      "b.eq 2f\n"                                                                           \
      "1:\n"                                                                                \
      tap(QUIBO_OFFSET, QUIBO_ADDRESS, QUIBO_LOW_VALUES, QUIBO_HIGH_VALUES, QUIBO_FACTORS)  \
      "subs %w[count], %w[count], #1\n"                                                     \
      "b.ne 1b\n"                                                                           \
      "2:\n"                                                                                \
      tap(, , , , )                                                                         \
      QUIBO_STORE("0", "16", "17") QUIBO_STORE("32", "18", "19")                            \
      QUIBO_STORE("64", "20", "21") QUIBO_STORE("96", "22", "23")                           \
      QUIBO_STORE("128", "24", "25") QUIBO_STORE("160", "26", "27")                         \
      QUIBO_STORE("192", "28", "29") QUIBO_STORE("224", "30", "31")                         \
      : [factors] "+r"(factors), [offset] "+r"(offset), [count] "+r"(count), [at] "=&r"(at) \
      : [x] "r"(x), [step] "r"(step_bytes), [sums] "r"(sums)                                \
      : "v0", "v1", "v2", "v3", "v4", "v5", "v6", "v7", "v8", "v9", "v10", "v11", "v12",    \
        "v16", "v17", "v18", "v19", "v20", "v21", "v22", "v23", "v24", "v25", "v26", "v27", \
        "v28", "v29", "v30", "v31", "cc", "memory")
// clang-format on

// Four rows of sixteen sums: sums[16*c + p] = sum over t < count of
//   factors[t*step + c] * x[offset[4*t] + p].
struct WrittenTapLoop {
  static constexpr bool kWritten = true;
  static constexpr int kRows = 4, kRegisters = 4;
};

template <>
struct TapLoop<NeonF32> : WrittenTapLoop {
  static void sum(float* sums, const float* factors, ptrdiff_t step, const float* x,
                  const int32_t* offset, int count) {
    const ptrdiff_t step_bytes = step * static_cast<ptrdiff_t>(sizeof(float));
    ptrdiff_t at;
    QUIBO_TAP_LOOP(QUIBO_TAP);
  }
};

template <>
struct TapLoop<NeonFusedF32> : WrittenTapLoop {
  static void sum(float* sums, const float* factors, ptrdiff_t step, const float* x,
                  const int32_t* offset, int count) {
    const ptrdiff_t step_bytes = step * static_cast<ptrdiff_t>(sizeof(float));
    ptrdiff_t at;
    QUIBO_TAP_LOOP(QUIBO_FUSED_TAP);
  }
};

#undef QUIBO_PRODUCTS
#undef QUIBO_ADD
#undef QUIBO_TAP
#undef QUIBO_FUSED
#undef QUIBO_FUSED_TAP
#undef QUIBO_ZERO
#undef QUIBO_STORE
#undef QUIBO_OFFSET
#undef QUIBO_ADDRESS
#undef QUIBO_LOW_VALUES
#undef QUIBO_HIGH_VALUES
#undef QUIBO_FACTORS
#undef QUIBO_TAP_LOOP

#endif

}  // namespace
}  // namespace quibo

#if defined(__arm__) && defined(__ARM_NEON)
#include "nn/tap_loop_arm.h"
#endif
