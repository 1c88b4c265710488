#include "denoise/denoise_net.h"

#include <stdlib.h>

#include "dsp/convert.h"

namespace quibo {

#define CONV(kind, n) denoise_##kind##_conv##n##_weight, denoise_##kind##_conv##n##_bias
#define ENCODER(n) \
  { CONV(inp, n), denoise_inp_prelu##n##_weight }
#define DECODER(n) \
  { CONV(pixel, n), nullptr }
#define GRU(axis, n)                                                            \
  {                                                                             \
    denoise_##axis##_gru##n##_weight, denoise_##axis##_gru##n##_bias,           \
        denoise_##axis##_linear##n##_weight, denoise_##axis##_linear##n##_bias, \
        denoise_##axis##_norm##n##_weight, denoise_##axis##_norm##n##_bias      \
  }

const DenoiseTables kDenoiseTables = {{ENCODER(1), ENCODER(2), ENCODER(3), ENCODER(4)},
                                      {GRU(time, 1), GRU(time, 2), GRU(time, 3)},
                                      {GRU(freq, 1), GRU(freq, 2), GRU(freq, 3)},
                                      {DECODER(1), DECODER(2), DECODER(3), DECODER(4)}};

#undef CONV
#undef ENCODER
#undef DECODER
#undef GRU

}  // namespace quibo

namespace {

using quibo::allocate;
using quibo::create_conv;

// Recurrent states, zero when the program starts and never reset. Deliberately one set for all
// instances: the three microphones hear the same scene, and the network is trained with their steps
// taking turns on one state.
float gru_time1_hidden[1024], gru_time2_hidden[1024], gru_time3_hidden[1024];  // 32 positions x 32
float gru_freq1_hidden[48], gru_freq2_hidden[48], gru_freq3_hidden[48];        // 32 in use

bool create_gru(LAYER_GRU_COMMON** slot, const quibo::GruTables& tables, float* state) {
  if (!quibo::create_gru<32>(slot, tables, state)) return false;
  (*slot)->norm_weight = tables.norm_weight;
  (*slot)->norm_bias = tables.norm_bias;
  return true;
}

}  // namespace

void init_denoise_net(DenoiseNet* net, const quibo::DenoiseTables& tables, float min_scale) {
  const bool layers = create_conv(&net->inp_conv1, tables.encoder[0]) &&
                      create_conv(&net->inp_conv2, tables.encoder[1]) &&
                      create_conv(&net->inp_conv3, tables.encoder[2]) &&
                      create_conv(&net->inp_conv4, tables.encoder[3]) &&
                      create_gru(&net->f_gru1, tables.frequency[0], gru_freq1_hidden) &&
                      create_gru(&net->f_gru2, tables.frequency[1], gru_freq2_hidden) &&
                      create_gru(&net->f_gru3, tables.frequency[2], gru_freq3_hidden) &&
                      create_gru(&net->t_gru1, tables.time[0], gru_time1_hidden) &&
                      create_gru(&net->t_gru2, tables.time[1], gru_time2_hidden) &&
                      create_gru(&net->t_gru3, tables.time[2], gru_time3_hidden) &&
                      create_conv(&net->sub_pix_conv1, tables.decoder[0]) &&
                      create_conv(&net->sub_pix_conv2, tables.decoder[1]) &&
                      create_conv(&net->sub_pix_conv3, tables.decoder[2]) &&
                      create_conv(&net->sub_pix_conv4, tables.decoder[3]);
  if (!layers) return;
  net->dlayer = allocate<LAYER_DATA_DENOISE>();
  // Written as two refusals: a NaN is neither below 0 nor above 1 and is taken; as a floor it does
  // nothing.
  if (net->dlayer && !(min_scale < 0.0f) && !(min_scale > 1.0f)) net->dlayer->min_scale = min_scale;
}

void destroy_denoise_net(DenoiseNet* net) {
  LAYER_CONV_COMMON* const encoder[] = {net->inp_conv1, net->inp_conv2, net->inp_conv3,
                                        net->inp_conv4};
  LAYER_GRU_COMMON* const recurrent[] = {net->t_gru1, net->t_gru2, net->t_gru3,
                                         net->f_gru1, net->f_gru2, net->f_gru3};
  LAYER_CONV_COMMON* const decoder[] = {net->sub_pix_conv1, net->sub_pix_conv2, net->sub_pix_conv3,
                                        net->sub_pix_conv4};
  for (LAYER_CONV_COMMON* layer : encoder) free(layer);
  for (LAYER_GRU_COMMON* layer : recurrent) free(layer);
  for (LAYER_CONV_COMMON* layer : decoder) free(layer);
  free(net->dlayer);
}

int32_t QuibAncInit(void** handle, float min_scale) {
  *handle = nullptr;
  // Zero-filled: what the first two runs convert before the network has its look-ahead is silence.
  KTANCParams* params = allocate<KTANCParams>();
  if (!params) return -2;
  params->Mynet = allocate<DenoiseNet>();
  if (!params->Mynet) return -1;  // the record stays allocated, deliberately
  init_denoise_net(params->Mynet, quibo::kDenoiseTables, min_scale);
  *handle = params;
  return 0;
}

int32_t QuibAncRun(void* handle, const int16_t* in, int16_t* out) {
  if (!handle) return -10;
  KTANCParams* params = static_cast<KTANCParams*>(handle);
  for (int i = 0; i < QUIBO_FRAME; ++i) params->indataf[i] = quibo::int16_to_float(in[i]);
  const int32_t result = nn_denoise_forward_frame(params->Mynet, params->indataf, params->outdataf);
  for (int i = 0; i < QUIBO_FRAME; ++i) out[i] = quibo::float_to_int16(params->outdataf[i]);
  return result;
}

int32_t QuibAncUnit(void** handle) {
  if (!handle || !*handle) return -10;
  KTANCParams* params = static_cast<KTANCParams*>(*handle);
  destroy_denoise_net(params->Mynet);
  free(params->Mynet);
  free(params);
  return 0;
}
