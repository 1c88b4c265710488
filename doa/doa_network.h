// Direction network: its tables, and one block of samples to one direction vector.
#pragma once

#include "doa/ring_doa.h"

namespace quibo {

// Everything a network is built from: the content of its layers; shapes in quibo.h.
struct DoaTables {
  LAYER_CONV_1D_DOA conv1, conv2, conv3, conv4;
  LAYER_GRU_DOA gru;
  LAYER_DFSMN_CONV_DOA dfsmn[4];
  LAYER_CONV_1D_DOA fc;
};

// The tables compiled in.
extern const DoaTables kDoaTables;

}  // namespace quibo

// init_doa_net() with tables of the caller's.
int32_t init_doa_net(DoaNet* net, const quibo::DoaTables& tables);

// One block: 480 new samples of each microphone in, the direction vector left in dlayer->xy, each
// component in [-1, 1]. A layer normalisation over zeros divides by zero: `xy` is then
// not a number for this block and, through the DFSMN memories, for at most 18 more. Returns 0.
int32_t doa_model_forward(DoaNet* net, const int16_t* mic1, const int16_t* mic2,
                          const int16_t* mic3);

// The layers alone, on the features in out1, which is overwritten.
void doa_forward_layers(DoaNet* net);
