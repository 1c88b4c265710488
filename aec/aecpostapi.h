/* The linear echo canceller behind a handle: int16 frames in, float frames out. Operations in
 * quibo.h. Plain C. */
#ifndef QUIBO_AEC_AECPOSTAPI_H_
#define QUIBO_AEC_AECPOSTAPI_H_

#include "Laec.h"

typedef struct {
  LAEC laec;
  float data_in1[LAEC_SHIFT]; /* current microphone frame */
  float data_in2[LAEC_SHIFT]; /* current reference frame */
  float outputf[LAEC_SHIFT];  /* canceller output of the current frame */
} AEC_POST;

#endif /* QUIBO_AEC_AECPOSTAPI_H_ */
