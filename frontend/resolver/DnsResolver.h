#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <string>

#include "platform/addr/IpAddr.h"
#include "platform/loop/TimerWheel.h"

struct ares_channeldata;

namespace Platform {
class EventLoop;
}

namespace Frontend {

using Platform::EventLoop;
using Platform::IpAddr;
using Platform::Timer;
using Platform::TimerWheel;

// What one A lookup came to. A name that does not exist and a name without IPv4
// addresses are final answers; everything else (timeout, SERVFAIL, refused, no server
// reachable, an answer that does not parse) is a failure worth retrying.
struct DnsAnswer {
   enum class Outcome : uint8_t { Addresses, NoSuchName, Failure };

   Outcome outcome = Outcome::Failure;
   std::set<IpAddr> address;
   uint32_t ttl = 0;  // the smallest TTL among the addresses, in seconds
   const char* reason = "";
};

// A c-ares channel driven by the agent's event loop: its sockets are watched by the loop
// and its timeouts run on the timer wheel, so no lookup ever blocks the agent.
class DnsResolver {
 public:
   struct Options {
      // "address[:port],..." instead of the servers of the resolver configuration; empty:
      // those.
      std::string servers;
      double queryTimeout = 2.0;  // seconds, for the first try; c-ares doubles it per round
      int tries = 3;
      // The resolver configuration: servers, search domains, ndots. Read again before a
      // lookup when it has changed, like the C library's resolver does.
      std::string resolvConf = "/etc/resolv.conf";
      uint16_t port = 53;  // of the configuration's servers
   };
   using Callback = std::function<void(const DnsAnswer&)>;

   DnsResolver(EventLoop& loop, TimerWheel& wheel, const Options& options);
   ~DnsResolver();
   DnsResolver(const DnsResolver&) = delete;
   DnsResolver& operator=(const DnsResolver&) = delete;

   // The callback runs once, from the loop, or before query() returns when the lookup
   // fails at once. Queries still open when the resolver goes are dropped unanswered.
   void query(const std::string& name, Callback callback);

   // The name's IPv4 addresses in the hosts file (re-read on every call); empty when the
   // name is not listed there.
   std::set<IpAddr> hostsFileAddress(const std::string& name) const;

 private:
   struct Query;

   static void handleSockState(void* data, int fd, int readable, int writable);
   static void handleQueryDone(void* arg, int status, int timeouts, unsigned char* abuf, int alen);
   void handleFd(int fd, uint32_t events);
   void handleTimeout();
   void doArmTimeout();
   void doOpen();
   void doClose();

   // What tells one version of the configuration file from another.
   struct FileStamp {
      uint64_t dev = 0, ino = 0, size = 0;
      int64_t mtimeNs = -1;
      bool operator==(const FileStamp&) const = default;
   };
   FileStamp resolvConfStamp() const;

   EventLoop& loop_;
   const Options options_;
   FileStamp openedWith_;
   size_t pending_ = 0;  // lookups not answered yet
   ares_channeldata* channel_ = nullptr;
   std::set<int> fds_;  // the channel's sockets the loop watches
   Timer timeout_;
   bool destroying_ = false;
};

}  // namespace Frontend
