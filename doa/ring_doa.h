/* Direction estimator: records and constants.
 *
 * Every block of 480 samples (30 ms) a small network turns the three microphone signals into a
 * direction vector (x, y) whose heading points at the talker and whose length tells how sure the
 * network is; docs/direction.md says how the vector maps to degrees. The operations are declared in
 * quibo.h; this header defines the records for callers that look inside. Plain C. */
#ifndef QUIBO_DOA_RING_DOA_H_
#define QUIBO_DOA_RING_DOA_H_

#include <stdint.h>

#include "../dsp/complex.h"
#include "quibo/quibo.h"

enum {
  DOA_MICS = 3,
  DOA_PAIRS = 3,                      /* microphones (0, 1), (0, 2), (1, 2) */
  DOA_HOP = 160,                      /* samples between frames, 10 ms */
  DOA_FRAMES = QUIBO_BLOCK / DOA_HOP, /* frames per block */
  DOA_GCC_FRAME = 512,                /* samples of a cross-correlation frame */
  DOA_FFT = 2 * DOA_GCC_FRAME,        /* zero-padded: the correlation is a linear one */
  DOA_BINS = DOA_FFT / 2 + 1,         /* bins of a real transform */
  DOA_HISTORY = DOA_GCC_FRAME + (DOA_FRAMES - 1) * DOA_HOP, /* samples kept per microphone */
  DOA_LAGS = 40,       /* lags -20 .. 19 of a cross-correlation */
  DOA_MEL_FRAME = 400, /* samples of a filterbank frame, 25 ms */
  DOA_MEL_BANDS = 40,
  DOA_CHANNELS = DOA_PAIRS + 1, /* of the network's input map */
  DOA_FEATURES = DOA_CHANNELS * DOA_FRAMES * DOA_LAGS,
  DOA_GRU_UNITS = 64,
  DOA_DFSMN_UNITS = 164,  /* outputs of a DFSMN layer */
  DOA_DFSMN_MEMORY = 108, /* units of its memory ... */
  DOA_DFSMN_TAPS = 6,     /* ... and past blocks each of them remembers */
  DOA_LAYER_OUT = 2048,   /* floats in a layer buffer */
  DOA_WINDOW = 25         /* blocks in the direction window */
};

/* Network state that one block hands to the next. */
typedef struct {
  float conv1_left[DOA_CHANNELS * DOA_LAGS]; /* last input frame, [channel][value] */
  float conv2_left[19 * 16];                 /* last output frame of layer 1, [position][channel] */
  float conv3_left[8 * 28];                  /* last output frame of layer 2, [position][channel] */
  float hid[DOA_GRU_UNITS];                  /* GRU state */
  /* DFSMN memories, [unit][past block], oldest first */
  float qleft1[DOA_DFSMN_MEMORY * DOA_DFSMN_TAPS];
  float qleft2[DOA_DFSMN_MEMORY * DOA_DFSMN_TAPS];
  float qleft3[DOA_DFSMN_MEMORY * DOA_DFSMN_TAPS];
  float qleft4[DOA_DFSMN_MEMORY * DOA_DFSMN_TAPS];
} Q_DOA_LEFT;

/* Angle histogram; reserved, never read or written. */
typedef struct {
  int32_t each_deg_num[181];
  float each_frame_belong_to[DOA_WINDOW];
  float each_deg_score[181];
} DOA_HIST;

/* Working record. Zero at creation, apart from prev_doa. */
typedef struct {
  int16_t in[DOA_MICS][DOA_HISTORY];                  /* last 832 samples of each microphone */
  complex_t mic_fft[DOA_FRAMES * DOA_MICS][DOA_BINS]; /* row 3f + m: frame f of microphone m */
  complex_t rfft[DOA_FFT];                            /* scratch of the transforms */
  Q_DOA_LEFT qleft;
  float micfft[512];                 /* reserved; never read or written */
  float afreq[DOA_MEL_FRAME];        /* scratch of the filterbank: one frame */
  float out1[DOA_LAYER_OUT];         /* features, then layer outputs in turn with out2 */
  float out2[DOA_LAYER_OUT];         /* the last two are never written: see doa_decision() */
  float doa_win_buff[DOA_WINDOW][4]; /* last 25 blocks, oldest first: x, y, length, degrees */
  float xy[2];                       /* direction vector of this block */
  DOA_HIST dhist;                    /* reserved */
  int32_t prev_doa;                  /* 90; not used */
  float decided[2]; /* vector that gave the last angle; for tools that look inside */
} LAYER_DATA_DOA;

/* A depth-wise-separable layer has its depth-wise taps in weight1 and its pointwise matrix in
 * weight2; the first convolution and the output layer use weight1 alone. */
typedef struct {
  const float* weight1;
  const float* weight2;
  const float* bias;
} LAYER_CONV_1D_DOA;

typedef struct {
  const float* wih_weight; /* [3 * 64][64]: reset, update, new */
  const float* whh_weight;
  const float* ih_bias;
  const float* hh_bias;
} LAYER_GRU_DOA;

typedef struct {
  /* Reserved for a fixed-point form of the layer; never set, never read. */
  const int16_t* weight_in_fix;
  const int32_t* weight_in_qw;
  const int16_t* weight_out_fix;
  const int32_t* weight_out_qw;
  const float* weight_in;   /* [108][inputs] */
  const float* weight_left; /* [108][6], oldest block first */
  const float* weight_out;  /* [164][108] */
  const float* out_bias;
  const float* ln_weight;
  const float* ln_bias;
} LAYER_DFSMN_CONV_DOA;

/* The tables are read through the layers' pointers at every block, so a layer may be pointed at
 * tables of one's own between blocks. */
struct DoaNet {
  LAYER_DATA_DOA* dlayer;
  LAYER_CONV_1D_DOA* m1_conv;
  LAYER_CONV_1D_DOA* m2_conv;
  LAYER_CONV_1D_DOA* m3_conv;
  LAYER_CONV_1D_DOA* m4_conv;
  LAYER_GRU_DOA* m_gru1;
  LAYER_DFSMN_CONV_DOA* dfsmn1_conv;
  LAYER_DFSMN_CONV_DOA* dfsmn2_conv;
  LAYER_DFSMN_CONV_DOA* dfsmn3_conv;
  LAYER_DFSMN_CONV_DOA* dfsmn4_conv;
  LAYER_CONV_1D_DOA* fc_conv;
};

#endif /* QUIBO_DOA_RING_DOA_H_ */
