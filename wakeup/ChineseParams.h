// Binding of the parameter tables to the network record.
#pragma once

#include "wakeup/ChineseConv.h"

// The keyword table; layout at read_word_from_customer_dict().
extern const int16_t keywords_index[];

namespace quibo::wakeup {

struct LayerTables {
  const int8_t* weight;
  const int32_t* bias;
};

struct MemoryBlockTables {
  LayerTables in, left, out;
  const float *ln_weight, *ln_bias;
};

// Everything a network is built from.
struct NetTables {
  const float* fix_param;  // packed quantisation table, chinese_fix_param
  LayerTables conv1, conv2_1, conv2_2, conv3_1, conv3_2, conv4_1, conv4_2, gru_ih, gru_hh;
  MemoryBlockTables memory[KWS_MEMORY_BLOCKS];
  LayerTables fc;
  const int16_t* keywords;
};

// The tables compiled in.
extern const NetTables kCompiledTables;

// Allocates and fills every layer, the working data and the decoder. The record's pointers must be
// null. Returns 0, or -1 after printing "Net init error!\n" on a failed allocation, a zero point
// that must be 0 and is not (the clamp at code 0 is the layer's rectifier), or a faulty keyword
// table; what was allocated stays in the record for destroy_eword_net().
int32_t init_eword_net(EWordNet* net, const NetTables& tables);

// Releases what is there.
void destroy_eword_net(EWordNet* net);

}  // namespace quibo::wakeup
