#include "dsp/int8_neon.h"
#include "dsp/simd_fused.h"
#include "kernels/kernels_body.h"

namespace quibo {
extern const Kernels kernels_neon_fused;
constexpr Kernels kernels_neon_fused = make_kernels<NeonFusedF32, NeonInt8>("neon_fused");
}  // namespace quibo
