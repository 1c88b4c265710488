#include "dsp/int8_avx512.h"
#include "dsp/simd_fused.h"
#include "kernels/kernels_body.h"

namespace quibo {
extern const Kernels kernels_avx512_fused;
constexpr Kernels kernels_avx512_fused = make_kernels<Avx512FusedF32, Avx512Int8>("avx512_fused");
}  // namespace quibo
