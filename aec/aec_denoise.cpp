#include "aec/aec_denoise_net.h"

#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace quibo {

#define CONV(kind, n) aec_##kind##_conv##n##_weight, aec_##kind##_conv##n##_bias
#define RECTIFIED(kind, n) \
  { CONV(kind, n), aec_##kind##_prelu##n##_weight }
#define PIXEL(n) \
  { CONV(pixel, n), nullptr }
#define GRU(axis, n)                                                                           \
  {                                                                                            \
    aec_##axis##_gru##n##_weight, aec_##axis##_gru##n##_bias, aec_##axis##_linear##n##_weight, \
        aec_##axis##_linear##n##_bias, nullptr, nullptr                                        \
  }

const AecDenoiseTables kAecDenoiseTables = {
    {aec_sys_real_conv_weight, aec_sys_real_conv_bias, nullptr},
    {aec_sys_imag_conv_weight, aec_sys_imag_conv_bias, nullptr},
    {RECTIFIED(inp, 1), RECTIFIED(inp, 2), RECTIFIED(inp, 3), RECTIFIED(inp, 4)},
    {RECTIFIED(enc, 1), RECTIFIED(enc, 2), RECTIFIED(enc, 3), RECTIFIED(enc, 4)},
    {GRU(time, 1), GRU(time, 2), GRU(time, 3)},
    {GRU(freq, 1), GRU(freq, 2), GRU(freq, 3)},
    {RECTIFIED(dec, 1), RECTIFIED(dec, 2), RECTIFIED(dec, 3), RECTIFIED(dec, 4)},
    {PIXEL(1), PIXEL(2), PIXEL(3), PIXEL(4)}};

#undef CONV
#undef RECTIFIED
#undef PIXEL
#undef GRU

}  // namespace quibo

namespace {

using quibo::allocate;
using quibo::create_conv;

// Recurrent states: 32 positions x 64. Static, so a second instance would disturb the first.
float sh_time_gru1_hidden[2048], sh_time_gru2_hidden[2048], sh_time_gru3_hidden[2048];

bool create_gru(LAYER_GRU_NNAEC** slot, const quibo::GruTables& tables, float* state) {
  return quibo::create_gru<64>(slot, tables, state);
}

}  // namespace

int32_t init_aec_denoise_net(AEC_Denoise_Net* net, const quibo::AecDenoiseTables& tables) {
  memset(sh_time_gru1_hidden, 0, sizeof sh_time_gru1_hidden);
  memset(sh_time_gru2_hidden, 0, sizeof sh_time_gru2_hidden);
  memset(sh_time_gru3_hidden, 0, sizeof sh_time_gru3_hidden);
  const bool layers = create_conv(&net->sys_real_conv, tables.sys_real) &&
                      create_conv(&net->sys_imag_conv, tables.sys_imag) &&
                      create_conv(&net->inp_conv1, tables.input[0]) &&
                      create_conv(&net->inp_conv2, tables.input[1]) &&
                      create_conv(&net->inp_conv3, tables.input[2]) &&
                      create_conv(&net->inp_conv4, tables.input[3]) &&
                      create_conv(&net->enc_conv1, tables.encoder[0]) &&
                      create_conv(&net->enc_conv2, tables.encoder[1]) &&
                      create_conv(&net->enc_conv3, tables.encoder[2]) &&
                      create_conv(&net->enc_conv4, tables.encoder[3]) &&
                      create_gru(&net->f_gru1, tables.frequency[0], nullptr) &&
                      create_gru(&net->f_gru2, tables.frequency[1], nullptr) &&
                      create_gru(&net->f_gru3, tables.frequency[2], nullptr) &&
                      create_gru(&net->t_gru1, tables.time[0], sh_time_gru1_hidden) &&
                      create_gru(&net->t_gru2, tables.time[1], sh_time_gru2_hidden) &&
                      create_gru(&net->t_gru3, tables.time[2], sh_time_gru3_hidden) &&
                      create_conv(&net->dec_conv1, tables.decoder[0]) &&
                      create_conv(&net->dec_conv2, tables.decoder[1]) &&
                      create_conv(&net->dec_conv3, tables.decoder[2]) &&
                      create_conv(&net->dec_conv4, tables.decoder[3]) &&
                      create_conv(&net->sub_pix_conv1, tables.pixel[0]) &&
                      create_conv(&net->sub_pix_conv2, tables.pixel[1]) &&
                      create_conv(&net->sub_pix_conv3, tables.pixel[2]) &&
                      create_conv(&net->sub_pix_conv4, tables.pixel[3]);
  if (!layers) return -3;
  net->dlayer = allocate<LAYER_DATA_NNAEC>();
  return net->dlayer ? 0 : -3;
}

void destroy_aec_denoise_net(AEC_Denoise_Net* net) {
  LAYER_CONV_NNAEC* const first[] = {
      net->sys_real_conv, net->sys_imag_conv, net->inp_conv1, net->inp_conv2, net->inp_conv3,
      net->inp_conv4,     net->enc_conv1,     net->enc_conv2, net->enc_conv3, net->enc_conv4};
  LAYER_GRU_NNAEC* const recurrent[] = {net->t_gru1, net->t_gru2, net->t_gru3,
                                        net->f_gru1, net->f_gru2, net->f_gru3};
  LAYER_CONV_NNAEC* const last[] = {net->dec_conv1,     net->dec_conv2,     net->dec_conv3,
                                    net->dec_conv4,     net->sub_pix_conv1, net->sub_pix_conv2,
                                    net->sub_pix_conv3, net->sub_pix_conv4};
  for (LAYER_CONV_NNAEC* layer : first) free(layer);
  for (LAYER_GRU_NNAEC* layer : recurrent) free(layer);
  for (LAYER_CONV_NNAEC* layer : last) free(layer);
  free(net->dlayer);
}

int32_t QuibNAecInit(void** handle) {
  constexpr char kProgress[] = ">QuibNAecInit\n";
  *handle = nullptr;
  printf(kProgress);
  KTNNAECParams* params = allocate<KTNNAECParams>();
  if (!params) return -2;
  printf(kProgress);
  // From here on a failure leaves what was created allocated, deliberately.
  params->Mynet = allocate<AEC_Denoise_Net>();
  if (!params->Mynet) return -3;
  if (init_aec_denoise_net(params->Mynet, quibo::kAecDenoiseTables) != 0) return -3;
  printf(kProgress);
  *handle = params;
  return 0;
}

namespace {

// Far above any sound and far below what the layers' sums overflow from.
constexpr float kLoudest = 1e6f;

// The frame, or a copy in which what is no sound (not a number, infinite, absurd) is silence: the
// recurrent states would keep it for good.
const float* healthy(const float* frame, float* copy) {
  bool ill = false;
  for (int n = 0; n < QUIBO_FRAME; ++n) ill |= !(fabsf(frame[n]) <= kLoudest);
  if (!ill) return frame;
  for (int n = 0; n < QUIBO_FRAME; ++n) copy[n] = fabsf(frame[n]) <= kLoudest ? frame[n] : 0.0f;
  return copy;
}

// Scratch, not on the stack of a small device.
float healthy_mic[QUIBO_FRAME], healthy_yn[QUIBO_FRAME];

}  // namespace

int32_t QuibNAecRun(void* handle, const float* mic, const float* yn, int16_t* out) {
  if (!handle) return -1;
  mic = healthy(mic, healthy_mic);
  yn = healthy(yn, healthy_yn);
  nn_aec_denoise_forward_frame(static_cast<KTNNAECParams*>(handle)->Mynet, mic, yn, out);
  return 0;
}

int32_t QuibNAecUnit(void* handle) {
  if (!handle) return -1;
  // Neither the network's record nor the handle is released: their memory outlives the call.
  destroy_aec_denoise_net(static_cast<KTNNAECParams*>(handle)->Mynet);
  return 0;
}

void free_aec_denoise(void* handle) {
  if (!handle) return;
  free(static_cast<KTNNAECParams*>(handle)->Mynet);
  free(handle);
}
