// Neural echo suppressor: its network, for the module itself, tests and bench. Not exported.
#pragma once

#include "aec/aec_denoise.h"
#include "nn/net_layers.h"

namespace quibo {

// Everything a network is built from; shapes in quibo.h. The recurrent blocks have no norm.
struct AecDenoiseTables {
  ConvTables sys_real, sys_imag;
  ConvTables input[4], encoder[4];
  GruTables time[3], frequency[3];
  ConvTables decoder[4], pixel[4];
};

// The tables compiled in.
extern const AecDenoiseTables kAecDenoiseTables;

}  // namespace quibo

// One step: 512 samples each of the microphone and of the echo estimate, full scale 1.0, give 512
// output samples, delayed by four hops (2048 samples). The layers' tables are read at every step.
void nn_aec_denoise_forward(AEC_Denoise_Net* net, const float* mic, const float* yn, int16_t* out);

// Two steps at once, 1024 samples: the bits of two calls of nn_aec_denoise_forward, but every
// weight is read once.
void nn_aec_denoise_forward_frame(AEC_Denoise_Net* net, const float* mic, const float* yn,
                                  int16_t* out);

// Creates the layers of `net`, which must be all zero, binds them to the tables, clears the
// recurrent states and creates the activation store. Returns 0, or -3 at the first failed
// allocation.
int32_t init_aec_denoise_net(AEC_Denoise_Net* net, const quibo::AecDenoiseTables& tables);

// Releases the layers and the activation store, not `net`.
void destroy_aec_denoise_net(AEC_Denoise_Net* net);

// Frees what QuibNAecUnit leaves: the network's record and the handle. For the owner, when nobody
// holds the handle any more; null is ignored.
void free_aec_denoise(void* handle);
