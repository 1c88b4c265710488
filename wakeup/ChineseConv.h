/* Wake-up engine: records. 480 samples (30 ms) in; three log-mel frames; a streaming network of
 * uint8 codes and int8 weights; 146 syllable posteriors; a keyword decoder; a decision out.
 * Operations in quibo.h. Plain C, for tests and tools that look inside.
 *
 * A code q stands for the real value (q - zero point) * scale. A pair M0, M1 is the multiplier
 * M0 * 2^-M1 that takes a layer's sums to its output codes. Every field and every table pointer is
 * read at every step and may be changed between steps. */
#ifndef QUIBO_WAKEUP_CHINESECONV_H_
#define QUIBO_WAKEUP_CHINESECONV_H_

#include <stdint.h>

#include "quibo/quibo.h"

enum {
  KWS_BLOCK = QUIBO_BLOCK, /* samples per step */
  KWS_HISTORY = 720,       /* samples kept: 240 of the previous step, then the 480 new ones */
  KWS_BANDS = 40,
  KWS_FRAMES = 3,     /* feature frames per step */
  KWS_CLASSES = 146,  /* syllables; 0 is the filler */
  KWS_BLANK = 145,    /* last class */
  KWS_STATE = 128,    /* recurrent units */
  KWS_CHANNELS = 164, /* inner channels of a memory block */
  KWS_MEMORY = 8,     /* steps a memory block remembers */
  KWS_WIDTH = 256,    /* outer width of a memory block */
  KWS_MEMORY_BLOCKS = 4,
  KWS_MAX_SYLLABLES = 38, /* per keyword */
  KWS_MAX_STATES = 2 * KWS_MAX_SYLLABLES + 1
};

typedef struct {
  int32_t zero_point;
  float scale;
} QPARAM;

/* Convolution or dense layer. Weights are one row per output channel, taps time-major (earlier
 * frame first). The zero point of the output codes is qo_zero_point in m1_conv1 and in_zero_point
 * in every other layer. */
typedef struct {
  const int8_t* weight_fix;
  const int32_t* bias_fix; /* absorbs the input codes' zero point */
  int16_t in_zero_point;   /* m1_conv1: of the feature codes */
  int16_t qo_zero_point;   /* fc_conv: of the scores */
  float scale;             /* m1_conv1: of the feature codes; fc_conv: of the scores */
  int32_t M0, M1;
} LAYER_CONV_1D_INT8;

/* Gated recurrent unit; rows of the weights [384][128] and of the biases in the order r, z, n. */
typedef struct {
  const int8_t *wih_weight, *whh_weight;
  const int32_t *ih_bias, *hh_bias;
  int32_t Mi1_0, Mi1_1, Mi2_0, Mi2_1, Mi3_0, Mi3_1; /* input side: r, z, n */
  int32_t Mh1_0, Mh1_1, Mh2_0, Mh2_1, Mh3_0, Mh3_1; /* state side: r, z, n */
  QPARAM qo;                                        /* the state */
  QPARAM qoi1, qoi2, qoi3;                          /* input side: r, z, n */
  QPARAM qhi1, qhi2, qhi3;                          /* state side: r, z, n */
} LAYER_GRU;

/* Memory block: dense to 164 channels, a filter over each channel's last 8 steps added on, dense to
 * 256, layer normalisation. */
typedef struct {
  const int8_t* weight_in;   /* [164][input width] */
  const int8_t* weight_left; /* [164][8], oldest step first */
  const int8_t* weight_out;  /* [256][164] */
  const int32_t *bias_in, *bias_left, *bias_out;
  const float *ln_weight, *ln_bias; /* [256] */
  int32_t in_conv_M0, in_conv_M1, in_zero_point;
  int32_t left_conv_M0, left_conv_M1, left_zero_point;
  int32_t add_M1_0, add_M1_1; /* scale of the first input over that of the sum */
  int32_t add_M2_0, add_M2_1; /* scale of the second input over that of the first */
  int32_t add_qo_zero_point, add_qi1_zero_point, add_qi2_zero_point;
  int32_t out_conv_M0, out_conv_M1, out_conv_qo_zero;
  float qout_scale; /* dequantises the codes that enter the normalisation */
  int32_t qout_zero_point;
  float ln_scale;
  int32_t ln_zero_point;
  int32_t clamp_min, clamp_max; /* reserved */
} LAYER_DFSMN_CONV_INT8;

/* The network's streaming state. Cleared to code 0, not to the zero points. */
typedef struct {
  uint8_t conv1_left[KWS_BANDS]; /* last feature frame */
  uint8_t conv2_left[19 * 16];   /* last frame out of m1, positions outer, channels inner */
  uint8_t conv3_left[8 * 48];    /* last frame out of m2, likewise */
  uint8_t hid[KWS_STATE];        /* recurrent state */
  uint8_t qleft1[KWS_CHANNELS * KWS_MEMORY]; /* memory of block 1, per channel, oldest first */
  uint8_t qleft2[KWS_CHANNELS * KWS_MEMORY];
  uint8_t qleft3[KWS_CHANNELS * KWS_MEMORY];
  uint8_t qleft4[KWS_CHANNELS * KWS_MEMORY];
} Q_CONV_LEFT;

typedef struct {
  float in[KWS_HISTORY]; /* int16 values, not scaled */
  float micfft[1024];    /* transform scratch */
  float afreq[400];      /* one frame and its power spectrum; then the 146 posteriors, and behind
                            them their copy */
  uint8_t out1[3600];    /* layer outputs, in turns with out2 */
  uint8_t out2[3600];    /* first the four feature frames that enter the network */
  Q_CONV_LEFT qleft;
  float in_feat[1024]; /* log-mel features, 3 x 40 */
} LAYER_DATA;

/* One keyword: syllables with the blank before, between and after them. */
typedef struct {
  int16_t wd_idx;                   /* identifier in the table; not read */
  int16_t seqLen;                   /* states: 2 * syllables + 1 */
  float thres;                      /* a wake needs a cost strictly below */
  float div;                        /* divides the negative logarithm of the score */
  float* dp;                        /* forward score of each state */
  int16_t pseq[KWS_MAX_STATES + 1]; /* class of each state */
} WORD_ITEM;

/* What one step of the decoder saw and decided. */
typedef struct {
  const float* posteriors; /* 146, the filler's added to the blank's */
  float cost, thres;       /* of keyword 0; a wake needs a cost below the threshold */
  int32_t woke;            /* 0 or 1 */
} KWS_STEP;

typedef struct {
  int32_t word_num;
  WORD_ITEM* pWords;
  int32_t blank_cnt;              /* steps in a row whose blank score exceeded 0.95 */
  int32_t hold_time;              /* reserved, 0 */
  int32_t wake_cand;              /* reserved, -1 */
  float cand_score;               /* reserved */
  int32_t wake_hold_time;         /* reserved, 0 */
  float digit_score[KWS_CLASSES]; /* reserved */
  int32_t delay_flag;             /* 0; nothing sets it to another value */
  int32_t no_wake_time;           /* steps since the last wake, at most 20000 */
  /* For tools that want to know why: called with `observer` at the end of every step; null, as it is
   * at the start, for nobody. Changes nothing. */
  void (*observe)(void* observer, const KWS_STEP* step);
  void* observer;
} DECODER;

typedef struct {
  LAYER_DATA* dlayer;
  DECODER* pdec;
  LAYER_CONV_1D_INT8 *m1_conv1, *m2_conv1, *m2_conv2, *m3_conv1, *m3_conv2, *m4_conv1, *m4_conv2;
  LAYER_GRU* m_gru1;
  LAYER_DFSMN_CONV_INT8 *dfsmn1_conv, *dfsmn2_conv, *dfsmn3_conv, *dfsmn4_conv;
  LAYER_CONV_1D_INT8* fc_conv;
} EWordNet;

struct KTCWakeupParam {
  EWordNet mynet;
  int16_t data[1024]; /* reserved */
};

#endif /* QUIBO_WAKEUP_CHINESECONV_H_ */
