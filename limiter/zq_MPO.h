/* Output level limiter: record. A peak limiter with make-up gain: the gain reduction, in dB,
 * follows the newest sample, is smoothed by a second-order low-pass and applied to the input 15
 * samples older. Operations in quibo.h. Plain C. */
#ifndef QUIBO_LIMITER_ZQ_MPO_H_
#define QUIBO_LIMITER_ZQ_MPO_H_

#include <stdint.h>

#include "quibo/quibo.h"

struct stMPO {
  int32_t fs;              /* sample rate in Hz */
  int32_t blkSize;         /* 32; not used by the processing */
  int32_t voiceIncreasedB; /* make-up gain in dB */
  int32_t levdB;           /* largest output level in dBFS */
  float gainReducedB;      /* 20; not used by the processing */
  float mpo_att_stepdB;    /* largest gain decrease per sample in dB, negative */
  float mpo_rel_alpha;     /* per-sample release factor of the gain in dB */
  float mpo_att;           /* attack time in s */
  float mpo_rel;           /* release time in s */
  float mpo_gaindB;        /* current gain reduction in dB, <= 0 */
  float zz[2];             /* state of the smoothing filter, transposed direct form II */
  float af[3];             /* its denominator a0, a1, a2 */
  float bf[3];             /* its numerator b0, b1, b2 */
  float gain;              /* linear make-up gain */
  float xd[17];            /* input delay line, newest first */
};

#endif /* QUIBO_LIMITER_ZQ_MPO_H_ */
