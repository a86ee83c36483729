#pragma once

#include <cstdint>
#include <functional>

#include "platform/linux/Fd.h"

namespace Platform {

class EventLoop;

// A descriptor together with its registration on the event loop. Both go together, in the
// only safe order: the loop lets go before the descriptor is closed, so neither a stale
// registration nor a callback into its freed owner outlives the owner. Empty by default;
// a move hands both over.
class WatchedFd {
 public:
   WatchedFd() = default;
   WatchedFd(EventLoop& loop, Fd fd, uint32_t events, std::function<void(uint32_t)> callback);
   ~WatchedFd() { reset(); }
   WatchedFd(WatchedFd&& other) noexcept;
   WatchedFd& operator=(WatchedFd&& other) noexcept;
   WatchedFd(const WatchedFd&) = delete;
   WatchedFd& operator=(const WatchedFd&) = delete;

   int get() const { return fd_.get(); }
   explicit operator bool() const { return bool(fd_); }
   void eventsIs(uint32_t events);
   // Leaves the loop and closes.
   void reset();

 private:
   EventLoop* loop_ = nullptr;
   Fd fd_;
};

}  // namespace Platform
