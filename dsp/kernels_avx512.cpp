#include "dsp/kernels_body.h"
#include "dsp/simd_avx512.h"

namespace quibo {
extern const Kernels kernels_avx512;
constexpr Kernels kernels_avx512 = make_kernels<Avx512F32>("avx512");
}  // namespace quibo
