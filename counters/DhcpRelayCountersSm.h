#pragma once

#include <map>
#include <memory>

#include "model/CounterConfig.h"
#include "model/Status.h"
#include "platform/addr/IntfId.h"
#include "platform/loop/TimerWheel.h"

namespace Ip::Helper::DhcpRelay {

// Publishes the relay counters. The packet paths count on an agent-local Status; this machine
// copies it to the published Status at most once per counterUpdateInterval (the first change
// arms the timer and later changes do not move it, so a burst costs one publication), at once
// when CounterConfig asks for counters newer than the last publication, and at once after a
// reset: an operator who clears the counters expects the next `show` to read zeros, not the
// old values for up to five seconds. At start-up it copies the published counters into the
// local Status so that counting continues where the previous run of the agent left off.
//
// Resets act on the local Status. Reset-all keeps each interface's
// requestsForwardedWithCrossVrfIp and numSmartRelayedHosts; an interface reset clears only
// requestsReceived, requestsDropped and repliesForwarded. Both asymmetries are intended.
//
// Times written (counterUpdateTime, lastResetTime, lastResetAllTime) are UTC seconds.
class DhcpRelayCountersSm {
 public:
   static constexpr double kCounterUpdateInterval = 5.0;

   DhcpRelayCountersSm(const Ptr<const CounterConfig>& counterConfig, const Ptr<Status>& status,
                       const Ptr<Status>& localDhcpRelayStatus, Platform::TimerWheel& timerWheel);
   ~DhcpRelayCountersSm();
   DhcpRelayCountersSm(const DhcpRelayCountersSm&) = delete;
   DhcpRelayCountersSm& operator=(const DhcpRelayCountersSm&) = delete;

   // Until this runs every notification is ignored, except that the per-interface
   // reactors follow their collections.
   void handleInitialized();

   double counterUpdateInterval() const { return counterUpdateInterval_; }
   bool counterUpdatePending() const { return counterUpdatePending_; }
   bool initialized() const { return initialized_; }

 private:
   void handleTimer();
   void handleCounterUpdateRequest();
   void handleCounter();
   void handleLocalIntfStatus(const Platform::IntfId& intf);
   void handleIntfConfig(const Platform::IntfId& intf);
   void resetAllCounters();
   void resetCounters(const Platform::IntfId& intf);

   void doScheduleCounterUpdate();
   void doUpdateCountersLocalToStatebase();
   void doUpdateCountersStatebaseToLocal();
   double doUtcNow() const;

   Ptr<const CounterConfig> counterConfig_;
   Ptr<Status> status_;
   Ptr<Status> localDhcpRelayStatus_;
   Platform::TimerWheel& timerWheel_;
   Platform::Timer timer_;
   double counterUpdateInterval_ = kCounterUpdateInterval;
   bool counterUpdatePending_ = false;
   bool initialized_ = false;

   Platform::Watch<const CounterConfig> config_;
   Platform::Watch<const Status> local_;
   std::map<Platform::IntfId, Platform::Watch<const IntfCounterConfig>> intfConfig_;
   std::map<Platform::IntfId, Platform::Watch<const IntfStatus>> localIntfStatus_;
};

}  // namespace Ip::Helper::DhcpRelay
