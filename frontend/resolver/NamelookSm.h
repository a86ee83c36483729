#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "frontend/resolver/DnsResolver.h"
#include "model/Namelook.h"
#include "platform/loop/TimerWheel.h"

namespace Platform {
class EventLoop;
}

namespace Frontend {

using Namelook::ResolutionRecord;
using Namelook::ResolutionRecordDir;
using Namelook::ResolutionRequestDir;
using Platform::EventLoop;
using Platform::IpAddr;
using Platform::Ptr;
using Platform::Timer;
using Platform::TimerWheel;

// Resolves every requested host name to its IPv4 addresses and keeps the name's record in
// step, one address at a time. The hosts file answers first; otherwise DNS, asked again
// when the answer's TTL runs out. A name that does not exist loses its record; a lookup
// that fails keeps the addresses last known, and both retry with back-off.
class NamelookSm {
 public:
   struct Options {
      // Where and how names are looked up.
      DnsResolver::Options dns;
      // A DNS answer is asked again when its TTL runs out, kept within these bounds.
      double ttlMin = 5.0;
      double ttlMax = 3600.0;
      // Delay before asking again about a name that does not resolve, doubling per failure.
      double retryMin = 1.0;
      double retryMax = 60.0;
      // How often a name answered from the hosts file is looked up again.
      double hostsFileRecheck = 60.0;
   };

   NamelookSm(const Ptr<ResolutionRecordDir>& recordDir,
              const Ptr<const ResolutionRequestDir>& requestDir, EventLoop& loop, TimerWheel& wheel,
              const Options& options);
   NamelookSm(const Ptr<ResolutionRecordDir>& recordDir,
              const Ptr<const ResolutionRequestDir>& requestDir, EventLoop& loop, TimerWheel& wheel)
       : NamelookSm(recordDir, requestDir, loop, wheel, Options{}) {}
   ~NamelookSm();
   NamelookSm(const NamelookSm&) = delete;
   NamelookSm& operator=(const NamelookSm&) = delete;

   // Until this runs requests are ignored; it then resolves every requested name and
   // drops records nobody requests.
   void handleInitialized();
   bool initialized() const { return initialized_; }

 private:
   // The resolution of one requested name.
   struct Name {
      Name(TimerWheel& wheel, std::function<void()> handler) : timer(wheel, std::move(handler)) {}
      Timer timer;         // the next lookup: TTL refresh, retry or hosts-file recheck
      uint64_t query = 0;  // the lookup in flight; 0 when none
      double retry = 0;    // the last retry delay; 0 while the name resolves
   };

   void handleRequest(const std::string& hostname);
   void handleAnswer(const std::string& hostname, uint64_t query, const DnsAnswer& answer);
   void doResolve(const std::string& hostname);
   double doRetry(Name& name);
   void doRecordIs(const std::string& hostname, const std::set<IpAddr>& address);
   void doRecordDel(const std::string& hostname);

   Ptr<ResolutionRecordDir> recordDir_;
   Ptr<const ResolutionRequestDir> requestDir_;
   TimerWheel& wheel_;
   Options options_;
   DnsResolver resolver_;
   uint64_t lastQuery_ = 0;
   std::map<std::string, std::unique_ptr<Name>> name_;
   bool initialized_ = false;
   Platform::Watch<const ResolutionRequestDir> requestWatch_;
};

}  // namespace Frontend
