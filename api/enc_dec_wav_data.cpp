#include "api/enc_dec_wav_data.h"

namespace {

constexpr int kBound = QUIBO_CODEC_BOUND;

static_assert(sizeof enc_table == (kBound + 1) * sizeof(int16_t), "one entry per magnitude");

void substitute(int16_t* samples, int32_t len, const int16_t* table) {
  for (int32_t i = 0; i < len; ++i) {
    const int x = samples[i];
    if (x == 0 || x < -kBound || x > kBound) continue;
    const int y = x > 0 ? table[x] : -table[-x];
    samples[i] = static_cast<int16_t>(y);  // -(-32768) keeps its low 16 bits
  }
}

}  // namespace

void enc_data(int16_t* indata, int32_t len) {
  substitute(indata, len, enc_table);
}

void dec_data(int16_t* indata, int32_t len) {
  substitute(indata, len, dec_table);
}
