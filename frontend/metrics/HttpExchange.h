#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace Frontend {

// The HTTP/1.x side of the metrics endpoint, without sockets: what to answer to the bytes a
// client has sent so far. Only GET (and HEAD) of /metrics is served; every answer closes
// the connection, so a client costs at most one request head of buffer.
//
// Returns nothing while the request head is incomplete and still within kMaxRequestHead;
// otherwise the whole response: 200 with the metrics, 404 for another path, 405 for another
// method, 400 for what is not an HTTP/1.x request head, 431 for a head that does not end
// within kMaxRequestHead. `metrics` is called only for a 200 (or HEAD) answer.
inline constexpr size_t kMaxRequestHead = 8 * 1024;

std::optional<std::string> httpAnswer(std::string_view received,
                                      const std::function<std::string()>& metrics);

}  // namespace Frontend
