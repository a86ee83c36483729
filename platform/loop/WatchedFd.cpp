#include "platform/loop/WatchedFd.h"

#include <utility>

#include "platform/loop/EventLoop.h"

namespace Platform {

WatchedFd::WatchedFd(EventLoop& loop, Fd fd, uint32_t events,
                     std::function<void(uint32_t)> callback)
    : loop_(&loop), fd_(std::move(fd)) {
   loop_->addFd(fd_.get(), events, std::move(callback));
}

WatchedFd::WatchedFd(WatchedFd&& other) noexcept
    : loop_(std::exchange(other.loop_, nullptr)), fd_(std::move(other.fd_)) {}

WatchedFd& WatchedFd::operator=(WatchedFd&& other) noexcept {
   if (this != &other) {
      reset();
      loop_ = std::exchange(other.loop_, nullptr);
      fd_ = std::move(other.fd_);
   }
   return *this;
}

void WatchedFd::eventsIs(uint32_t events) {
   loop_->modifyFd(fd_.get(), events);
}

void WatchedFd::reset() {
   if (loop_)
      loop_->removeFd(fd_.get());
   loop_ = nullptr;
   fd_.reset();
}

}  // namespace Platform
