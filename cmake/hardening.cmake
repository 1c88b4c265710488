# Protections of the compiler and the linker. For everything: symbols are bound at start and then read-only, and indirect
# jumps land on marked places only, where processor and toolchain offer that (CET on x86, BTI and return-address signing on
# AArch64; older processors take the marks for no-operations). For programs, which meet files and arguments, also stack
# canaries and checked string functions; the library has no strings and no buffer whose length a caller chooses.

if(CMAKE_SYSTEM_PROCESSOR STREQUAL wasm32)  # WebAssembly has all that by construction
  return()
endif()
include(CheckCXXCompilerFlag)

if(NOT CMAKE_SYSTEM_PROCESSOR STREQUAL wasm32)  # which has its own
  add_link_options(-Wl,-z,relro,-z,now)
  foreach(flag IN ITEMS -fcf-protection=full -mbranch-protection=standard)
    string(MAKE_C_IDENTIFIER "QUIBO_HAS${flag}" has_flag)
    check_cxx_compiler_flag(${flag} ${has_flag})
    if(${has_flag})
      add_compile_options(${flag})
    endif()
  endforeach()
endif()

function(quibo_harden_program target)
  target_compile_options(${target} PRIVATE -fstack-protector-strong)
  if(NOT QUIBO_SANITIZE AND NOT QUIBO_BUILD_FUZZ)  # the sanitizers do not know the checked functions
    target_compile_options(${target} PRIVATE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
  endif()
endfunction()
