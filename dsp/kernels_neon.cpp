#include "dsp/kernels_body.h"
#include "dsp/simd_neon.h"

namespace quibo {
extern const Kernels kernels_neon;
constexpr Kernels kernels_neon = make_kernels<NeonF32>("neon");
}  // namespace quibo
