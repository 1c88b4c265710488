#include "doa/doa_network.h"

#include <math.h>

#include "doa/doa_features.h"
#include "dsp/kernels.h"
#include "dsp/memory.h"

// Maps are stored [frame][position][channel], so that a position's channels are one vector for the
// pointwise matrix. A map that a later layer looks back on starts with the frame stored from the
// previous block.

namespace {

using quibo::copy;

constexpr int kFrames = DOA_FRAMES, kFramesWithLeft = DOA_FRAMES + 1;
constexpr int kValues = DOA_LAGS;

// Kernels of 4 positions, moved by 2.
constexpr int kReach = 4, kStride = 2;
constexpr int positions_after(int positions) {
  return (positions - kReach) / kStride + 1;
}
constexpr int kPositions1 = positions_after(kValues);      // 19
constexpr int kPositions2 = positions_after(kPositions1);  // 8
constexpr int kPositions3 = positions_after(kPositions2);  // 3
constexpr int kChannels1 = 16, kChannels2 = 28, kChannels3 = 36, kChannels4 = DOA_GRU_UNITS;
constexpr int kMaxChannels = kChannels4;

constexpr int kUnits = DOA_DFSMN_UNITS, kMemory = DOA_DFSMN_MEMORY, kTaps = DOA_DFSMN_TAPS;

static_assert(sizeof(Q_DOA_LEFT::conv2_left) == kPositions1 * kChannels1 * sizeof(float) &&
                  sizeof(Q_DOA_LEFT::conv3_left) == kPositions2 * kChannels2 * sizeof(float),
              "one frame of the map each");
static_assert(kFramesWithLeft * kPositions1 * kChannels1 <= DOA_LAYER_OUT - 2,
              "the largest map leaves the end of its buffer alone");

// Negative becomes 0; a NaN stays one.
float relu(float x) {
  return x < 0.0f ? 0.0f : x;
}

void add_bias_relu(float* x, const float* bias, int count) {
  for (int i = 0; i < count; ++i) x[i] = relu(x[i] + bias[i]);
}

// Puts the stored frame in front of a map's new frames and stores the last of them.
void exchange_left(float* map, float* left, int frame_size) {
  copy(map, left, frame_size);
  copy(left, map + kFrames * frame_size, frame_size);
}

// Input map, [channel][stored frame, 3 new frames][40].
void doa_get_conv1_data(const float* features, float* left, float* map) {
  for (int c = 0; c < DOA_CHANNELS; ++c) {
    float* channel = map + c * kFramesWithLeft * kValues;
    copy(channel + kValues, features + c * kFrames * kValues, kFrames * kValues);
    exchange_left(channel, left + c * kValues, kValues);
  }
}

void doa_get_conv2_data(float* map, float* left) {
  exchange_left(map, left, kPositions1 * kChannels1);
}

void doa_get_conv3_data(float* map, float* left) {
  exchange_left(map, left, kPositions2 * kChannels2);
}

// Layer 1: [4][4][40] to [3][19][16], 2 frames x 4 values of all four channels.
void plain_layer(const LAYER_CONV_1D_DOA& layer, const float* map, float* out) {
  for (int f = 0; f < kFrames; ++f) {
    for (int p = 0; p < kPositions1; ++p, out += kChannels1) {
      float patch[DOA_CHANNELS][2][kReach];
      for (int c = 0; c < DOA_CHANNELS; ++c) {
        const float* earlier = map + (c * kFramesWithLeft + f) * kValues + kStride * p;
        copy(patch[c][0], earlier, kReach);
        copy(patch[c][1], earlier + kValues, kReach);
      }
      quibo::kernels().net.mat_mul_vec_float(out, layer.weight1, &patch[0][0][0], kChannels1,
                                             sizeof patch / sizeof(float));
      add_bias_relu(out, layer.bias, kChannels1);
    }
  }
}

// A depth-wise-separable layer with kernels of `frames` frames x `reach` positions:
// [..][positions_in][channels_in] to [frames_out][positions_out][channels_out].
struct SeparableShape {
  int frames, reach, frames_out, positions_in, positions_out, channels_in, channels_out;
};
constexpr SeparableShape kLayer2 = {2,           kReach,     kFrames,   kPositions1,
                                    kPositions2, kChannels1, kChannels2};
constexpr SeparableShape kLayer3 = {2,           kReach,     kFrames,   kPositions2,
                                    kPositions3, kChannels2, kChannels3};
constexpr SeparableShape kLayer4 = {kFrames, kPositions3, 1,         kPositions3,
                                    1,       kChannels3,  kChannels4};
constexpr int kMaxKernel = 9;

void separable_layer(const SeparableShape& s, const LAYER_CONV_1D_DOA& layer, const float* map,
                     float* out) {
  const int kernel = s.frames * s.reach;
  // Taps outermost, so that neighbouring channels share a register.
  float by_tap[kMaxKernel * kMaxChannels];
  for (int k = 0; k < kernel; ++k) {
    for (int c = 0; c < s.channels_in; ++c) {
      by_tap[k * s.channels_in + c] = layer.weight1[c * kernel + k];
    }
  }
  for (int f = 0; f < s.frames_out; ++f) {
    for (int p = 0; p < s.positions_out; ++p, out += s.channels_out) {
      const float* inputs[kMaxKernel];
      for (int k = 0; k < kernel; ++k) {
        const int position = (f + k / s.reach) * s.positions_in + kStride * p + k % s.reach;
        inputs[k] = map + position * s.channels_in;
      }
      float depthwise[kMaxChannels];
      quibo::kernels().doa.depthwise(inputs, by_tap, kernel, s.channels_in, depthwise);
      quibo::kernels().net.mat_mul_vec_float(out, layer.weight2, depthwise, s.channels_out,
                                             s.channels_in);
      add_bias_relu(out, layer.bias, s.channels_out);
    }
  }
}

// The state is the output: h' = (1 - z) n + z h.
void doa_gru_forward(const LAYER_GRU_DOA& layer, const float* x, float* hid) {
  constexpr int kState = DOA_GRU_UNITS, kRows = 3 * kState;
  const quibo::FloatKernels& run = quibo::kernels().net;
  float gi[kRows], gh[kRows];
  run.mat_mul_vec_float(gi, layer.wih_weight, x, kRows, kState);
  run.mat_mul_vec_float(gh, layer.whh_weight, hid, kRows, kState);
  for (int i = 0; i < kRows; ++i) {
    gi[i] += layer.ih_bias[i];
    gh[i] += layer.hh_bias[i];
  }
  float rz[2 * kState], n[kState];
  const float *r = rz, *z = rz + kState, *gi_n = gi + 2 * kState, *gh_n = gh + 2 * kState;
  for (int i = 0; i < 2 * kState; ++i) rz[i] = gi[i] + gh[i];
  run.vec_act_h(rz, rz, 2 * kState, quibo::Activation::kSigmoid);
  for (int j = 0; j < kState; ++j) n[j] = gi_n[j] + r[j] * gh_n[j];
  run.vec_act_h(n, n, kState, quibo::Activation::kTanh);
  for (int j = 0; j < kState; ++j) hid[j] = (1.0f - z[j]) * n[j] + z[j] * hid[j];
}

// Sums run from the first value to the last. No epsilon: where their mean is exact, as of zeros, a
// constant vector divides by zero and the layer's output is not a number.
void layer_norm(float* x, const float* weight, const float* bias) {
  float sum = 0.0f;
  for (int i = 0; i < kUnits; ++i) sum += x[i];
  const float mean = sum / kUnits;
  float squares = 0.0f;
  for (int i = 0; i < kUnits; ++i) squares += (x[i] - mean) * (x[i] - mean);
  const float s = 1.0f / sqrtf(squares / kUnits);
  for (int i = 0; i < kUnits; ++i) x[i] = (x[i] - mean) * s * weight[i] + bias[i];
}

// The memory of past projections (the current one excluded) joins the projection; there is no path
// around the layer.
void doa_dfsmn_forward(const LAYER_DFSMN_CONV_DOA& layer, const float* x, int inputs, float* memory,
                       float* out) {
  float p[kMemory];
  quibo::kernels().net.mat_mul_vec_float(p, layer.weight_in, x, kMemory, inputs);
  for (int j = 0; j < kMemory; ++j) {
    float* past = memory + kTaps * j;
    const float* taps = layer.weight_left + kTaps * j;
    float m = 0.0f;
    for (int k = 0; k < kTaps; ++k) m += taps[k] * past[k];
    for (int k = 0; k + 1 < kTaps; ++k) past[k] = past[k + 1];
    past[kTaps - 1] = p[j];
    p[j] += m;
  }
  quibo::kernels().net.mat_mul_vec_float(out, layer.weight_out, p, kUnits, kMemory);
  add_bias_relu(out, layer.out_bias, kUnits);
  layer_norm(out, layer.ln_weight, layer.ln_bias);
}

}  // namespace

int32_t doa_model_forward(DoaNet* net, const int16_t* mic1, const int16_t* mic2,
                          const int16_t* mic3) {
  doa_add_samples(net->dlayer, mic1, mic2, mic3);
  doa_fbank_gcc_phat_feature(net->dlayer);
  doa_forward_layers(net);
  return 0;
}

void doa_forward_layers(DoaNet* net) {
  LAYER_DATA_DOA* d = net->dlayer;
  Q_DOA_LEFT& left = d->qleft;
  // out1 and out2 in turn. A map that needs its stored frame is written behind the room for it.
  doa_get_conv1_data(d->out1, left.conv1_left, d->out2);
  plain_layer(*net->m1_conv, d->out2, d->out1 + kPositions1 * kChannels1);
  doa_get_conv2_data(d->out1, left.conv2_left);
  separable_layer(kLayer2, *net->m2_conv, d->out1, d->out2 + kPositions2 * kChannels2);
  doa_get_conv3_data(d->out2, left.conv3_left);
  separable_layer(kLayer3, *net->m3_conv, d->out2, d->out1);
  separable_layer(kLayer4, *net->m4_conv, d->out1, d->out2);
  doa_gru_forward(*net->m_gru1, d->out2, left.hid);
  doa_dfsmn_forward(*net->dfsmn1_conv, left.hid, DOA_GRU_UNITS, left.qleft1, d->out1);
  doa_dfsmn_forward(*net->dfsmn2_conv, d->out1, kUnits, left.qleft2, d->out2);
  doa_dfsmn_forward(*net->dfsmn3_conv, d->out2, kUnits, left.qleft3, d->out1);
  doa_dfsmn_forward(*net->dfsmn4_conv, d->out1, kUnits, left.qleft4, d->out2);
  const LAYER_CONV_1D_DOA& fc = *net->fc_conv;
  const quibo::FloatKernels& run = quibo::kernels().net;
  for (int c = 0; c < 2; ++c) {
    d->xy[c] = run.arr_mul_arr_float(fc.weight1 + c * kUnits, d->out2, kUnits) + fc.bias[c];
  }
  run.vec_act_h(d->xy, d->xy, 2, quibo::Activation::kTanh);
}
