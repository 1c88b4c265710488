// The sample codec over its whole domain.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <numeric>
#include <vector>

#include "api/enc_dec_wav_data.h"

namespace {

using Samples = std::vector<int16_t>;

Samples every_sample() {
  Samples all(65536);
  std::iota(all.begin(), all.end(), INT16_MIN);
  return all;
}

Samples coded(Samples x, void (*code)(int16_t*, int32_t)) {
  code(x.data(), static_cast<int32_t>(x.size()));
  return x;
}

TEST(Codec, ScramblingAndDescramblingUndoEachOtherForEverySample) {
  const Samples all = every_sample();
  EXPECT_EQ(coded(coded(all, enc_data), dec_data), all);
  EXPECT_EQ(coded(coded(all, dec_data), enc_data), all);
}

TEST(Codec, TablesPermuteTheMagnitudesAndMoveNearlyAll) {
  for (const int16_t* table : {enc_table, dec_table}) {
    std::vector<int> values(table + 1, table + QUIBO_CODEC_BOUND + 1), sorted = values;
    std::sort(sorted.begin(), sorted.end());
    int fixed = 0;
    for (int m = 1; m <= QUIBO_CODEC_BOUND; ++m) {
      ASSERT_EQ(sorted[m - 1], m);
      fixed += values[m - 1] == m;
    }
    EXPECT_LT(fixed, 5);
    EXPECT_EQ(table[0], 0);
  }
}

TEST(Codec, SubstitutesMagnitudesUpTo4800WithTheirSignAndPassesTheRest) {
  const Samples all = every_sample();
  for (auto* code : {enc_data, dec_data}) {
    const int16_t* table = code == enc_data ? enc_table : dec_table;
    const Samples result = coded(all, code);
    for (int x = INT16_MIN; x <= INT16_MAX; ++x) {
      const int magnitude = x < 0 ? -x : x;
      const int expected = magnitude > 4800 ? x : x < 0 ? -table[magnitude] : table[magnitude];
      ASSERT_EQ(result[static_cast<size_t>(x - INT16_MIN)], expected) << x;
    }
  }
}

TEST(Codec, TouchesExactlyLenSamples) {
  for (int32_t len : {INT32_MIN, -1, 0, 1, 3}) {
    std::array<int16_t, 5> x = {7, 7, 7, 7, 7};
    enc_data(x.data() + 1, len);
    for (int i = 0; i < 5; ++i) {
      EXPECT_EQ(x[i], i >= 1 && i <= len ? enc_table[7] : 7) << "len " << len << ", sample " << i;
    }
  }
}

}  // namespace
