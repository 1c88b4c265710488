# Toolchain: WebAssembly with 128-bit SIMD, by Emscripten (Debian's package). Its own toolchain file lies beside emcc.
find_program(EMCC emcc REQUIRED)
file(REAL_PATH ${EMCC} EMCC_FILE)
get_filename_component(EMSCRIPTEN_ROOT_PATH ${EMCC_FILE} DIRECTORY)
set(EMSCRIPTEN_SYSTEM_PROCESSOR wasm32)
include(${EMSCRIPTEN_ROOT_PATH}/cmake/Modules/Platform/Emscripten.cmake)
set(CMAKE_CXX_FLAGS_INIT -msimd128)
