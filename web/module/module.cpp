// The calls of the WebAssembly module, one front end per instance: JavaScript writes a frame into the inputs, calls
// module_process() and reads the outputs.

#include "api/WakeupApi.h"
#include "dsp/kernels.h"

namespace {

constexpr int kMics = 3;
constexpr int kTracks =
    kMics + 1;  // microphones, then the reference; cancelled microphones, then the clean one

int16_t inputs[kTracks][QUIBO_FRAME];
int16_t outputs[kTracks][QUIBO_FRAME];
KTWakeup front_end;
int32_t wake, angle;

}  // namespace

extern "C" {

// Quibo_wakeup_init()'s codes.
int32_t module_create() {
  return Quibo_wakeup_init(&front_end, 0);
}

int16_t* module_input(int32_t track) {
  return inputs[track];
}

const int16_t* module_output(int32_t track) {
  return outputs[track];
}

// One frame; microphones that are not in the codec's encoding are put into it first, which loses nothing.
void module_process(int32_t scrambled) {
  if (!scrambled) {
    for (int mic = 0; mic < kMics; ++mic) enc_data(inputs[mic], QUIBO_FRAME);
  }
  Quibo_wakeup_three_write_data(front_end, inputs[0], inputs[1], inputs[2], inputs[kMics],
                                outputs[0], outputs[1], outputs[2], outputs[kMics]);
  angle = Quibo_doa_three_write_data(front_end, &wake, outputs[0], outputs[1], outputs[2],
                                     outputs[kMics], QUIBO_FRAME);
}

// Of the last frame: 1 where the wake phrase was heard.
int32_t module_woke() {
  return wake >= 0;
}

// Of the last frame: degrees, or -1.
int32_t module_angle() {
  return angle;
}

// The instruction set in use, a C string.
const char* module_kernels() {
  return quibo::kernels().name;
}

}  // extern "C"
