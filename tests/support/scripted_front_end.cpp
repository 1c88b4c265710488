// A front end that follows a script, linked with the demo driver in place of the library: known
// wakes and angles at known frames, and outputs that tell which channel went where.

#include <stdlib.h>
#include <string.h>

#include "quibo/quibo.h"

namespace {

struct Event {
  int frame;
  int32_t wake, angle;
};
constexpr Event kScript[] = {{1, -1, 10}, {2, 0, 0}, {3, 5, 359}, {960, 0, -1}};

int frame = -1;
const int16_t* expected_inputs[4];

// The driver handed on the wrong buffer: stops it, and with it the test.
void require(bool holds) {
  if (!holds) abort();
}

}  // namespace

int32_t Quibo_wakeup_init(KTWakeup* handle, int32_t lang) {
  require(!*handle && lang == 0);
  if (getenv("SCRIPT_NO_FRONT_END")) return -3;
  static char self;
  *handle = reinterpret_cast<KTWakeup>(&self);
  return 0;
}

int32_t Quibo_wakeup_three_write_data(KTWakeup, int16_t* mic1_data, int16_t* mic2_data,
                                      int16_t* mic3_data, const int16_t* ref_data,
                                      int16_t* outdata1, int16_t* outdata2, int16_t* outdata3,
                                      int16_t* naecout) {
  ++frame;
  for (int i = 0; i < QUIBO_FRAME; ++i) {
    naecout[i] = static_cast<int16_t>(mic1_data[i] + 10 * mic2_data[i] + 100 * mic3_data[i] +
                                      1000 * ref_data[i]);
  }
  const int16_t* const outputs[] = {outdata1, outdata2, outdata3, naecout};
  memcpy(expected_inputs, outputs, sizeof outputs);
  return 0;
}

int32_t Quibo_doa_three_write_data(KTWakeup, int32_t* Iswakeup, const int16_t* mic1_data,
                                   const int16_t* mic2_data, const int16_t* mic3_data,
                                   const int16_t* naec_data, int32_t len) {
  const int16_t* const inputs[] = {mic1_data, mic2_data, mic3_data, naec_data};
  require(memcmp(inputs, expected_inputs, sizeof inputs) == 0 && len == QUIBO_FRAME);
  for (const Event& event : kScript) {
    if (event.frame != frame) continue;
    *Iswakeup = event.wake;
    return event.angle;
  }
  *Iswakeup = -1;
  return -1;
}
