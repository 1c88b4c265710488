// The network's layers, one step of 30 ms each. A step's layers run in the order below; each reads
// what the one before it wrote.
#pragma once

#include "wakeup/ChineseConv.h"

namespace quibo::wakeup {

// Convolution 2 frames x 4 bands, stride 2 in frequency: out2 [4][40] -> out1 [4][19][16], the
// stored frame first.
void m1_conv_forward_int8(EWordNet* net);

// Per-channel convolution 2 x 4, stride 2, then 16 -> 48: out1 [4][19][16] -> out1 [4][8][48], the
// stored frame first. Stores the newest input frame.
void m2_conv_forward_int8(EWordNet* net);

// Per-channel convolution 2 x 4, stride 2, then 48 -> 64: out1 [4][8][48] -> out1 [3][3][64].
// Stores the newest input frame.
void m3_conv_forward_int8(EWordNet* net);

// Per-channel kernel over the whole block, then 64 -> 128: out1 [3][3][64] -> out1 [128].
void m4_conv_forward_int8(EWordNet* net);

// Recurrent unit: out1 [128] and hid -> hid and out1 [128].
void gru1_forward_int8(EWordNet* net);

// Memory block: in [width] -> out [256]; memory [164][8] is one of qleft1 .. qleft4. Its filter
// sees the 8 steps before this one.
void dfsmn_forward_int8(const LAYER_DFSMN_CONV_INT8* layer, const uint8_t* in, int width,
                        uint8_t* memory, uint8_t* out);

// Dense 256 -> 146: out1 [256] -> out2 [146].
void fc_conv_forward_int8(EWordNet* net);

// All of the above from out2 [4][40] to out2 [146].
void network_forward_int8(EWordNet* net);

}  // namespace quibo::wakeup
