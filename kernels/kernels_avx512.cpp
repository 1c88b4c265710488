#include "dsp/int8_avx512.h"
#include "kernels/kernels_body.h"

namespace quibo {
extern const Kernels kernels_avx512;
constexpr Kernels kernels_avx512 = make_kernels<Avx512F32, Avx512Int8>("avx512");
}  // namespace quibo
