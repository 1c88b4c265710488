// From 480 samples to the codes of three feature frames.
#pragma once

#include "wakeup/ChineseConv.h"

namespace quibo::wakeup {

// Appends one block to the sample history `in`.
void push_samples(LAYER_DATA* data, const int16_t* samples);

// Three log-mel frames of `in`, 160 samples apart, into `in_feat`.
void cal_block_feature_int8(LAYER_DATA* data);

// Quantises `in_feat` for `first`, the network's first layer: the stored frame and the three new
// ones into `out2` [4][40]. Stores the newest frame.
void convert_input_data(LAYER_DATA* data, const LAYER_CONV_1D_INT8* first);

// Forgets all samples and the network's streaming state.
void clear_history(LAYER_DATA* data);

}  // namespace quibo::wakeup
