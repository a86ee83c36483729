// dhcp-reflector: the server end of bench/relay_load.sh. It answers every relayed request
// with no lease state, so that a load run measures the relay agent and not a real server:
//   --proto 4  each DHCPDISCOVER on UDP port 67 with a DHCPOFFER to giaddr:67
//   --proto 6  each Relay-Forw of a Solicit on UDP port 547 with a Relay-Repl of an
//              Advertise to the relay's address, port 547
//
//   dhcp-reflector [--proto 4|6] [--max-seconds S]
//
// Runs until SIGINT/SIGTERM or S seconds (default 300), then prints its counts.
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "bench/reflector/Reflection.h"

int main(int argc, char** argv) {
   int maxSeconds = 300;
   int proto = 4;
   for (int i = 1; i < argc; ++i) {
      std::string_view arg = argv[i];
      if (arg == "--max-seconds" && i + 1 < argc) {
         maxSeconds = std::atoi(argv[++i]);
      } else if (arg == "--proto" && i + 1 < argc) {
         proto = std::atoi(argv[++i]);
      } else {
         proto = 0;
         break;
      }
   }
   if (proto != 4 && proto != 6) {
      std::fprintf(stderr, "usage: %s [--proto 4|6] [--max-seconds S]\n", argv[0]);
      return 2;
   }
   const auto reflection = proto == 6 ? Bench::makeDhcp6Reflection() : Bench::makeDhcp4Reflection();
   return Bench::runReflector(*reflection, maxSeconds > 0 ? maxSeconds : 300);
}
