#include "counters/DhcpRelayCountersSm.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "codec/DhcpHdr.h"
#include "counters/DhcpRelayCounters.h"
#include "platform/loop/Clock.h"
#include "platform/trace/Trace.h"

namespace Ip::Helper::DhcpRelay {
namespace {

using Platform::IntfId;
using Platform::make;

// Each publication, by the counterUpdateTime it stamped.
struct Publications : Status::Reactor {
   void handleCounterUpdateTime() override { times.push_back(notifier()->counterUpdateTime()); }
   std::vector<double> times;
};

class DhcpRelayCountersSmTest : public testing::Test {
 protected:
   void SetUp() override {
      local_->intfStatusIs(vlan10_);
      local_->intfStatusIs(vlan20_);
      publications_.notifierIs(published_);
      start();
      // The interfaces the agent started with are published first.
      advance(DhcpRelayCountersSm::kCounterUpdateInterval);
      ASSERT_EQ(publications_.times.size(), 1u);
      publications_.times.clear();
   }

   // A new machine over the published Status, as after an agent restart.
   void start() {
      sm_.reset();
      sm_ = std::make_unique<DhcpRelayCountersSm>(config_, published_, local_, wheel_);
      sm_->handleInitialized();
   }

   // Distinct values on both interfaces, to see which ones a reset clears.
   void fillInterfaceCounters() {
      for (const IntfId& intf : {vlan10_, vlan20_}) {
         Ptr<IntfStatus> s = local_->intfStatus(intf);
         s->requestsReceivedIs(11);
         s->requestsDroppedIs(12);
         s->repliesForwardedIs(13);
         s->requestsForwardedWithNonSubnetIpIs(14);
         s->requestsForwardedWithCrossVrfIpIs(15);
         s->requestsDroppedByOption79Is(16);
      }
   }

   // Both clocks move together; the wheel runs as the event loop would run it.
   void advance(double seconds) {
      monotonic_.advance(seconds);
      utc_.advance(seconds);
      wheel_.runExpired();
   }

   Platform::ManualClock monotonic_{100.0};
   Platform::ManualClock utc_{1.7e9};
   Platform::TimerWheel wheel_{monotonic_, utc_};
   Ptr<CounterConfig> config_ = make<CounterConfig>("counterConfig");
   Ptr<Status> published_ = make<Status>("status");
   Ptr<Status> local_ = make<Status>("LocalDhcpRelayStatus");
   const IntfId vlan10_{"Vlan10"};
   const IntfId vlan20_{"Vlan20"};
   Publications publications_;
   std::unique_ptr<DhcpRelayCountersSm> sm_;
};

TEST_F(DhcpRelayCountersSmTest, ABurstIsPublishedOnceTheIntervalAfterItsFirstCount) {
   EXPECT_EQ(sm_->counterUpdateInterval(), 5.0);
   const double first = utc_.now();
   // Steps of 1/256 s keep the clock sums exact.
   const double step = 1.0 / 256;
   for (int i = 0; i < 1000; ++i) {
      pktReceived(*local_, bootRequest, vlan10_);
      advance(step);
   }
   advance(5.0 - 1001 * step);
   EXPECT_TRUE(publications_.times.empty());
   EXPECT_EQ(published_->totalRequestsReceived(), 0u);

   advance(step);
   ASSERT_EQ(publications_.times.size(), 1u);
   EXPECT_EQ(publications_.times[0], first + 5.0);
   EXPECT_EQ(published_->totalRequestsReceived(), 1000u);
   EXPECT_EQ(published_->intfStatus(vlan10_)->requestsReceived(), 1000u);
   EXPECT_FALSE(sm_->counterUpdatePending());

   advance(60);
   EXPECT_EQ(publications_.times.size(), 1u) << "no change, no publication";
   const double next = utc_.now();
   pktDropped(*local_, bootRequest, vlan20_);
   advance(5.0);
   ASSERT_EQ(publications_.times.size(), 2u) << "a per-interface count schedules too";
   EXPECT_EQ(publications_.times[1], next + 5.0);
   EXPECT_EQ(published_->intfStatus(vlan20_)->requestsDropped(), 1u);
}

TEST_F(DhcpRelayCountersSmTest, AnUpdateRequestPublishesAtOnceOnlyWhenNewerThanTheLastPublication) {
   pktReceived(*local_, bootRequest, vlan10_);
   advance(5.0);
   ASSERT_EQ(publications_.times.size(), 1u);
   const double last = publications_.times[0];

   pktReceived(*local_, bootRequest, vlan10_);
   {
      Platform::TraceCapture trace;
      config_->counterUpdateRequestTimeIs(last - 1);
      config_->counterUpdateRequestTimeIs(last);
      EXPECT_TRUE(trace.contains(
          "Ip::Helper::DhcpRelay::DhcpRelayCountersSm::handleCounterUpdateRequest()published "
          "counters"));
   }
   EXPECT_EQ(publications_.times.size(), 1u);
   EXPECT_EQ(published_->totalRequestsReceived(), 1u);
   EXPECT_TRUE(sm_->counterUpdatePending()) << "the scheduled publication still stands";

   advance(1.0);
   config_->counterUpdateRequestTimeIs(utc_.now() - 0.5);
   ASSERT_EQ(publications_.times.size(), 2u);
   EXPECT_EQ(publications_.times[1], utc_.now());
   EXPECT_EQ(published_->totalRequestsReceived(), 2u);
   EXPECT_FALSE(sm_->counterUpdatePending());
   advance(10.0);
   EXPECT_EQ(publications_.times.size(), 2u) << "the timer went with the early publication";
}

TEST_F(DhcpRelayCountersSmTest, ResetAllKeepsCrossVrfCountsAndSmartHostsAndPublishesAtOnce) {
   fillInterfaceCounters();
   local_->totalRequestsReceivedIs(100);
   local_->totalRequestsForwardedWithCrossVrfIpIs(30);
   local_->totalRepliesDroppedIs(4);
   local_->numSmartRelayedHostsInc();
   local_->numSmartRelayedHostsInc();
   advance(2.0);

   config_->resetAllTriggerIs(1);
   const double now = utc_.now();
   for (const Ptr<Status>& status : {local_, published_}) {
      status->forEachCounter([&](std::string_view name, uint64_t v) {
         EXPECT_EQ(v, 0u) << status->name() << " " << name;
      });
      EXPECT_EQ(status->numSmartRelayedHosts(), 2u) << status->name();
      EXPECT_EQ(status->lastResetAllTime(), now) << status->name();
      ASSERT_EQ(status->intfStatus().size(), 2u) << status->name();
      for (const auto& [intf, s] : status->intfStatus()) {
         s->forEachCounter([&](std::string_view name, uint64_t v) {
            EXPECT_EQ(v, name == "requestsForwardedWithCrossVrfIp" ? 15u : 0u)
                << status->name() << " " << intf.str() << " " << name;
         });
         EXPECT_EQ(s->lastResetTime(), now) << status->name() << " " << intf.str();
      }
   }
   EXPECT_EQ(publications_.times, std::vector<double>{now});
   advance(10.0);
   EXPECT_EQ(publications_.times.size(), 1u);
}

TEST_F(DhcpRelayCountersSmTest, AnInterfaceResetClearsOnlyItsReceivedDroppedAndForwardedCounts) {
   fillInterfaceCounters();
   local_->totalRequestsReceivedIs(100);
   advance(5.0);
   ASSERT_EQ(publications_.times.size(), 1u);

   // The interface's configuration entry appears after the machine started.
   Ptr<IntfCounterConfig> intfConfig = config_->intfConfigIs(vlan20_);
   advance(1.0);
   intfConfig->resetTriggerIs(1);
   const double now = utc_.now();
   for (const Ptr<Status>& status : {local_, published_}) {
      Ptr<IntfStatus> reset = status->intfStatus(vlan20_);
      EXPECT_EQ(reset->requestsReceived(), 0u);
      EXPECT_EQ(reset->requestsDropped(), 0u);
      EXPECT_EQ(reset->repliesForwarded(), 0u);
      EXPECT_EQ(reset->requestsForwardedWithNonSubnetIp(), 14u);
      EXPECT_EQ(reset->requestsForwardedWithCrossVrfIp(), 15u);
      EXPECT_EQ(reset->requestsDroppedByOption79(), 16u);
      EXPECT_EQ(reset->lastResetTime(), now);
      EXPECT_EQ(status->intfStatus(vlan10_)->requestsReceived(), 11u) << "other interfaces keep";
      EXPECT_EQ(status->intfStatus(vlan10_)->lastResetTime(), 0);
      EXPECT_EQ(status->totalRequestsReceived(), 100u) << "totals keep";
      EXPECT_EQ(status->lastResetAllTime(), 0);
   }
   EXPECT_EQ(publications_.times.size(), 2u);

   // Without counters to reset, a trigger changes nothing.
   config_->intfConfigIs(IntfId("Vlan30"))->resetTriggerIs(1);
   config_->intfConfigDel(vlan20_);
   intfConfig->resetTriggerIs(2);
   advance(10.0);
   EXPECT_EQ(publications_.times.size(), 2u);
}

TEST_F(DhcpRelayCountersSmTest, AfterARestartCountingContinuesFromThePublishedValues) {
   pktReceived(*local_, bootRequest, vlan10_);
   pktReceived(*local_, bootRequest, vlan10_);
   pktForwarded(*local_, bootReply, vlan20_);
   local_->numSmartRelayedHostsInc();
   config_->resetAllTriggerIs(1);
   pktReceived(*local_, bootRequest, vlan10_);
   pktReceived(*local_, bootRequest, vlan10_);
   pktForwarded(*local_, bootReply, vlan20_);
   advance(5.0);
   const double lastResetAll = local_->lastResetAllTime();

   local_ = make<Status>("LocalDhcpRelayStatus");
   start();
   pktReceived(*local_, bootRequest, vlan10_);
   pktForwarded(*local_, bootReply, vlan20_);
   EXPECT_EQ(local_->totalRequestsReceived(), 3u);
   EXPECT_EQ(local_->intfStatus(vlan10_)->requestsReceived(), 3u);
   EXPECT_EQ(local_->totalRepliesForwarded(), 2u);
   EXPECT_EQ(local_->intfStatus(vlan20_)->repliesForwarded(), 2u);
   EXPECT_EQ(local_->lastResetAllTime(), lastResetAll);

   advance(5.0);
   EXPECT_EQ(published_->totalRequestsReceived(), 3u);
   EXPECT_EQ(published_->intfStatus(vlan10_)->requestsReceived(), 3u);
   // The smart-relay state of the previous run is gone with it.
   EXPECT_EQ(published_->numSmartRelayedHosts(), 0u);
}

TEST_F(DhcpRelayCountersSmTest, PublishedInterfacesFollowTheLocalOnesAtTheNextPublication) {
   pktReceived(*local_, bootRequest, vlan10_);
   advance(5.0);
   ASSERT_EQ(published_->intfStatus().size(), 2u);

   local_->intfStatusDel(vlan20_);
   local_->intfStatusIs(IntfId("Vlan30"));
   EXPECT_TRUE(published_->intfStatus(vlan20_)) << "not before the next publication";
   advance(5.0);
   EXPECT_FALSE(published_->intfStatus(vlan20_));
   EXPECT_TRUE(published_->intfStatus(IntfId("Vlan30")));
   EXPECT_EQ(published_->intfStatus().size(), 2u);

   // A re-created entry is a new record: its counts must still be noticed.
   local_->intfStatusDel(vlan10_);
   advance(5.0);
   local_->intfStatusIs(vlan10_);
   advance(5.0);
   const size_t before = publications_.times.size();
   local_->intfStatus(vlan10_)->requestsDroppedInc();
   advance(5.0);
   EXPECT_EQ(publications_.times.size(), before + 1);
   EXPECT_EQ(published_->intfStatus(vlan10_)->requestsDropped(), 1u);
   EXPECT_EQ(published_->intfStatus(vlan10_)->requestsReceived(), 0u);
}

TEST_F(DhcpRelayCountersSmTest, NothingIsPublishedOrResetBeforeInitialization) {
   published_->totalRequestsReceivedIs(7);
   local_ = make<Status>("LocalDhcpRelayStatus");
   sm_ = std::make_unique<DhcpRelayCountersSm>(config_, published_, local_, wheel_);
   pktReceived(*local_, bootRequest, vlan10_);
   config_->resetAllTriggerIs(1);
   advance(10.0);
   config_->counterUpdateRequestTimeIs(utc_.now());
   EXPECT_FALSE(sm_->counterUpdatePending());
   EXPECT_TRUE(publications_.times.empty());
   EXPECT_EQ(published_->totalRequestsReceived(), 7u);

   // The request made meanwhile is newer than any publication: it is answered on start.
   sm_->handleInitialized();
   EXPECT_EQ(publications_.times, std::vector<double>{utc_.now()});
   EXPECT_EQ(published_->totalRequestsReceived(), 7u);
}

}  // namespace
}  // namespace Ip::Helper::DhcpRelay
