#include "dsp/int8_neon.h"
#include "kernels/kernels_body.h"

namespace quibo {
extern const Kernels kernels_neon_i8mm;
constexpr Kernels kernels_neon_i8mm = make_kernels<NeonF32, NeonI8mmInt8>("neon_i8mm");
}  // namespace quibo
