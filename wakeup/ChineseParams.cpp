#include "wakeup/ChineseParams.h"

#include <stdio.h>
#include <stdlib.h>

#include "dsp/convert.h"
#include "dsp/memory.h"
#include "wakeup/decoder.h"

namespace quibo::wakeup {

const NetTables kCompiledTables = {chinese_fix_param,
                                   {chinese_conv1_weight, chinese_conv1_bias},
                                   {chinese_conv2_1_weight, chinese_conv2_1_bias},
                                   {chinese_conv2_2_weight, chinese_conv2_2_bias},
                                   {chinese_conv3_1_weight, chinese_conv3_1_bias},
                                   {chinese_conv3_2_weight, chinese_conv3_2_bias},
                                   {chinese_conv4_1_weight, chinese_conv4_1_bias},
                                   {chinese_conv4_2_weight, chinese_conv4_2_bias},
                                   {chinese_gru_weight_ih_l0, chinese_gru_bias_ih_l0},
                                   {chinese_gru_weight_hh_l0, chinese_gru_bias_hh_l0},
                                   {{{chinese_d1_in_conv1_weight, chinese_d1_in_conv1_bias},
                                     {chinese_d1_left_conv1_weight, chinese_d1_left_conv1_bias},
                                     {chinese_d1_out_conv1_weight, chinese_d1_out_conv1_bias},
                                     chinese_ln1_weight,
                                     chinese_ln1_bias},
                                    {{chinese_d2_in_conv1_weight, chinese_d2_in_conv1_bias},
                                     {chinese_d2_left_conv1_weight, chinese_d2_left_conv1_bias},
                                     {chinese_d2_out_conv1_weight, chinese_d2_out_conv1_bias},
                                     chinese_ln2_weight,
                                     chinese_ln2_bias},
                                    {{chinese_d3_in_conv1_weight, chinese_d3_in_conv1_bias},
                                     {chinese_d3_left_conv1_weight, chinese_d3_left_conv1_bias},
                                     {chinese_d3_out_conv1_weight, chinese_d3_out_conv1_bias},
                                     chinese_ln3_weight,
                                     chinese_ln3_bias},
                                    {{chinese_d4_in_conv1_weight, chinese_d4_in_conv1_bias},
                                     {chinese_d4_left_conv1_weight, chinese_d4_left_conv1_bias},
                                     {chinese_d4_out_conv1_weight, chinese_d4_out_conv1_bias},
                                     chinese_ln4_weight,
                                     chinese_ln4_bias}},
                                   {chinese_fc_weight, chinese_fc_bias},
                                   keywords_index};

namespace {

// Reads the packed table front to back; whole numbers are stored as floats.
class PackedTable {
 public:
  explicit PackedTable(const float* values) : next_(values) {}

  float real() { return *next_++; }
  int32_t whole() { return truncate_to_int32(*next_++); }
  int16_t zero_point() { return static_cast<int16_t>(whole()); }
  void pair(int32_t* M0, int32_t* M1) {
    *M0 = whole();
    *M1 = whole();
  }

 private:
  const float* next_;
};

bool make_conv(LAYER_CONV_1D_INT8** slot, const LayerTables& tables) {
  LAYER_CONV_1D_INT8* layer = *slot = allocate<LAYER_CONV_1D_INT8>();
  if (!layer) return false;
  layer->weight_fix = tables.weight;
  layer->bias_fix = tables.bias;
  return true;
}

bool make_first(LAYER_CONV_1D_INT8** slot, const LayerTables& tables, PackedTable* packed) {
  if (!make_conv(slot, tables)) return false;
  LAYER_CONV_1D_INT8* layer = *slot;
  layer->scale = packed->real();
  layer->in_zero_point = packed->zero_point();
  packed->pair(&layer->M0, &layer->M1);
  layer->qo_zero_point = packed->zero_point();
  return layer->qo_zero_point == 0;
}

bool make_inner(LAYER_CONV_1D_INT8** slot, const LayerTables& tables, PackedTable* packed) {
  if (!make_conv(slot, tables)) return false;
  packed->pair(&(*slot)->M0, &(*slot)->M1);
  (*slot)->in_zero_point = packed->zero_point();
  return true;
}

// A layer whose outputs are rectified by the clamp at code 0.
bool make_rectified(LAYER_CONV_1D_INT8** slot, const LayerTables& tables, PackedTable* packed) {
  return make_inner(slot, tables, packed) && (*slot)->in_zero_point == 0;
}

bool make_last(LAYER_CONV_1D_INT8** slot, const LayerTables& tables, PackedTable* packed) {
  if (!make_inner(slot, tables, packed)) return false;
  (*slot)->scale = packed->real();
  (*slot)->qo_zero_point = packed->zero_point();
  return true;
}

bool make_gru(LAYER_GRU** slot, const LayerTables& ih, const LayerTables& hh, PackedTable* packed) {
  LAYER_GRU* layer = *slot = allocate<LAYER_GRU>();
  if (!layer) return false;
  layer->wih_weight = ih.weight;
  layer->ih_bias = ih.bias;
  layer->whh_weight = hh.weight;
  layer->hh_bias = hh.bias;
  layer->qo.scale = packed->real();
  layer->qo.zero_point = packed->whole();
  const auto gate = [packed](int32_t* M0, int32_t* M1, QPARAM* q) {
    packed->pair(M0, M1);
    q->zero_point = packed->whole();
    q->scale = packed->real();
  };
  gate(&layer->Mi1_0, &layer->Mi1_1, &layer->qoi1);
  gate(&layer->Mi2_0, &layer->Mi2_1, &layer->qoi2);
  gate(&layer->Mi3_0, &layer->Mi3_1, &layer->qoi3);
  gate(&layer->Mh1_0, &layer->Mh1_1, &layer->qhi1);
  gate(&layer->Mh2_0, &layer->Mh2_1, &layer->qhi2);
  gate(&layer->Mh3_0, &layer->Mh3_1, &layer->qhi3);
  return true;
}

bool make_memory_block(LAYER_DFSMN_CONV_INT8** slot, const MemoryBlockTables& tables,
                       PackedTable* packed) {
  LAYER_DFSMN_CONV_INT8* layer = *slot = allocate<LAYER_DFSMN_CONV_INT8>();
  if (!layer) return false;
  layer->weight_in = tables.in.weight;
  layer->bias_in = tables.in.bias;
  layer->weight_left = tables.left.weight;
  layer->bias_left = tables.left.bias;
  layer->weight_out = tables.out.weight;
  layer->bias_out = tables.out.bias;
  layer->ln_weight = tables.ln_weight;
  layer->ln_bias = tables.ln_bias;
  packed->pair(&layer->in_conv_M0, &layer->in_conv_M1);
  layer->in_zero_point = packed->whole();
  packed->pair(&layer->left_conv_M0, &layer->left_conv_M1);
  layer->left_zero_point = packed->whole();
  layer->add_qi1_zero_point = packed->whole();
  layer->add_qi2_zero_point = packed->whole();
  layer->add_qo_zero_point = packed->whole();
  packed->pair(&layer->add_M1_0, &layer->add_M1_1);
  packed->pair(&layer->add_M2_0, &layer->add_M2_1);
  packed->pair(&layer->out_conv_M0, &layer->out_conv_M1);
  layer->out_conv_qo_zero = packed->whole();
  layer->qout_scale = packed->real();
  layer->qout_zero_point = packed->whole();
  layer->ln_scale = packed->real();
  layer->ln_zero_point = packed->whole();
  return true;
}

bool make_layers(EWordNet* net, const NetTables& tables) {
  PackedTable packed(tables.fix_param);
  return make_first(&net->m1_conv1, tables.conv1, &packed) &&
         make_inner(&net->m2_conv1, tables.conv2_1, &packed) &&
         make_rectified(&net->m2_conv2, tables.conv2_2, &packed) &&
         make_inner(&net->m3_conv1, tables.conv3_1, &packed) &&
         make_rectified(&net->m3_conv2, tables.conv3_2, &packed) &&
         make_inner(&net->m4_conv1, tables.conv4_1, &packed) &&
         make_inner(&net->m4_conv2, tables.conv4_2, &packed) &&
         make_gru(&net->m_gru1, tables.gru_ih, tables.gru_hh, &packed) &&
         make_memory_block(&net->dfsmn1_conv, tables.memory[0], &packed) &&
         make_memory_block(&net->dfsmn2_conv, tables.memory[1], &packed) &&
         make_memory_block(&net->dfsmn3_conv, tables.memory[2], &packed) &&
         make_memory_block(&net->dfsmn4_conv, tables.memory[3], &packed) &&
         make_last(&net->fc_conv, tables.fc, &packed);
}

bool make_decoder(DECODER** slot, const int16_t* keywords) {
  DECODER* decoder = *slot = allocate<DECODER>();
  if (!decoder) return false;
  decoder->wake_cand = -1;
  return read_word_from_customer_dict(decoder, keywords) == 0;
}

template <class Record>
void release(Record** record) {
  free(*record);
  *record = nullptr;
}

}  // namespace

int32_t init_eword_net(EWordNet* net, const NetTables& tables) {
  // The working data are zero from the start: no history, no state.
  if (make_layers(net, tables) && (net->dlayer = allocate<LAYER_DATA>()) &&
      make_decoder(&net->pdec, tables.keywords)) {
    return 0;
  }
  printf("Net init error!\n");
  return -1;
}

void destroy_eword_net(EWordNet* net) {
  release(&net->m1_conv1);
  release(&net->m2_conv1);
  release(&net->m2_conv2);
  release(&net->m3_conv1);
  release(&net->m3_conv2);
  release(&net->m4_conv1);
  release(&net->m4_conv2);
  release(&net->m_gru1);
  release(&net->dfsmn1_conv);
  release(&net->dfsmn2_conv);
  release(&net->dfsmn3_conv);
  release(&net->dfsmn4_conv);
  release(&net->fc_conv);
  release(&net->dlayer);
  destroy_decoder(net->pdec);
  net->pdec = nullptr;
}

}  // namespace quibo::wakeup
