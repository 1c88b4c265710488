/* The wake-up engine behind a handle: record. Operations in quibo.h. Plain C. */
#ifndef QUIBO_WAKEUP_QUIBWAKEUPAPI_H_
#define QUIBO_WAKEUP_QUIBWAKEUPAPI_H_

#include <stdint.h>

#include "quibo/quibo.h"

typedef struct {
  KTCWakeupParam* handle0; /* the engine */
  int16_t dataz[4096];     /* reserved */
  int32_t lenght;          /* samples in dataz: 0 (the field's name as it is) */
  int32_t time_cnt, cnt;   /* reserved */
  int32_t lang;            /* 1; there is one language */
} KTWakeupParam;

#endif /* QUIBO_WAKEUP_QUIBWAKEUPAPI_H_ */
