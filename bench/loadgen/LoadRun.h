#pragma once

// One dhcp-loadgen run: keeps a bounded window of requests outstanding, one per client at a
// time, matches the replies by client and transaction id, and reports the figures. Every
// table is sized by the client count or the duration when the run starts, so replies lost,
// late or never sent cannot make it grow.

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "bench/loadgen/LoadProtocol.h"

namespace Bench {

struct LoadOptions {
   std::string dev;
   int proto = 4;
   double duration = 5;
   uint32_t window = 64;
   uint32_t clients = 0;  // 0: the protocol's default
   uint32_t timeoutMs = 1000;
   uint32_t drainMs = 1000;
   bool untilAnswered = false;
};

class LoadRun {
 public:
   LoadRun(const LoadOptions& options, const LoadLink& link, LoadProtocol& protocol);

   // Sends for the duration, then waits for late replies for the drain time.
   void run();
   bool answered() const { return f_.answered > 0; }
   // One line of key=value figures on stdout, which bench/relay_load.sh parses.
   void report();

 private:
   struct Client {
      uint64_t sentNs = 0;
      uint32_t xid = 0;
      bool pending = false;
   };
   // One send, in send order: the oldest leads the expiry of the window.
   struct Sent {
      uint32_t client;
      uint32_t xid;
   };
   struct Figures {
      uint64_t sent = 0;
      uint64_t answered = 0;
      uint64_t late = 0;  // answered after its timeout freed the window slot
      uint64_t stray = 0;
      uint64_t sendFailed = 0;
   };

   void fill(uint64_t now);
   void expire(uint64_t now);
   void receive();
   uint32_t& expiredXid(uint32_t client);

   const LoadOptions& o_;
   const LoadLink& link_;
   LoadProtocol& protocol_;
   std::vector<Client> clients_;
   std::vector<Sent> ring_;
   std::vector<uint32_t> expired_;
   std::vector<uint32_t> latencies_;  // ns; below the timeout (at most 4 s)
   size_t ringHead_ = 0, ringSize_ = 0;
   uint32_t inWindow_ = 0;
   uint32_t next_ = 0;
   bool timedOut_ = false;
   std::mt19937_64 rng_;
   Figures f_;
   double elapsed_ = 0;
   alignas(8) uint8_t rx_[2048];
};

}  // namespace Bench
