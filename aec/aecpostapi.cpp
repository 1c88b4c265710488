#include "aec/aecpostapi.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "dsp/convert.h"
#include "dsp/memory.h"

void* kesto_Laec_Post_init(void) {
  AEC_POST* post = quibo::allocate<AEC_POST>();
  if (!post) {
    printf("malloc AEC_POST error\n");
    return nullptr;
  }
  init_laec(&post->laec);
  return post;
}

int32_t kesto_Laec_Post_write(void* handle, const int16_t* mic, const int16_t* ref, float* out) {
  if (!handle || !mic || !ref) {
    printf("NULL\n");
    return -1;
  }
  AEC_POST* post = static_cast<AEC_POST*>(handle);
  for (int n = 0; n < LAEC_SHIFT; ++n) {
    post->data_in1[n] = quibo::int16_to_float(mic[n]);
    post->data_in2[n] = quibo::int16_to_float(ref[n]);
  }
  linear_aec_proc(&post->laec, post->data_in1, post->data_in2, post->outputf);
  memcpy(out, post->outputf, sizeof post->outputf);
  return LAEC_SHIFT;
}

float* kesto_laec_micdata(void* handle) {
  return static_cast<AEC_POST*>(handle)->laec.micdata;
}

float* kesto_laec_yn(void* handle) {
  return static_cast<AEC_POST*>(handle)->laec.yn;
}

int32_t kesto_Laec_Post_unit(void* handle) {
  if (!handle) return -1;
  free(handle);
  return 0;
}
