#include "dsp/int8_neon.h"
#include "kernels/kernels_body.h"

namespace quibo {
extern const Kernels kernels_neon;
constexpr Kernels kernels_neon = make_kernels<NeonF32, NeonInt8>("neon");
}  // namespace quibo
