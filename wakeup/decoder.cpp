#include "wakeup/decoder.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "dsp/elementary.h"
#include "dsp/memory.h"
#include "wakeup/quantised.h"

namespace quibo::wakeup {
namespace {

// Scratch: the syllables of the entry being read. Shared by all engines, on purpose.
int16_t syl_arr[157];

constexpr int kFiller = 0;
constexpr float kFillerDamping = 0.9f, kBlankDamping = 0.95f;

constexpr float kBlankStep = 0.95f;  // blank score above which a step counts as silent
constexpr int kResetSteps = 25;      // silent steps after which all scores are forgotten
constexpr int kFastDecaySteps = 15, kSlowDecaySteps = 10;
constexpr float kFastDecay = 0.8f, kSlowDecay = 0.9f;

constexpr float kScoreFloor = 1e-8f;
constexpr float kThreshold = 1.2f;
constexpr float kStrictThreshold = 1.0f;  // after ten minutes without a wake
constexpr int kStrictSteps = 20000;

// Sums of paths that stay, advance by one state, or skip the blank between two different syllables.
// Downward, so that the lower states still hold the previous step's scores.
void forward(WORD_ITEM* word, const float* posteriors) {
  for (int j = word->seqLen - 1; j >= 0; --j) {
    const int16_t label = word->pseq[j];
    float score = word->dp[j];
    if (j >= 1) score += word->dp[j - 1];
    if (j >= 2 && label != KWS_BLANK && word->pseq[j - 2] != label) score += word->dp[j - 2];
    score *= posteriors[label];
    word->dp[j] = score > 1.0f ? 1.0f : score;
  }
  word->dp[0] = 1.0f;
}

void decay(WORD_ITEM* word, float factor) {
  for (int j = 1; j <= word->seqLen - 2; ++j) word->dp[j] *= factor;
}

// The last syllable's, not the trailing blank's.
float cost(const WORD_ITEM* word) {
  const float score = word->seqLen >= 2 ? word->dp[word->seqLen - 2] : 0.0f;
  return -elementary::log(score + kScoreFloor) / word->div;
}

int32_t wake(DECODER* decoder) {
  decoder->no_wake_time = 0;
  decoder->pWords[0].thres = kThreshold;
  start_recog(decoder);
  return 0;
}

int32_t no_wake(DECODER* decoder) {
  ++decoder->no_wake_time;
  if (decoder->no_wake_time <= kStrictSteps) {
    decoder->pWords[0].thres = kThreshold;
  } else {
    decoder->no_wake_time = kStrictSteps;
    decoder->pWords[0].thres = kStrictThreshold;
  }
  return -1;
}

}  // namespace

int32_t read_word_from_customer_dict(DECODER* decoder, const int16_t* table) {
  const int count = *table++;
  if (count < 1) {
    printf("word dict is empty!\n");
    return -1;
  }
  decoder->pWords = allocate<WORD_ITEM>(count);
  if (!decoder->pWords) {
    printf("memory error!\n");
    return -1;
  }
  decoder->word_num = count;
  for (int i = 0; i < count; ++i) {
    WORD_ITEM* word = &decoder->pWords[i];
    word->wd_idx = *table++;
    word->thres = *table++ * 0.01f;
    word->div = *table++ * 0.1f;
    const int syllables = *table++;
    if (syllables < 0 || syllables > KWS_MAX_SYLLABLES) {
      printf("word length exceeds MAX_PHONE_NUM!\n");
      return -1;
    }
    copy(syl_arr, table, syllables);
    table += syllables;
    word->seqLen = static_cast<int16_t>(2 * syllables + 1);
    word->dp = allocate<float>(word->seqLen);
    if (!word->dp) {
      printf("read dict: dp memory alloc error!\n");
      return -1;
    }
    for (int k = 0; k < syllables; ++k) {
      word->pseq[2 * k] = KWS_BLANK;
      word->pseq[2 * k + 1] = syl_arr[k];
    }
    word->pseq[2 * syllables] = KWS_BLANK;
  }
  return 0;
}

void destroy_decoder(DECODER* decoder) {
  if (!decoder) return;
  for (int i = 0; i < decoder->word_num; ++i) free(decoder->pWords[i].dp);
  free(decoder->pWords);
  free(decoder);
}

void reset_decoder(DECODER* decoder) {
  for (int i = 0; i < decoder->word_num; ++i) {
    WORD_ITEM* word = &decoder->pWords[i];
    memset(word->dp, 0, static_cast<size_t>(word->seqLen) * sizeof(float));
  }
}

void start_recog(DECODER* decoder) {
  reset_decoder(decoder);
  decoder->blank_cnt = 0;
  decoder->delay_flag = 0;
}

void post_score_augument(EWordNet* net) {
  const LAYER_CONV_1D_INT8* last = net->fc_conv;
  float* scores = net->dlayer->afreq;
  for (int i = 0; i < KWS_CLASSES; ++i) {
    scores[i] = dequantise(net->dlayer->out2[i], last->qo_zero_point, last->scale);
  }
  if (scores[kFiller] > 0.0f) scores[kFiller] *= kFillerDamping;
  if (scores[KWS_BLANK] > 0.0f) scores[KWS_BLANK] *= kBlankDamping;
  softmax(scores, KWS_CLASSES);
}

int32_t run_decoder(EWordNet* net) {
  DECODER* decoder = net->pdec;
  float* posteriors = net->dlayer->afreq;
  float* kept = posteriors + KWS_CLASSES;
  const float blank = posteriors[KWS_BLANK] + posteriors[kFiller];
  posteriors[KWS_BLANK] = blank;
  copy(kept, posteriors, KWS_CLASSES);

  const bool silent = blank > kBlankStep;
  if (!silent) {
    decoder->blank_cnt = 0;
  } else if (++decoder->blank_cnt > kResetSteps) {
    start_recog(decoder);
  }

  bool fired = false;
  float reached = 0.0f;  // cost of keyword 0
  for (int i = 0; i < decoder->word_num; ++i) {
    WORD_ITEM* word = &decoder->pWords[i];
    if (word->seqLen > KWS_MAX_STATES) continue;
    forward(word, kept);
    if (decoder->blank_cnt > kFastDecaySteps) {
      decay(word, kFastDecay);
    } else if (decoder->blank_cnt > kSlowDecaySteps) {
      decay(word, kSlowDecay);
    }
    // Only the first keyword decides; the others are kept up to date, on purpose.
    if (i == 0) {
      reached = cost(word);
      fired = reached < word->thres;
    }
  }
  // With delay_flag always 0, a silent step never wakes.
  const bool woke = fired && !(silent && decoder->delay_flag == 0);
  if (decoder->observe) {
    const KWS_STEP step = {kept, reached, decoder->pWords[0].thres, woke};
    decoder->observe(decoder->observer, &step);
  }
  return woke ? wake(decoder) : no_wake(decoder);
}

}  // namespace quibo::wakeup
