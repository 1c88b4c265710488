// The quantised network, layer by layer, against a naive reference written from the arithmetic:
// equal codes on every instruction set, over random tables, random audio and extreme values.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <vector>

#include "dsp/log_mel.h"
#include "support/variants.h"
#include "wakeup/ChineseParams.h"
#include "wakeup/decoder.h"
#include "wakeup/features.h"
#include "wakeup/layers.h"
#include "wakeup/quantised.h"

namespace {

using namespace quibo::wakeup;
using quibo_test::for_each_variant;
using Codes = std::vector<uint8_t>;
using Sums = std::vector<int32_t>;

constexpr unsigned kSeed = 20251103;

// ---- the reference ----

uint8_t clamp_code(double q) {
  return q > 0 ? static_cast<uint8_t>(std::min(q, 255.0)) : 0;  // a NaN gives 0
}

float factor(int32_t M0, int32_t M1) {
  return static_cast<float>(M0) * std::pow(2.0f, static_cast<float>(-M1));
}

Codes requantised(const Sums& sums, int32_t M0, int32_t M1, int32_t zero) {
  Codes codes;
  for (int32_t a : sums) {
    codes.push_back(
        clamp_code(static_cast<double>(std::round(static_cast<float>(a) * factor(M0, M1))) + zero));
  }
  return codes;
}

int32_t wrapped(int64_t x) {
  return static_cast<int32_t>(static_cast<uint32_t>(x));
}

// Any convolution: in [frames][freq][channels]; output channel c sees `inputs` channels, from c on
// if per_channel, through a kernel of kt x kf positions; weight [out][tap][input].
Sums convolve(const Codes& in, int freq, int channels, bool per_channel, int kt, int kf, int stride,
              int out_frames, int out_freq, int outputs, const int8_t* weight,
              const int32_t* bias) {
  const int inputs = per_channel ? 1 : channels;
  Sums sums;
  for (int t = 0; t < out_frames; ++t) {
    for (int f = 0; f < out_freq; ++f) {
      for (int c = 0; c < outputs; ++c) {
        int64_t sum = bias[c];
        for (int i = 0; i < kt; ++i) {
          for (int j = 0; j < kf; ++j) {
            for (int k = 0; k < inputs; ++k) {
              const int channel = per_channel ? c : k;
              sum += in.at(((t + i) * freq + f * stride + j) * channels + channel) *
                     weight[((c * kt + i) * kf + j) * inputs + k];
            }
          }
        }
        sums.push_back(wrapped(sum));
      }
    }
  }
  return sums;
}

Sums dense(const Codes& in, int rows, const int8_t* weight, const int32_t* bias) {
  const int depth = static_cast<int>(in.size());
  return convolve(in, 1, depth, false, 1, 1, 1, 1, 1, rows, weight, bias);
}

Codes joined(const Codes& a, const Codes& b) {
  Codes both(a);
  both.insert(both.end(), b.begin(), b.end());
  return both;
}

Codes last(const Codes& codes, size_t count) {
  return Codes(codes.end() - static_cast<std::ptrdiff_t>(count), codes.end());
}

float real(uint8_t code, const QPARAM& q) {
  return static_cast<float>(code - q.zero_point) * q.scale;
}

float sigmoid(float x) {
  return x > 10 ? 1.0f : x < -10 ? 0.0f : 1.0f / (1.0f + std::exp(-x));
}

float tanh_of(float x) {
  const float e = std::exp(2 * x);
  return x > 8 ? 1.0f : x < -8 ? -1.0f : (e - 1) / (e + 1);
}

Codes normalised(const LAYER_DFSMN_CONV_INT8& l, const Codes& in) {
  const QPARAM q = {l.qout_zero_point, l.qout_scale};
  // Sums run in four interleaved lanes, which are added (0 + 2) + (1 + 3).
  const auto mean_of = [&](const std::function<float(uint8_t)>& value) {
    float lane[4] = {};
    for (size_t i = 0; i < in.size(); ++i) lane[i % 4] += value(in[i]);
    return ((lane[0] + lane[2]) + (lane[1] + lane[3])) * 0.00390625f;
  };
  const float mean = mean_of([&](uint8_t c) { return real(c, q); });
  const float variance =
      mean_of([&](uint8_t c) { return (real(c, q) - mean) * (real(c, q) - mean); });
  const bool flat = std::count(in.begin(), in.end(), in[0]) == 256 || !(variance > 0);
  const float inverse = 1.0f / std::sqrt(variance);
  Codes out;
  for (size_t i = 0; i < in.size(); ++i) {
    const float y =
        flat ? l.ln_bias[i] : (real(in[i], q) - mean) * inverse * l.ln_weight[i] + l.ln_bias[i];
    const float scaled = y * (1.0f / (l.ln_scale + 1e-7f)) + static_cast<float>(l.ln_zero_point);
    out.push_back(clamp_code(std::round(scaled)));
  }
  return out;
}

// The whole network with its own copy of the streaming state.
struct Reference {
  Codes conv1_left = Codes(40), conv2_left = Codes(304), conv3_left = Codes(384), hid = Codes(128);
  Codes memory[4] = {Codes(1312), Codes(1312), Codes(1312), Codes(1312)};

  Codes m1(const EWordNet& net, const Codes& frames) {
    const auto& l = *net.m1_conv1;
    return requantised(convolve(frames, 40, 1, false, 2, 4, 2, 3, 19, 16, l.weight_fix, l.bias_fix),
                       l.M0, l.M1, l.qo_zero_point);
  }

  static Codes separable(const LAYER_CONV_1D_INT8& depthwise, const LAYER_CONV_1D_INT8& pointwise,
                         const Codes& in, int freq, int channels, int kt, int kf, int stride,
                         int frames, int out_freq, int outputs) {
    const Codes inner =
        requantised(convolve(in, freq, channels, true, kt, kf, stride, frames, out_freq, channels,
                             depthwise.weight_fix, depthwise.bias_fix),
                    depthwise.M0, depthwise.M1, depthwise.in_zero_point);
    return requantised(convolve(inner, out_freq, channels, false, 1, 1, 1, frames, out_freq,
                                outputs, pointwise.weight_fix, pointwise.bias_fix),
                       pointwise.M0, pointwise.M1, pointwise.in_zero_point);
  }

  Codes m2(const EWordNet& net, const Codes& in) {
    const Codes out =
        separable(*net.m2_conv1, *net.m2_conv2, joined(conv2_left, in), 19, 16, 2, 4, 2, 3, 8, 48);
    conv2_left = last(in, 304);
    return out;
  }

  Codes m3(const EWordNet& net, const Codes& in) {
    const Codes out =
        separable(*net.m3_conv1, *net.m3_conv2, joined(conv3_left, in), 8, 48, 2, 4, 2, 3, 3, 64);
    conv3_left = last(in, 384);
    return out;
  }

  Codes m4(const EWordNet& net, const Codes& in) {
    return separable(*net.m4_conv1, *net.m4_conv2, in, 3, 64, 3, 3, 1, 1, 1, 128);
  }

  Codes gru(const EWordNet& net, const Codes& in) {
    const auto& l = *net.m_gru1;
    const Sums from_input = dense(in, 384, l.wih_weight, l.ih_bias);
    const Sums from_state = dense(hid, 384, l.whh_weight, l.hh_bias);
    const auto gate = [](int32_t a, int32_t M0, int32_t M1, const QPARAM& q) {
      const float x = static_cast<float>(a) * factor(M0, M1) + static_cast<float>(q.zero_point);
      return real(clamp_code(std::round(x)), q);
    };
    for (int i = 0; i < 128; ++i) {
      const float r = sigmoid(gate(from_input[i], l.Mi1_0, l.Mi1_1, l.qoi1) +
                              gate(from_state[i], l.Mh1_0, l.Mh1_1, l.qhi1));
      const float z = sigmoid(gate(from_input[128 + i], l.Mi2_0, l.Mi2_1, l.qoi2) +
                              gate(from_state[128 + i], l.Mh2_0, l.Mh2_1, l.qhi2));
      const float n = tanh_of(gate(from_input[256 + i], l.Mi3_0, l.Mi3_1, l.qoi3) +
                              r * gate(from_state[256 + i], l.Mh3_0, l.Mh3_1, l.qhi3));
      const float h = (1 - z) * n + z * real(hid[i], l.qo);
      hid[i] = clamp_code(std::round(h / l.qo.scale + static_cast<float>(l.qo.zero_point)));
    }
    return hid;
  }

  Codes block(const LAYER_DFSMN_CONV_INT8& l, Codes& kept, const Codes& in) {
    const Codes current = requantised(dense(in, 164, l.weight_in, l.bias_in), l.in_conv_M0,
                                      l.in_conv_M1, l.in_zero_point);
    Sums filtered(164), added(164);
    for (int c = 0; c < 164; ++c) {
      int64_t sum = l.bias_left[c];
      for (int k = 0; k < 8; ++k) sum += kept[c * 8 + k] * l.weight_left[c * 8 + k];
      filtered[c] = wrapped(sum);
      kept.erase(kept.begin() + c * 8);
      kept.insert(kept.begin() + c * 8 + 7, current[c]);
    }
    const Codes remembered =
        requantised(filtered, l.left_conv_M0, l.left_conv_M1, l.left_zero_point);
    for (int c = 0; c < 164; ++c) {
      const float x =
          static_cast<float>(remembered[c] - l.add_qi2_zero_point) * factor(l.add_M2_0, l.add_M2_1);
      // Limited to keep the sum within 32 bits; a NaN counts as the lower limit.
      const float limit = 1 << 30, limited = x > -limit ? std::min(x, limit) : -limit;
      added[c] = wrapped(int64_t{current[c]} - l.add_qi1_zero_point +
                         static_cast<int64_t>(std::round(limited)));
    }
    const Codes sum = requantised(added, l.add_M1_0, l.add_M1_1, l.add_qo_zero_point);
    return normalised(l, requantised(dense(sum, 256, l.weight_out, l.bias_out), l.out_conv_M0,
                                     l.out_conv_M1, l.out_conv_qo_zero));
  }

  Codes fc(const EWordNet& net, const Codes& in) {
    const auto& l = *net.fc_conv;
    return requantised(dense(in, 146, l.weight_fix, l.bias_fix), l.M0, l.M1, l.in_zero_point);
  }
};

// ---- engines with tables of the test's own ----

enum class Values { kUsual, kExtreme };

class Engine {
 public:
  Engine(unsigned seed, Values values) : random_(seed), values_(values) {
    EXPECT_EQ(0, init_eword_net(&net, kCompiledTables));
    for (auto* l : {net.m1_conv1, net.m2_conv1, net.m2_conv2, net.m3_conv1, net.m3_conv2,
                    net.m4_conv1, net.m4_conv2, net.fc_conv}) {
      l->weight_fix = weights(146 * 256);
      l->bias_fix = biases();
      scale(&l->M0, &l->M1);
      l->in_zero_point = static_cast<int16_t>(zero(l->in_zero_point));
    }
    LAYER_GRU* g = net.m_gru1;
    g->wih_weight = weights(384 * 128);
    g->whh_weight = weights(384 * 128);
    g->ih_bias = biases();
    g->hh_bias = biases();
    scale(&g->Mi1_0, &g->Mi1_1);
    scale(&g->Mh3_0, &g->Mh3_1);
    for (QPARAM* q : {&g->qo, &g->qoi1, &g->qoi3, &g->qhi2}) q->zero_point = zero(q->zero_point);
    for (auto* l : {net.dfsmn1_conv, net.dfsmn2_conv, net.dfsmn3_conv, net.dfsmn4_conv}) {
      l->weight_in = weights(164 * 256);
      l->weight_left = weights(164 * 8);
      l->weight_out = weights(256 * 164);
      l->bias_in = biases();
      l->bias_left = biases();
      l->bias_out = biases();
      scale(&l->in_conv_M0, &l->in_conv_M1);
      scale(&l->left_conv_M0, &l->left_conv_M1);
      scale(&l->add_M1_0, &l->add_M1_1);
      scale(&l->add_M2_0, &l->add_M2_1);
      scale(&l->out_conv_M0, &l->out_conv_M1);
      for (int32_t* z :
           {&l->in_zero_point, &l->left_zero_point, &l->add_qi1_zero_point, &l->add_qi2_zero_point,
            &l->add_qo_zero_point, &l->out_conv_qo_zero, &l->qout_zero_point, &l->ln_zero_point}) {
        *z = zero(*z);
      }
    }
  }
  ~Engine() { destroy_eword_net(&net); }

  int draw(int low, int high) { return std::uniform_int_distribution<>(low, high)(random_); }

  std::vector<int16_t> block() {
    std::vector<int16_t> x(480);
    const int level = 1 << draw(0, 15);
    for (auto& v : x) v = static_cast<int16_t>(draw(-level, level - 1));
    return x;
  }

  EWordNet net{};

 private:
  bool usual() { return values_ == Values::kUsual; }

  const int8_t* weights(int count) {
    auto table = std::make_unique<std::vector<int8_t>>(count);
    for (auto& w : *table) {
      w = static_cast<int8_t>(usual() ? draw(-128, 127) : draw(0, 1) ? 127 : -128);
    }
    bytes_.push_back(std::move(table));
    return bytes_.back()->data();
  }

  const int32_t* biases() {
    auto table = std::make_unique<Sums>(384);
    for (auto& b : *table) b = usual() ? draw(-200000, 200000) : draw(INT32_MIN, INT32_MAX);
    words_.push_back(std::move(table));
    return words_.back()->data();
  }

  // Usual: the table's own multiplier, moved by up to a factor of four.
  void scale(int32_t* M0, int32_t* M1) {
    if (usual()) {
      *M0 =
          draw(0, 2) ? draw(1 << 23, (1 << 24) - 1) : 1 << 23;  // a power of two gives exact halves
      *M1 += draw(-1, 1);
    } else {
      *M0 = draw(-1, 1) * draw(0, (1 << 24) - 1);
      *M1 = draw(0, 9) == 0 ? -140 : draw(-10, 60);  // -140: an infinite factor, 0 times it a NaN
    }
  }

  int32_t zero(int32_t present) { return usual() ? present + draw(-30, 30) : draw(-600, 600); }

  std::mt19937 random_;
  Values values_;
  std::vector<std::unique_ptr<std::vector<int8_t>>> bytes_;
  std::vector<std::unique_ptr<Sums>> words_;
};

// One step, comparing after every layer.
void expect_step_equals(Engine* engine, Reference* reference, const std::string& where) {
  EWordNet* net = &engine->net;
  LAYER_DATA* data = net->dlayer;
  const auto codes = [](const uint8_t* at, size_t count) { return Codes(at, at + count); };
  m1_conv_forward_int8(net);
  const Codes m1 = reference->m1(*net, codes(data->out2, 160));
  ASSERT_EQ(m1, codes(data->out1 + 304, 912)) << "m1, " << where;
  m2_conv_forward_int8(net);
  const Codes m2 = reference->m2(*net, m1);
  ASSERT_EQ(m2, codes(data->out1 + 384, 1152)) << "m2, " << where;
  m3_conv_forward_int8(net);
  const Codes m3 = reference->m3(*net, m2);
  ASSERT_EQ(m3, codes(data->out1, 576)) << "m3, " << where;
  m4_conv_forward_int8(net);
  const Codes m4 = reference->m4(*net, m3);
  ASSERT_EQ(m4, codes(data->out1, 128)) << "m4, " << where;
  gru1_forward_int8(net);
  Codes x = reference->gru(*net, m4);
  ASSERT_EQ(x, codes(data->out1, 128)) << "gru, " << where;
  const LAYER_DFSMN_CONV_INT8* blocks[] = {net->dfsmn1_conv, net->dfsmn2_conv, net->dfsmn3_conv,
                                           net->dfsmn4_conv};
  uint8_t* memories[] = {data->qleft.qleft1, data->qleft.qleft2, data->qleft.qleft3,
                         data->qleft.qleft4};
  for (int b = 0; b < 4; ++b) {
    uint8_t* in = b % 2 ? data->out2 : data->out1;
    uint8_t* out = b % 2 ? data->out1 : data->out2;
    dfsmn_forward_int8(blocks[b], in, b ? 256 : 128, memories[b], out);
    x = reference->block(*blocks[b], reference->memory[b], x);
    ASSERT_EQ(x, codes(out, 256)) << "memory block " << b + 1 << ", " << where;
    ASSERT_EQ(reference->memory[b], codes(memories[b], 1312))
        << "memory " << b + 1 << ", " << where;
  }
  fc_conv_forward_int8(net);
  ASSERT_EQ(reference->fc(*net, x), codes(data->out2, 146)) << "fc, " << where;
  ASSERT_EQ(reference->conv2_left, codes(data->qleft.conv2_left, 304)) << where;
  ASSERT_EQ(reference->conv3_left, codes(data->qleft.conv3_left, 384)) << where;
}

void run_against_reference(Values values, int nets, int steps) {
  for (int i = 0; i < nets; ++i) {
    const unsigned seed = kSeed + static_cast<unsigned>(i);
    for_each_variant([&](const std::string& variant) {
      Engine engine(seed, values);
      Reference reference;
      for (int step = 0; step < steps; ++step) {
        push_samples(engine.net.dlayer, engine.block().data());
        cal_block_feature_int8(engine.net.dlayer);
        convert_input_data(engine.net.dlayer, engine.net.m1_conv1);
        if (values == Values::kExtreme && step % 2) {
          for (int k = 0; k < 160; ++k) engine.net.dlayer->out2[k] = engine.draw(0, 1) ? 255 : 0;
        }
        expect_step_equals(
            &engine, &reference,
            variant + ", seed " + std::to_string(seed) + ", step " + std::to_string(step));
        if (testing::Test::HasFatalFailure()) return;
      }
    });
  }
}

TEST(WakeupNetwork, EqualsTheReferenceToTheBitOnEveryVariant) {
  run_against_reference(Values::kUsual, 6, 10);  // ten steps fill the memories of eight
}

TEST(WakeupNetwork, EqualsTheReferenceOnExtremeTablesAndCodes) {
  run_against_reference(Values::kExtreme, 12, 3);
}

TEST(WakeupArithmetic, RequantisationRoundsHalvesAwayFromZeroThenSaturates) {
  // Sums in steps of 2^-25, so that the product is exact: {product * 2^25, code at zero point 10}.
  const std::vector<std::pair<int32_t, int>> cases = {
      {16777215, 10},  // 0.49999997
      {1 << 24, 11},    {-(1 << 24), 9}, {3 << 24, 12},   {-(3 << 24), 8}, {-(21 << 24), 0},
      {-(24 << 24), 0}, {62 << 25, 72},  {INT32_MAX, 74}, {INT32_MIN, 0},  {0, 10}};
  Sums sums(16);
  for (size_t i = 0; i < cases.size(); ++i) sums[i] = cases[i].first;
  for_each_variant([&](const std::string& variant) {
    Codes codes(16);
    layer_normalize(sums.data(), 16, 1, 25, 10, codes.data());
    for (size_t i = 0; i < cases.size(); ++i) EXPECT_EQ(cases[i].second, codes[i]) << variant << i;
    layer_normalize(sums.data(), 16, 1, 23, 10, codes.data());
    EXPECT_EQ(255, codes[8]) << variant;  // 256 + 10
    // With the zero point first, -0.5 + 10 rounds up to 10.
    gate_normalize(sums.data(), 16, 1, 25, 10, codes.data());
    EXPECT_EQ(10, codes[2]) << variant;
  });
}

// Beyond it, single precision would lose the distance between a zero point and a code.
TEST(WakeupArithmetic, AZeroPointActsWithinTwoToTheTwentyThree) {
  constexpr int32_t kLimit = 1 << 23;
  for_each_variant([&](const std::string& variant) {
    for (int32_t beyond : {0, 1, 100, INT32_MAX - kLimit}) {
      for (int32_t sign : {1, -1}) {
        Sums sums(16);
        for (int32_t i = 0; i < 16; ++i) sums[static_cast<size_t>(i)] = 17 * i - sign * kLimit;
        Codes codes(16);
        layer_normalize(sums.data(), 16, 1, 0, sign * (kLimit + beyond), codes.data());
        for (int i = 0; i < 16; ++i) ASSERT_EQ(17 * i, codes[i]) << variant << beyond << sign;
      }
    }
    Sums sums(16, 7 - (kLimit - 2));  // just inside
    Codes codes(16);
    layer_normalize(sums.data(), 16, 1, 0, kLimit - 2, codes.data());
    EXPECT_EQ(7, codes[0]) << variant;
  });
}

TEST(WakeupArithmetic, ActivationsUseTheFormulaUpToTheirCutOffs) {
  EXPECT_EQ(fast_sigmoid(10.0f), 1.0f / (1.0f + std::exp(-10.0f)));
  EXPECT_EQ(fast_sigmoid(-10.0f), 1.0f / (1.0f + std::exp(10.0f)));
  EXPECT_EQ(fast_sigmoid(10.0001f), 1.0f);
  EXPECT_EQ(fast_sigmoid(-10.0001f), 0.0f);
  EXPECT_NE(fast_tanh(-8.0f), -1.0f);
  EXPECT_EQ(fast_tanh(8.0001f), 1.0f);
  EXPECT_EQ(fast_tanh(-8.0001f), -1.0f);
  EXPECT_EQ(clamp_round(254.5f), 255);
  EXPECT_EQ(clamp_round(255.1f), 255);
  EXPECT_EQ(clamp_round(-0.0001f), 0);
  EXPECT_EQ(clamp_round(0.49999997f), 0);
  EXPECT_EQ(clamp_round(NAN), 0);
  EXPECT_EQ(clamp_round(0.5f), 1);
  EXPECT_EQ(clamp_round(INFINITY), 255);
}

TEST(WakeupNetwork, CodesOfEqualValueLeaveTheNormalisationItsBiasAlone) {
  Engine engine(kSeed, Values::kUsual);
  LAYER_DFSMN_CONV_INT8* layer = engine.net.dfsmn2_conv;
  std::vector<float> bias(256);
  for (int i = 0; i < 256; ++i) bias[i] = 0.01f * static_cast<float>(engine.draw(-200, 200));
  layer->ln_bias = bias.data();
  layer->out_conv_M0 = 0;  // every code is the zero point
  for (float scale : {0.0f, 0.1f, 0.3f, 1e-30f, 1e30f}) {
    layer->qout_scale = scale;
    for (int32_t zero : {0, 77, 255}) {
      layer->out_conv_qo_zero = zero;
      layer->qout_zero_point = 3;
      uint8_t out[256];
      dfsmn_forward_int8(layer, engine.net.dlayer->out1, 256, engine.net.dlayer->qleft.qleft2, out);
      for (int i = 0; i < 256; ++i) {
        const float code = std::round(bias[i] * (1.0f / (layer->ln_scale + 1e-7f)) +
                                      static_cast<float>(layer->ln_zero_point));
        ASSERT_EQ(out[i], clamp_code(code)) << scale << ", " << zero << ", seed " << kSeed;
      }
    }
  }
}

// ---- features and scores around the network ----

TEST(WakeupFeatures, ThreeOverlappingFramesPerBlockFollowTheStreamAndItsQuantiser) {
  Engine engine(kSeed, Values::kUsual);
  LAYER_DATA* data = engine.net.dlayer;
  LAYER_CONV_1D_INT8* first = engine.net.m1_conv1;
  first->scale = 0.07f;
  first->in_zero_point = -20;
  std::vector<float> stream(240);  // before the first block, silence
  Codes previous(40);
  for (int step = 0; step < 5; ++step) {
    const auto block = step == 3 ? std::vector<int16_t>(480) : engine.block();
    stream.insert(stream.end(), block.begin(), block.end());
    push_samples(data, block.data());
    cal_block_feature_int8(data);
    convert_input_data(data, first);
    EXPECT_EQ(previous, Codes(data->out2, data->out2 + 40));
    for (int f = 0; f < 3; ++f) {
      const auto start = stream.begin() + step * 480 + f * 160;
      std::vector<float> frame(start, start + 400), work(quibo::kMelWork), expected(40);
      quibo::log_mel(frame.data(), work.data(), expected.data());
      for (int m = 0; m < 40; ++m) {
        ASSERT_EQ(data->in_feat[40 * f + m], expected[m]) << step << ", " << f << ", " << m;
        const float q = expected[m] / 0.07f + -20.0f;
        ASSERT_EQ(data->out2[40 + 40 * f + m], q < 0     ? 0
                                               : q > 255 ? 255
                                                         : static_cast<int>(q + 0.5))
            << step << ", " << f << ", " << m << ", seed " << kSeed;
      }
    }
    previous.assign(data->out2 + 120, data->out2 + 160);
  }
}

TEST(WakeupScores, PositiveFillerAndBlankScoresAreDampedNegativeOnesAreNot) {
  Engine engine(kSeed, Values::kUsual);
  LAYER_CONV_1D_INT8* fc = engine.net.fc_conv;
  fc->scale = 0.05f;
  fc->qo_zero_point = 100;
  for (int trial = 0; trial < 50; ++trial) {
    double score[146], sum = 0;
    for (int i = 0; i < 146; ++i) {
      engine.net.dlayer->out2[i] = static_cast<uint8_t>(engine.draw(0, 255));
      score[i] = (engine.net.dlayer->out2[i] - 100) * 0.05;
      if (i == 0 && score[i] > 0) score[i] *= 0.9;
      if (i == 145 && score[i] > 0) score[i] *= 0.95;
      sum += std::exp(score[i]);
    }
    post_score_augument(&engine.net);
    for (int i = 0; i < 146; ++i) {
      const double expected = std::exp(score[i]) / sum;
      EXPECT_NEAR(engine.net.dlayer->afreq[i], expected, 4e-6 * expected + 1e-12) << i;
    }
  }
}

}  // namespace
