// One libFuzzer program per target: CMake compiles this file once per entry of
// fuzz/CMakeLists.txt with FUZZ_TARGET naming the body in FuzzTargets.h.
#include <cstddef>
#include <cstdint>

#include "fuzz/FuzzTargets.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
   if (!Fuzz::FUZZ_TARGET(std::span<const uint8_t>(data, size)))
      __builtin_trap();
   return 0;
}
