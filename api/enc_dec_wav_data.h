/* The sample codec of the microphone interface: declared in quibo.h, tables from
 * params/codec.safetensors. */
#ifndef QUIBO_API_ENC_DEC_WAV_DATA_H_
#define QUIBO_API_ENC_DEC_WAV_DATA_H_

#include "quibo/quibo.h"

enum {
  QUIBO_CODEC_BOUND =
      4800 /* largest magnitude that is substituted; the tables have one entry more */
};

#endif /* QUIBO_API_ENC_DEC_WAV_DATA_H_ */
