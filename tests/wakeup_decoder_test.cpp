// The keyword decoder, driven by crafted posteriors.

#include "wakeup/decoder.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "wakeup/ChineseParams.h"

namespace {

using namespace quibo::wakeup;

constexpr unsigned kSeed = 20251103;
constexpr int16_t kA = 125, kB = 2, kOther = 77;

// Posteriors of one step: `p` for one class, the blank's share, the rest spread over the others.
struct Step {
  int16_t label;
  float p, blank;
};

constexpr Step silence = {kOther, 0.0f, 0.99f};
Step spoken(int16_t label, float p = 0.9f) {
  return {label, p, 0.05f};
}

class Decoder : public testing::Test {
 protected:
  void SetUp() override { build(keywords_index); }
  void TearDown() override { destroy_eword_net(&net); }

  void build(const int16_t* keywords) {
    destroy_eword_net(&net);
    NetTables tables = kCompiledTables;
    tables.keywords = keywords;
    ASSERT_EQ(0, init_eword_net(&net, tables));
    start_recog(net.pdec);
  }

  int32_t step(Step s) {
    float* p = net.dlayer->afreq;
    const float rest = (1.0f - s.p - s.blank) / 144;
    for (int i = 0; i < KWS_CLASSES; ++i) p[i] = rest;
    p[0] = 0.25f * s.blank;  // the filler counts as blank
    p[KWS_BLANK] = 0.75f * s.blank;
    p[s.label] = s.p > 0 ? s.p : rest;
    return run_decoder(&net);
  }

  // Number of wakes.
  int play(const std::vector<Step>& steps) {
    int wakes = 0;
    for (const Step& s : steps) wakes += step(s) == 0;
    return wakes;
  }

  WORD_ITEM& word(int i = 0) { return net.pdec->pWords[i]; }

  EWordNet net{};
};

// Silence first: on the very first step the start state is not yet there.
std::vector<Step> phrase(std::initializer_list<int16_t> labels, int gap) {
  std::vector<Step> steps = {silence};
  for (int16_t label : labels) {
    steps.push_back(spoken(label));
    for (int i = 0; i < gap; ++i) steps.push_back(silence);
  }
  return steps;
}

TEST_F(Decoder, FiresOnceOnThePhraseAndNotOnPartsOrOtherOrders) {
  for (int gap : {0, 1, 5, 9}) {
    EXPECT_EQ(1, play(phrase({kA, kB, kA, kB}, gap))) << gap;
    EXPECT_EQ(0, play(phrase({kA, kB, kA}, gap))) << gap;
    start_recog(net.pdec);
    EXPECT_EQ(0, play(phrase({kB, kA, kB}, gap))) << gap;
    start_recog(net.pdec);
    EXPECT_EQ(0, play(phrase({kA, kA, kB, kB}, gap))) << gap;
    start_recog(net.pdec);
    EXPECT_EQ(0, play(phrase({kA, kB, kOther, kB}, gap))) << gap;
    start_recog(net.pdec);
  }
}

TEST_F(Decoder, AWakeClearsScoresAndTime) {
  net.pdec->no_wake_time = 500;
  ASSERT_EQ(1, play(phrase({kA, kB, kA, kB}, 0)));
  EXPECT_EQ(0, net.pdec->no_wake_time);
  for (int j = 0; j < word().seqLen; ++j) EXPECT_EQ(0.0f, word().dp[j]) << j;
  EXPECT_EQ(-1, step(spoken(kB)));
}

// The score of the last syllable that makes the cost equal to `cost`.
float score_for(float cost) {
  return std::exp(-4.0f * cost);
}

TEST_F(Decoder, ThresholdIsTheTablesOnTheFirstStepThenLooserThenStricterAfterTenMinutes) {
  const auto fires_at = [&](float cost) {
    // The state before the last syllable holds the score; the step passes it on unchanged.
    for (int j = 0; j < word().seqLen; ++j) word().dp[j] = 0.0f;
    word().dp[6] = score_for(cost);
    return step({kB, 1.0f, 0.0f}) == 0;
  };
  EXPECT_FLOAT_EQ(0.6f, word().thres);
  EXPECT_FLOAT_EQ(4.0f, word().div);
  EXPECT_FALSE(fires_at(0.61f));
  EXPECT_EQ(1.2f, word().thres);
  EXPECT_FALSE(fires_at(1.21f));
  EXPECT_TRUE(fires_at(1.19f));

  build(keywords_index);
  EXPECT_TRUE(fires_at(0.59f));

  for (int i = 0; i < 20000; ++i) step(spoken(kOther));
  EXPECT_EQ(20000, net.pdec->no_wake_time);
  EXPECT_EQ(1.2f, word().thres);
  step(spoken(kOther));
  EXPECT_EQ(20000, net.pdec->no_wake_time);
  EXPECT_EQ(1.0f, word().thres);
  EXPECT_FALSE(fires_at(1.01f));
  EXPECT_TRUE(fires_at(0.99f));
  EXPECT_EQ(1.2f, word().thres);
}

TEST_F(Decoder, SilenceDecaysScoresFromTheEleventhStepAndForgetsThemAtTheTwentySixth) {
  // All classes of the chain at 1 keep the scores, so that only the decay moves them.
  const auto silent_step = [&] {
    for (int i = 0; i < KWS_CLASSES; ++i) net.dlayer->afreq[i] = 1.0f;
    net.dlayer->afreq[0] = 0.0f;
    return run_decoder(&net);
  };
  float expected = 0.5f;
  for (int i = 1; i <= 25; ++i) {
    for (int j = 1; j < word().seqLen; ++j) word().dp[j] = 0.0f;
    word().dp[0] = 0.0f;  // nothing flows in
    word().dp[5] = expected;
    silent_step();
    if (i > 15) {
      expected *= 0.8f;
    } else if (i > 10) {
      expected *= 0.9f;
    }
    ASSERT_EQ(i, net.pdec->blank_cnt);
    ASSERT_EQ(expected, word().dp[5]) << i;
    ASSERT_EQ(1.0f, word().dp[0]);
  }
  for (int j : {1, 7, 8}) {  // of all states only the trailing blank never decays
    for (int k = 0; k < word().seqLen; ++k) word().dp[k] = 0.0f;
    word().dp[j] = 0.5f;
    net.pdec->blank_cnt = 20;
    silent_step();
    EXPECT_EQ(j == 8 ? 0.5f : 0.5f * 0.8f, word().dp[j]) << j;
  }

  net.pdec->blank_cnt = 25;
  word().dp[5] = 0.5f;
  silent_step();
  EXPECT_EQ(0, net.pdec->blank_cnt);
  for (int j = 1; j < word().seqLen; ++j) EXPECT_EQ(0.0f, word().dp[j]) << j;
  net.pdec->blank_cnt = 7;
  step({kOther, 0.05f, 0.949f});
  EXPECT_EQ(0, net.pdec->blank_cnt);
}

TEST_F(Decoder, AStepOfSilenceNeverWakesUnlessTheDelayFlagIsSet) {
  word().dp[7] = 1.0f;
  word().thres = 1.2f;
  EXPECT_EQ(-1, step({kB, 0.04f, 0.96f}));
  word().dp[6] = word().dp[7] = 1.0f;
  EXPECT_EQ(0, step({kB, 0.06f, 0.94f}));

  net.pdec->delay_flag = 1;  // nothing in the engine sets it; a wake clears it
  word().dp[6] = word().dp[7] = 1.0f;
  EXPECT_EQ(0, step({kB, 0.04f, 0.96f}));
  EXPECT_EQ(0, net.pdec->delay_flag);
  net.pdec->delay_flag = 1;
  net.pdec->blank_cnt = 25;  // so does the reset after a long silence
  EXPECT_EQ(-1, step(silence));
  EXPECT_EQ(0, net.pdec->delay_flag);
}

TEST_F(Decoder, StartsWithNothingHeardAndNoCandidate) {
  EXPECT_EQ(-1, net.pdec->wake_cand);
  EXPECT_EQ(0, net.pdec->wake_hold_time);
  EXPECT_EQ(0, net.pdec->hold_time);
  EXPECT_EQ(0, net.pdec->no_wake_time);
}

TEST_F(Decoder, AKeywordWithoutSyllablesNeverFires) {
  const int16_t keywords[] = {1, 0, 120, 40, 0};
  build(keywords);
  ASSERT_EQ(1, word().seqLen);
  EXPECT_EQ(0, play(phrase({kA, kB, kA, kB}, 1)));
}

// All steps of the recursion at once, in double precision, with another skip rule for every pair.
std::vector<double> naive_forward(const std::vector<int>& labels, const std::vector<double>& dp,
                                  const float* p) {
  std::vector<double> next(dp.size());
  for (size_t j = 0; j < dp.size(); ++j) {
    const int label = labels[j];
    next[j] = dp[j] + (j > 0 ? dp[j - 1] : 0.0);
    if (j > 1 && label != 145 && label != labels[j - 2]) next[j] += dp[j - 2];
    next[j] = std::min(1.0, next[j] * p[label]);
  }
  next[0] = 1.0;
  return next;
}

TEST_F(Decoder, ScoresFollowTheForwardRecursionWithTheSkipRule) {
  // Equal neighbours (7 7) need the blank between them; different ones may skip it. A table that
  // spells a syllable as the blank has a state that nothing skips to.
  const int16_t keywords[] = {1, 3, 0, 40, 4, 7, 7, 9, 145};
  build(keywords);
  const std::vector<int> labels = {145, 7, 145, 7, 145, 9, 145, 145, 145};
  ASSERT_EQ(3, word().wd_idx);
  ASSERT_EQ(9, word().seqLen);
  for (int j = 0; j < 9; ++j) ASSERT_EQ(labels[j], word().pseq[j]);
  std::mt19937 random(kSeed);
  std::vector<double> dp(9);
  for (int t = 0; t < 300; ++t) {
    float* p = net.dlayer->afreq;
    for (int i = 0; i < KWS_CLASSES; ++i) p[i] = static_cast<float>(random() % 1000) / 1250;
    p[0] = 0.0f;  // the blank stays below 0.8: no decay
    dp = naive_forward(labels, dp, p);
    run_decoder(&net);
    net.pdec->pWords[0].thres = 0.0f;  // costs are never below
    for (int j = 0; j < 9; ++j) {
      ASSERT_NEAR(word().dp[j], dp[j], 1e-5 * dp[j] + 1e-12)
          << t << ", " << j << ", seed " << kSeed;
      ASSERT_LE(word().dp[j], 1.0f);
    }
  }
}

TEST_F(Decoder, OnlyTheFirstKeywordDecides) {
  const int16_t keywords[] = {2, 0, 60, 40, 1, kOther, 1, 60, 40, 2, kA, kB};
  build(keywords);
  ASSERT_EQ(2, net.pdec->word_num);
  EXPECT_EQ(0, play(phrase({kA, kB}, 1)));
  EXPECT_GT(word(1).dp[4], 0.5f);  // heard, and kept up to date
  EXPECT_FLOAT_EQ(0.6f, word(1).thres);
  EXPECT_EQ(1, play(phrase({kOther}, 0)));
  EXPECT_EQ(0.0f, word(1).dp[4]);
}

TEST_F(Decoder, TheFillerCountsAsBlankAndTheMergedBlankIsStored) {
  float* p = net.dlayer->afreq;
  for (int i = 0; i < KWS_CLASSES; ++i) p[i] = 0.001f;
  p[0] = 0.5f;
  p[KWS_BLANK] = 0.25f;
  run_decoder(&net);
  EXPECT_EQ(0.75f, p[KWS_BLANK]);
  EXPECT_EQ(0.5f, p[0]);
  EXPECT_EQ(0.75f, p[KWS_CLASSES + KWS_BLANK]);
  EXPECT_EQ(0.001f, p[KWS_CLASSES + 5]);
}

// Tables that are refused, and what is printed for them.
int32_t read(const std::vector<int16_t>& keywords, std::string* printed) {
  NetTables tables = kCompiledTables;
  tables.keywords = keywords.data();
  EWordNet net{};
  testing::internal::CaptureStdout();
  const int32_t result = init_eword_net(&net, tables);
  *printed = testing::internal::GetCapturedStdout();
  destroy_eword_net(&net);
  return result;
}

std::vector<int16_t> keyword_of(int16_t syllables) {
  std::vector<int16_t> table = {1, 0, 60, 40, syllables};
  for (int i = 0; i < syllables; ++i) table.push_back(static_cast<int16_t>(1 + i));
  return table;
}

TEST(KeywordTable, TakesUpToThirtyEightSyllablesAndAtLeastOneKeyword) {
  std::string printed;
  EXPECT_EQ(0, read(keyword_of(38), &printed));
  EXPECT_EQ("", printed);
  EXPECT_EQ(-1, read(keyword_of(39), &printed));
  EXPECT_EQ("word length exceeds MAX_PHONE_NUM!\nNet init error!\n", printed);
  EXPECT_EQ(-1, read(keyword_of(200), &printed));
  EXPECT_EQ("word length exceeds MAX_PHONE_NUM!\nNet init error!\n", printed);
  EXPECT_EQ(-1, read({0}, &printed));
  EXPECT_EQ("word dict is empty!\nNet init error!\n", printed);
  EXPECT_EQ(-1, read({-3}, &printed));
  EXPECT_EQ("word dict is empty!\nNet init error!\n", printed);
}

TEST_F(Decoder, TellsAnObserverWhatEachStepDecidedOn) {
  std::vector<KWS_STEP> told;
  net.pdec->observer = &told;
  net.pdec->observe = [](void* list, const KWS_STEP* step) {
    static_cast<std::vector<KWS_STEP>*>(list)->push_back(*step);
  };
  const std::vector<Step> steps = phrase({kA, kB, kA, kB}, 1);
  size_t woke_at = 0;
  for (size_t i = 0; i < steps.size() && woke_at == 0; ++i) woke_at = step(steps[i]) == 0 ? i : 0;
  ASSERT_GT(woke_at, 0u);
  ASSERT_EQ(woke_at + 1, told.size());
  for (size_t i = 0; i < told.size(); ++i) {
    EXPECT_EQ(i == woke_at, told[i].woke) << i;
    EXPECT_EQ(i == woke_at, told[i].cost < told[i].thres) << i;
  }
}

}  // namespace
