#include "platform/linux/Fd.h"

#include <unistd.h>

namespace Platform {

void Fd::reset(int fd) {
   const int old = std::exchange(fd_, fd);
   // Not retried on EINTR: Linux releases the descriptor whatever close returns, and a
   // second close could hit a descriptor opened meanwhile.
   if (old >= 0 && old != fd)
      ::close(old);
}

}  // namespace Platform
