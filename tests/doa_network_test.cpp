// The direction network against a double-precision one that sees the whole recording at once, and
// what becomes of values that are not numbers.

#include "doa/doa_network.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "doa/doa_decision.h"
#include "support/variants.h"

namespace {

using quibo_test::for_each_variant;
using Vector = std::vector<double>;

constexpr unsigned kSeed = 20251103;

struct Net : DoaNet {
  Net() { EXPECT_EQ(init_doa_net(this), 0); }
  ~Net() { destroy_doa_net(this); }
  Net(const Net&) = delete;
  Net& operator=(const Net&) = delete;
};

// Values like those of speech: correlations within 1, log energies up to 20.
std::vector<float> random_features(std::mt19937& random) {
  std::normal_distribution<float> correlation(0.0f, 0.2f), energy(5.0f, 6.0f);
  std::vector<float> x;
  for (int i = 0; i < 480; ++i) x.push_back(i < 360 ? correlation(random) : energy(random));
  return x;
}

// ---- Reference: maps of a whole recording, [channel][frame][position] ---------------------------

struct Map {
  int channels, frames, positions;
  Vector v;
  Map(int c, int f, int p) : channels(c), frames(f), positions(p), v(c * f * p) {}
  double& at(int c, int f, int p) { return v[(c * frames + f) * positions + p]; }
};

// Convolution over (frame, position) with `past` zero frames in front; `groups` 1 or all channels.
Map convolve(Map& x, const float* weight, const float* bias, int outputs, int kt, int kf,
             int stride_t, int stride_f, int past, bool depthwise) {
  Map y(outputs, (x.frames + past - kt) / stride_t + 1, (x.positions - kf) / stride_f + 1);
  for (int o = 0; o < outputs; ++o) {
    for (int f = 0; f < y.frames; ++f) {
      for (int p = 0; p < y.positions; ++p) {
        double sum = bias ? bias[o] : 0.0;
        const int inputs = depthwise ? 1 : x.channels;
        for (int c = 0; c < inputs; ++c) {
          for (int i = 0; i < kt; ++i) {
            const int frame = f * stride_t + i - past;
            if (frame < 0) continue;
            for (int j = 0; j < kf; ++j) {
              sum += weight[((o * inputs + c) * kt + i) * kf + j] *
                     x.at(depthwise ? o : c, frame, p * stride_f + j);
            }
          }
        }
        y.at(o, f, p) = bias ? std::max(sum, 0.0) : sum;
      }
    }
  }
  return y;
}

Map separable(Map& x, const LAYER_CONV_1D_DOA& layer, int outputs, int kt, int kf, int stride_t,
              int past) {
  Map y = convolve(x, layer.weight1, nullptr, x.channels, kt, kf, stride_t, 2, past, true);
  return convolve(y, layer.weight2, layer.bias, outputs, 1, 1, 1, 1, 0, false);
}

Vector affine(const float* weight, const float* bias, int rows, const Vector& x) {
  Vector y(rows);
  for (int r = 0; r < rows; ++r) {
    y[r] = bias ? bias[r] : 0.0;
    for (size_t j = 0; j < x.size(); ++j) y[r] += weight[r * x.size() + j] * x[j];
  }
  return y;
}

double sigmoid(double x) {
  return 1 / (1 + std::exp(-x));
}

Vector gru(const LAYER_GRU_DOA& layer, const Vector& x, const Vector& h) {
  const Vector gi = affine(layer.wih_weight, layer.ih_bias, 192, x);
  const Vector gh = affine(layer.whh_weight, layer.hh_bias, 192, h);
  Vector next(64);
  for (int j = 0; j < 64; ++j) {
    const double r = sigmoid(gi[j] + gh[j]), z = sigmoid(gi[64 + j] + gh[64 + j]);
    next[j] = (1 - z) * std::tanh(gi[128 + j] + r * gh[128 + j]) + z * h[j];
  }
  return next;
}

// past: the projections of all blocks before this one, which gets this block's too.
Vector dfsmn(const LAYER_DFSMN_CONV_DOA& layer, const Vector& x, std::vector<Vector>& past) {
  Vector p = affine(layer.weight_in, nullptr, 108, x);
  past.push_back(p);
  const int t = static_cast<int>(past.size()) - 1;
  for (int j = 0; j < 108; ++j) {
    for (int k = 0; k < 6; ++k) {
      if (t - 6 + k >= 0) p[j] += layer.weight_left[6 * j + k] * past[t - 6 + k][j];
    }
  }
  Vector o = affine(layer.weight_out, layer.out_bias, 164, p);
  double mean = 0, variance = 0;
  for (double& v : o) mean += (v = std::max(v, 0.0)) / 164;
  for (double v : o) variance += (v - mean) * (v - mean) / 164;
  for (int i = 0; i < 164; ++i) {
    o[i] = (o[i] - mean) / std::sqrt(variance) * layer.ln_weight[i] + layer.ln_bias[i];
  }
  return o;
}

#define CONVOLUTION(i) \
  { ring_conv##i##_1_weight, ring_conv##i##_2_weight, ring_conv##i##_2_bias }
#define DFSMN(i)                                                                           \
  {                                                                                        \
    nullptr, nullptr, nullptr, nullptr, ring_d##i##_conv_in, ring_d##i##_conv_left,        \
        ring_d##i##_conv_out, ring_d##i##_out_bias, ring_ln##i##_weight, ring_ln##i##_bias \
  }

std::vector<Vector> reference(const std::vector<std::vector<float>>& blocks) {
  const LAYER_CONV_1D_DOA separables[] = {CONVOLUTION(2), CONVOLUTION(3), CONVOLUTION(4)};
  const LAYER_DFSMN_CONV_DOA layers[] = {DFSMN(1), DFSMN(2), DFSMN(3), DFSMN(4)};
  const LAYER_GRU_DOA gru_layer = {ring_gru_weight_ih_l0, ring_gru_weight_hh_l0,
                                   ring_gru_bias_ih_l0, ring_gru_bias_hh_l0};
  const int frames = 3 * static_cast<int>(blocks.size());
  Map x(4, frames, 40);
  for (int c = 0; c < 4; ++c) {
    for (int f = 0; f < frames; ++f) {
      for (int p = 0; p < 40; ++p) x.at(c, f, p) = blocks[f / 3][120 * c + 40 * (f % 3) + p];
    }
  }
  Map y = convolve(x, ring_conv1_weight, ring_conv1_bias, 16, 2, 4, 1, 2, 1, false);
  y = separable(y, separables[0], 28, 2, 4, 1, 1);
  y = separable(y, separables[1], 36, 2, 4, 1, 1);
  y = separable(y, separables[2], 64, 3, 3, 3, 0);
  std::vector<Vector> past[4], result;
  Vector h(64);
  for (int t = 0; t < y.frames; ++t) {
    Vector in(64);
    for (int c = 0; c < 64; ++c) in[c] = y.at(c, t, 0);
    h = gru(gru_layer, in, h);
    Vector v = h;
    for (int i = 0; i < 4; ++i) v = dfsmn(layers[i], v, past[i]);
    v = affine(ring_fc_weight, ring_fc_bias, 2, v);
    result.push_back({std::tanh(v[0]), std::tanh(v[1])});
  }
  return result;
}

TEST(DoaNetwork, FollowsTheReferenceOverARecording) {
  constexpr double kBar = 1e-4;
  constexpr int kBlocks = 60;
  std::mt19937 random(kSeed);
  std::vector<std::vector<float>> blocks;
  for (int t = 0; t < kBlocks; ++t) blocks.push_back(random_features(random));
  Net net;
  const std::vector<Vector> expected = reference(blocks);
  double spread = 0;
  for (int t = 0; t < kBlocks; ++t) {
    std::copy(blocks[t].begin(), blocks[t].end(), net.dlayer->out1);
    doa_forward_layers(&net);
    for (int c = 0; c < 2; ++c) {
      ASSERT_NEAR(net.dlayer->xy[c], expected[t][c], kBar)
          << "block " << t << ", component " << c << ", seed " << kSeed;
      spread = std::max(spread, std::fabs(expected[t][c] - expected[0][c]));
    }
  }
  EXPECT_GT(spread, 0.01);  // the features reach the output
}

TEST(DoaNetwork, DepthwiseTapsAreSummedInFourLanesAndTheNinthLast) {
  std::mt19937 random(kSeed);
  std::normal_distribution<float> normal;
  for (const auto& [channels, taps] : {std::pair{16, 8}, {28, 8}, {36, 9}}) {
    std::vector<float> x(taps * channels), w(x.size()), out(channels);
    std::vector<const float*> inputs;
    for (float& v : x) v = normal(random);
    for (float& v : w) v = normal(random);
    for (int k = 0; k < taps; ++k) inputs.push_back(&x[k * channels]);
    for_each_variant([&, channels = channels, taps = taps](const std::string& variant) {
      quibo::kernels().doa.depthwise(inputs.data(), w.data(), taps, channels, out.data());
      for (int c = 0; c < channels; ++c) {
        float lanes[4] = {};
        auto product = [&](int k) { return x[k * channels + c] * w[k * channels + c]; };
        for (int k = 0; k < 8; ++k) lanes[k % 4] += product(k);
        float expected = (lanes[0] + lanes[2]) + (lanes[1] + lanes[3]);
        if (taps == 9) expected += product(8);
        ASSERT_EQ(out[c], expected) << variant << ", channel " << c << " of " << channels;
      }
    });
  }
}

TEST(DoaNetwork, EveryVariantGivesTheScalarBitsInAllItsState) {
  constexpr int kBlocks = 300, kBlock = 480;
  std::mt19937 random(kSeed);
  std::vector<int16_t> mics[3];
  for (int n = 0; n < kBlocks * kBlock; ++n) {
    // Speech-like swells, a second of silence, a second of full-scale square waves.
    const int second = n / 16000;
    const float level = second == 3 ? 0.0f : 4000.0f * (1.1f + std::sin(n / 3000.0f));
    std::normal_distribution<float> normal(0.0f, level);
    const float common = normal(random);
    for (int m = 0; m < 3; ++m) {
      const int square = (n + m) / 8 % 2 ? INT16_MAX : INT16_MIN;
      const float own = common + 0.3f * normal(random);
      mics[m].push_back(static_cast<int16_t>(second == 5 ? square : static_cast<int>(own)));
    }
  }
  std::vector<std::vector<char>> scalar;
  for_each_variant([&](const std::string& variant) {
    Net net;
    for (int t = 0; t < kBlocks; ++t) {
      const int at = t * kBlock;
      proc_one_frame(&net, &mics[0][at], &mics[1][at], &mics[2][at], t % 100 == 99);
      ASSERT_TRUE(std::isfinite(net.dlayer->xy[0]) && std::isfinite(net.dlayer->xy[1]));
      const char* bytes = reinterpret_cast<const char*>(net.dlayer);
      const std::vector<char> state(bytes, bytes + sizeof *net.dlayer);
      if (variant == "scalar") {
        scalar.push_back(state);
      } else {
        ASSERT_EQ(0, std::memcmp(state.data(), scalar[t].data(), state.size()))
            << variant << ", block " << t << ", seed " << kSeed;
      }
    }
  });
}

TEST(DoaNetwork, AConstantLayerIsNotANumberForAtMostNineteenBlocksAndNeverQualifies) {
  Net net;
  std::mt19937 random(kSeed);
  auto step = [&] {
    const std::vector<float> features = random_features(random);
    std::copy(features.begin(), features.end(), net.dlayer->out1);
    doa_forward_layers(&net);
    const float x = net.dlayer->xy[0], y = net.dlayer->xy[1];
    add_to_doa_win_buff(net.dlayer, x, y, change_xy_to_angle(x, y));
    return std::isnan(x) && std::isnan(y);
  };
  EXPECT_FALSE(step());
  const std::vector<float> zeros(164 * 108);
  const LAYER_DFSMN_CONV_DOA alive = *net.dfsmn1_conv;
  net.dfsmn1_conv->weight_out = net.dfsmn1_conv->out_bias = zeros.data();
  EXPECT_TRUE(step());
  *net.dfsmn1_conv = alive;
  int still = 0;
  while (step() && still < 100) ++still;
  EXPECT_EQ(still, 18);  // six blocks in the memory of each later layer
  // The first good block (row 24 of the window) is found behind fourteen bad ones.
  const float* row = net.dlayer->doa_win_buff[24];
  EXPECT_EQ(doa_decision(&net), static_cast<int>(row[3] + 0.5f));
}

}  // namespace
