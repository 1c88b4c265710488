// The inner loop of every large product, written out for ARM: a lane of the sums (float_kernels.h) of four
// rows times sixteen positions (AArch64) or eight (32-bit ARM).
//
// Of the instructions per tap 32 multiply and add on AArch64, 16 fused, and two and a half do something else. The values of
// a tap are under way while those of the one before are in use, and no addition follows its product
// closely, which is what processors that issue in order (Cortex-A53, A55) want.
//
// A sum begins with its first product instead of zero. That is the same unless all products are -0, and
// then it is the same once a bias that is not -0 is added: see unsigned_zero().
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "dsp/kernels.h"
#include "dsp/simd_scalar.h"

#if defined(__ARM_NEON)
#include "dsp/simd_fused.h"
#endif

namespace quibo {
namespace {

// Where a register has no such loop.
template <class V>
struct TapLoop {
  static constexpr bool kWritten = false;
};

// Where a register has no loop for the recurrent half of a frequency block (nn/gru_kernels.h).
template <class V>
struct RecurrentLoop {
  static constexpr bool kWritten = false;
};

// A bias behind sums of a written loop.
template <class V>
typename V::Reg unsigned_zero(typename V::Reg bias) {
  if constexpr (TapLoop<V>::kWritten) return V::add(bias, V::splat(0.0f));
  return bias;
}

template <class V, int kMaxTaps>
class WrittenTaps;

#if defined(__ARM_NEON)

// What a written loop reads beside the values: lane after lane the factors of each tap's rows, and the
// way from its values to the next tap's. The loops read ahead, hence the room at the ends.
template <class V, int kMaxTaps>
class WrittenTaps {
 public:
  static constexpr int kRows = 4, kLanes = kSumLanes<V>;

  void set_places(const int32_t* offsets, int taps) {
    const int count = count_ = taps / kLanes;
    for (int l = 0; l < kLanes; ++l) {
      first_[l] = offsets[l];
      int32_t* steps = steps_ + l * count;
      for (int t = 0; t + 1 < count; ++t) {
        steps[t] = (offsets[(t + 1) * kLanes + l] - offsets[t * kLanes + l]) * 4;  // bytes
      }
      steps[count - 1] = 0;  // what is read ahead is the last tap again
    }
  }

  // The factors of row c: weight[c * row_stride ..].
  void set_rows(const float* weight, ptrdiff_t row_stride) {
    const float *row0 = weight, *row1 = row0 + row_stride, *row2 = row1 + row_stride,
                *row3 = row2 + row_stride;
    const int count = count_;
    float* to = factors_;
    int t = 0;
    if constexpr (kLanes == 1) {
      for (; t < count; t += 4, to += 4 * kRows) {
        V::store_columns(to, V::load(row0 + t), V::load(row1 + t), V::load(row2 + t),
                         V::load(row3 + t));
      }
    } else {
      const ptrdiff_t lane = kRows * count;
      for (; t + 4 <= count; t += 4, to += 4 * kRows) {
        const float32x4x4_t a = vld4q_f32(row0 + 4 * t), b = vld4q_f32(row1 + 4 * t),
                            c = vld4q_f32(row2 + 4 * t), d = vld4q_f32(row3 + 4 * t);
        for (int l = 0; l < 4; ++l) {
          V::store_columns(to + l * lane, a.val[l], b.val[l], c.val[l], d.val[l]);
        }
      }
      for (; t < count; ++t, to += kRows) {
        for (int l = 0; l < 4; ++l) {
          float* at = to + l * lane;
          at[0] = row0[4 * t + l], at[1] = row1[4 * t + l];
          at[2] = row2[4 * t + l], at[3] = row3[4 * t + l];
        }
      }
    }
  }

  // The factors of tap j: column[j * tap_stride ..].
  void set_columns(const float* column, ptrdiff_t tap_stride) {
    for (int t = 0; t < count_; ++t) {
      for (int l = 0; l < kLanes; ++l, column += tap_stride) {
        V::store(factors_ + kRows * (l * count_ + t), V::load(column));
      }
    }
  }

  // The sums of lane l: those of row c at sums + c * row_stride.
  [[gnu::always_inline]] void sum(float* sums, ptrdiff_t row_stride, const float* x, int l) const {
    TapLoop<V>::sum(sums, row_stride * kFloatBytes, factors_ + kRows * l * count_, x + first_[l],
                    steps_ + l * count_, count_);
  }

 private:
  static constexpr ptrdiff_t kFloatBytes = sizeof(float);

  int count_;  // of each lane
  int32_t first_[kLanes];
  alignas(64) float factors_[kRows * (kMaxTaps + 2)];
  int32_t steps_[kMaxTaps + 2];
};

#endif

#if defined(__aarch64__)

// clang-format off

// v0..v3 and v4..v7: sixteen values of a tap, and of the next one; v8..v11: the four rows' factors of four
// taps; v12..v15: products; v16..v31: the sums, a row in four registers.
#define QUIBO_ROW(op, row, s0, s1, s2, s3, x0, x1, x2, x3, factors) \
  op " " s0 ".4s, " x0 ".4s, " factors ".s[" row "]\n"              \
  op " " s1 ".4s, " x1 ".4s, " factors ".s[" row "]\n"              \
  op " " s2 ".4s, " x2 ".4s, " factors ".s[" row "]\n"              \
  op " " s3 ".4s, " x3 ".4s, " factors ".s[" row "]\n"
#define QUIBO_ROWS(op, after_0, after_1, ...)                        \
  QUIBO_ROW(op, "0", "v16", "v17", "v18", "v19", __VA_ARGS__) after_0 \
  QUIBO_ROW(op, "1", "v20", "v21", "v22", "v23", __VA_ARGS__) after_1 \
  QUIBO_ROW(op, "2", "v24", "v25", "v26", "v27", __VA_ARGS__)        \
  QUIBO_ROW(op, "3", "v28", "v29", "v30", "v31", __VA_ARGS__)

// A tap: its products are added to the sums, and what is loaded meanwhile.
#define QUIBO_FUSED_TAP(values, steps, factors, ...) \
  values QUIBO_ROWS("fmla", steps, factors, __VA_ARGS__)

#define QUIBO_ADD(sum, product) "fadd " sum ".4s, " sum ".4s, " product ".4s\n"
#define QUIBO_NEXT(row, sum, product, x, factors) \
  QUIBO_ADD(sum, product) "fmul " product ".4s, " x ".4s, " factors ".s[" row "]\n"
// The products of a row, each behind the addition of the row before's that had its register.
#define QUIBO_NEXT_ROW(row, s0, s1, s2, s3, x0, x1, x2, x3, factors)                    \
  QUIBO_NEXT(row, s0, "v12", x0, factors) QUIBO_NEXT(row, s1, "v13", x1, factors)       \
  QUIBO_NEXT(row, s2, "v14", x2, factors) QUIBO_NEXT(row, s3, "v15", x3, factors)
#define QUIBO_EXACT_TAP(values, steps, factors, ...)                                    \
  values QUIBO_ROW("fmul", "0", "v12", "v13", "v14", "v15", __VA_ARGS__) steps          \
  QUIBO_NEXT_ROW("1", "v16", "v17", "v18", "v19", __VA_ARGS__) factors                  \
  QUIBO_NEXT_ROW("2", "v20", "v21", "v22", "v23", __VA_ARGS__)                          \
  QUIBO_NEXT_ROW("3", "v24", "v25", "v26", "v27", __VA_ARGS__)                          \
  QUIBO_ADD("v28", "v12") QUIBO_ADD("v29", "v13") QUIBO_ADD("v30", "v14") QUIBO_ADD("v31", "v15")

#define QUIBO_A "v0", "v1", "v2", "v3"
#define QUIBO_B "v4", "v5", "v6", "v7"
#define QUIBO_LOAD_A(step) "ld1 {v0.4s-v3.4s}, [%[x]], %[" step "]\n"
#define QUIBO_LOAD_B(step) "ld1 {v4.4s-v7.4s}, [%[x]], %[" step "]\n"
#define QUIBO_FACTOR "ldr q8, [%[factors]], #16\n"
#define QUIBO_FACTORS_01 "ldp q8, q9, [%[factors]], #32\n"
#define QUIBO_FACTORS_23 "ldp q10, q11, [%[factors]], #32\n"
#define QUIBO_STEP "ldrsw %[even], [%[steps]], #4\n"
#define QUIBO_STEPS "ldpsw %[even], %[odd], [%[steps]], #8\n"
#define QUIBO_FIRST_TAP QUIBO_ROWS("fmul", , , QUIBO_A, "v8")
#define QUIBO_STORE(from, to) "st1 {v" from ".4s-v" to ".4s}, [%[sums]], %[row]\n"

// Four taps at a time. Where their number is a multiple of four, the first one takes its place among
// them (1f); otherwise those left over come first, one by one.
#define QUIBO_TAP_LOOP(TAP)                                                                \
  asm volatile(                                                                            \
      "ands %w[left], %w[count], #3\n"                                                     \
      "lsr %w[count], %w[count], #2\n"                                                     \
      "b.eq 4f\n"                                                                          \
      QUIBO_STEP QUIBO_LOAD_A("even") QUIBO_FACTOR QUIBO_FIRST_TAP                         \
      "b 3f\n"                                                                             \
      "2:\n"                                                                               \
      QUIBO_STEP QUIBO_LOAD_A("even") QUIBO_FACTOR TAP(, , , QUIBO_A, "v8")                \
      "3:\n"                                                                               \
      "subs %w[left], %w[left], #1\n"                                                      \
      "b.ne 2b\n"                                                                          \
      "cbz %w[count], 5f\n"                                                                \
      QUIBO_STEPS QUIBO_LOAD_A("even") QUIBO_FACTORS_01                                    \
      "b 0f\n"                                                                             \
      "4:\n"                                                                               \
      QUIBO_STEPS QUIBO_LOAD_A("even") QUIBO_FACTORS_01 QUIBO_LOAD_B("odd") QUIBO_STEPS    \
      QUIBO_FACTORS_23 QUIBO_FIRST_TAP                                                     \
      "b 1f\n"                                                                             \
      "0:\n"                                                                               \
      TAP(QUIBO_LOAD_B("odd"), QUIBO_STEPS, QUIBO_FACTORS_23, QUIBO_A, "v8")               \
      "1:\n"                                                                               \
      TAP(QUIBO_LOAD_A("even"), , , QUIBO_B, "v9")                                         \
      TAP(QUIBO_LOAD_B("odd"), QUIBO_STEPS, QUIBO_FACTORS_01, QUIBO_A, "v10")              \
      TAP(QUIBO_LOAD_A("even"), , , QUIBO_B, "v11")                                        \
      "subs %w[count], %w[count], #1\n"                                                    \
      "b.ne 0b\n"                                                                          \
      "5:\n"                                                                               \
      QUIBO_STORE("16", "19") QUIBO_STORE("20", "23")                                      \
      QUIBO_STORE("24", "27") QUIBO_STORE("28", "31")                                      \
      : [factors] "+r"(factors), [x] "+r"(x), [steps] "+r"(steps), [count] "+r"(count),    \
        [sums] "+r"(sums), [left] "=&r"(left), [even] "=&r"(even), [odd] "=&r"(odd)        \
      : [row] "r"(row_bytes)                                                               \
      : "v0", "v1", "v2", "v3", "v4", "v5", "v6", "v7", "v8", "v9", "v10", "v11", "v12",   \
        "v13", "v14", "v15", "v16", "v17", "v18", "v19", "v20", "v21", "v22", "v23",       \
        "v24", "v25", "v26", "v27", "v28", "v29", "v30", "v31", "cc", "memory")

// clang-format on

// sums[p], of row c behind c * row_bytes, = sum over t < count of factors[4*t + c] * x[p], where x moves
// on by steps[t] bytes behind tap t.
struct WrittenTapLoop {
  static constexpr bool kWritten = true;
  static constexpr int kRegisters = 4;
};

template <>
struct TapLoop<NeonF32> : WrittenTapLoop {
  [[gnu::always_inline]] static void sum(float* sums, ptrdiff_t row_bytes, const float* factors,
                                         const float* x, const int32_t* steps, int count) {
    int left;
    ptrdiff_t even, odd;
    QUIBO_TAP_LOOP(QUIBO_EXACT_TAP);
  }
};

template <>
struct TapLoop<NeonFusedF32> : WrittenTapLoop {
  [[gnu::always_inline]] static void sum(float* sums, ptrdiff_t row_bytes, const float* factors,
                                         const float* x, const int32_t* steps, int count) {
    int left;
    ptrdiff_t even, odd;
    QUIBO_TAP_LOOP(QUIBO_FUSED_TAP);
  }
};

// ---- The recurrent half of a frequency block ---------------------------------------------------

// clang-format off

// v0..v3: sixteen rows of one column of weights; v4..v7: those of the next one; v8, v9: by turns both columns'
// states of both steps; v12..v15: products; v16..v31: the sums. Behind the last use of a column the next
// one's weights are loaded.
#define QUIBO_FUSED_COLUMNS(factors)                                               \
  QUIBO_ROW("fmla", "0", "v16", "v17", "v18", "v19", "v0", "v1", "v2", "v3", factors) \
  QUIBO_ROW("fmla", "1", "v20", "v21", "v22", "v23", "v0", "v1", "v2", "v3", factors) \
  QUIBO_LOAD_COLUMN("0", "3")                                                      \
  QUIBO_ROW("fmla", "2", "v16", "v17", "v18", "v19", "v4", "v5", "v6", "v7", factors) \
  QUIBO_ROW("fmla", "3", "v20", "v21", "v22", "v23", "v4", "v5", "v6", "v7", factors) \
  QUIBO_LOAD_COLUMN("4", "7")
#define QUIBO_EXACT_COLUMNS(factors)                                                    \
  QUIBO_ROW("fmul", "0", "v12", "v13", "v14", "v15", "v0", "v1", "v2", "v3", factors)   \
  QUIBO_NEXT_ROW("1", "v16", "v17", "v18", "v19", "v0", "v1", "v2", "v3", factors)      \
  QUIBO_LOAD_COLUMN("0", "3")                                                           \
  QUIBO_NEXT_ROW("2", "v20", "v21", "v22", "v23", "v4", "v5", "v6", "v7", factors)      \
  QUIBO_NEXT_ROW("3", "v24", "v25", "v26", "v27", "v4", "v5", "v6", "v7", factors)      \
  QUIBO_LOAD_COLUMN("4", "7")                                                           \
  QUIBO_ADD("v28", "v12") QUIBO_ADD("v29", "v13") QUIBO_ADD("v30", "v14") QUIBO_ADD("v31", "v15")

#define QUIBO_LOAD_COLUMN(from, to) "ld1 {v" from ".4s-v" to ".4s}, [%[w]], %[column]\n"
#define QUIBO_STATES(to) "ldr q" to ", [%[h]], #16\n"
#define QUIBO_LOAD_SUMS(at, low, high)                    \
  "ld1 {v" low ".4s-v" high ".4s}, [%[" at "]], %[apart]\n"
#define QUIBO_RECURRENT_LOOP(COLUMNS, load_high, fold)                                  \
  asm volatile(                                                                         \
      QUIBO_LOAD_SUMS("start", "16", "19") QUIBO_LOAD_SUMS("start", "20", "23") load_high \
      QUIBO_STATES("8") QUIBO_LOAD_COLUMN("0", "3") QUIBO_LOAD_COLUMN("4", "7")         \
      "1:\n"                                                                            \
      QUIBO_STATES("9") COLUMNS("v8") QUIBO_STATES("8") COLUMNS("v9")                   \
      "subs %w[count], %w[count], #2\n"                                                 \
      "b.ne 1b\n" fold                                                                  \
      "st1 {v16.4s-v19.4s}, [%[sums]], %[row]\n"                                        \
      "st1 {v20.4s-v23.4s}, [%[sums]]\n"                                                \
      : [sums] "+r"(sums), [start] "+r"(start), [high] "+r"(high), [w] "+r"(w),         \
        [h] "+r"(h), [count] "+r"(count)                                                \
      : [apart] "r"(apart_bytes), [row] "r"(row_bytes), [column] "r"(column_bytes)      \
      : "v0", "v1", "v2", "v3", "v4", "v5", "v6", "v7", "v8", "v9", "v12", "v13",       \
        "v14", "v15", "v16", "v17", "v18", "v19", "v20", "v21", "v22", "v23", "v24",    \
        "v25", "v26", "v27", "v28", "v29", "v30", "v31", "cc", "memory")
#define QUIBO_FOLD                                                                      \
  QUIBO_ADD("v16", "v24") QUIBO_ADD("v17", "v25") QUIBO_ADD("v18", "v26") QUIBO_ADD("v19", "v27") \
  QUIBO_ADD("v20", "v28") QUIBO_ADD("v21", "v29") QUIBO_ADD("v22", "v30") QUIBO_ADD("v23", "v31")

// clang-format on

// Sixteen rows of the sums of two steps: what `start` has (the second step's `apart` floats behind the
// first's) and the products of H columns of weights, `stripe` floats apart, with the states that
// arrange() has put in order. They go to sums[0 ..] and sums[row_stride ..].
template <>
struct RecurrentLoop<NeonF32> {
  static constexpr bool kWritten = true;

  // The states i .. i+3 of both steps. Lanes 0 and 2 of a sum come first, then lanes 1 and 3.
  template <int H>
  static void arrange(float* states, int i, float32x4_t step0, float32x4_t step1) {
    vst1q_f32(states + i, vtrn1q_f32(step0, step1));
    vst1q_f32(states + H + i, vtrn2q_f32(step0, step1));
  }

  // The sums of a lane lie `lanes` floats behind those of the one before.
  template <int H>
  static void sum(float* sums, ptrdiff_t row_stride, const float* start, ptrdiff_t apart,
                  ptrdiff_t lanes, const float* weights, ptrdiff_t stripe, const float* states) {
    alignas(16) float even[2 * 16];
    half<H>(even, 16, start, start + 2 * lanes, apart, weights, stripe, states);
    half<H>(sums, row_stride, start + lanes, start + 3 * lanes, apart, weights + stripe, stripe,
            states + H);
    for (int i = 0; i < 16; i += 4) {
      vst1q_f32(sums + i, vaddq_f32(vld1q_f32(even + i), vld1q_f32(sums + i)));
      float* second = sums + row_stride + i;
      vst1q_f32(second, vaddq_f32(vld1q_f32(even + 16 + i), vld1q_f32(second)));
    }
  }

 private:
  template <int H>
  static void half(float* sums, ptrdiff_t row_stride, const float* start, const float* high,
                   ptrdiff_t apart, const float* w, ptrdiff_t stripe, const float* h) {
    const ptrdiff_t row_bytes = 4 * row_stride, apart_bytes = 4 * apart, column_bytes = 8 * stripe;
    int count = H / 4;  // columns of each lane
    QUIBO_RECURRENT_LOOP(QUIBO_EXACT_COLUMNS,
                         QUIBO_LOAD_SUMS("high", "24", "27") QUIBO_LOAD_SUMS("high", "28", "31"),
                         QUIBO_FOLD);
  }
};

template <>
struct RecurrentLoop<NeonFusedF32> {
  static constexpr bool kWritten = true;

  template <int H>
  static void arrange(float* states, int i, float32x4_t step0, float32x4_t step1) {
    vst1q_f32(states + 2 * i, vzip1q_f32(step0, step1));
    vst1q_f32(states + 2 * i + 4, vzip2q_f32(step0, step1));
  }

  template <int H>
  static void sum(float* sums, ptrdiff_t row_stride, const float* start, ptrdiff_t apart, ptrdiff_t,
                  const float* w, ptrdiff_t stripe, const float* h) {
    const ptrdiff_t row_bytes = 4 * row_stride, apart_bytes = 4 * apart, column_bytes = 4 * stripe;
    const float* high = nullptr;
    int count = H / 2;  // pairs of columns
    QUIBO_RECURRENT_LOOP(QUIBO_FUSED_COLUMNS, , );
  }
};

#undef QUIBO_ROW
#undef QUIBO_ROWS
#undef QUIBO_FUSED_TAP
#undef QUIBO_ADD
#undef QUIBO_NEXT
#undef QUIBO_NEXT_ROW
#undef QUIBO_EXACT_TAP
#undef QUIBO_A
#undef QUIBO_B
#undef QUIBO_LOAD_A
#undef QUIBO_LOAD_B
#undef QUIBO_FACTOR
#undef QUIBO_FACTORS_01
#undef QUIBO_FACTORS_23
#undef QUIBO_STEP
#undef QUIBO_STEPS
#undef QUIBO_FIRST_TAP
#undef QUIBO_STORE
#undef QUIBO_TAP_LOOP
#undef QUIBO_FUSED_COLUMNS
#undef QUIBO_EXACT_COLUMNS
#undef QUIBO_LOAD_COLUMN
#undef QUIBO_STATES
#undef QUIBO_LOAD_SUMS
#undef QUIBO_RECURRENT_LOOP
#undef QUIBO_FOLD

#endif

}  // namespace
}  // namespace quibo

#if defined(__arm__) && defined(__ARM_NEON)
#include "nn/tap_loop_arm.h"
#endif
