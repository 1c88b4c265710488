#include "dsp/int8_avx2.h"
#include "kernels/kernels_body.h"

namespace quibo {
extern const Kernels kernels_avxvnni;
constexpr Kernels kernels_avxvnni = make_kernels<Avx2F32, AvxVnniInt8>("avxvnni");
}  // namespace quibo
