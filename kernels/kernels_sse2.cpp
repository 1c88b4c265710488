#include "dsp/int8_sse2.h"
#include "kernels/kernels_body.h"

namespace quibo {
extern const Kernels kernels_sse2;
constexpr Kernels kernels_sse2 = make_kernels<Sse2F32, Sse2Int8>("sse2");
}  // namespace quibo
