#include "doa/ring_doa.h"

#include <stdlib.h>

namespace {

constexpr int kStartAngle = 90;

template <class Record>
bool allocate(Record*& record, const Record& tables) {
  record = static_cast<Record*>(malloc(sizeof(Record)));
  if (record) *record = tables;
  return record != nullptr;
}

bool allocate_dfsmn(LAYER_DFSMN_CONV_DOA*& record, const float* in, const float* left,
                    const float* out, const float* out_bias, const float* ln_weight,
                    const float* ln_bias) {
  return allocate(
      record, {nullptr, nullptr, nullptr, nullptr, in, left, out, out_bias, ln_weight, ln_bias});
}

bool build(DoaNet* net) {
  if (!(allocate(net->m1_conv, {ring_conv1_weight, nullptr, ring_conv1_bias}) &&
        allocate(net->m2_conv, {ring_conv2_1_weight, ring_conv2_2_weight, ring_conv2_2_bias}) &&
        allocate(net->m3_conv, {ring_conv3_1_weight, ring_conv3_2_weight, ring_conv3_2_bias}) &&
        allocate(net->m4_conv, {ring_conv4_1_weight, ring_conv4_2_weight, ring_conv4_2_bias}) &&
        allocate(net->m_gru1, {ring_gru_weight_ih_l0, ring_gru_weight_hh_l0, ring_gru_bias_ih_l0,
                               ring_gru_bias_hh_l0}) &&
        allocate_dfsmn(net->dfsmn1_conv, ring_d1_conv_in, ring_d1_conv_left, ring_d1_conv_out,
                       ring_d1_out_bias, ring_ln1_weight, ring_ln1_bias) &&
        allocate_dfsmn(net->dfsmn2_conv, ring_d2_conv_in, ring_d2_conv_left, ring_d2_conv_out,
                       ring_d2_out_bias, ring_ln2_weight, ring_ln2_bias) &&
        allocate_dfsmn(net->dfsmn3_conv, ring_d3_conv_in, ring_d3_conv_left, ring_d3_conv_out,
                       ring_d3_out_bias, ring_ln3_weight, ring_ln3_bias) &&
        allocate_dfsmn(net->dfsmn4_conv, ring_d4_conv_in, ring_d4_conv_left, ring_d4_conv_out,
                       ring_d4_out_bias, ring_ln4_weight, ring_ln4_bias) &&
        allocate(net->fc_conv, {ring_fc_weight, nullptr, ring_fc_bias}))) {
    return false;
  }
  net->dlayer = static_cast<LAYER_DATA_DOA*>(calloc(1, sizeof(LAYER_DATA_DOA)));
  return net->dlayer != nullptr;
}

}  // namespace

int32_t init_doa_net(DoaNet* net) {
  *net = {};
  if (!build(net)) return 1;  // what was built stays allocated, for destroy_doa_net()
  net->dlayer->prev_doa = kStartAngle;
  return 0;
}

void destroy_doa_net(DoaNet* net) {
  free(net->dlayer);
  free(net->m1_conv);
  free(net->m2_conv);
  free(net->m3_conv);
  free(net->m4_conv);
  free(net->m_gru1);
  free(net->dfsmn1_conv);
  free(net->dfsmn2_conv);
  free(net->dfsmn3_conv);
  free(net->dfsmn4_conv);
  free(net->fc_conv);
}
