/* The front end's record: every module instance, the frame buffers and the detection FIFOs.
 * Operations in quibo.h. Plain C, for tests and tools that look inside; applications need only the
 * opaque KTWakeup. */
#ifndef QUIBO_API_WAKEUPAPI_H_
#define QUIBO_API_WAKEUPAPI_H_

#include <stdint.h>

#include "../limiter/zq_MPO.h"
#include "quibo/quibo.h"

enum { QUIBO_FIFO = 2048 /* samples per detection FIFO; frames of 1024 use 479 + 1024 */ };

struct KTWakeupParams {
  KTDHandle handle0;               /* direction estimator */
  void* handle1;                   /* linear echo canceller of microphone 1 */
  void* handle2;                   /* ... of microphone 2 */
  void* handle3;                   /* ... of microphone 3 */
  void* handle4;                   /* wake-up engine */
  int16_t aec_sdata1[QUIBO_FRAME]; /* reserved */
  float aec_fdata1[QUIBO_FRAME]; /* echo-cancelled microphone 1 of the current frame, full scale 1.0
                                  */
  int16_t aec_sdata2[QUIBO_FRAME];   /* reserved */
  float aec_fdata2[QUIBO_FRAME];     /* echo-cancelled microphone 2 */
  int16_t aec_sdata3[QUIBO_FRAME];   /* reserved */
  float aec_fdata3[QUIBO_FRAME];     /* echo-cancelled microphone 3 */
  int32_t aecdata_len;               /* reserved */
  stMPO KTmpo;                       /* output limiter, initialised and never run here */
  int32_t is_wakeup;                 /* reserved */
  int16_t mic1_doa_data[QUIBO_FIFO]; /* FIFO of microphone 1 for the direction estimator */
  int16_t mic2_doa_data[QUIBO_FIFO]; /* ... of microphone 2 */
  int16_t mic3_doa_data[QUIBO_FIFO]; /* ... of microphone 3 */
  int32_t data_doa_len;              /* samples pending in each of the four FIFOs */
  void* WAncHnadle;                  /* noise suppressor, minimum gain 0.1; created, never run */
  void* DAncHnadle0;                 /* noise suppressor of microphone 1, minimum gain 0.3 */
  void* DAncHnadle1;                 /* ... of microphone 2 */
  void* DAncHnadle2;                 /* ... of microphone 3 */
  void* DNAecHanle;                  /* neural echo suppressor */
  int16_t WData[QUIBO_FIFO];         /* FIFO of the three-microphone mix for the wake-up engine */
  int32_t WDlen;                     /* 0; not used */
};

#endif /* QUIBO_API_WAKEUPAPI_H_ */
