#include "dsp/int8_avx2.h"
#include "kernels/kernels_body.h"

namespace quibo {
extern const Kernels kernels_avx2;
constexpr Kernels kernels_avx2 = make_kernels<Avx2F32, Avx2Int8>("avx2");
}  // namespace quibo
