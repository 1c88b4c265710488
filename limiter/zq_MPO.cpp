#include "limiter/zq_MPO.h"

#include <math.h>
#include <string.h>

#include "dsp/convert.h"
#include "dsp/elementary.h"

namespace {

namespace elementary = quibo::elementary;

constexpr float kFullReductiondB = 20.0f;  // covered within one attack time

float db_to_linear(float db) {
  return elementary::exp10(db / 20.0f);
}

// Moves the line by one in two runs of eight, the second after the first: slot 9 receives what slot
// 8 has just received, so the oldest sample is 15 old, not 16: that is the look-ahead.
float push(float* xd, float newest) {
  memmove(xd + 1, xd, 8 * sizeof *xd);
  memmove(xd + 9, xd + 8, 8 * sizeof *xd);
  xd[0] = newest;
  return xd[16];
}

}  // namespace

int32_t zq_MPO_Init(stMPO* mpo, int32_t fs, int32_t increasedB, int32_t maxLev) {
  *mpo = stMPO{};
  mpo->fs = fs;
  mpo->blkSize = 32;
  mpo->voiceIncreasedB = increasedB;
  mpo->levdB = maxLev;
  mpo->gainReducedB = 20.0f;
  mpo->mpo_att = 0.0005f;
  mpo->mpo_rel = 0.1f;
  const float rate = static_cast<float>(fs);
  mpo->mpo_att_stepdB = -kFullReductiondB / (rate * mpo->mpo_att);
  mpo->mpo_rel_alpha = elementary::exp(-1.0f / (rate * mpo->mpo_rel));
  mpo->af[0] = 1.0f;
  mpo->af[1] = -1.648302674293518f;
  mpo->af[2] = 0.6872448921203613f;
  mpo->bf[1] = 0.03879033774137497f;
  mpo->gain = db_to_linear(static_cast<float>(increasedB));
  return 0;
}

int32_t zq_MPO_process(stMPO* mpo, const float* input, float* output, int16_t* Soutput,
                       int32_t len) {
  const float makeup = static_cast<float>(mpo->voiceIncreasedB);
  const float limit = static_cast<float>(mpo->levdB);
  for (int32_t n = 0; n < len; ++n) {
    // A zero sample has the level -infinity and releases.
    const float level = makeup + 20.0f * elementary::log10(fabsf(input[n])) + mpo->mpo_gaindB;
    if (limit < level) {
      const float excess = limit - level;
      mpo->mpo_gaindB += mpo->mpo_att_stepdB < excess ? excess : mpo->mpo_att_stepdB;
    } else {
      mpo->mpo_gaindB *= mpo->mpo_rel_alpha;
    }

    const float g = db_to_linear(mpo->mpo_gaindB);
    const float smoothed = mpo->bf[0] * g + mpo->zz[0];
    mpo->zz[0] = mpo->bf[1] * g + mpo->zz[1] - mpo->af[1] * smoothed;
    mpo->zz[1] = mpo->bf[2] * g - mpo->af[2] * smoothed;

    const float value = smoothed * push(mpo->xd, input[n]) * mpo->gain;
    if (output) output[n] = value;
    if (Soutput) Soutput[n] = quibo::float_to_int16(value);
  }
  return 0;
}
