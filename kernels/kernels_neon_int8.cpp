#include "dsp/int8_neon.h"
#include "kernels/kernels_body.h"

// 32-bit ARM, whose float NEON flushes denormals: exact are its integers only.
namespace quibo {
extern const Kernels kernels_neon_int8;
constexpr Kernels kernels_neon_int8 = make_kernels<ScalarF32, NeonInt8>("neon_int8");
}  // namespace quibo
