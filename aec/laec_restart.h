// A fresh start of the linear canceller in the middle of a stream; not exported.
#pragma once

#include "aec/Laec.h"

namespace quibo {

// Sets what was learnt of the echo path to its start values: weights, step sizes, gains, the echo
// estimate and the output's tail. The histories of microphone and reference and the
// reference's power are kept, so that the next frame is an ordinary one.
void forget_echo_path(LAEC* st);

}  // namespace quibo
