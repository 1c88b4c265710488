#include "dsp/int8_avx512.h"
#include "kernels/kernels_body.h"

namespace quibo {
extern const Kernels kernels_avx512vnni;
constexpr Kernels kernels_avx512vnni = make_kernels<Avx512F32, Avx512VnniInt8>("avx512vnni");
}  // namespace quibo
