// dhcp-reflector: the server end of bench/relay_load.sh. It answers every relayed
// DHCPDISCOVER on UDP port 67 with a DHCPOFFER sent back to giaddr:67, with no lease
// state, so that a load run measures the relay agent and not a real server.
//
//   dhcp-reflector [--max-seconds S]
//
// Runs until SIGINT/SIGTERM or S seconds (default 300), then prints its counts.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "platform/linux/Fd.h"

namespace {

// BOOTP fixed header (RFC 2131, section 2) and the options' magic cookie.
constexpr size_t kOp = 0, kYiaddr = 16, kGiaddr = 24, kCookie = 236, kOptions = 240;
constexpr uint8_t kMagic[4] = {99, 130, 83, 99};
constexpr uint8_t kOptPad = 0, kOptEnd = 255, kOptMsgType = 53, kOptServerId = 54, kOptLease = 51,
                  kOptMask = 1, kOptRouter = 3, kOptAgentInfo = 82;
constexpr uint8_t kDiscover = 1, kOffer = 2;
constexpr size_t kMaxPkt = 1500;
// RFC 2131 section 2: a BOOTP message is at least 300 bytes on the wire.
constexpr size_t kMinBootp = 300;

volatile sig_atomic_t stopRequested = 0;
void onSignal(int) {
   stopRequested = 1;
}

struct Counts {
   uint64_t offered = 0;
   uint64_t malformed = 0;
   uint64_t notDiscover = 0;
   uint64_t noGiaddr = 0;
   uint64_t sendFailed = 0;
};

// The message type and the relay agent information option (RFC 3046: a server
// echoes option 82 unchanged) of a request; false if the options are malformed.
bool scanOptions(const uint8_t* p, size_t len, int& msgType, const uint8_t*& agentInfo) {
   msgType = -1;
   agentInfo = nullptr;
   size_t i = kOptions;
   while (i < len) {
      uint8_t code = p[i++];
      if (code == kOptPad)
         continue;
      if (code == kOptEnd)
         return true;
      if (i >= len || i + 1 + p[i] > len)
         return false;
      uint8_t olen = p[i];
      if (code == kOptMsgType && olen == 1)
         msgType = p[i + 1];
      if (code == kOptAgentInfo)
         agentInfo = &p[i - 1];
      i += 1 + olen;
   }
   return false;
}

// Rewrites the request in `pkt` into the offer; returns its length.
size_t buildOffer(uint8_t* pkt, const uint8_t* agentInfo, uint32_t serverId, uint32_t yiaddr) {
   // The echoed option 82 may sit where the new options go: keep a copy first.
   uint8_t info[2 + 255];
   size_t infoLen = 0;
   if (agentInfo) {
      infoLen = 2 + agentInfo[1];
      std::memcpy(info, agentInfo, infoLen);
   }
   pkt[kOp] = 2;  // BOOTREPLY
   std::memcpy(&pkt[kYiaddr], &yiaddr, 4);
   uint32_t giaddr;
   std::memcpy(&giaddr, &pkt[kGiaddr], 4);
   size_t i = kOptions;
   auto put4 = [&](uint8_t code, uint32_t netValue) {
      pkt[i++] = code;
      pkt[i++] = 4;
      std::memcpy(&pkt[i], &netValue, 4);
      i += 4;
   };
   pkt[i++] = kOptMsgType;
   pkt[i++] = 1;
   pkt[i++] = kOffer;
   put4(kOptServerId, serverId);
   put4(kOptLease, htonl(3600));
   put4(kOptMask, htonl(0xffffff00));
   put4(kOptRouter, giaddr);
   std::memcpy(&pkt[i], info, infoLen);
   i += infoLen;
   pkt[i++] = kOptEnd;
   if (i < kMinBootp) {
      std::memset(&pkt[i], 0, kMinBootp - i);
      i = kMinBootp;
   }
   return i;
}

int run(int maxSeconds) {
   const Platform::Fd udp(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
   const int fd = udp.get();
   if (!udp) {
      perror("socket");
      return 1;
   }
   int one = 1;
   // IP_PKTINFO: the request's destination address is the server identifier.
   setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
   setsockopt(fd, IPPROTO_IP, IP_PKTINFO, &one, sizeof one);
   int buf = 4 << 20;
   setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buf, sizeof buf);
   setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &buf, sizeof buf);
   sockaddr_in local{};
   local.sin_family = AF_INET;
   local.sin_port = htons(67);
   if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) < 0) {
      perror("bind udp/67");
      return 1;
   }
   std::printf("dhcp-reflector: listening on udp/67\n");
   std::fflush(stdout);

   Counts counts;
   uint32_t next = 0;
   timespec start;
   clock_gettime(CLOCK_MONOTONIC, &start);
   uint8_t pkt[kMaxPkt + 300];
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
         iovec iov{pkt, kMaxPkt};
         sockaddr_in from{};
         msghdr msg{};
         msg.msg_name = &from;
         msg.msg_namelen = sizeof from;
         msg.msg_iov = &iov;
         msg.msg_iovlen = 1;
         msg.msg_control = control;
         msg.msg_controllen = sizeof control;
         ssize_t n = recvmsg(fd, &msg, MSG_DONTWAIT);
         if (n < 0)
            break;
         uint32_t serverId = 0;
         for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
            if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
               in_pktinfo info;
               std::memcpy(&info, CMSG_DATA(c), sizeof info);
               serverId = info.ipi_addr.s_addr;
            }
         }
         size_t len = static_cast<size_t>(n);
         int msgType;
         const uint8_t* agentInfo;
         if (len < kOptions || pkt[kOp] != 1 || std::memcmp(&pkt[kCookie], kMagic, 4) != 0 ||
             !scanOptions(pkt, len, msgType, agentInfo)) {
            ++counts.malformed;
            continue;
         }
         if (msgType != kDiscover) {
            ++counts.notDiscover;
            continue;
         }
         uint32_t giaddr;
         std::memcpy(&giaddr, &pkt[kGiaddr], 4);
         if (giaddr == 0) {
            ++counts.noGiaddr;
            continue;
         }
         // Addresses .10 to .249 of giaddr's /24, in turn.
         uint32_t yiaddr = htonl((ntohl(giaddr) & 0xffffff00) | (10 + next++ % 240));
         size_t outLen = buildOffer(pkt, agentInfo, serverId, yiaddr);
         sockaddr_in to{};
         to.sin_family = AF_INET;
         to.sin_port = htons(67);
         to.sin_addr.s_addr = giaddr;
         if (sendto(fd, pkt, outLen, 0, reinterpret_cast<sockaddr*>(&to), sizeof to) < 0) {
            ++counts.sendFailed;
         } else {
            ++counts.offered;
         }
      }
   }
   std::printf(
       "dhcp-reflector: offered=%llu malformed=%llu not_discover=%llu no_giaddr=%llu "
       "send_failed=%llu\n",
       static_cast<unsigned long long>(counts.offered),
       static_cast<unsigned long long>(counts.malformed),
       static_cast<unsigned long long>(counts.notDiscover),
       static_cast<unsigned long long>(counts.noGiaddr),
       static_cast<unsigned long long>(counts.sendFailed));
   return 0;
}

}  // namespace

int main(int argc, char** argv) {
   int maxSeconds = 300;
   for (int i = 1; i < argc; ++i) {
      std::string_view arg = argv[i];
      if (arg == "--max-seconds" && i + 1 < argc) {
         maxSeconds = std::atoi(argv[++i]);
      } else {
         std::fprintf(stderr, "usage: %s [--max-seconds S]\n", argv[0]);
         return 2;
      }
   }
   struct sigaction sa {};
   sa.sa_handler = onSignal;
   sigaction(SIGINT, &sa, nullptr);
   sigaction(SIGTERM, &sa, nullptr);
   return run(maxSeconds > 0 ? maxSeconds : 300);
}
