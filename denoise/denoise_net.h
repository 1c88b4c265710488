// Neural noise suppressor: its network, for the module itself, tests and bench. Not exported.
#pragma once

#include "denoise/denoise.h"
#include "nn/net_layers.h"

namespace quibo {

// Everything a network is built from; shapes in quibo.h.
struct DenoiseTables {
  ConvTables encoder[4];
  GruTables time[3], frequency[3];
  ConvTables decoder[4];
};

// The tables compiled in.
extern const DenoiseTables kDenoiseTables;

}  // namespace quibo

// One step: 512 samples in, 512 samples out, full scale 1.0, delayed by four hops (2048 samples).
// Returns 0, or -1, with `out` untouched, during the first four steps of an instance and always
// when the instance is only half built. A NaN or an infinity in `in` stays in the recurrent states
// of all instances for good: `out` is NaN, int16 output 0. Frames made from int16 never hold one.
// The layers' tables are read at every step.
int32_t nn_denoise_forward(DenoiseNet* net, const float* in, float* out);

// Two steps at once, 1024 samples: the bits of two calls of nn_denoise_forward, but every weight is
// read once. Returns the second step's result.
int32_t nn_denoise_forward_frame(DenoiseNet* net, const float* in, float* out);

// Creates the layers of `net`, which must be all zero, binds them to the tables and the shared
// recurrent states, and creates the working record. min_scale is taken when 0 <= min_scale <= 1 or
// NaN. The first failed allocation ends it without a word: later pointers stay null.
void init_denoise_net(DenoiseNet* net, const quibo::DenoiseTables& tables, float min_scale);

// Releases the layers and the working record, not `net`.
void destroy_denoise_net(DenoiseNet* net);
