#include "dsp/int8_avx2.h"
#include "dsp/simd_fused.h"
#include "kernels/kernels_body.h"

namespace quibo {
extern const Kernels kernels_avx2_fused;
constexpr Kernels kernels_avx2_fused = make_kernels<Avx2FusedF32, Avx2Int8>("avx2_fused");
}  // namespace quibo
