#include "platform/linux/StreamSend.h"

#include <sys/socket.h>

#include <cerrno>

namespace Platform {

StreamSend sendPending(int fd, std::string_view data, size_t& sent) {
   while (sent < data.size()) {
      const ssize_t n =
          ::send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n >= 0) {
         sent += static_cast<size_t>(n);
         continue;
      }
      if (errno == EINTR)
         continue;
      return errno == EAGAIN ? StreamSend::wait : StreamSend::failed;
   }
   return StreamSend::done;
}

}  // namespace Platform
