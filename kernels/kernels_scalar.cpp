#include "dsp/int8_scalar.h"
#include "kernels/kernels_body.h"

namespace quibo {
extern const Kernels kernels_scalar;
constexpr Kernels kernels_scalar = make_kernels<ScalarF32, ScalarInt8>("scalar");
}  // namespace quibo
