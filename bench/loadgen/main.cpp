// dhcp-loadgen: the client end of bench/relay_load.sh. On one client link it plays many DHCP
// clients at once, each with a MAC of its own, sending requests as booting clients do, keeps
// a bounded window of them outstanding and matches the replies that come back on the same
// link by client and transaction id:
//   --proto 4  DHCPDISCOVERs broadcast from 0.0.0.0:68, DHCPOFFERs by chaddr and xid
//   --proto 6  Solicits from each client's link-local address to ff02::1:2 port 547,
//              Advertises to its address port 546 by Client Identifier and transaction id;
//              the clients answer the neighbour solicitations for their addresses
//
//   dhcp-loadgen --dev DEV [--proto 4|6] [--duration S] [--window N] [--clients N]
//                [--timeout-ms T] [--drain-ms D] [--until-answered 1]
//
// Sends for S seconds, waits D ms for late replies, then prints one line of figures
// (key=value) that the script parses. With --until-answered it stops at the first reply
// instead, which is how bench/startup_scale.sh sees the relay at work; its exit status is then
// 0 only if a reply came.
//
// Clients default to 65,536 over DHCPv4 and 256 over DHCPv6: every DHCPv6 client is an entry
// in the relay's neighbour table, and the kernel's table, which every network namespace of the
// host shares, refuses new entries beyond 1,024 by default (net.ipv6.neigh.default.gc_thresh3).
#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "bench/loadgen/LoadRun.h"
#include "platform/linux/Fd.h"

namespace {

int usage(const char* argv0) {
   std::fprintf(stderr,
                "usage: %s --dev DEV [--proto 4|6] [--duration S] [--window N] [--clients N] "
                "[--timeout-ms T] [--drain-ms D] [--until-answered 1]\n",
                argv0);
   return 2;
}

}  // namespace

int main(int argc, char** argv) {
   Bench::LoadOptions o;
   for (int i = 1; i < argc; ++i) {
      std::string_view arg = argv[i];
      if (i + 1 >= argc)
         return usage(argv[0]);
      const char* v = argv[++i];
      if (arg == "--dev") {
         o.dev = v;
      } else if (arg == "--proto") {
         o.proto = std::atoi(v);
      } else if (arg == "--duration") {
         o.duration = std::atof(v);
      } else if (arg == "--window") {
         o.window = static_cast<uint32_t>(std::atoi(v));
      } else if (arg == "--clients") {
         o.clients = static_cast<uint32_t>(std::atoi(v));
      } else if (arg == "--timeout-ms") {
         o.timeoutMs = static_cast<uint32_t>(std::atoi(v));
      } else if (arg == "--drain-ms") {
         o.drainMs = static_cast<uint32_t>(std::atoi(v));
      } else if (arg == "--until-answered") {
         o.untilAnswered = std::atoi(v) != 0;
      } else {
         return usage(argv[0]);
      }
   }
   if (o.clients == 0)
      o.clients = o.proto == 6 ? 256 : 65536;
   if (o.dev.empty() || (o.proto != 4 && o.proto != 6) || o.duration <= 0 || o.duration > 600 ||
       o.window == 0 || o.clients < o.window || o.clients > Bench::kMaxClients ||
       o.drainMs > 60000 || o.timeoutMs == 0 || o.timeoutMs > 4000) {
      return usage(argv[0]);
   }
   int ifindex = static_cast<int>(if_nametoindex(o.dev.c_str()));
   if (ifindex == 0) {
      std::perror(o.dev.c_str());
      return 1;
   }
   // One packet socket sends the requests and captures the replies; it must not see its own
   // frames again (PACKET_IGNORE_OUTGOING, Linux 4.20).
   const uint16_t etherType = o.proto == 6 ? ETH_P_IPV6 : ETH_P_IP;
   const Platform::Fd fd(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(etherType)));
   if (!fd) {
      std::perror("socket(AF_PACKET)");
      return 1;
   }
   int one = 1;
   if (setsockopt(fd.get(), SOL_PACKET, PACKET_IGNORE_OUTGOING, &one, sizeof one) < 0) {
      std::perror("PACKET_IGNORE_OUTGOING");
      return 1;
   }
   int buf = 8 << 20;
   setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUFFORCE, &buf, sizeof buf);
   setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUFFORCE, &buf, sizeof buf);
   sockaddr_ll at{};
   at.sll_family = AF_PACKET;
   at.sll_protocol = htons(etherType);
   at.sll_ifindex = ifindex;
   if (bind(fd.get(), reinterpret_cast<sockaddr*>(&at), sizeof at) < 0) {
      std::perror("bind");
      return 1;
   }
   const Bench::LoadLink link(fd.get(), ifindex, etherType);
   const auto protocol = o.proto == 6 ? Bench::makeDhcp6Load(link) : Bench::makeDhcp4Load();
   Bench::LoadRun load(o, link, *protocol);
   load.run();
   load.report();
   return o.untilAnswered && !load.answered() ? 1 : 0;
}
