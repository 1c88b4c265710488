#include "dsp/int8_wasm.h"
#include "kernels/kernels_body.h"

namespace quibo {
extern const Kernels kernels_wasm;
constexpr Kernels kernels_wasm = make_kernels<WasmF32, WasmInt8>("wasm");
}  // namespace quibo
