#include "dsp/kernels_body.h"
#include "dsp/simd_avx2.h"

namespace quibo {
extern const Kernels kernels_avx2;
constexpr Kernels kernels_avx2 = make_kernels<Avx2F32>("avx2");
}  // namespace quibo
