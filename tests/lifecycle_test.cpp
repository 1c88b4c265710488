// The front end with its real modules: memory, and the echo path against its parts.

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "dsp/convert.h"
#include "quibo/quibo.h"
#include "support/allocation.h"

namespace {

using Samples = std::vector<int16_t>;

constexpr unsigned kSeed = 20251103;

Samples random_samples(std::mt19937& random) {
  std::uniform_int_distribution<int> uniform(INT16_MIN, INT16_MAX);
  Samples x(QUIBO_FRAME);
  for (int16_t& v : x) v = static_cast<int16_t>(uniform(random));
  return x;
}

void run_frames(KTWakeup front_end, int frames) {
  std::mt19937 random(kSeed);
  for (int f = 0; f < frames; ++f) {
    Samples mics[3] = {random_samples(random), random_samples(random), random_samples(random)};
    const Samples ref = random_samples(random);
    Samples outs[3] = {mics[0], mics[0], mics[0]}, naec = mics[0];
    int32_t wake;
    EXPECT_EQ(Quibo_wakeup_three_write_data(front_end, mics[0].data(), mics[1].data(),
                                            mics[2].data(), ref.data(), outs[0].data(),
                                            outs[1].data(), outs[2].data(), naec.data()),
              0);
    EXPECT_LT(Quibo_doa_three_write_data(front_end, &wake, outs[0].data(), outs[1].data(),
                                         outs[2].data(), naec.data(), QUIBO_FRAME),
              360);
  }
}

TEST(Lifecycle, FramesAllocateNothingAndReleaseReturnsEverything) {
  const quibo_test::HeldMemory held;
  for (int round = 0; round < 2; ++round) {
    KTWakeup front_end = nullptr;
    ASSERT_EQ(Quibo_wakeup_init(&front_end, 0), 0);
    {
      const quibo_test::FailAllocation watch(-1);
      run_frames(front_end, 4);
      EXPECT_EQ(watch.count(), 0);
    }
    EXPECT_EQ(Quibo_wakeup_unit(front_end), 0);
    EXPECT_EQ(held.blocks(), 0);
  }
}

// Only a noise suppressor that lacks a layer goes unreported: it is silent, and harmless.
TEST(Lifecycle, EveryFailedAllocationIsReportedOrSurvived) {
  constexpr int kSuppressors = 4, kLayersAndWorkingRecord = 15;
  int unreported = 0;
  for (int n = 0;; ++n) {
    const quibo_test::HeldMemory held;  // failed creation keeps what it made, by contract
    KTWakeup front_end = nullptr;
    const quibo_test::FailAllocation fail(n);
    const int32_t code = Quibo_wakeup_init(&front_end, 0);
    if (code == 0) {
      run_frames(front_end, 2);
      EXPECT_EQ(Quibo_wakeup_unit(front_end), 0);
      EXPECT_EQ(held.blocks(), 0) << "allocation " << n;
      if (fail.count() <= n) break;  // none was left to fail
      ++unreported;
    } else {
      EXPECT_GE(code, -10) << "allocation " << n;
      EXPECT_LE(code, -2) << "allocation " << n;
      EXPECT_EQ(front_end, nullptr) << "allocation " << n;
    }
  }
  EXPECT_EQ(unreported, kSuppressors * kLayersAndWorkingRecord);
}

TEST(Lifecycle, EchoPathIsTheCodecThenOneCancellerPerMicrophone) {
  KTWakeup front_end = nullptr;
  ASSERT_EQ(Quibo_wakeup_init(&front_end, 0), 0);
  void* cancellers[3];
  for (void*& canceller : cancellers) canceller = kesto_Laec_Post_init();
  std::mt19937 random(kSeed);
  for (int f = 0; f < 10; ++f) {
    const Samples plain[3] = {random_samples(random), random_samples(random),
                              random_samples(random)};
    const Samples ref = random_samples(random);
    Samples mics[3] = {plain[0], plain[1], plain[2]}, outs[3] = {ref, ref, ref}, naec = ref;
    for (Samples& mic : mics) enc_data(mic.data(), QUIBO_FRAME);
    Quibo_wakeup_three_write_data(front_end, mics[0].data(), mics[1].data(), mics[2].data(),
                                  ref.data(), outs[0].data(), outs[1].data(), outs[2].data(),
                                  naec.data());
    for (int m = 0; m < 3; ++m) {
      EXPECT_EQ(mics[m], plain[m]);
      std::vector<float> expected(QUIBO_FRAME);
      kesto_Laec_Post_write(cancellers[m], plain[m].data(), ref.data(), expected.data());
      for (int i = 0; i < QUIBO_FRAME; ++i) {
        ASSERT_EQ(outs[m][i], quibo::float_to_int16(expected[i]))
            << "frame " << f << ", microphone " << m + 1 << ", seed " << kSeed;
      }
    }
  }
  Quibo_wakeup_unit(front_end);
  for (void* canceller : cancellers) kesto_Laec_Post_unit(canceller);
}

}  // namespace
