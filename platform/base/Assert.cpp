#include "platform/base/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Platform {

void assertFailed(const char* text, const char* function, const char* file, int line) {
   std::fprintf(stderr, "assertion failed: %s\n  in %s\n  at %s:%d\n", text, function, file, line);
   std::fflush(stderr);
   std::abort();
}

}  // namespace Platform
