#include "frontend/resolver/NamelookSm.h"

#include <algorithm>
#include <iterator>
#include <vector>

#include "platform/base/Assert.h"
#include "platform/trace/Trace.h"

namespace Frontend {

using Platform::EventLoop;
using Platform::IpAddr;
using Platform::Ptr;
using Platform::TimerWheel;

namespace {

std::string addressText(const std::set<IpAddr>& address) {
   std::string text;
   for (IpAddr a : address) {
      if (!text.empty())
         text += ' ';
      text += a.toString();
   }
   return text.empty() ? "none" : text;
}

}  // namespace

NamelookSm::NamelookSm(const Ptr<ResolutionRecordDir>& recordDir,
                       const Ptr<const ResolutionRequestDir>& requestDir, EventLoop& loop,
                       TimerWheel& wheel, const Options& options)
    : recordDir_(recordDir),
      requestDir_(requestDir),
      wheel_(wheel),
      options_(options),
      resolver_(loop, wheel, options.dns) {
   PLATFORM_ASSERT(options.ttlMin > 0 && options.ttlMin <= options.ttlMax && options.retryMin > 0 &&
                       options.retryMin <= options.retryMax && options.hostsFileRecheck > 0,
                   "namelook delays are positive and bounded");
   requestWatch_.on(&ResolutionRequestDir::Reactor::handleRequest,
                    [this](const std::string& hostname) { handleRequest(hostname); });
   requestWatch_.notifierIs(requestDir_);
}

NamelookSm::~NamelookSm() = default;

void NamelookSm::handleInitialized() {
   if (initialized_)
      return;
   initialized_ = true;
   // Resolving may notify the relay, which may change the directories: walk copies.
   std::vector<std::string> stale;
   for (const auto& [hostname, record] : recordDir_->record()) {
      if (!requestDir_->request().contains(hostname))
         stale.push_back(hostname);
   }
   for (const std::string& hostname : stale)
      doRecordDel(hostname);
   std::vector<std::string> requested;
   for (const auto& [hostname, count] : requestDir_->request())
      requested.push_back(hostname);
   for (const std::string& hostname : requested)
      handleRequest(hostname);
}

void NamelookSm::handleRequest(const std::string& hostname) {
   if (!initialized_)
      return;
   if (!requestDir_->request().contains(hostname)) {
      if (name_.erase(hostname))
         TRACE(3, "no longer resolving ", hostname);
      doRecordDel(hostname);
      return;
   }
   if (name_.contains(hostname))
      return;
   TRACE(3, "resolving ", hostname);
   name_.emplace(hostname, std::make_unique<Name>(wheel_, [this, hostname] {
                    // Looking up may end this name and with it this timer's handler.
                    const std::string name = hostname;
                    doResolve(name);
                 }));
   doResolve(hostname);
}

void NamelookSm::doResolve(const std::string& hostname) {
   auto it = name_.find(hostname);
   if (it == name_.end())
      return;
   Name& name = *it->second;
   // Like the system's "files dns" order: an operator's hosts entry wins over DNS.
   const std::set<IpAddr> hosts = resolver_.hostsFileAddress(hostname);
   if (!hosts.empty()) {
      name.retry = 0;
      name.timer.armIn(options_.hostsFileRecheck);
      TRACE(5, hostname, " is in the hosts file: ", addressText(hosts));
      doRecordIs(hostname, hosts);
      return;
   }
   name.query = ++lastQuery_;
   TRACE(5, "looking up ", hostname);
   resolver_.query(hostname, [this, hostname, query = name.query](const DnsAnswer& answer) {
      handleAnswer(hostname, query, answer);
   });
}

void NamelookSm::handleAnswer(const std::string& hostname, uint64_t query,
                              const DnsAnswer& answer) {
   auto it = name_.find(hostname);
   if (it == name_.end() || it->second->query != query) {
      TRACE(5, "ignoring an answer for ", hostname, ": no longer requested");
      return;
   }
   // Timers are armed before the record changes: the relay reacting to them may end this
   // name.
   Name& name = *it->second;
   name.query = 0;
   switch (answer.outcome) {
      case DnsAnswer::Outcome::Addresses: {
         name.retry = 0;
         const double refresh =
             std::clamp(static_cast<double>(answer.ttl), options_.ttlMin, options_.ttlMax);
         name.timer.armIn(refresh);
         TRACE(5, hostname, " resolves to ", addressText(answer.address), " (TTL ", answer.ttl,
               " s), looking up again in ", refresh, " s");
         doRecordIs(hostname, answer.address);
         return;
      }
      case DnsAnswer::Outcome::NoSuchName: {
         const double delay = doRetry(name);
         TRACE(4, hostname, " does not resolve (", answer.reason, "), trying again in ", delay,
               " s");
         doRecordDel(hostname);
         return;
      }
      case DnsAnswer::Outcome::Failure: {
         const double delay = doRetry(name);
         const Ptr<ResolutionRecord> record = recordDir_->record(hostname);
         TRACE(4, "looking up ", hostname, " failed (", answer.reason, "), keeping ",
               addressText(record ? record->ipAddress() : std::set<IpAddr>{}), ", trying again in ",
               delay, " s");
         return;
      }
   }
}

double NamelookSm::doRetry(Name& name) {
   name.retry = name.retry == 0 ? options_.retryMin : std::min(2 * name.retry, options_.retryMax);
   name.timer.armIn(name.retry);
   return name.retry;
}

void NamelookSm::doRecordIs(const std::string& hostname, const std::set<IpAddr>& address) {
   Ptr<ResolutionRecord> record = recordDir_->record(hostname);
   if (!record) {
      TRACE(3, hostname, " resolves");
      record = recordDir_->recordIs(hostname);
   }
   std::vector<IpAddr> gained;
   std::vector<IpAddr> lost;
   std::set_difference(address.begin(), address.end(), record->ipAddress().begin(),
                       record->ipAddress().end(), std::back_inserter(gained));
   std::set_difference(record->ipAddress().begin(), record->ipAddress().end(), address.begin(),
                       address.end(), std::back_inserter(lost));
   // Gains first, so that a changed answer never leaves the name without any address.
   // A reader may end the name on any notification; the rest of the answer is then moot.
   for (IpAddr a : gained) {
      if (recordDir_->record(hostname) != record)
         return;
      TRACE(3, hostname, " gains ", a);
      record->ipAddressIs(a);
   }
   for (IpAddr a : lost) {
      if (recordDir_->record(hostname) != record)
         return;
      TRACE(3, hostname, " loses ", a);
      record->ipAddressDel(a);
   }
}

void NamelookSm::doRecordDel(const std::string& hostname) {
   const Ptr<ResolutionRecord> record = recordDir_->record(hostname);
   if (!record)
      return;
   TRACE(3, hostname, " has no addresses any more");
   // Readers withdraw what a name gave them through its address notifications, not through
   // the record going: lose every address first.
   doRecordIs(hostname, {});
   if (recordDir_->record(hostname) == record)
      recordDir_->recordDel(hostname);
}

}  // namespace Frontend
