#pragma once

#include <cstddef>

namespace Bench {

// Heap allocations made by the process so far. A benchmark program that links
// AllocationCounter.cpp replaces the global operator new to count them, so a hot
// path can be shown to allocate nothing per iteration.
size_t allocations();

}  // namespace Bench
