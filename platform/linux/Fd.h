#pragma once

#include <utility>

namespace Platform {

// The one owner of a file descriptor: it closes it on destruction and on reset, and a move
// hands it over. Every descriptor the agent opens lives in one from the moment it exists,
// so no early return, exception or dropped owner leaves it open.
class Fd {
 public:
   Fd() = default;
   explicit Fd(int fd) : fd_(fd) {}
   ~Fd() { reset(); }
   Fd(Fd&& other) noexcept : fd_(other.release()) {}
   Fd& operator=(Fd&& other) noexcept {
      reset(other.release());
      return *this;
   }
   Fd(const Fd&) = delete;
   Fd& operator=(const Fd&) = delete;

   int get() const { return fd_; }
   explicit operator bool() const { return fd_ >= 0; }
   // Hands the descriptor to the caller, who closes it.
   [[nodiscard]] int release() { return std::exchange(fd_, -1); }
   // Closes the descriptor held, if any, and takes `fd`.
   void reset(int fd = -1);

 private:
   int fd_ = -1;
};

}  // namespace Platform
