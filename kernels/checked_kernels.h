// The self-checking build (QUIBO_CHECK_KERNELS): every kernel call is repeated on the scalar kernel
// with the same input, and the process ends at the first bit that differs, or at a call with a shape
// that kernels.h does not allow.
#pragma once

#include "dsp/kernels.h"

namespace quibo {

// A row whose kernels run those of `variant` beside the scalar ones. There is one such row, which
// keeps to the last variant asked for.
const Kernels& checked_kernels(const Kernels& variant);

}  // namespace quibo
