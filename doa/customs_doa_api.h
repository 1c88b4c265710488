/* The direction estimator behind a handle. Operations in quibo.h. Plain C. */
#ifndef QUIBO_DOA_CUSTOMS_DOA_API_H_
#define QUIBO_DOA_CUSTOMS_DOA_API_H_

#include "ring_doa.h"

typedef struct {
  DoaNet doanet; /* by value and alone: a KTDHandle is also the address of the network */
} KTDParama;

#endif /* QUIBO_DOA_CUSTOMS_DOA_API_H_ */
