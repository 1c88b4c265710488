#include "dsp/kernels_body.h"
#include "dsp/simd_sse2.h"

namespace quibo {
extern const Kernels kernels_sse2;
constexpr Kernels kernels_sse2 = make_kernels<Sse2F32>("sse2");
}  // namespace quibo
