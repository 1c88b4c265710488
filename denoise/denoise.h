/* Neural noise suppressor: records of one instance. Operations and parameter tables in quibo.h.
 * Plain C. */
#ifndef QUIBO_DENOISE_DENOISE_H_
#define QUIBO_DENOISE_DENOISE_H_

#include <stdint.h>

#include "quibo/quibo.h"

/* A convolution. Rows of `weight`: input channel, then time (oldest first), then frequency. The
 * first layer's weight has 290 floats, see denoise_inp_conv1_weight. */
typedef struct {
  const float* weight;
  const float* bias;
  const float *running_weight, *running_bias, *running_mean, *running_var; /* not used */
  const float* prelu;        /* slope per output channel; encoder only */
  const int16_t* weight_fix; /* not used */
} LAYER_CONV_COMMON;

/* A recurrent block of 32 channels. */
typedef struct {
  const float* weight_ir;               /* 32 x 64: columns of x, then of h */
  const float* weight_iz;               /* 32 x 64 */
  const float* weight_in;               /* 32 x 32 for x, then 32 x 32 for h */
  const float *bias_ir, *bias_iz;       /* 32 each */
  const float *bias_in1, *bias_in2;     /* 32 each; with x, with h */
  const float* linear_weight;           /* 32 x 32 */
  const float* linear_bias;             /* 32 */
  const float *norm_weight, *norm_bias; /* 32 each: scale and shift per channel */
  float* prev_stat; /* time: 32 positions x 32; frequency: the last position's 32, cleared first */
} LAYER_GRU_COMMON;

/* Working record of one instance; all zero at creation. Histories hold the two previous input
 * frames of a layer, older first, each `channels` rows with a zero at both ends; what follows them
 * in the array is not used. */
typedef struct {
  float inMic[1024];     /* previous hop, current hop */
  float spec_frame;      /* not used */
  float spec_real[2565]; /* the last five spectra of 513 bins, oldest first */
  float spec_imag[2565];
  int32_t x_inp1_frame;     /* steps that reached the layer */
  float x_inp1_input[2058]; /* 2 x 2 x 514 */
  int32_t x_inp2_frame;
  float x_inp2_input[8288]; /* 2 x 16 x 258 */
  int32_t x_inp3_frame;
  float x_inp3_input[8324]; /* 2 x 32 x 130 */
  int32_t x_inp4_frame;
  float x_inp4_input[4228]; /* 2 x 32 x 66 */
  float sub1_input[2180];   /* 2 x 32 x 34 */
  float sub2_input[2116];   /* 2 x 16 x 66 */
  float sub3_input[4164];   /* 2 x 16 x 130 */
  float sub4_input[4132];   /* 2 x 8 x 258 */
  float gru_data[144];      /* not used */
  float ovlp_add[1024];     /* last synthesised frame */
  float gru_tmp[288];       /* not used */
  float min_scale;          /* mask floor, 0..1 */
} LAYER_DATA_DENOISE;

typedef struct {
  LAYER_DATA_DENOISE* dlayer;
  LAYER_CONV_COMMON *inp_conv1, *inp_conv2, *inp_conv3, *inp_conv4;
  LAYER_GRU_COMMON *t_gru1, *t_gru2, *t_gru3;
  LAYER_GRU_COMMON *f_gru1, *f_gru2, *f_gru3;
  LAYER_CONV_COMMON *sub_pix_conv1, *sub_pix_conv2, *sub_pix_conv3, *sub_pix_conv4;
} DenoiseNet;

typedef struct {
  DenoiseNet* Mynet;
  float indataf[QUIBO_FRAME];  /* current input frame, full scale 1.0 */
  float outdataf[QUIBO_FRAME]; /* cleaned frame; zero until the fifth step */
} KTANCParams;

#endif /* QUIBO_DENOISE_DENOISE_H_ */
