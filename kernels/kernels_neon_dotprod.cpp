#include "dsp/int8_neon.h"
#include "kernels/kernels_body.h"

namespace quibo {
extern const Kernels kernels_neon_dotprod;
constexpr Kernels kernels_neon_dotprod = make_kernels<NeonF32, NeonDotInt8>("neon_dotprod");
}  // namespace quibo
