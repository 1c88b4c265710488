#include "dsp/kernels_body.h"
#include "dsp/simd_scalar.h"

namespace quibo {
extern const Kernels kernels_scalar;
constexpr Kernels kernels_scalar = make_kernels<ScalarF32>("scalar");
}  // namespace quibo
