#include "bench/AllocationCounter.h"

#include <cstdlib>
#include <new>

namespace {

size_t count = 0;

}  // namespace

// Out of line, as in the library, so the compiler does not pair malloc with delete-expressions.
[[gnu::noinline]] void* operator new(size_t size) {
   ++count;
   if (void* p = std::malloc(size ? size : 1))
      return p;
   throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* p) noexcept {
   std::free(p);
}
[[gnu::noinline]] void operator delete(void* p, size_t) noexcept {
   std::free(p);
}

namespace Bench {

size_t allocations() {
   return count;
}

}  // namespace Bench
