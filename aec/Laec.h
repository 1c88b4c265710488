/* Linear echo canceller: record and constants of one channel.
 *
 * A partitioned-block frequency-domain adaptive filter (Soo & Pang 1990, overlap-save, gradient
 * constrained) with three partitions of 1024 taps over 2048-point transforms, and a residual-echo
 * gain applied to the error as a 1024-tap filter. Time signals are in lower case, spectra in upper
 * case in the comments: d the microphone, y the echo estimate, e = d - y the error; X, W, E their
 * spectra. The operations are declared in quibo.h; this header defines the record for callers that
 * hold one themselves. Plain C. */
#ifndef QUIBO_AEC_LAEC_H_
#define QUIBO_AEC_LAEC_H_

#include <stdint.h>

#include "quibo/quibo.h"

enum {
  LAEC_PARTITIONS = 3,
  LAEC_SHIFT = 1024,          /* samples per frame and taps per partition */
  LAEC_FFT = 2 * LAEC_SHIFT,  /* transform length */
  LAEC_BINS = LAEC_SHIFT + 1, /* bins of a real transform; bins 0 and 1024 are real */
  LAEC_DELAY = 20             /* samples by which the microphone is delayed against the reference */
};

typedef struct {
  float real, img;
} laec_complex_t;

/* The float tuning fields are read on every call and may be changed between calls. The integer
 * fields record the configuration; the processing uses the constants above. */
struct LAEC {
  float micdata[LAEC_DELAY +
                LAEC_SHIFT]; /* last 20 samples of the previous frame, then the current frame */
  float refdata[LAEC_FFT];   /* previous frame, current frame */
  int32_t filtTotLen;        /* 3072 */
  int32_t numPartition;      /* 3 */
  int32_t frameLen;          /* 2048 */
  int32_t fftLen;            /* 2048 */
  int32_t frameShift;        /* 1024 */
  int32_t frameOvlp;         /* 1024 */
  float pconst;              /* weight of the filter energy in the misadjustment, 0.001 */
  float pfMin, pfMax;        /* limits of the residual-echo gain, -12 dB and 1 */
  float muMax, muMin;        /* limits of the step size; muMax is the step of partitions 1 and 2 */
  int32_t delay;             /* 20 */
  float pnlms;               /* kept for configuration; not read */
  float delta;               /* added to the reference power, 0.001 */
  float gamma;               /* smoothing of the reference power, e^(-1/16) */
  int32_t cur_frame;         /* not read */
  float min_mu;              /* not read */
  float outBuff[LAEC_SHIFT]; /* overlap-add tail of the output filter */
  float muk[LAEC_BINS];      /* step size of partition 0 */
  float w[LAEC_FFT];         /* time-domain scratch */
  float gk[LAEC_BINS];       /* misadjustment estimate */
  float pmk[LAEC_BINS];      /* smoothed power of the newest reference spectrum */
  laec_complex_t xk[LAEC_PARTITIONS][LAEC_BINS]; /* reference spectra, newest first */
  laec_complex_t wk[LAEC_PARTITIONS][LAEC_BINS]; /* filter weights; wk[p] applies to xk[p] */
  laec_complex_t hk[LAEC_BINS];                  /* residual-echo gain filter */
  laec_complex_t fftdata[LAEC_BINS]; /* echo estimate, then error, then output spectrum */
  float yn[LAEC_SHIFT];              /* echo estimate of the current frame */
  float en[LAEC_FFT];                /* reserved */
  float prev_aec_out[LAEC_SHIFT];    /* post stage: its previous input frame */
  float Sx[LAEC_BINS];               /* post stage: smoothed reference power */
  float Sd[LAEC_BINS];               /* post stage: smoothed input power */
  laec_complex_t Sxd[LAEC_BINS];     /* post stage: smoothed cross-spectrum */
  float cohxd[LAEC_BINS];            /* post stage: magnitude-squared coherence */
  float post_ovlp[LAEC_FFT];         /* post stage: previous inverse transform */
};

#endif /* QUIBO_AEC_LAEC_H_ */
