#include "doa/customs_doa_api.h"

#include <stdio.h>
#include <stdlib.h>

#include "dsp/memory.h"

int32_t kesto_customs_doa_init(KTDHandle* handle) {
  *handle = nullptr;
  KTDParama* estimator = quibo::allocate<KTDParama>();
  if (!estimator) return -10;
  if (init_doa_net(&estimator->doanet) != 0) {
    printf("初始化DOA模型失败！\n");
    return -1;  // what was built stays allocated
  }
  *handle = estimator;
  return 0;
}

int32_t kesto_customs_doa_write(KTDHandle handle, const int16_t* mic1, const int16_t* mic2,
                                const int16_t* mic3, int16_t* outdata, int32_t rcg_ret) {
  (void)outdata;
  if (!handle) return -10;
  KTDParama* estimator = static_cast<KTDParama*>(handle);
  const int32_t angle = proc_one_frame(&estimator->doanet, mic1, mic2, mic3, rcg_ret);
  return angle < 0 ? -1 : angle;
}

void kesto_customs_doa_unit(KTDHandle handle) {
  if (!handle) return;
  KTDParama* estimator = static_cast<KTDParama*>(handle);
  destroy_doa_net(&estimator->doanet);
  free(estimator);
}
