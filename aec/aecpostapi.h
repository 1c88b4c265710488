/* The linear echo canceller behind a handle: int16 frames in, float frames out, and a guard that
 * starts it anew when it diverges. Operations in quibo.h. Plain C. */
#ifndef QUIBO_AEC_AECPOSTAPI_H_
#define QUIBO_AEC_AECPOSTAPI_H_

#include "Laec.h"

typedef struct {
  LAEC laec;
  float data_in1[LAEC_SHIFT]; /* current microphone frame */
  float data_in2[LAEC_SHIFT]; /* current reference frame */
  float outputf[LAEC_SHIFT];  /* canceller output of the current frame */
  int32_t restarts;           /* how often the guard acted */
  int32_t loud_frames;        /* frames running in which the output was far above the microphone */
  int32_t
      doubtful_frames; /* frames running in which the output or the echo estimate was above it */
  float flatness;      /* of the reference in the loud frames: above 0 for tones */
  float ref_power;     /* while delta follows it: smoothed mean of |X|^2 over the bins */
  float delta_share;   /* delta's share of it; 0: delta is as init_laec() has it */
} AEC_POST;

#endif /* QUIBO_AEC_AECPOSTAPI_H_ */
