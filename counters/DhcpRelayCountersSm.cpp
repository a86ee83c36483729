#include "counters/DhcpRelayCountersSm.h"

#include "counters/DhcpRelayCounters.h"
#include "platform/trace/Trace.h"

namespace Ip::Helper::DhcpRelay {

using Platform::IntfId;

DhcpRelayCountersSm::DhcpRelayCountersSm(const Ptr<const CounterConfig>& counterConfig,
                                         const Ptr<Status>& status,
                                         const Ptr<Status>& localDhcpRelayStatus,
                                         Platform::TimerWheel& timerWheel)
    : counterConfig_(counterConfig),
      status_(status),
      localDhcpRelayStatus_(localDhcpRelayStatus),
      timerWheel_(timerWheel),
      timer_(timerWheel, [this] { handleTimer(); }) {
   config_.on(&CounterConfig::Reactor::handleCounterUpdateRequestTime,
              [this] { handleCounterUpdateRequest(); });
   config_.on(&CounterConfig::Reactor::handleResetAllTrigger, [this] { resetAllCounters(); });
   config_.on(&CounterConfig::Reactor::handleIntfConfig,
              [this](const IntfId& intf) { handleIntfConfig(intf); });
   config_.notifierIs(counterConfig_);
   // The list counters come through handleCounter; the rest publish the same way.
   local_.on(&Status::Reactor::handleCounter, [this] { handleCounter(); });
   local_.on(&Status::Reactor::handleNumSmartRelayedHosts, [this] { handleCounter(); });
   local_.on(&Status::Reactor::handleNumClientBindings, [this] { handleCounter(); });
   local_.on(&Status::Reactor::handleIntfStatus,
             [this](const IntfId& intf) { handleLocalIntfStatus(intf); });
   local_.notifierIs(localDhcpRelayStatus_);
   for (const auto& [intf, entry] : counterConfig_->intfConfig())
      handleIntfConfig(intf);
   for (const auto& [intf, entry] : localDhcpRelayStatus_->intfStatus())
      handleLocalIntfStatus(intf);
   TRACE(2, "interval ", counterUpdateInterval_, "s, ", localDhcpRelayStatus_->intfStatus().size(),
         " local interfaces");
}

DhcpRelayCountersSm::~DhcpRelayCountersSm() = default;

void DhcpRelayCountersSm::handleInitialized() {
   if (initialized_)
      return;
   // Before `initialized_`, so that the copy itself schedules no publication.
   doUpdateCountersStatebaseToLocal();
   initialized_ = true;
   TRACE(2, "continuing from ", localDhcpRelayStatus_->totalRequestsReceived(),
         " requests received, ", localDhcpRelayStatus_->intfStatus().size(), " interfaces");
   // The copy gave the local Status every published interface, so the published view is stale
   // only if the agent already knew more interfaces, or smart-relayed hosts from the last run
   // are still published.
   if (localDhcpRelayStatus_->intfStatus().size() != status_->intfStatus().size() ||
       localDhcpRelayStatus_->numSmartRelayedHosts() != status_->numSmartRelayedHosts())
      doScheduleCounterUpdate();
   // A client may have asked for counters while the agent was down.
   handleCounterUpdateRequest();
}

void DhcpRelayCountersSm::handleCounter() {
   if (initialized_)
      doScheduleCounterUpdate();
}

void DhcpRelayCountersSm::handleLocalIntfStatus(const IntfId& intf) {
   if (Ptr<IntfStatus> entry = localDhcpRelayStatus_->intfStatus(intf)) {
      auto& watch = localIntfStatus_[intf];
      watch.on(&IntfStatus::Reactor::handleCounter, [this] { handleCounter(); });
      watch.on(&IntfStatus::Reactor::handleSmartRelayNoSecondary, [this] { handleCounter(); });
      watch.notifierIs(entry);
      TRACE(3, "following ", intf.str());
   } else {
      localIntfStatus_.erase(intf);
      TRACE(3, "no longer following ", intf.str());
   }
   // The published view gains or loses the interface.
   handleCounter();
}

void DhcpRelayCountersSm::handleIntfConfig(const IntfId& intf) {
   if (Ptr<IntfCounterConfig> entry = counterConfig_->intfConfig(intf)) {
      auto& watch = intfConfig_[intf];
      // A trigger is an edge, never replayed on attach: a restart must not reset counters.
      watch.on(&IntfCounterConfig::Reactor::handleResetTrigger,
               [this, intf] { resetCounters(intf); });
      watch.notifierIs(entry);
   } else {
      intfConfig_.erase(intf);
   }
}

void DhcpRelayCountersSm::doScheduleCounterUpdate() {
   if (counterUpdatePending_)
      return;
   counterUpdatePending_ = true;
   timer_.armIn(counterUpdateInterval_);
   TRACE(5, "publishing in ", counterUpdateInterval_, "s");
}

void DhcpRelayCountersSm::handleTimer() {
   if (initialized_ && counterUpdatePending_)
      doUpdateCountersLocalToStatebase();
}

void DhcpRelayCountersSm::handleCounterUpdateRequest() {
   if (!initialized_)
      return;
   const double requested = counterConfig_->counterUpdateRequestTime();
   if (status_->counterUpdateTime() >= requested) {
      TRACE(4, "published counters (", status_->counterUpdateTime(),
            ") are more recent than request time ", requested);
      return;
   }
   TRACE(3, "publishing on request of ", requested);
   doUpdateCountersLocalToStatebase();
}

void DhcpRelayCountersSm::doUpdateCountersLocalToStatebase() {
   copyDhcpRelayCounters(*localDhcpRelayStatus_, *status_);
   status_->numSmartRelayedHostsIs(localDhcpRelayStatus_->numSmartRelayedHosts());
   status_->numClientBindingsIs(localDhcpRelayStatus_->numClientBindings());
   // Interfaces the agent no longer has. The key is copied before the deletion frees it, and
   // the walk resumes after it: the published Status's reactors may change it meanwhile.
   const auto& published = status_->intfStatus();
   for (auto it = published.begin(); it != published.end();) {
      if (localDhcpRelayStatus_->intfStatus().contains(it->first)) {
         ++it;
         continue;
      }
      const IntfId gone = it->first;
      status_->intfStatusDel(gone);
      TRACE(3, "unpublished ", gone.str());
      it = published.upper_bound(gone);
   }
   counterUpdatePending_ = false;
   timer_.cancel();
   // Last, so that whoever watches counterUpdateTime reads the complete copy.
   status_->counterUpdateTimeIs(doUtcNow());
   TRACE(4, "published at ", status_->counterUpdateTime());
}

void DhcpRelayCountersSm::doUpdateCountersStatebaseToLocal() {
   copyDhcpRelayCounters(*status_, *localDhcpRelayStatus_);
}

void DhcpRelayCountersSm::resetAllCounters() {
   if (!initialized_) {
      TRACE(1, "not initialized, reset ignored");
      return;
   }
   Status& local = *localDhcpRelayStatus_;
   const double now = doUtcNow();
   local.countersReset();
   local.dropsReset();
   local.clientBindingsRefusedIs(0);
   for (const auto& [intf, entry] : local.intfStatus()) {
      // requestsForwardedWithCrossVrfIp survives a reset of all counters, on purpose.
      entry->requestsReceivedIs(0);
      entry->requestsDroppedIs(0);
      entry->repliesForwardedIs(0);
      entry->requestsForwardedWithNonSubnetIpIs(0);
      entry->requestsDroppedByOption79Is(0);
      entry->lastResetTimeIs(now);
   }
   local.lastResetAllTimeIs(now);
   TRACE(2, "reset all counters at ", now);
   doUpdateCountersLocalToStatebase();
}

void DhcpRelayCountersSm::resetCounters(const IntfId& intf) {
   if (!initialized_) {
      TRACE(1, "not initialized, reset of ", intf.str(), " ignored");
      return;
   }
   Ptr<IntfStatus> entry = localDhcpRelayStatus_->intfStatus(intf);
   if (!entry) {
      TRACE(2, "no counters to reset for ", intf.str());
      return;
   }
   const double now = doUtcNow();
   entry->requestsReceivedIs(0);
   entry->requestsDroppedIs(0);
   entry->repliesForwardedIs(0);
   entry->lastResetTimeIs(now);
   TRACE(2, "reset counters of ", intf.str(), " at ", now);
   doUpdateCountersLocalToStatebase();
}

double DhcpRelayCountersSm::doUtcNow() const {
   return timerWheel_.utcClock().now();
}

}  // namespace Ip::Helper::DhcpRelay
