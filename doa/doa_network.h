// Direction network: one block of samples to one direction vector.
#pragma once

#include "doa/ring_doa.h"

// One block: 480 new samples of each microphone in, the direction vector left in dlayer->xy, each
// component in [-1, 1]. A layer normalisation over zeros divides by zero: `xy` is then
// not a number for this block and, through the DFSMN memories, for at most 18 more. Returns 0.
int32_t doa_model_forward(DoaNet* net, const int16_t* mic1, const int16_t* mic2,
                          const int16_t* mic3);

// The layers alone, on the features in out1, which is overwritten.
void doa_forward_layers(DoaNet* net);
