#include "aec/aec_denoise_net.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "nn/net_layers.h"

namespace {

using quibo::allocate;
using quibo::create_conv;

// Recurrent states: 32 positions x 64. Static, so a second instance would disturb the first.
float sh_time_gru1_hidden[2048], sh_time_gru2_hidden[2048], sh_time_gru3_hidden[2048];

bool create_gru(LAYER_GRU_NNAEC** slot, const float* weight, const float* bias,
                const float* linear_weight, const float* linear_bias, float* state) {
  return quibo::create_gru<64>(slot, weight, bias, linear_weight, linear_bias, state);
}

}  // namespace

#define CONV(kind, n) aec_##kind##_conv##n##_weight, aec_##kind##_conv##n##_bias
#define PRELU(kind, n) aec_##kind##_prelu##n##_weight
#define GRU(axis, n)                                                                         \
  aec_##axis##_gru##n##_weight, aec_##axis##_gru##n##_bias, aec_##axis##_linear##n##_weight, \
      aec_##axis##_linear##n##_bias

int32_t init_aec_denoise_net(AEC_Denoise_Net* net) {
  memset(sh_time_gru1_hidden, 0, sizeof sh_time_gru1_hidden);
  memset(sh_time_gru2_hidden, 0, sizeof sh_time_gru2_hidden);
  memset(sh_time_gru3_hidden, 0, sizeof sh_time_gru3_hidden);
  const bool layers =
      create_conv(&net->sys_real_conv, aec_sys_real_conv_weight, aec_sys_real_conv_bias, nullptr) &&
      create_conv(&net->sys_imag_conv, aec_sys_imag_conv_weight, aec_sys_imag_conv_bias, nullptr) &&
      create_conv(&net->inp_conv1, CONV(inp, 1), PRELU(inp, 1)) &&
      create_conv(&net->inp_conv2, CONV(inp, 2), PRELU(inp, 2)) &&
      create_conv(&net->inp_conv3, CONV(inp, 3), PRELU(inp, 3)) &&
      create_conv(&net->inp_conv4, CONV(inp, 4), PRELU(inp, 4)) &&
      create_conv(&net->enc_conv1, CONV(enc, 1), PRELU(enc, 1)) &&
      create_conv(&net->enc_conv2, CONV(enc, 2), PRELU(enc, 2)) &&
      create_conv(&net->enc_conv3, CONV(enc, 3), PRELU(enc, 3)) &&
      create_conv(&net->enc_conv4, CONV(enc, 4), PRELU(enc, 4)) &&
      create_gru(&net->f_gru1, GRU(freq, 1), nullptr) &&
      create_gru(&net->f_gru2, GRU(freq, 2), nullptr) &&
      create_gru(&net->f_gru3, GRU(freq, 3), nullptr) &&
      create_gru(&net->t_gru1, GRU(time, 1), sh_time_gru1_hidden) &&
      create_gru(&net->t_gru2, GRU(time, 2), sh_time_gru2_hidden) &&
      create_gru(&net->t_gru3, GRU(time, 3), sh_time_gru3_hidden) &&
      create_conv(&net->dec_conv1, CONV(dec, 1), PRELU(dec, 1)) &&
      create_conv(&net->dec_conv2, CONV(dec, 2), PRELU(dec, 2)) &&
      create_conv(&net->dec_conv3, CONV(dec, 3), PRELU(dec, 3)) &&
      create_conv(&net->dec_conv4, CONV(dec, 4), PRELU(dec, 4)) &&
      create_conv(&net->sub_pix_conv1, CONV(pixel, 1), nullptr) &&
      create_conv(&net->sub_pix_conv2, CONV(pixel, 2), nullptr) &&
      create_conv(&net->sub_pix_conv3, CONV(pixel, 3), nullptr) &&
      create_conv(&net->sub_pix_conv4, CONV(pixel, 4), nullptr);
  if (!layers) return -3;
  net->dlayer = allocate<LAYER_DATA_NNAEC>();
  return net->dlayer ? 0 : -3;
}

#undef CONV
#undef PRELU
#undef GRU

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
  if (init_aec_denoise_net(params->Mynet) != 0) return -3;
  printf(kProgress);
  *handle = params;
  return 0;
}

int32_t QuibNAecRun(void* handle, const float* mic, const float* yn, int16_t* out) {
  if (!handle) return -1;
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
