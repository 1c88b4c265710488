#include "doa/ring_doa.h"

#include "doa/doa_network.h"
#include "dsp/memory.h"

namespace quibo {

#define SEPARABLE(n) \
  { ring_conv##n##_1_weight, ring_conv##n##_2_weight, ring_conv##n##_2_bias }
#define DFSMN(n)                                                                           \
  {                                                                                        \
    nullptr, nullptr, nullptr, nullptr, ring_d##n##_conv_in, ring_d##n##_conv_left,        \
        ring_d##n##_conv_out, ring_d##n##_out_bias, ring_ln##n##_weight, ring_ln##n##_bias \
  }

const DoaTables kDoaTables = {
    {ring_conv1_weight, nullptr, ring_conv1_bias},
    SEPARABLE(2),
    SEPARABLE(3),
    SEPARABLE(4),
    {ring_gru_weight_ih_l0, ring_gru_weight_hh_l0, ring_gru_bias_ih_l0, ring_gru_bias_hh_l0},
    {DFSMN(1), DFSMN(2), DFSMN(3), DFSMN(4)},
    {ring_fc_weight, nullptr, ring_fc_bias}};

#undef SEPARABLE
#undef DFSMN

}  // namespace quibo

namespace {

constexpr int kStartAngle = 90;

template <class Layer>
bool create(Layer** slot, const Layer& tables) {
  Layer* layer = *slot = quibo::allocate<Layer>();
  if (layer) *layer = tables;
  return layer != nullptr;
}

}  // namespace

int32_t init_doa_net(DoaNet* net, const quibo::DoaTables& tables) {
  *net = {};
  const bool built =
      create(&net->m1_conv, tables.conv1) && create(&net->m2_conv, tables.conv2) &&
      create(&net->m3_conv, tables.conv3) && create(&net->m4_conv, tables.conv4) &&
      create(&net->m_gru1, tables.gru) && create(&net->dfsmn1_conv, tables.dfsmn[0]) &&
      create(&net->dfsmn2_conv, tables.dfsmn[1]) && create(&net->dfsmn3_conv, tables.dfsmn[2]) &&
      create(&net->dfsmn4_conv, tables.dfsmn[3]) && create(&net->fc_conv, tables.fc) &&
      (net->dlayer = quibo::allocate<LAYER_DATA_DOA>());
  if (!built) return 1;  // what was built stays allocated, for destroy_doa_net()
  net->dlayer->prev_doa = kStartAngle;
  return 0;
}

int32_t init_doa_net(DoaNet* net) {
  return init_doa_net(net, quibo::kDoaTables);
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
