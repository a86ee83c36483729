#include "agent/ProcessChecks.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

namespace Ip::Helper::DhcpRelay {

namespace {

constexpr char kNamespaceClaim[] = "dhcp-relay-agent";
constexpr const char* kPrivilegeHint =
    " (the agent needs CAP_NET_RAW, CAP_NET_BIND_SERVICE and CAP_NET_ADMIN, and "
    "CAP_SYS_ADMIN to enter the namespaces of VRFs)";

bool privilegeError(int err) {
   return err == EPERM || err == EACCES;
}

}  // namespace

unsigned long raiseFileLimit() {
   rlimit limit{};
   if (::getrlimit(RLIMIT_NOFILE, &limit) < 0)
      return 0;
   if (limit.rlim_cur < limit.rlim_max) {
      rlimit raised = limit;
      raised.rlim_cur = limit.rlim_max;
      if (::setrlimit(RLIMIT_NOFILE, &raised) == 0)
         limit = raised;
   }
   return static_cast<unsigned long>(limit.rlim_cur);
}

Platform::Fd claimNamespace(std::string& error) {
   Platform::Fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
   if (!fd) {
      error = std::string("cannot create a socket: ") + std::strerror(errno);
      return fd;
   }
   sockaddr_un addr{};
   addr.sun_family = AF_UNIX;
   // An abstract name starts with a zero byte and has the length the address gives it.
   std::memcpy(addr.sun_path + 1, kNamespaceClaim, sizeof kNamespaceClaim - 1);
   const auto len =
       static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + sizeof kNamespaceClaim);
   if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&addr), len) < 0) {
      error = errno == EADDRINUSE
                  ? "another dhcp-relay-agent runs in this network namespace; two would relay "
                    "every packet twice"
                  : std::string("cannot claim the network namespace: ") + std::strerror(errno);
      return Platform::Fd();
   }
   return fd;
}

bool probeRelayPrivileges(std::string& error) {
   auto failed = [&](const char* what) {
      if (!privilegeError(errno))
         return false;
      error = std::string("cannot open the relay's sockets: ") + what + ": " +
              std::strerror(errno) + kPrivilegeHint;
      return true;
   };
   {
      const Platform::Fd udp(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
      const int on = 1;
      sockaddr_in addr{};
      addr.sin_family = AF_INET;
      addr.sin_port = htons(67);
      if (udp &&
          (::setsockopt(udp.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) < 0 ||
           ::bind(udp.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) < 0) &&
          failed("bind UDP port 67"))
         return false;
   }
   if (!Platform::Fd(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW)) &&
       failed("raw IP socket"))
      return false;
   if (!Platform::Fd(::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0)) && failed("packet socket"))
      return false;
   return true;
}

}  // namespace Ip::Helper::DhcpRelay
