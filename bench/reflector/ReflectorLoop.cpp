#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <time.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "bench/reflector/Reflection.h"
#include "platform/linux/Fd.h"

namespace Bench {

namespace {

volatile sig_atomic_t stopRequested = 0;
void onSignal(int) {
   stopRequested = 1;
}

bool bindAny(int fd, int family, uint16_t port) {
   sockaddr_storage local{};
   socklen_t length = sizeof(sockaddr_in);
   if (family == AF_INET6) {
      auto& a = reinterpret_cast<sockaddr_in6&>(local);
      a.sin6_family = AF_INET6;
      a.sin6_port = htons(port);
      length = sizeof a;
   } else {
      auto& a = reinterpret_cast<sockaddr_in&>(local);
      a.sin_family = AF_INET;
      a.sin_port = htons(port);
   }
   return bind(fd, reinterpret_cast<sockaddr*>(&local), length) == 0;
}

}  // namespace

int runReflector(Reflection& reflection, int maxSeconds) {
   struct sigaction sa {};
   sa.sa_handler = onSignal;
   sigaction(SIGINT, &sa, nullptr);
   sigaction(SIGTERM, &sa, nullptr);

   const int family = reflection.family();
   const Platform::Fd udp(socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
   const int fd = udp.get();
   if (!udp) {
      perror("socket");
      return 1;
   }
   int one = 1;
   setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
   // IP_PKTINFO: a DHCPv4 request's destination address is the server identifier.
   if (family == AF_INET)
      setsockopt(fd, IPPROTO_IP, IP_PKTINFO, &one, sizeof one);
   int buf = 4 << 20;
   setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buf, sizeof buf);
   setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &buf, sizeof buf);
   const char* udpName = family == AF_INET6 ? "udp6" : "udp";
   if (!bindAny(fd, family, reflection.port())) {
      std::fprintf(stderr, "bind %s/%u: %s\n", udpName, reflection.port(), std::strerror(errno));
      return 1;
   }
   std::printf("dhcp-reflector: listening on %s/%u\n", udpName, reflection.port());
   std::fflush(stdout);

   uint64_t counts[kOutcomes] = {};
   timespec start;
   clock_gettime(CLOCK_MONOTONIC, &start);
   std::vector<uint8_t> rx(0x10000);
   alignas(cmsghdr) uint8_t control[CMSG_SPACE(sizeof(in_pktinfo))];
   while (!stopRequested) {
      timespec now;
      clock_gettime(CLOCK_MONOTONIC, &now);
      if (now.tv_sec - start.tv_sec >= maxSeconds)
         break;
      pollfd pfd{fd, POLLIN, 0};
      if (poll(&pfd, 1, 200) <= 0)
         continue;
      for (;;) {
         Request request;
         iovec iov{rx.data(), rx.size()};
         msghdr msg{};
         msg.msg_name = &request.from;
         msg.msg_namelen = sizeof request.from;
         msg.msg_iov = &iov;
         msg.msg_iovlen = 1;
         msg.msg_control = control;
         msg.msg_controllen = sizeof control;
         ssize_t n = recvmsg(fd, &msg, MSG_DONTWAIT);
         if (n < 0)
            break;
         for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
            if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
               in_pktinfo info;
               std::memcpy(&info, CMSG_DATA(c), sizeof info);
               request.to = info.ipi_addr;
            }
         }
         request.bytes = {rx.data(), static_cast<size_t>(n)};
         Answer answer;
         Outcome outcome = reflection.answer(request, answer);
         if (outcome == Outcome::answered &&
             sendto(fd, answer.bytes.data(), answer.bytes.size(), 0,
                    reinterpret_cast<const sockaddr*>(&answer.to), answer.toLength) < 0)
            outcome = Outcome::sendFailed;
         ++counts[static_cast<size_t>(outcome)];
      }
   }
   const auto names = reflection.outcomeNames();
   std::printf("dhcp-reflector:");
   for (size_t i = 0; i < kOutcomes; ++i)
      std::printf(" %s=%llu", names[i], static_cast<unsigned long long>(counts[i]));
   std::printf("\n");
   return 0;
}

}  // namespace Bench
