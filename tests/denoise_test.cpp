// The noise suppressor against a naive reference, its properties and its failure paths.

#include "denoise/denoise_net.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "dsp/fft.h"
#include "support/allocation.h"
#include "support/naive_net.h"
#include "support/net_input.h"
#include "support/variants.h"

namespace {

using naive::Map;
using naive::Row;
using quibo_test::audio;
using quibo_test::for_each_variant;
using quibo_test::kSeed;
using quibo_test::Tables;
using quibo_test::tones;

constexpr int kHop = naive::kHop, kBins = naive::kBins;
constexpr int kStates = 32 * 32;

quibo::DenoiseTables random_tables(Tables& t) {
  auto conv = [&t](size_t out, size_t in, bool prelu) -> quibo::ConvTables {
    return {t.make(out * in * 9 + 2, in * 9), t.make(out, 100), prelu ? t.make(out, 10) : nullptr};
  };
  auto gru = [&t]() -> quibo::GruTables {
    return {t.make(3 * 32 * 64, 64), t.make(4 * 32, 100), t.make(32 * 32, 32),
            t.make(32, 100),         t.make(32, 3),       t.make(32, 100)};
  };
  return {{conv(16, 2, true), conv(32, 16, true), conv(32, 32, true), conv(32, 32, true)},
          {gru(), gru(), gru()},
          {gru(), gru(), gru()},
          {conv(32, 32, false), conv(32, 16, false), conv(16, 16, false), conv(4, 8, false)}};
}

// An instance of any tables.
class Instance {
 public:
  explicit Instance(const quibo::DenoiseTables& tables, float floor = 0.0f) : tables_(tables) {
    init_denoise_net(&net_, tables, floor);
    EXPECT_NE(nullptr, net_.dlayer);
    params_.Mynet = &net_;
  }
  ~Instance() { destroy_denoise_net(&net_); }
  Instance(const Instance&) = delete;
  Instance& operator=(const Instance&) = delete;

  // Instead of those that all instances share.
  void use_states(std::vector<float>& states) {
    states.assign(3 * kStates, 0.0f);
    net_.t_gru1->prev_stat = &states[0];
    net_.t_gru2->prev_stat = &states[kStates];
    net_.t_gru3->prev_stat = &states[2 * kStates];
  }

  int run(const int16_t* in, int16_t* out) { return QuibAncRun(&params_, in, out); }
  KTANCParams& params() { return params_; }
  DenoiseNet& net() { return net_; }
  const quibo::DenoiseTables& tables() const { return tables_; }
  std::vector<LAYER_GRU_COMMON*> recurrent() {
    return {net_.t_gru1, net_.f_gru1, net_.t_gru2, net_.f_gru2, net_.t_gru3, net_.f_gru3};
  }

 private:
  const quibo::DenoiseTables tables_;
  KTANCParams params_{};
  DenoiseNet net_{};
};

// The naive network. It reads the tables themselves, and has histories and states of its own.
class Reference {
 public:
  Reference(Instance* instance, std::vector<float>* states, bool own_transforms)
      : net_(instance->net()),
        tables_(instance->tables()),
        states_(*states),
        own_transforms_(own_transforms) {}

  // One hop; false while the histories fill.
  bool step(const float* in, float* out) {
    Row frame(in_.begin() + kHop, in_.end());
    frame.insert(frame.end(), in, in + kHop);
    in_ = frame;
    for (int n = 0; n < naive::kFrame; ++n) frame[n] *= naive::analysis_window(n);
    naive::Spectrum newest(kBins);
    if (own_transforms_) {
      newest = naive::dft(frame);
    } else {
      quibo::my_fft<naive::kFrame>(frame.data(), newest.data());
    }
    spectra_.erase(spectra_.begin());
    spectra_.push_back(newest);

    ++steps_;
    Map map(2, Row(kHop));
    for (int k = 0; k < kHop; ++k) {
      map[0][k] = newest[k].real();
      map[1][k] = newest[k].imag();
    }
    for (int i = 0; i < 4; ++i) {
      const quibo::ConvTables& layer = tables_.encoder[i];
      encoder_[i].push(map);
      if (steps_ <= i + 1) return false;
      map = encoder_[i].convolve(layer.weight, layer.bias, layer.prelu, i == 0 ? 16 : 32, 2,
                                 i == 0 ? 20 : 0);
    }
    for (int i = 0; i < 6; ++i) {
      const quibo::GruTables* axis = i % 2 ? tables_.frequency : tables_.time;
      const quibo::GruTables& b = axis[i / 2];
      const float* n = b.weight + 2 * 32 * 64;  // behind r and z: of x, then of h
      const naive::Gru gru = {b.weight,
                              b.weight + 32 * 64,
                              n,
                              n + 32 * 32,
                              32,
                              b.bias,
                              b.bias + 32,
                              b.bias + 64,
                              b.bias + 96,
                              10.0f,
                              b.linear_weight,
                              b.linear_bias,
                              b.norm_weight,
                              b.norm_bias};
      map = gru.block(map, &states_[i / 2 * kStates], i % 2 == 0, naive::fast_exp);
    }
    const size_t channels[] = {32, 32, 16, 4};
    for (int i = 0; i < 4; ++i) {
      const quibo::ConvTables& layer = tables_.decoder[i];
      decoder_[i].push(map);
      map = naive::shuffle(decoder_[i].convolve(layer.weight, layer.bias, nullptr, channels[i], 1));
    }

    naive::Spectrum masked = spectra_[0];
    const float floor = net_.dlayer->min_scale;
    for (int k = 0; k < kBins; ++k) {
      float m1 = naive::sigmoid(k < kHop ? map[0][k] : 0.0f, naive::fast_exp);
      float m2 = naive::sigmoid(k < kHop ? map[1][k] : 0.0f, naive::fast_exp);
      if (floor > m1) m1 = floor;
      if (floor > m2) m2 = floor;
      masked[k] = {m1 * masked[k].real(), m2 * masked[k].imag()};
      if (k < 8) masked[k] = {0.15f * masked[k].real(), 0.15f * masked[k].imag()};
    }
    Row made(naive::kFrame);
    if (own_transforms_) {
      made = naive::inverse_dft(masked);
    } else {
      quibo::my_ifft<naive::kFrame>(masked.data(), made.data());
    }
    for (int n = 0; n < naive::kFrame; ++n) made[n] *= naive::synthesis_window(n);
    for (int n = 0; n < kHop; ++n) {
      out[n] = std::max(-0.99f, std::min(0.99f, tail_[n] + made[n]));
    }
    tail_.assign(made.begin() + kHop, made.end());
    return true;
  }

 private:
  const DenoiseNet& net_;
  const quibo::DenoiseTables& tables_;
  std::vector<float>& states_;
  bool own_transforms_;
  int steps_ = 0;
  Row in_ = Row(naive::kFrame, 0.0f), tail_ = Row(kHop, 0.0f);
  std::vector<naive::Spectrum> spectra_ = std::vector<naive::Spectrum>(5, naive::Spectrum(kBins));
  naive::History encoder_[4] = {{3, 2, 512}, {3, 16, 256}, {3, 32, 128}, {3, 32, 64}};
  naive::History decoder_[4] = {{3, 32, 32}, {3, 16, 64}, {3, 16, 128}, {3, 8, 256}};
};

// Two instances that share their states, on different signals, in turns: as the front end runs
// three.
void compare_with_reference(bool own_transforms, float bar, int frames, float heat) {
  Tables tables(kSeed, heat);
  std::vector<float> states, reference_states;
  Instance first(random_tables(tables), 0.1f), second(random_tables(tables), 0.3f);
  for (Instance* i : {&first, &second}) i->use_states(states);
  reference_states.assign(3 * kStates, 0.0f);
  Reference references[] = {{&first, &reference_states, own_transforms},
                            {&second, &reference_states, own_transforms}};
  float loudest = 0;
  for (int f = 0; f < frames; ++f) {
    for (int i = 0; i < 2; ++i) {
      Instance& instance = i ? second : first;
      static std::vector<int16_t> input[2] = {audio(64 * QUIBO_FRAME, kSeed + 1),
                                              audio(64 * QUIBO_FRAME, kSeed + 2)};
      const int16_t* in = &input[i][f * QUIBO_FRAME];
      int16_t out[QUIBO_FRAME];
      const int result = instance.run(in, out);
      std::vector<float> expected(QUIBO_FRAME);
      bool ran = false;
      for (int h = 0; h < 2; ++h) {
        float hop[kHop];
        for (int n = 0; n < kHop; ++n) hop[n] = in[h * kHop + n] / 32768.0f;
        ran = references[i].step(hop, &expected[h * kHop]);
      }
      ASSERT_EQ(result, ran ? 0 : -1) << "frame " << f;
      for (int n = 0; n < QUIBO_FRAME; ++n) {
        ASSERT_NEAR(instance.params().outdataf[n], expected[n], bar)
            << "instance " << i << ", frame " << f << ", sample " << n << ", seed " << kSeed;
        loudest = std::max(loudest, std::abs(expected[n]));
      }
    }
  }
  EXPECT_GT(loudest, 0.1f) << "the comparison needs a signal";
}

TEST(Denoise, EqualsTheNaiveNetworkToTheBit) {
  for_each_variant([](const std::string& variant) {
    SCOPED_TRACE(variant);
    compare_with_reference(false, 0.0f, 8, 1.5f);
  });
}

TEST(Denoise, IsWithinOneInt16StepOfDoublePrecisionTransforms) {
  compare_with_reference(true, 1.0f / 32768, 24, 1.0f);
}

// Runs `frames` frames of audio with states of its own and returns every output sample.
std::vector<int16_t> run_all(const std::vector<int16_t>& input, const quibo::DenoiseTables& tables,
                             float floor = 0) {
  Instance instance(tables, floor);
  std::vector<float> states;
  instance.use_states(states);
  std::vector<int16_t> output(input.size());
  for (size_t at = 0; at < input.size(); at += QUIBO_FRAME) {
    instance.run(&input[at], &output[at]);
    for (float v : instance.params().outdataf) EXPECT_LE(std::abs(v), 0.99f);  // false for a NaN
  }
  return output;
}

TEST(Denoise, EveryVariantGivesTheSameBitsOverManyFrames) {
  quibo_test::expect_equal_outputs([](int frames) {
    Tables tables(kSeed + 4, 1.5f);
    return run_all(audio(frames * QUIBO_FRAME, kSeed + 3), random_tables(tables));
  });
}

TEST(Denoise, FrameEqualsTwoStepsToTheBit) {
  const std::vector<int16_t> input = audio(8 * QUIBO_FRAME, kSeed);
  for_each_variant([&](const std::string& variant) {
    Tables values(kSeed, 1.5f);
    const quibo::DenoiseTables tables = random_tables(values);
    std::vector<float> states, states_single;
    Instance frame(tables, 0.1f), single(tables, 0.1f);
    frame.use_states(states);
    single.use_states(states_single);
    for (size_t at = 0; at < input.size(); at += QUIBO_FRAME) {
      float in[QUIBO_FRAME], a[QUIBO_FRAME] = {}, b[QUIBO_FRAME] = {};
      for (int n = 0; n < QUIBO_FRAME; ++n) in[n] = input[at + n] / 32768.0f;
      const int result = nn_denoise_forward_frame(&frame.net(), in, a);
      nn_denoise_forward(&single.net(), in, b);
      EXPECT_EQ(result, nn_denoise_forward(&single.net(), in + kHop, b + kHop));
      ASSERT_EQ(0, std::memcmp(a, b, sizeof a)) << variant << ", sample " << at;
      ASSERT_EQ(states, states_single) << variant;
    }
  });
}

TEST(Denoise, FloorOfOnePassesTheSpectrumFourHopsLateWithTheLowBandAt15Percent) {
  constexpr int kDelay = 5 * kHop;  // four hops and the overlap
  constexpr int kFrames = 12;
  Tables values(kSeed);
  const quibo::DenoiseTables tables = random_tables(values);
  const std::vector<int16_t> high = tones({20, 100, 300}, kFrames), low = tones({4}, kFrames);
  const std::vector<int16_t> high_out = run_all(high, tables, 1.0f);
  const std::vector<int16_t> low_out = run_all(low, tables, 1.0f);
  for (int n = 4 * QUIBO_FRAME; n < kFrames * QUIBO_FRAME; ++n) {
    ASSERT_NEAR(high_out[n], high[n - kDelay], 2) << "sample " << n;
    ASSERT_NEAR(low_out[n], 0.15 * low[n - kDelay], 2) << "sample " << n;
  }
}

TEST(Denoise, FirstTwoFramesAreSilentAndReturnMinusOne) {
  Instance instance(quibo::kDenoiseTables, 1.0f);
  const std::vector<int16_t> input = audio(6 * QUIBO_FRAME, kSeed);
  const int results[] = {-1, -1, 0, 0, 0, 0};
  for (int f = 0; f < 6; ++f) {
    std::vector<int16_t> out(QUIBO_FRAME, 7);
    EXPECT_EQ(results[f], instance.run(&input[f * QUIBO_FRAME], out.data())) << f;
    EXPECT_EQ(f < 2, out == std::vector<int16_t>(QUIBO_FRAME, 0)) << f;
  }
}

TEST(Denoise, SilenceStaysSilentAndExtremesStayFiniteAndUnderTheLimit) {
  constexpr int kFrames = 20;
  std::vector<int16_t> silence(kFrames * QUIBO_FRAME), lowest(silence), square(silence);
  for (size_t n = 0; n < silence.size(); ++n) {
    lowest[n] = -32768;
    square[n] = n / 50 % 2 ? -32768 : 32767;
  }
  for (bool trained : {false, true}) {
    Tables values(kSeed + 5, 2.0f);
    const quibo::DenoiseTables tables = trained ? quibo::kDenoiseTables : random_tables(values);
    for (int16_t v : run_all(silence, tables)) ASSERT_EQ(v, 0);
    for (const auto& input : {lowest, square}) {
      const std::vector<int16_t> output = run_all(input, tables, 1.0f);
      const auto limits = std::minmax_element(output.begin(), output.end());
      EXPECT_GE(*limits.first, -32440);
      EXPECT_LE(*limits.second, 32440);
    }
  }
}

TEST(Denoise, StatesAreSharedByAllInstances) {
  Instance a(quibo::kDenoiseTables), b(quibo::kDenoiseTables);
  for (size_t i = 0; i < 6; ++i) {
    EXPECT_EQ(a.recurrent()[i]->prev_stat, b.recurrent()[i]->prev_stat);
    for (size_t k = 0; k < i; ++k) {
      EXPECT_NE(a.recurrent()[i]->prev_stat, a.recurrent()[k]->prev_stat);
    }
  }
}

TEST(Denoise, FloorIsTakenBetweenZeroAndOneOnly) {
  auto taken = [](float given) {
    void* handle;
    EXPECT_EQ(0, QuibAncInit(&handle, given));
    const float floor = static_cast<KTANCParams*>(handle)->Mynet->dlayer->min_scale;
    EXPECT_EQ(0, QuibAncUnit(&handle));
    return floor;
  };
  const std::pair<float, float> cases[] = {
      {0.0f, 0.0f}, {1.0f, 1.0f}, {0.3f, 0.3f}, {1.0000001f, 0.0f}, {-0.0000001f, 0.0f}};
  for (auto [given, kept] : cases) EXPECT_EQ(taken(given), kept);
  EXPECT_TRUE(std::isnan(taken(NAN)));
}

TEST(Denoise, NullHandlesGiveMinusTen) {
  int16_t frame[QUIBO_FRAME] = {3};
  void* none = nullptr;
  EXPECT_EQ(-10, QuibAncRun(nullptr, frame, frame));
  EXPECT_EQ(3, frame[0]);
  EXPECT_EQ(-10, QuibAncUnit(nullptr));
  EXPECT_EQ(-10, QuibAncUnit(&none));
}

// Allocation 0 is the handle, 1 the network, 2..15 the layers, 16 the working record.
TEST(Denoise, EveryFailedAllocationIsSurvived) {
  const std::vector<int16_t> input = audio(4 * QUIBO_FRAME, kSeed);
  for (int n = 0; n <= 17; ++n) {
    void* handle = &handle;
    int result;
    const quibo_test::HeldMemory held;
    {
      const quibo_test::FailAllocation fail(n);
      result = QuibAncInit(&handle, 0.5f);
      EXPECT_EQ(fail.count(), n < 17 ? n + 1 : 17);
    }
    EXPECT_EQ(result, n == 0 ? -2 : n == 1 ? -1 : 0);
    EXPECT_EQ(handle == nullptr, n < 2);
    EXPECT_EQ(n == 1, !handle && held.blocks() == 1) << "a missing network leaks the handle";
    if (!handle) continue;
    for (int f = 0; f < 4; ++f) {
      std::vector<int16_t> out(QUIBO_FRAME, 7);
      const int run = QuibAncRun(handle, &input[f * QUIBO_FRAME], out.data());
      if (n < 17) {
        EXPECT_EQ(run, -1) << "a half-built instance";
        EXPECT_EQ(out, std::vector<int16_t>(QUIBO_FRAME, 0));
      } else {
        EXPECT_EQ(run, f < 2 ? -1 : 0);
      }
    }
    EXPECT_EQ(0, QuibAncUnit(&handle));
    EXPECT_EQ(held.blocks(), 0);
  }
}

}  // namespace
