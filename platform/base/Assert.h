#pragma once

namespace Platform {

// Stops the agent on a broken invariant. The text is behaviour: operators and
// tests see it exactly as written at the call site.
[[noreturn]] void assertFailed(const char* text, const char* function, const char* file, int line);

}  // namespace Platform

#define PLATFORM_ASSERT(cond, text)                                               \
   do {                                                                           \
      if (!(cond)) [[unlikely]]                                                   \
         ::Platform::assertFailed(text, __PRETTY_FUNCTION__, __FILE__, __LINE__); \
   } while (0)
