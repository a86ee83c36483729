#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Platform {

enum class StreamSend : uint8_t { done, wait, failed };

// Sends what is left of `data` after `sent` on a non-blocking stream socket and advances
// `sent`: done once all of it is sent, wait while the socket's buffer is full, failed when
// the peer is gone or the send fails otherwise (errno says why). Never raises SIGPIPE.
StreamSend sendPending(int fd, std::string_view data, size_t& sent);

}  // namespace Platform
