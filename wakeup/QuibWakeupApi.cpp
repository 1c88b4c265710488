#include "wakeup/QuibWakeupApi.h"

#include <stdlib.h>

#include "dsp/memory.h"
#include "wakeup/ChineseConv.h"

int32_t QuibWakeupInit(void** handle, int32_t lang) {
  (void)lang;
  *handle = nullptr;
  KTWakeupParam* h = quibo::allocate<KTWakeupParam>();
  if (!h) return -1;
  h->handle0 = quibo::allocate<KTCWakeupParam>();
  if (!h->handle0) {
    free(h);
    return -1;
  }
  if (KestoChineseWakeupInit(h->handle0) != 0) {
    QuibWakeupUnit(h);
    return -3;
  }
  h->lenght = 0;
  h->lang = 1;
  *handle = h;
  return 0;
}

int32_t QuibWakeupWriteData(void* handle, const int16_t* samples) {
  if (!handle) return -10;
  return KestoChineseWakeupWrite(static_cast<KTWakeupParam*>(handle)->handle0, samples) == 0 ? 0
                                                                                             : -1;
}

int32_t QuibWakeupUnit(void* handle) {
  if (!handle) return -10;
  KestoChineseWakeupUnit(static_cast<KTWakeupParam*>(handle)->handle0);
  free(handle);
  return 0;
}
