#pragma once

#include <cstddef>
#include <functional>

namespace Ip::Helper::DhcpRelay {

// Folds one more field into a hash of a multi-field key; the odd constant spreads
// small field hashes (interface ids, short names) across the whole word.
template <class T>
size_t hashCombine(size_t seed, const T& v) {
   return seed ^ (std::hash<T>{}(v) + 0x9e3779b97f4a7c15ull + (seed << 6) + (seed >> 2));
}

}  // namespace Ip::Helper::DhcpRelay
