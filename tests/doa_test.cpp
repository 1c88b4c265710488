// The direction estimator's decision and its interface.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "doa/customs_doa_api.h"
#include "doa/doa_decision.h"
#include "support/allocation.h"

namespace {

using quibo_test::FailAllocation;
using quibo_test::HeldMemory;

constexpr unsigned kSeed = 20251103;
constexpr int kBlock = 480;
const float kNan = std::nanf("");

class Doa : public testing::Test {
 protected:
  Doa() {
    EXPECT_EQ(kesto_customs_doa_init(&handle), 0);
    net = &static_cast<KTDParama*>(handle)->doanet;
  }
  ~Doa() override { kesto_customs_doa_unit(handle); }

  void push(float x, float y) { add_to_doa_win_buff(net->dlayer, x, y, change_xy_to_angle(x, y)); }

  // A network whose vector is (x, y) whatever it hears, |x|, |y| < 1 or the limits +-1.
  void aim(float x, float y) {
    auto bias = [](float v) { return std::fabs(v) < 1 ? std::atanh(v) : 20 * v; };
    fc_bias[0] = bias(x);
    fc_bias[1] = bias(y);
    net->fc_conv->weight1 = fc_weight;
    net->fc_conv->bias = fc_bias;
  }

  int32_t write(int32_t wake) {
    return kesto_customs_doa_write(handle, silence, silence, silence, nullptr, wake);
  }

  KTDHandle handle = nullptr;
  DoaNet* net;
  float fc_weight[328] = {}, fc_bias[2];
  int16_t silence[kBlock] = {};
};

TEST_F(Doa, HeadingsAreClockwiseFromPlusYAndOddOnTheAxes) {
  const struct {
    float x, y;
    int32_t degrees;
  } kCases[] = {
      {1, 1, 45},        {-1, 1, 315},     {-1, -1, 225},
      {1, -1, 135},      {0, 1, 0},        {0, -1, 0},  // straight behind
      {1, 0, 90},        {-1, 0, -89},                  // along -x: rounds -90 + 0.5 toward zero
      {-0.001f, 1, 360}, {-0.01f, 1, 359}, {0.5f * std::sin(1.0f), 0.5f * std::cos(1.0f), 57},
      {0, -1e-6f, 0},  // 0 / 0
      {1, -1e-6f, 270},
  };
  for (const auto& c : kCases) {
    push(c.x, c.y);
    EXPECT_EQ(doa_decision(net), c.degrees) << c.x << ", " << c.y;
  }
  EXPECT_NEAR(change_xy_to_angle(-1, 1), 315.0f, 1e-3f);
  EXPECT_NEAR(change_xy_to_angle(-1, 0), -90.0f, 1e-3f);
}

TEST_F(Doa, DecidesOnTheLongestOfTheLastFifteenTheEarlierOfEqualsAndOnce) {
  auto row = [&](int i) { return net->dlayer->doa_win_buff[i]; };
  auto fill = [&](int length_of_row, float x, float y) {
    row(length_of_row)[0] = x;
    row(length_of_row)[1] = y;
    row(length_of_row)[2] = std::sqrt(x * x + y * y);
  };
  fill(9, 0.0f, 1.0f);  // too old
  fill(12, 0.3f, 0.3f);
  fill(20, -0.3f, 0.3f);
  EXPECT_EQ(doa_decision(net), 45);
  EXPECT_EQ(net->dlayer->decided[0], 0.3f);
  for (int i = 0; i < DOA_WINDOW; ++i) {
    EXPECT_EQ(std::vector<float>(row(i), row(i) + 4), (std::vector<float>{0, 0, 0, -1})) << i;
  }
  EXPECT_EQ(doa_decision(net), 0);  // nothing left
  fill(10, 0.5f, -0.5f);
  fill(24, 0.4f, 0.4f);
  EXPECT_EQ(doa_decision(net), 135);
  // What is not a number is passed over.
  fill(10, 0.4f, -0.4f);
  fill(11, kNan, kNan);
  fill(24, 0.5f, 0.5f);
  EXPECT_EQ(doa_decision(net), 45);
  for (int i = 10; i < 25; ++i) fill(i, kNan, kNan);
  EXPECT_EQ(doa_decision(net), 0);
}

TEST_F(Doa, AnswersOnlyToAWakeWithTheVectorsSinceTheLastOne) {
  aim(0.2f, 0.6f);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(write(0), -1);
  aim(0.4f, -0.4f);
  EXPECT_EQ(write(1), 18);   // the longer one
  EXPECT_EQ(write(1), 135);  // what came since
  EXPECT_EQ(write(0), -1);
  for (int i = 0; i < DOA_WINDOW + 1; ++i) push(0.1f, 0.1f);
  aim(-1.0f, 0.0f);
  EXPECT_EQ(write(7), -1);  // -89
  EXPECT_EQ(proc_one_frame(net, silence, silence, silence, 1), -89);
}

TEST_F(Doa, TheFirstWakeAfterPowerUpIsDefinedInSilenceAndInNoise) {
  const int32_t in_silence = write(1);
  EXPECT_GE(in_silence, -1);
  EXPECT_LE(in_silence, 360);
  KTDHandle other = nullptr;
  ASSERT_EQ(kesto_customs_doa_init(&other), 0);
  std::mt19937 random(kSeed);
  std::uniform_int_distribution<int> uniform(INT16_MIN, INT16_MAX);
  int16_t mics[3][kBlock];
  for (auto& mic : mics) {
    for (int16_t& v : mic) v = static_cast<int16_t>(uniform(random));
  }
  const int32_t angle = kesto_customs_doa_write(other, mics[0], mics[1], mics[2], nullptr, 1);
  const float* xy = static_cast<KTDParama*>(other)->doanet.dlayer->xy;
  EXPECT_EQ(angle, static_cast<int32_t>(change_xy_to_angle(xy[0], xy[1]) + 0.5f)) << kSeed;
  kesto_customs_doa_unit(other);
}

TEST_F(Doa, NullHandlesAreRefused) {
  EXPECT_EQ(kesto_customs_doa_write(nullptr, silence, silence, silence, nullptr, 1), -10);
  kesto_customs_doa_unit(nullptr);
}

TEST(DoaCreation, EveryFailedAllocationIsReportedAndReleaseReturnsEverything) {
  for (int n = 0;; ++n) {
    const HeldMemory held;
    KTDHandle handle = &handle;
    testing::internal::CaptureStdout();
    const FailAllocation fail(n);
    const int32_t code = kesto_customs_doa_init(&handle);
    const std::string printed = testing::internal::GetCapturedStdout();
    if (code == 0) {
      EXPECT_EQ(n, 12);  // estimator, ten layers, working record
      EXPECT_EQ(printed, "");
      EXPECT_EQ(static_cast<KTDParama*>(handle)->doanet.dlayer->prev_doa, 90);
      kesto_customs_doa_unit(handle);
      EXPECT_EQ(held.blocks(), 0);
      break;
    }
    EXPECT_EQ(code, n == 0 ? -10 : -1);
    EXPECT_EQ(printed, n == 0 ? "" : "初始化DOA模型失败！\n");
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(held.blocks(), n);  // kept, by contract
  }
}

TEST(DoaCreation, AHalfBuiltNetworkCanBeReleased) {
  for (int n = 0; n < 11; ++n) {
    const HeldMemory held;
    DoaNet net;
    std::memset(static_cast<void*>(&net), 0xA5, sizeof net);
    const FailAllocation fail(n);
    EXPECT_EQ(init_doa_net(&net), 1) << n;
    destroy_doa_net(&net);
    EXPECT_EQ(held.blocks(), 0) << n;
  }
}

}  // namespace
