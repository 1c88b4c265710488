// The wake-up engine's interface: creation, failures, clearing, release, the handle's wrapper; and
// the parameter file that is compiled in.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <vector>

#include "support/allocation.h"
#include "support/variants.h"
#include "wakeup/ChineseConv.h"
#include "wakeup/ChineseParams.h"
#include "wakeup/QuibWakeupApi.h"

namespace {

using namespace quibo::wakeup;
using quibo_test::FailAllocation;
using quibo_test::for_each_variant;

constexpr unsigned kSeed = 20251103;

KTCWakeupParam* engine_record(int filling) {
  auto* p = static_cast<KTCWakeupParam*>(std::malloc(sizeof(KTCWakeupParam)));
  std::memset(p, filling, sizeof *p);
  return p;
}

std::vector<int16_t> noise(int blocks, unsigned seed) {
  std::mt19937 random(seed);
  std::vector<int16_t> x(static_cast<size_t>(blocks) * KWS_BLOCK);
  for (auto& v : x) v = static_cast<int16_t>(static_cast<int>(random() % 6000) - 3000);
  return x;
}

// All posteriors of a run, and the decisions behind them.
std::vector<float> run(KTCWakeupParam* p, const std::vector<int16_t>& x) {
  std::vector<float> all;
  for (size_t i = 0; i < x.size(); i += KWS_BLOCK) {
    all.push_back(static_cast<float>(KestoChineseWakeupWrite(p, x.data() + i)));
    const float* posteriors = p->mynet.dlayer->afreq;
    all.insert(all.end(), posteriors, posteriors + KWS_CLASSES);
  }
  return all;
}

TEST(WakeupEngine, StartsOnARecordFullOfGarbage) {
  const auto x = noise(20, kSeed);
  KTCWakeupParam* clean = engine_record(0);
  KTCWakeupParam* garbage = engine_record(0xA5);
  ASSERT_EQ(0, KestoChineseWakeupInit(clean));
  ASSERT_EQ(0, KestoChineseWakeupInit(garbage));
  EXPECT_EQ(run(clean, x), run(garbage, x));
  EXPECT_EQ(int16_t(0xA5A5u), garbage->data[500]);
  EXPECT_EQ(0, KestoChineseWakeupUnit(clean));
  EXPECT_EQ(0, KestoChineseWakeupUnit(garbage));
}

TEST(WakeupEngine, GivesTheSameBitsOnEveryVariantAndPosteriorsThatSumToOne) {
  const auto x = noise(60, kSeed);
  std::vector<float> scalar;
  for_each_variant([&](const std::string& variant) {
    KTCWakeupParam* p = engine_record(0);
    ASSERT_EQ(0, KestoChineseWakeupInit(p));
    const auto all = run(p, x);
    if (variant == "scalar") scalar = all;
    EXPECT_EQ(0, std::memcmp(all.data(), scalar.data(), all.size() * sizeof(float))) << variant;
    const float* posteriors = p->mynet.dlayer->afreq;
    double sum = -posteriors[0];  // counted in the blank already
    for (int i = 0; i < KWS_CLASSES; ++i) sum += posteriors[i];
    EXPECT_NEAR(1.0, sum, 1e-5) << variant;
    KestoChineseWakeupUnit(p);
  });
}

TEST(WakeupEngine, ClearingForgetsTheStreamButKeepsThresholdAndTime) {
  KTCWakeupParam* p = engine_record(0);
  ASSERT_EQ(0, KestoChineseWakeupInit(p));
  const auto x = noise(15, kSeed);
  const auto first = run(p, x);
  EXPECT_NE(first, run(p, x));
  p->mynet.pdec->blank_cnt = 3;
  p->mynet.pdec->pWords[0].dp[3] = 0.5f;
  KestoChineseWakeupclear(p);
  EXPECT_EQ(0, p->mynet.pdec->blank_cnt);
  EXPECT_EQ(0.0f, p->mynet.pdec->pWords[0].dp[3]);
  EXPECT_EQ(first, run(p, x));
  EXPECT_EQ(45, p->mynet.pdec->no_wake_time);
  EXPECT_EQ(1.2f, p->mynet.pdec->pWords[0].thres);
  KestoChineseWakeupUnit(p);
}

TEST(WakeupEngine, RefusesNullRecordsWithTheStatedCodes) {
  const auto x = noise(1, kSeed);
  testing::internal::CaptureStdout();
  EXPECT_EQ(-1, KestoChineseWakeupInit(nullptr));
  EXPECT_EQ("Net init error!\n", testing::internal::GetCapturedStdout());
  KestoChineseWakeupclear(nullptr);
  EXPECT_EQ(-10, KestoChineseWakeupWrite(nullptr, x.data()));
  EXPECT_EQ(-10, KestoChineseWakeupUnit(nullptr));
  EXPECT_EQ(-10, QuibWakeupWriteData(nullptr, x.data()));
  EXPECT_EQ(-10, QuibWakeupUnit(nullptr));
}

TEST(WakeupEngine, StartFailsWhereAZeroPointMustBeZeroAndIsNot) {
  for (int index : {4, 10, 16}) {
    for (float value : {1.0f, -1.0f, 128.0f, 0.0f}) {
      std::vector<float> packed(chinese_fix_param, chinese_fix_param + 134);
      packed[static_cast<size_t>(index)] = value;
      NetTables tables = kCompiledTables;
      tables.fix_param = packed.data();
      EWordNet net{};
      testing::internal::CaptureStdout();
      EXPECT_EQ(value == 0 ? 0 : -1, init_eword_net(&net, tables)) << index;
      EXPECT_EQ(value == 0 ? "" : "Net init error!\n", testing::internal::GetCapturedStdout());
      destroy_eword_net(&net);
    }
  }
}

// Field by field, in the order of the packed table.
TEST(WakeupEngine, BindsEveryEntryOfThePackedTable) {
  std::vector<float> packed(134);
  for (size_t i = 0; i < 134; ++i) packed[i] = static_cast<float>(1000 + i) + 0.75f;
  for (size_t i : {4, 10, 16}) packed[i] = 0.75f;  // truncates to 0
  NetTables tables = kCompiledTables;
  tables.fix_param = packed.data();
  EWordNet net{};
  ASSERT_EQ(0, init_eword_net(&net, tables));
  std::vector<double> bound;
  const auto add = [&](std::initializer_list<double> values) {
    bound.insert(bound.end(), values.begin(), values.end());
  };
  const LAYER_CONV_1D_INT8* first = net.m1_conv1;
  add({first->scale, double(first->in_zero_point), double(first->M0), double(first->M1),
       double(first->qo_zero_point)});
  for (const auto* l :
       {net.m2_conv1, net.m2_conv2, net.m3_conv1, net.m3_conv2, net.m4_conv1, net.m4_conv2}) {
    add({double(l->M0), double(l->M1), double(l->in_zero_point)});
  }
  const LAYER_GRU* g = net.m_gru1;
  const auto gate = [&](int32_t M0, int32_t M1, const QPARAM& q) {
    add({double(M0), double(M1), double(q.zero_point), q.scale});
  };
  add({g->qo.scale, double(g->qo.zero_point)});
  gate(g->Mi1_0, g->Mi1_1, g->qoi1);
  gate(g->Mi2_0, g->Mi2_1, g->qoi2);
  gate(g->Mi3_0, g->Mi3_1, g->qoi3);
  gate(g->Mh1_0, g->Mh1_1, g->qhi1);
  gate(g->Mh2_0, g->Mh2_1, g->qhi2);
  gate(g->Mh3_0, g->Mh3_1, g->qhi3);
  for (const auto* l : {net.dfsmn1_conv, net.dfsmn2_conv, net.dfsmn3_conv, net.dfsmn4_conv}) {
    for (int32_t v :
         {l->in_conv_M0, l->in_conv_M1, l->in_zero_point, l->left_conv_M0, l->left_conv_M1,
          l->left_zero_point, l->add_qi1_zero_point, l->add_qi2_zero_point, l->add_qo_zero_point,
          l->add_M1_0, l->add_M1_1, l->add_M2_0, l->add_M2_1, l->out_conv_M0, l->out_conv_M1,
          l->out_conv_qo_zero}) {
      add({double(v)});
    }
    add({l->qout_scale, double(l->qout_zero_point), l->ln_scale, double(l->ln_zero_point)});
  }
  const LAYER_CONV_1D_INT8* fc = net.fc_conv;
  add({double(fc->M0), double(fc->M1), double(fc->in_zero_point), fc->scale,
       double(fc->qo_zero_point)});
  ASSERT_EQ(134u, bound.size());
  int floats = 0;
  for (size_t i = 0; i < 134; ++i) {
    floats += bound[i] == packed[i];
    EXPECT_TRUE(bound[i] == packed[i] || bound[i] == std::trunc(packed[i])) << i;
  }
  EXPECT_EQ(1 + 1 + 6 + 8 + 1, floats);
  destroy_eword_net(&net);
}

TEST(WakeupHandle, SurvivesEveryAllocationFailing) {
  const auto x = noise(3, kSeed);
  for (int n = 0;; ++n) {
    void* handle = &handle;
    testing::internal::CaptureStdout();
    int32_t result;
    int asked;
    {
      FailAllocation failing(n);
      result = QuibWakeupInit(&handle, 0);
      asked = failing.count();
    }
    const std::string printed = testing::internal::GetCapturedStdout();
    if (asked <= n) {    // nothing failed
      EXPECT_EQ(19, n);  // both records, 13 layers, working data, decoder, its keywords' two arrays
      EXPECT_EQ(0, result);
      EXPECT_EQ("", printed);
      EXPECT_EQ(-1, QuibWakeupWriteData(handle, x.data()));
      EXPECT_EQ(0, QuibWakeupUnit(handle));
      return;
    }
    EXPECT_EQ(nullptr, handle);
    EXPECT_EQ(n < 2 ? -1 : -3, result) << n;
    const std::string reason = n == 17   ? "memory error!\n"
                               : n == 18 ? "read dict: dp memory alloc error!\n"
                                         : "";
    EXPECT_EQ(n < 2 ? "" : reason + "Net init error!\n", printed) << n;
  }
}

TEST(WakeupHandle, ReportsAWakeOnceAndStartsOverFromClearedHistory) {
  void* handle = nullptr;
  ASSERT_EQ(0, QuibWakeupInit(&handle, 7));
  auto* h = static_cast<KTWakeupParam*>(handle);
  EXPECT_EQ(0, h->lenght);
  EXPECT_EQ(1, h->lang);
  const auto x = noise(1, kSeed);
  EXPECT_EQ(-1, QuibWakeupWriteData(handle, x.data()));
  const std::vector<float> fresh(h->handle0->mynet.dlayer->afreq,
                                 h->handle0->mynet.dlayer->afreq + KWS_CLASSES);
  // Scores at their limit, and a network that puts everything on the last syllable.
  DECODER* decoder = h->handle0->mynet.pdec;
  LAYER_CONV_1D_INT8* fc = h->handle0->mynet.fc_conv;
  const std::vector<int32_t> other(fc->bias_fix, fc->bias_fix + KWS_CLASSES);
  std::vector<int32_t> loud(KWS_CLASSES, -100000000);
  loud[2] = 100000000;
  for (int j = 0; j < 9; ++j) decoder->pWords[0].dp[j] = 1.0f;
  fc->bias_fix = loud.data();
  EXPECT_EQ(0, QuibWakeupWriteData(handle, x.data()));
  EXPECT_EQ(0.0f, decoder->pWords[0].dp[7]);
  fc->bias_fix = other.data();
  EXPECT_EQ(-1, QuibWakeupWriteData(handle, x.data()));
  EXPECT_EQ(fresh, std::vector<float>(h->handle0->mynet.dlayer->afreq,
                                      h->handle0->mynet.dlayer->afreq + KWS_CLASSES));
  EXPECT_EQ(0, QuibWakeupUnit(handle));
}

// ---- the parameter file ----

TEST(WakeupParameters, KeepTheRulesThatTheArithmeticNeeds) {
  for (int i : {4, 10, 16}) EXPECT_EQ(0.0f, chinese_fix_param[i]);
  for (int i = 0; i < 134; ++i) {
    const float v = chinese_fix_param[i];
    EXPECT_TRUE(std::isfinite(v)) << i;
    EXPECT_LT(std::abs(v), 16777216.0f) << i;  // whole numbers survive a float
  }
  for (int c = 0; c < 16; ++c) EXPECT_EQ(0, chinese_conv2_1_bias[c]);
  for (int c = 0; c < 48; ++c) EXPECT_EQ(0, chinese_conv3_1_bias[c]);
  for (int c = 0; c < 64; ++c) EXPECT_EQ(0, chinese_conv4_1_bias[c]);
}

std::string metadata() {
  std::ifstream file(QUIBO_KWS_PARAMS, std::ios::binary);
  std::stringstream content;
  content << file.rdbuf();
  const std::string text = content.str();
  const size_t start = text.find("\"__metadata__\"");
  return start == std::string::npos ? ""
                                    : text.substr(start, text.find("\"dtype\"", start) - start);
}

TEST(WakeupParameters, SayThatTheyAreTrainedAndOnWhat) {
  const std::string text = metadata();
  EXPECT_NE(std::string::npos, text.find("\"trained\":\"yes\"")) << text;
  for (const char* key : {"config", "data", "revision", "results"}) {
    EXPECT_NE(std::string::npos, text.find("\"" + std::string(key) + "\":\"")) << key;
  }
}

TEST(WakeupParameters, NameTheClassesOfTheWakePhrase) {
  const std::string text = metadata(), key = "\"classes\":\"";
  const size_t start = text.find(key);
  ASSERT_NE(std::string::npos, start);
  std::istringstream names(text.substr(start + key.size()));
  std::vector<std::string> classes;
  for (std::string name; static_cast<int>(classes.size()) < KWS_CLASSES && names >> name;) {
    classes.push_back(name.substr(0, name.find('"')));
  }
  ASSERT_EQ(146u, classes.size());
  EXPECT_EQ("<filler>", classes[0]);
  EXPECT_EQ("<blank>", classes[145]);
  std::string phrase;
  for (int k = 0; k < keywords_index[4]; ++k) phrase += classes[keywords_index[5 + k]] + " ";
  EXPECT_EQ("ling dang ling dang ", phrase);
}

}  // namespace
