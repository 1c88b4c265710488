#include "wakeup/layers.h"

#include <math.h>
#include <string.h>

#include "dsp/kernels.h"
#include "wakeup/quantised.h"

namespace quibo::wakeup {
namespace {

// Scratch, fully rewritten each step. Shared by all engines, on purpose: one step runs at a time.
alignas(64) uint8_t atempbuf[824], btempbuf[824];  // patches, or a layer's inner codes
alignas(64) int32_t itempbuf[3200];                // sums

// Frequency positions and channels after each stage.
constexpr int kFreq1 = 19, kChannels1 = 16;
constexpr int kFreq2 = 8, kChannels2 = 48;
constexpr int kFreq3 = 3, kChannels3 = 64;
constexpr int kFrame1 = kFreq1 * kChannels1, kFrame2 = kFreq2 * kChannels2;
static_assert(sizeof(Q_CONV_LEFT::conv2_left) == kFrame1, "one frame");
static_assert(sizeof(Q_CONV_LEFT::conv3_left) == kFrame2, "one frame");

// Kernel of the strided convolutions.
constexpr int kTime = 2, kBand = 4, kStride = 2, kTaps = kTime * kBand;

void requantise(const LAYER_CONV_1D_INT8* layer, int count, int32_t zero_point, uint8_t* codes) {
  layer_normalize(itempbuf, count, layer->M0, layer->M1, zero_point, codes);
}

// Each channel's window of kTime frames by kBand positions: in [frames][freq][channels] from the
// window's first position on, patch [channels][kTaps].
void get_conv_data_int8(const uint8_t* in, int freq, int channels, uint8_t* patch) {
  for (int tap = 0; tap < kTaps; ++tap) {
    const uint8_t* position = in + (tap / kBand * freq + tap % kBand) * channels;
    for (int c = 0; c < channels; ++c) patch[c * kTaps + tap] = position[c];
  }
}

// Per-channel convolution over a block: in [4][freq][channels] -> out [3][out_freq][channels].
void per_channel_conv(const LAYER_CONV_1D_INT8* layer, const uint8_t* in, int freq, int out_freq,
                      int channels, uint8_t* out) {
  int32_t* sums = itempbuf;
  for (int t = 0; t < KWS_FRAMES; ++t) {
    for (int f = 0; f < out_freq; ++f) {
      get_conv_data_int8(in + (t * freq + f * kStride) * channels, freq, channels, btempbuf);
      m2_vec_mul_mat_int8(btempbuf, layer->weight_fix, layer->bias_fix, channels, kTaps, sums);
      sums += channels;
    }
  }
  requantise(layer, KWS_FRAMES * out_freq * channels, layer->in_zero_point, out);
}

void dense(const LAYER_CONV_1D_INT8* layer, const uint8_t* in, int positions, int depth, int rows,
           uint8_t* out) {
  m1_mat_mul_mat_int8(in, positions, layer->weight_fix, layer->bias_fix, rows, depth, itempbuf);
  requantise(layer, positions * rows, layer->in_zero_point, out);
}

float sum_of(const float* x) {
  float lanes[4] = {};
  for (int i = 0; i < KWS_WIDTH; i += 4) {
    for (int j = 0; j < 4; ++j) lanes[j] += x[i + j];
  }
  return (lanes[0] + lanes[2]) + (lanes[1] + lanes[3]);
}

bool all_equal(const uint8_t* codes) {
  return memcmp(codes, codes + 1, KWS_WIDTH - 1) == 0;
}

// Layer normalisation of 256 codes. No epsilon stands beside the variance: the tables are trained
// without. A vector without variance, whose rounded mean could leave a residue to be blown up,
// gives ln_bias alone.
void normalise(const LAYER_DFSMN_CONV_INT8* layer, const uint8_t* in, uint8_t* out) {
  constexpr float kPerValue = 1.0f / static_cast<float>(KWS_WIDTH);
  float x[KWS_WIDTH], squares[KWS_WIDTH];
  for (int i = 0; i < KWS_WIDTH; ++i) {
    x[i] = dequantise(in[i], layer->qout_zero_point, layer->qout_scale);
  }
  const float mean = sum_of(x) * kPerValue;
  for (int i = 0; i < KWS_WIDTH; ++i) {
    x[i] -= mean;
    squares[i] = x[i] * x[i];
  }
  const float variance = sum_of(squares) * kPerValue;
  const float inverse = variance > 0.0f && !all_equal(in) ? 1.0f / sqrtf(variance) : 0.0f;
  const float to_code = 1.0f / (layer->ln_scale + 1e-7f);
  const float zero = static_cast<float>(layer->ln_zero_point);
  for (int i = 0; i < KWS_WIDTH; ++i) {
    const float y = x[i] * inverse * layer->ln_weight[i] + layer->ln_bias[i];
    out[i] = clamp_round(y * to_code + zero);
  }
}

}  // namespace

void m1_conv_forward_int8(EWordNet* net) {
  LAYER_DATA* data = net->dlayer;
  const LAYER_CONV_1D_INT8* layer = net->m1_conv1;
  uint8_t* patch = atempbuf;
  for (int t = 0; t < KWS_FRAMES; ++t) {
    for (int f = 0; f < kFreq1; ++f) {
      const uint8_t* window = data->out2 + t * KWS_BANDS + f * kStride;
      memcpy(patch, window, kBand);
      memcpy(patch + kBand, window + KWS_BANDS, kBand);
      patch += kTaps;
    }
  }
  constexpr int kPositions = KWS_FRAMES * kFreq1;
  m1_mat_mul_mat_int8(atempbuf, kPositions, layer->weight_fix, layer->bias_fix, kChannels1, kTaps,
                      itempbuf);
  memcpy(data->out1, data->qleft.conv2_left, kFrame1);
  requantise(layer, kPositions * kChannels1, layer->qo_zero_point, data->out1 + kFrame1);
}

void m2_conv_forward_int8(EWordNet* net) {
  LAYER_DATA* data = net->dlayer;
  per_channel_conv(net->m2_conv1, data->out1, kFreq1, kFreq2, kChannels1, data->out2);
  memcpy(data->qleft.conv2_left, data->out1 + KWS_FRAMES * kFrame1, kFrame1);
  memcpy(data->out1, data->qleft.conv3_left, kFrame2);
  dense(net->m2_conv2, data->out2, KWS_FRAMES * kFreq2, kChannels1, kChannels2,
        data->out1 + kFrame2);
}

void m3_conv_forward_int8(EWordNet* net) {
  LAYER_DATA* data = net->dlayer;
  per_channel_conv(net->m3_conv1, data->out1, kFreq2, kFreq3, kChannels2, data->out2);
  memcpy(data->qleft.conv3_left, data->out1 + KWS_FRAMES * kFrame2, kFrame2);
  dense(net->m3_conv2, data->out2, KWS_FRAMES * kFreq3, kChannels2, kChannels3, data->out1);
}

void m4_conv_forward_int8(EWordNet* net) {
  LAYER_DATA* data = net->dlayer;
  const LAYER_CONV_1D_INT8* layer = net->m4_conv1;
  constexpr int kWindow = KWS_FRAMES * kFreq3;  // taps time-major
  for (int tap = 0; tap < kWindow; ++tap) {
    for (int c = 0; c < kChannels3; ++c) {
      atempbuf[c * kWindow + tap] = data->out1[tap * kChannels3 + c];
    }
  }
  m2_vec_mul_mat_int8(atempbuf, layer->weight_fix, layer->bias_fix, kChannels3, kWindow, itempbuf);
  requantise(layer, kChannels3, layer->in_zero_point, data->out2);
  dense(net->m4_conv2, data->out2, 1, kChannels3, KWS_STATE, data->out1);
}

void gru1_forward_int8(EWordNet* net) {
  LAYER_DATA* data = net->dlayer;
  const LAYER_GRU* layer = net->m_gru1;
  uint8_t* state = data->qleft.hid;
  constexpr int kGates = 3 * KWS_STATE;
  uint8_t *input_r = atempbuf, *input_z = input_r + KWS_STATE, *input_n = input_z + KWS_STATE;
  uint8_t *state_r = btempbuf, *state_z = state_r + KWS_STATE, *state_n = state_z + KWS_STATE;

  const int32_t* sums = itempbuf;
  m1_mat_mul_mat_int8(data->out1, 1, layer->wih_weight, layer->ih_bias, kGates, KWS_STATE,
                      itempbuf);
  gate_normalize(sums, KWS_STATE, layer->Mi1_0, layer->Mi1_1, layer->qoi1.zero_point, input_r);
  sums += KWS_STATE;
  gate_normalize(sums, KWS_STATE, layer->Mi2_0, layer->Mi2_1, layer->qoi2.zero_point, input_z);
  sums += KWS_STATE;
  gate_normalize(sums, KWS_STATE, layer->Mi3_0, layer->Mi3_1, layer->qoi3.zero_point, input_n);

  sums = itempbuf;
  m1_mat_mul_mat_int8(state, 1, layer->whh_weight, layer->hh_bias, kGates, KWS_STATE, itempbuf);
  gate_normalize(sums, KWS_STATE, layer->Mh1_0, layer->Mh1_1, layer->qhi1.zero_point, state_r);
  sums += KWS_STATE;
  gate_normalize(sums, KWS_STATE, layer->Mh2_0, layer->Mh2_1, layer->qhi2.zero_point, state_z);
  sums += KWS_STATE;
  gate_normalize(sums, KWS_STATE, layer->Mh3_0, layer->Mh3_1, layer->qhi3.zero_point, state_n);

  const auto real = [](uint8_t code, const QPARAM& q) {
    return dequantise(code, q.zero_point, q.scale);
  };
  for (int i = 0; i < KWS_STATE; ++i) {
    const float r = fast_sigmoid(real(input_r[i], layer->qoi1) + real(state_r[i], layer->qhi1));
    const float z = fast_sigmoid(real(input_z[i], layer->qoi2) + real(state_z[i], layer->qhi2));
    const float n = fast_tanh(real(input_n[i], layer->qoi3) + r * real(state_n[i], layer->qhi3));
    const float h = (1.0f - z) * n + z * real(state[i], layer->qo);
    state[i] = clamp_round(h / layer->qo.scale + static_cast<float>(layer->qo.zero_point));
  }
  memcpy(data->out1, state, KWS_STATE);
}

void dfsmn_forward_int8(const LAYER_DFSMN_CONV_INT8* layer, const uint8_t* in, int width,
                        uint8_t* memory, uint8_t* out) {
  uint8_t *current = atempbuf, *remembered = btempbuf;
  m1_mat_mul_mat_int8(in, 1, layer->weight_in, layer->bias_in, KWS_CHANNELS, width, itempbuf);
  layer_normalize(itempbuf, KWS_CHANNELS, layer->in_conv_M0, layer->in_conv_M1,
                  layer->in_zero_point, current);

  m2_vec_mul_mat_int8(memory, layer->weight_left, layer->bias_left, KWS_CHANNELS, KWS_MEMORY,
                      itempbuf);
  layer_normalize(itempbuf, KWS_CHANNELS, layer->left_conv_M0, layer->left_conv_M1,
                  layer->left_zero_point, remembered);
  // Every channel drops its oldest step: all bytes move down by one, and what comes over from the
  // next channel is the place of the newest.
  memmove(memory, memory + 1, KWS_CHANNELS * KWS_MEMORY - 1);
  for (int c = 0; c < KWS_CHANNELS; ++c) memory[(c + 1) * KWS_MEMORY - 1] = current[c];

  kernels().int8.add_rescaled(current, layer->add_qi1_zero_point, remembered,
                              layer->add_qi2_zero_point,
                              multiplier(layer->add_M2_0, layer->add_M2_1), KWS_CHANNELS, itempbuf);
  layer_normalize(itempbuf, KWS_CHANNELS, layer->add_M1_0, layer->add_M1_1,
                  layer->add_qo_zero_point, current);

  uint8_t* before_norm = btempbuf;
  m1_mat_mul_mat_int8(current, 1, layer->weight_out, layer->bias_out, KWS_WIDTH, KWS_CHANNELS,
                      itempbuf);
  layer_normalize(itempbuf, KWS_WIDTH, layer->out_conv_M0, layer->out_conv_M1,
                  layer->out_conv_qo_zero, before_norm);
  normalise(layer, before_norm, out);
}

void fc_conv_forward_int8(EWordNet* net) {
  dense(net->fc_conv, net->dlayer->out1, 1, KWS_WIDTH, KWS_CLASSES, net->dlayer->out2);
}

void network_forward_int8(EWordNet* net) {
  m1_conv_forward_int8(net);
  m2_conv_forward_int8(net);
  m3_conv_forward_int8(net);
  m4_conv_forward_int8(net);
  gru1_forward_int8(net);
  LAYER_DATA* data = net->dlayer;
  dfsmn_forward_int8(net->dfsmn1_conv, data->out1, KWS_STATE, data->qleft.qleft1, data->out2);
  dfsmn_forward_int8(net->dfsmn2_conv, data->out2, KWS_WIDTH, data->qleft.qleft2, data->out1);
  dfsmn_forward_int8(net->dfsmn3_conv, data->out1, KWS_WIDTH, data->qleft.qleft3, data->out2);
  dfsmn_forward_int8(net->dfsmn4_conv, data->out2, KWS_WIDTH, data->qleft.qleft4, data->out1);
  fc_conv_forward_int8(net);
}

}  // namespace quibo::wakeup
