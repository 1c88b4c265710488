/* Neural echo suppressor: its network, for the module itself, tests and bench. Not exported. */
#ifndef QUIBO_AEC_AEC_DENOISE_NET_H_
#define QUIBO_AEC_AEC_DENOISE_NET_H_

#include "aec/aec_denoise.h"

#ifdef __cplusplus
extern "C" {
#endif

/* One step: 512 samples each of the microphone and of the echo estimate, full scale 1.0, give 512
 * output samples, delayed by four hops (2048 samples). The layers' tables are read at every step;
 * `net` and its layers may be pointed at other tables of the same shape between steps. */
void nn_aec_denoise_forward(AEC_Denoise_Net* net, const float* mic, const float* yn, int16_t* out);

/* Two steps at once, 1024 samples: the bits of two calls of nn_aec_denoise_forward, but every
 * weight is read once. */
void nn_aec_denoise_forward_frame(AEC_Denoise_Net* net, const float* mic, const float* yn,
                                  int16_t* out);

/* Creates the layers of `net`, which must be all zero, binds them to the tables, clears the
 * recurrent states and creates the activation store. Returns 0, or -3 at the first failed
 * allocation. */
int32_t init_aec_denoise_net(AEC_Denoise_Net* net);

/* Releases the layers and the activation store, not `net`. */
void destroy_aec_denoise_net(AEC_Denoise_Net* net);

/* Frees what QuibNAecUnit leaves: the network's record and the handle. For the owner, when nobody
 * holds the handle any more; NULL is ignored. */
void free_aec_denoise(void* handle);

#ifdef __cplusplus
}
#endif

#endif /* QUIBO_AEC_AEC_DENOISE_NET_H_ */
