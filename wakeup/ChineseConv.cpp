// The engine: one block of samples through features, network and decoder.
#include "wakeup/ChineseConv.h"

#include <stdio.h>
#include <stdlib.h>

#include "wakeup/ChineseParams.h"
#include "wakeup/decoder.h"
#include "wakeup/features.h"
#include "wakeup/layers.h"

using namespace quibo::wakeup;

namespace {

void rcg_model_forward(EWordNet* net) {
  cal_block_feature_int8(net->dlayer);
  convert_input_data(net->dlayer, net->m1_conv1);
  network_forward_int8(net);
  post_score_augument(net);
}

}  // namespace

int32_t KestoChineseWakeupInit(KTCWakeupParam* p) {
  if (!p) {
    printf("Net init error!\n");
    return -1;
  }
  p->mynet = {};  // the record may hold anything
  if (init_eword_net(&p->mynet, kCompiledTables) != 0) return -1;
  KestoChineseWakeupclear(p);
  return 0;
}

void KestoChineseWakeupclear(KTCWakeupParam* p) {
  if (!p) return;
  clear_history(p->mynet.dlayer);
  start_recog(p->mynet.pdec);
}

int32_t KestoChineseWakeupWrite(KTCWakeupParam* p, const int16_t* samples) {
  if (!p) return -10;
  push_samples(p->mynet.dlayer, samples);
  rcg_model_forward(&p->mynet);
  const int32_t result = run_decoder(&p->mynet);
  if (result == 0) clear_history(p->mynet.dlayer);  // after a wake the stream starts anew
  return result;
}

int32_t KestoChineseWakeupUnit(KTCWakeupParam* p) {
  if (!p) return -10;
  destroy_eword_net(&p->mynet);
  free(p);
  return 0;
}
