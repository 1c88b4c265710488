// The neural echo suppressor against a naive reference, its properties and its failure paths.

#include "aec/aec_denoise_net.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "dsp/fft.h"
#include "nn/float_kernels.h"
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
constexpr int kStates = 32 * 64;
constexpr int kDelay = 5 * kHop;  // four hops and the overlap

quibo::AecDenoiseTables random_tables(Tables& t) {
  auto conv = [&t](size_t out, size_t taps, bool prelu = true) -> quibo::ConvTables {
    return {t.make(out * taps, taps), t.make(out, 100), prelu ? t.make(out, 10) : nullptr};
  };
  auto gru = [&t]() -> quibo::GruTables {
    return {t.make(3 * 64 * 128, 128),
            t.make(4 * 64, 100),
            t.make(64 * 64, 64),
            t.make(64, 100),
            nullptr,
            nullptr};
  };
  auto inner = [&conv] { return conv(64, 64 * 9); };
  return {conv(512, 8, false),
          conv(512, 8, false),
          {conv(16, 4 * 6), conv(32, 16 * 6), conv(48, 32 * 6), conv(64, 48 * 6)},
          {inner(), inner(), inner(), inner()},
          {gru(), gru(), gru()},
          {gru(), gru(), gru()},
          {inner(), inner(), inner(), inner()},
          {conv(64, 64 * 6, false), conv(32, 32 * 6, false), conv(16, 16 * 6, false),
           conv(4, 8 * 6, false)}};
}

// Wide open masks, by way of the last biases.
quibo::AecDenoiseTables open_masks(quibo::AecDenoiseTables tables) {
  static const std::vector<float> zeros(4096, 0.0f), twenties(512, 20.0f);
  tables.sys_real = {zeros.data(), twenties.data(), nullptr};
  tables.sys_imag = {zeros.data(), zeros.data(), nullptr};
  return tables;
}

// An instance of any tables.
class Instance {
 public:
  explicit Instance(const quibo::AecDenoiseTables& tables = quibo::kAecDenoiseTables) {
    EXPECT_EQ(0, init_aec_denoise_net(&net_, tables));
    params_.Mynet = &net_;
  }
  ~Instance() { destroy_aec_denoise_net(&net_); }
  Instance(const Instance&) = delete;
  Instance& operator=(const Instance&) = delete;

  void run(const float* mic, const float* yn, int16_t* out) {
    EXPECT_EQ(0, QuibNAecRun(&params_, mic, yn, out));
  }
  AEC_Denoise_Net& net() { return net_; }
  std::vector<LAYER_GRU_NNAEC*> recurrent() {
    return {net_.t_gru1, net_.f_gru1, net_.t_gru2, net_.f_gru2, net_.t_gru3, net_.f_gru3};
  }

 private:
  KTNNAECParams params_{};
  AEC_Denoise_Net net_{};
};

// The naive network. It reads the tables themselves, and has histories and states of its own.
class Reference {
 public:
  // own_maths: transforms in double precision and the C library's exponential, instead of those
  // that the engine uses.
  Reference(const quibo::AecDenoiseTables& tables, bool own_maths)
      : tables_(tables), own_maths_(own_maths) {}

  void step(const float* mic, const float* yn, float* out) {
    const naive::Spectrum D = analyse(mic_, mic), Y = analyse(yn_, yn);
    naive::Spectrum E(kBins);
    for (int k = 0; k < kBins; ++k) E[k] = D[k] - Y[k];
    spectra_.erase(spectra_.begin());
    spectra_.push_back(E);

    Map map(4, Row(kHop));
    for (int k = 0; k < kHop; ++k) {
      map[0][k] = D[k].real();
      map[1][k] = E[k].real();
      map[2][k] = D[k].imag();
      map[3][k] = E[k].imag();
    }
    const size_t input_channels[] = {16, 32, 48, 64};
    for (int i = 0; i < 4; ++i) {
      map = convolve(input_[i], map, tables_.input[i], input_channels[i], 2);
    }
    std::vector<Map> e;
    for (int i = 0; i < 4; ++i)
      e.push_back(map = convolve(encoder_[i], map, tables_.encoder[i], 64, 1));

    for (int i = 0; i < 6; ++i) {
      const quibo::GruTables* axis = i % 2 ? tables_.frequency : tables_.time;
      const quibo::GruTables& b = axis[i / 2];
      const float* n = b.weight + 2 * 64 * 128;  // behind r and z
      const naive::Gru gru = {b.weight,
                              b.weight + 64 * 128,
                              n,
                              n + 64,
                              128,
                              b.bias,
                              b.bias + 64,
                              b.bias + 128,
                              b.bias + 192,
                              8.0f,
                              b.linear_weight,
                              b.linear_bias,
                              nullptr,
                              nullptr};
      map = gru.block(map, &states_[i / 2 * kStates], i % 2 == 0, exponential());
    }

    map = naive::sum(convolve(decoder_[0], map, tables_.decoder[0], 64, 1), map);
    map = naive::sum(convolve(decoder_[1], map, tables_.decoder[1], 64, 1), e[2]);
    map = naive::sum(convolve(decoder_[2], map, tables_.decoder[2], 64, 1), e[1]);
    map = naive::sum(convolve(decoder_[3], map, tables_.decoder[3], 64, 1), e[0]);
    const size_t pixel_channels[] = {64, 32, 16, 4};
    for (int i = 0; i < 4; ++i) {
      map = naive::shuffle(convolve(pixel_[i], map, tables_.pixel[i], pixel_channels[i], 1));
    }

    naive::Spectrum masked = spectra_[0];
    for (int k = 0; k < kBins; ++k) {
      float q_re = 0, q_im = 0;
      if (k < kHop) {
        auto group = [k](const quibo::ConvTables& layer, const Row& x) {
          return naive::dot(layer.weight + 8 * k, &x[k / 8 * 8], 8) + layer.bias[k];
        };
        q_re = group(tables_.sys_real, map[0]) - group(tables_.sys_imag, map[1]);
        q_im = group(tables_.sys_real, map[1]) + group(tables_.sys_imag, map[0]);
      }
      masked[k] = {naive::sigmoid(q_re, naive::fast_exp) * masked[k].real(),
                   naive::sigmoid(q_im, naive::fast_exp) * masked[k].imag()};
      if (k <= 3) masked[k] = {0.2f * masked[k].real(), 0.2f * masked[k].imag()};
    }
    Row made(naive::kFrame);
    if (own_maths_) {
      made = naive::inverse_dft(masked);
    } else {
      quibo::my_ifft<naive::kFrame>(masked.data(), made.data());
    }
    for (int n = 0; n < naive::kFrame; ++n) made[n] *= naive::synthesis_window(n);
    for (int n = 0; n < kHop; ++n) {
      out[n] = std::max(-0.99f, std::min(0.99f, tail_[n] + made[n]));
    }
    tail_.assign(made.begin() + kHop, made.end());
  }

 private:
  naive::Spectrum analyse(Row& kept, const float* hop) {
    kept.erase(kept.begin(), kept.begin() + kHop);
    kept.insert(kept.end(), hop, hop + kHop);
    Row frame = kept;
    for (int n = 0; n < naive::kFrame; ++n) frame[n] *= naive::analysis_window(n);
    if (own_maths_) return naive::dft(frame);
    naive::Spectrum bins(kBins);
    quibo::my_fft<naive::kFrame>(frame.data(), bins.data());
    return bins;
  }

  static Map convolve(naive::History& history, const Map& map, const quibo::ConvTables& layer,
                      size_t channels, size_t stride) {
    history.push(map);
    return history.convolve(layer.weight, layer.bias, layer.prelu, channels, stride);
  }

  naive::Exp exponential() const {
    if (own_maths_) return [](float x) { return std::exp(x); };
    return quibo::exact_exp<quibo::ScalarF32>;
  }

  const quibo::AecDenoiseTables tables_;
  bool own_maths_;
  Row mic_ = Row(naive::kFrame, 0.0f), yn_ = mic_, tail_ = Row(kHop, 0.0f);
  std::vector<float> states_ = std::vector<float>(3 * kStates, 0.0f);
  std::vector<naive::Spectrum> spectra_ = std::vector<naive::Spectrum>(5, naive::Spectrum(kBins));
  naive::History input_[4] = {{2, 4, 512}, {2, 16, 256}, {2, 32, 128}, {2, 48, 64}};
  naive::History encoder_[4] = {{3, 64, 32}, {3, 64, 32}, {3, 64, 32}, {3, 64, 32}};
  naive::History decoder_[4] = {{3, 64, 32}, {3, 64, 32}, {3, 64, 32}, {3, 64, 32}};
  naive::History pixel_[4] = {{2, 64, 32}, {2, 32, 64}, {2, 16, 128}, {2, 8, 256}};
};

// A microphone and the echo estimate in it, as floats of full scale 1.0.
struct Signals {
  explicit Signals(int frames, unsigned seed) : mic(frames * QUIBO_FRAME), yn(mic) {
    const std::vector<int16_t> near = audio(frames * QUIBO_FRAME, seed),
                               echo = audio(frames * QUIBO_FRAME, seed + 1);
    for (size_t n = 0; n < mic.size(); ++n) {
      yn[n] = 0.8f * static_cast<float>(echo[n]) / 32768.0f;
      mic[n] = 0.5f * static_cast<float>(near[n]) / 32768.0f + 1.1f * yn[n];
    }
  }
  std::vector<float> mic, yn;
};

std::vector<int16_t> run_all(Instance& instance, const std::vector<float>& mic,
                             const std::vector<float>& yn) {
  std::vector<int16_t> out(mic.size());
  for (size_t at = 0; at < mic.size(); at += QUIBO_FRAME) {
    instance.run(&mic[at], &yn[at], &out[at]);
  }
  return out;
}

std::vector<float> to_float(const std::vector<int16_t>& x) {
  std::vector<float> y(x.size());
  for (size_t n = 0; n < x.size(); ++n) y[n] = static_cast<float>(x[n]) / 32768.0f;
  return y;
}

void compare_with_reference(bool own_maths, int bar, int frames, float heat) {
  Tables values(kSeed, heat);
  const quibo::AecDenoiseTables tables = random_tables(values);
  Instance instance(tables);
  Reference reference(tables, own_maths);
  const Signals signals(frames, kSeed + 1);
  const std::vector<int16_t> out = run_all(instance, signals.mic, signals.yn);
  int loudest = 0;
  for (size_t at = 0; at < out.size(); at += kHop) {
    float expected[kHop];
    reference.step(&signals.mic[at], &signals.yn[at], expected);
    for (int n = 0; n < kHop; ++n) {
      const int sample = static_cast<int>(expected[n] * 32768.0f);
      ASSERT_NEAR(out[at + n], sample, bar) << "sample " << at + n << ", seed " << kSeed;
      loudest = std::max(loudest, std::abs(sample));
    }
  }
  EXPECT_GT(loudest, 3000) << "the comparison needs a signal";
}

TEST(AecDenoise, EqualsTheNaiveNetworkToTheBit) {
  for_each_variant([](const std::string& variant) {
    SCOPED_TRACE(variant);
    compare_with_reference(false, 0, 6, 1.1f);
  });
}

TEST(AecDenoise, IsWithinOneInt16StepOfDoublePrecisionTransformsAndLibraryExponential) {
  compare_with_reference(true, 1, 16, 0.7f);
}

TEST(AecDenoise, EveryVariantGivesTheSameBitsOverManyFrames) {
  quibo_test::expect_equal_outputs([](int frames) {
    const Signals signals(frames, kSeed + 3);
    Tables tables(kSeed + 4, 1.1f);
    Instance instance(random_tables(tables));
    return run_all(instance, signals.mic, signals.yn);
  });
}

TEST(AecDenoise, FrameEqualsTwoStepsToTheBit) {
  constexpr int kFrames = 8;
  const Signals signals(kFrames, kSeed);
  for_each_variant([&](const std::string& variant) {
    LAYER_DATA_NNAEC ends[2];
    std::vector<float> states[2];
    std::vector<int16_t> outs[2];
    for (int single = 0; single < 2; ++single) {
      Tables tables(kSeed, 1.1f);
      Instance instance(random_tables(tables));
      outs[single].resize(kFrames * QUIBO_FRAME);
      const int hop = single ? kHop : QUIBO_FRAME;
      for (int at = 0; at < kFrames * QUIBO_FRAME; at += hop) {
        (single ? nn_aec_denoise_forward : nn_aec_denoise_forward_frame)(
            &instance.net(), &signals.mic[at], &signals.yn[at], &outs[single][at]);
      }
      ends[single] = *instance.net().dlayer;
      for (LAYER_GRU_NNAEC* layer : instance.recurrent()) {
        if (layer->prev_stat) {
          states[single].insert(states[single].end(), layer->prev_stat, layer->prev_stat + kStates);
        }
      }
    }
    EXPECT_EQ(outs[0], outs[1]) << variant;
    EXPECT_EQ(states[0], states[1]) << variant;
    EXPECT_EQ(0, std::memcmp(&ends[0], &ends[1], sizeof ends[0])) << variant << ": every history";
  });
}

TEST(AecDenoise, OpenMasksPassTheErrorFourHopsLateWithTheLowBandAt20Percent) {
  constexpr int kFrames = 12;
  const std::vector<float> echo = to_float(audio(kFrames * QUIBO_FRAME, kSeed));
  for (int k : {2, 100}) {
    const std::vector<int16_t> near = tones({k}, kFrames);
    std::vector<float> mic = to_float(near), yn = echo;
    for (size_t n = 0; n < mic.size(); ++n) mic[n] += yn[n];
    Instance instance(open_masks(quibo::kAecDenoiseTables));
    const std::vector<int16_t> out = run_all(instance, mic, yn);
    for (int n = 0; n < 4 * kHop; ++n) ASSERT_EQ(out[n], 0) << "sample " << n;
    for (int n = 4 * QUIBO_FRAME; n < kFrames * QUIBO_FRAME; ++n) {
      ASSERT_NEAR(out[n], (k == 2 ? 0.2 : 1.0) * near[n - kDelay], 2) << "sample " << n;
    }
  }
}

TEST(AecDenoise, SilenceStaysSilentAndExtremesStayUnderTheLimit) {
  constexpr int kFrames = 20;
  std::vector<float> silence(kFrames * QUIBO_FRAME), lowest(silence), square(silence);
  for (size_t n = 0; n < silence.size(); ++n) {
    lowest[n] = -1.0f;
    square[n] = n / 50 % 2 ? -1.0f : 32767.0f / 32768.0f;
  }
  Tables values(kSeed + 5, 1.5f);
  const quibo::AecDenoiseTables tables = random_tables(values);
  for (bool open : {false, true}) {
    Instance instance(open ? open_masks(tables) : tables);
    for (int16_t v : run_all(instance, silence, silence)) ASSERT_EQ(v, 0);
    for (const auto& mic : {lowest, square}) {
      for (const auto& yn : {silence, square}) {
        const std::vector<int16_t> out = run_all(instance, mic, yn);
        const auto limits = std::minmax_element(out.begin(), out.end());
        EXPECT_GE(*limits.first, -32440);
        EXPECT_LE(*limits.second, 32440);
        const LAYER_DATA_NNAEC& d = *instance.net().dlayer;
        for (float v : d.sub4_input) ASSERT_TRUE(std::isfinite(v));
        for (float v : d.mask_real) ASSERT_TRUE(v >= 0 && v <= 1);
      }
    }
  }
}

// Cannot come from int16 input, but from a caller of this module alone. A sample that is no sound
// counts as silence: what follows is what follows a zero, to the bit.
TEST(AecDenoise, SamplesThatAreNoSoundCountAsSilence) {
  const float inf = std::numeric_limits<float>::infinity();
  const float kNoSound[] = {std::numeric_limits<float>::quiet_NaN(), inf, -inf, 3e38f, -2e6f};
  const Signals signals(12, kSeed);
  std::vector<float> mic = signals.mic, yn = signals.yn;
  for (size_t i = 0; i < std::size(kNoSound); ++i) {
    mic[QUIBO_FRAME + 7 * i] = yn[2 * QUIBO_FRAME + 5 * i] = 0.0f;
  }
  Instance silent;
  const std::vector<int16_t> expected = run_all(silent, mic, yn);
  for (size_t i = 0; i < std::size(kNoSound); ++i) {
    mic[QUIBO_FRAME + 7 * i] = yn[2 * QUIBO_FRAME + 5 * i] = kNoSound[i];
  }
  Instance poisoned;
  EXPECT_EQ(run_all(poisoned, mic, yn), expected);
}

TEST(AecDenoise, NullHandlesGiveMinusOne) {
  float frame[QUIBO_FRAME] = {};
  int16_t out[QUIBO_FRAME] = {3};
  EXPECT_EQ(-1, QuibNAecRun(nullptr, frame, frame, out));
  EXPECT_EQ(3, out[0]);
  EXPECT_EQ(-1, QuibNAecUnit(nullptr));
}

TEST(AecDenoise, UnitLeavesTheNetworkRecordAndTheHandle) {
  const quibo_test::HeldMemory held;
  void* handle;
  testing::internal::CaptureStdout();
  QuibNAecInit(&handle);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            ">QuibNAecInit\n>QuibNAecInit\n>QuibNAecInit\n");
  EXPECT_EQ(held.blocks(), 27);
  EXPECT_EQ(0, QuibNAecUnit(handle));
  EXPECT_EQ(held.blocks(), 2);
  free_aec_denoise(handle);
  EXPECT_EQ(held.blocks(), 0);
}

// Allocation 0 is the handle, 1 the network, 2..25 the layers, 26 the activation store.
TEST(AecDenoise, EveryFailedAllocationEndsTheInitWithItsLines) {
  const std::string line = ">QuibNAecInit\n";
  for (int n = 0; n < 27; ++n) {
    void* handle = &handle;
    int result;
    testing::internal::CaptureStdout();
    const quibo_test::HeldMemory held;
    {
      const quibo_test::FailAllocation fail(n);
      result = QuibNAecInit(&handle);
      EXPECT_EQ(fail.count(), n + 1);
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), n == 0 ? line : line + line);
    EXPECT_EQ(result, n == 0 ? -2 : -3);
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(held.blocks(), n) << "what was created stays allocated";
  }
}

}  // namespace
