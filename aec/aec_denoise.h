/* Neural echo suppressor: records of the one instance. Operations and parameter tables in quibo.h.
 * Plain C. */
#ifndef QUIBO_AEC_AEC_DENOISE_H_
#define QUIBO_AEC_AEC_DENOISE_H_

#include <stdint.h>

#include "quibo/quibo.h"

/* A convolution, or the last stage's groups. Rows of `weight`: input channel, then time (oldest
 * first), then frequency. */
typedef struct {
  const float* weight;
  const float* bias;
  const float* prelu; /* slope per output channel, or NULL */
} LAYER_CONV_NNAEC;

/* A recurrent block of 64 channels. */
typedef struct {
  const float *weight_ir, *weight_iz, *weight_in; /* 64 x 128 each: columns of x, then of h */
  const float *bias_ir, *bias_iz;                 /* 64 each */
  const float *bias_in1, *bias_in2;               /* 64 each; with x, with h */
  const float* linear_weight;                     /* 64 x 64 */
  const float* linear_bias;                       /* 64 */
  float* prev_stat;                               /* time blocks: 32 positions x 64; else NULL */
} LAYER_GRU_NNAEC;

/* Activation store; all zero at creation. An N-frame buffer holds a layer's last N input frames,
 * oldest first, each `channels` rows with a zero at both ends. */
typedef struct {
  float inMic[1024];     /* previous hop, current hop of the microphone */
  float inRef[1024];     /* the same of the echo estimate */
  float spec_real[2565]; /* the last five error spectra of 513 bins, oldest first */
  float spec_imag[2565];
  float x_inp1_input[4112];                                                     /* 2 x 4 x 514 */
  float x_inp2_input[8256];                                                     /* 2 x 16 x 258 */
  float x_inp3_input[8320];                                                     /* 2 x 32 x 130 */
  float x_inp4_input[6336];                                                     /* 2 x 48 x 66 */
  float enc1_frame, enc2_frame, enc3_frame, enc4_frame;                         /* 0; not used */
  float x1_input[4096], x2_input[4096], x3_input[4096], x4_input[4096];         /* encoder inputs:
                                           previous and current map of 64 x 32; written, not read */
  float enc1_input[6528], enc2_input[6528], enc3_input[6528], enc4_input[6528]; /* 3 x 64 x 34 */
  float o1_input[2048], o2_input[2048], o3_input[2048]; /* outputs of encoder stages 1..3 of the
                                                           last step, 64 x 32; written, not read */
  float dec1_input[6528], dec2_input[6528], dec3_input[6528], dec4_input[6528]; /* 3 x 64 x 34 */
  float sub1_input[4352];                                                       /* 2 x 64 x 34 */
  float sub2_input[4224];                                                       /* 2 x 32 x 66 */
  float sub3_input[4160];                                                       /* 2 x 16 x 130 */
  float sub4_input[4128];                                                       /* 2 x 8 x 258 */
  float ovlp_add[1024];                 /* second half of the last synthesised frame, then unused */
  float mask_real[513], mask_imag[513]; /* of the last step */
} LAYER_DATA_NNAEC;

typedef struct {
  LAYER_DATA_NNAEC* dlayer;
  LAYER_CONV_NNAEC *sys_real_conv, *sys_imag_conv;
  LAYER_CONV_NNAEC *inp_conv1, *inp_conv2, *inp_conv3, *inp_conv4;
  LAYER_CONV_NNAEC *enc_conv1, *enc_conv2, *enc_conv3, *enc_conv4;
  LAYER_GRU_NNAEC *t_gru1, *t_gru2, *t_gru3;
  LAYER_GRU_NNAEC *f_gru1, *f_gru2, *f_gru3;
  LAYER_CONV_NNAEC *dec_conv1, *dec_conv2, *dec_conv3, *dec_conv4;
  LAYER_CONV_NNAEC *sub_pix_conv1, *sub_pix_conv2, *sub_pix_conv3, *sub_pix_conv4;
} AEC_Denoise_Net;

typedef struct {
  AEC_Denoise_Net* Mynet;
  float indataf[QUIBO_FRAME];  /* reserved */
  float outdataf[QUIBO_FRAME]; /* reserved */
} KTNNAECParams;

#endif /* QUIBO_AEC_AEC_DENOISE_H_ */
