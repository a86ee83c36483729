#include "counters/DhcpRelayCounters.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "codec/DhcpHdr.h"
#include "counters/DhcpRelayCountersSm.h"
#include "platform/loop/Clock.h"

namespace Ip::Helper::DhcpRelay {
namespace {

using Platform::IntfId;
using Platform::make;
using Snapshot = std::map<std::string, double>;

const IntfId kVlan10("Vlan10");
const IntfId kVlan20("Vlan20");

// Every counter, drop reason, reset time and warning of the record and of its interfaces
// ("name", "drop.reason", "intf.name"), and the counts of live per-client state. Publishing
// copies them, so the machine's tests that compare snapshots test the copy too.
Snapshot snapshot(const Status& status) {
   Snapshot out{{"lastResetAllTime", status.lastResetAllTime()},
                {"numSmartRelayedHosts", status.numSmartRelayedHosts()},
                {"numClientBindings", status.numClientBindings()},
                {"clientBindingsRefused", status.clientBindingsRefused()}};
   status.forEachCounter([&](std::string_view name, uint64_t v) { out[std::string(name)] = v; });
   status.forEachDrop(
       [&](std::string_view name, uint64_t v) { out["drop." + std::string(name)] = v; });
   for (const auto& [intf, entry] : status.intfStatus()) {
      const std::string prefix = intf.toString() + ".";
      out[prefix + "lastResetTime"] = entry->lastResetTime();
      out[prefix + "smartRelayNoSecondary"] = entry->smartRelayNoSecondary();
      entry->forEachCounter(
          [&](std::string_view name, uint64_t v) { out[prefix + std::string(name)] = v; });
   }
   return out;
}

// Distinct values, so that a counter copied into the wrong slot shows.
#define FILL(name, Name) record.name##Is(n++);
void fill(Status& record, uint64_t& n) {
   DHCP_RELAY_STATUS_COUNTERS(FILL)
   for (size_t r = 0; r < kDropReasonCount; ++r)
      for (uint64_t i = n++; i > 0; --i)
         record.dropsInc(static_cast<DropReason>(r));
   record.clientBindingsRefusedIs(n++);
   record.numClientBindingsIs(static_cast<uint32_t>(n++));
}
void fill(IntfStatus& record, uint64_t& n) {
   DHCP_RELAY_INTF_STATUS_COUNTERS(FILL)
   record.smartRelayNoSecondaryIs(true);
}
#undef FILL

using Count = void (*)(Status&, uint8_t, const IntfId&);

// Per interface only requests received, requests dropped and replies forwarded count, and
// only on an interface that has an entry; other ops are not counted.
TEST(DhcpRelayCountersTest, EachMessageBumpsItsTotalAndAtMostOneInterfaceCounter) {
   struct Case {
      Count count;
      uint8_t op;
      IntfId intf;
      std::vector<std::string> moved;
   };
   const Case cases[] = {
       {pktReceived, bootRequest, kVlan10, {"totalRequestsReceived", "Vlan10.requestsReceived"}},
       {pktReceived, bootReply, kVlan10, {"totalRepliesReceived"}},
       {pktForwarded, bootRequest, kVlan10, {"totalRequestsForwarded"}},
       {pktForwarded, bootReply, kVlan10, {"totalRepliesForwarded", "Vlan10.repliesForwarded"}},
       {pktDropped, bootRequest, kVlan10, {"totalRequestsDropped", "Vlan10.requestsDropped"}},
       {pktDropped, bootReply, kVlan10, {"totalRepliesDropped"}},
       {pktReceived, bootRequest, IntfId("Vlan99"), {"totalRequestsReceived"}},
       {pktDropped, bootRequest, IntfId(), {"totalRequestsDropped"}},
       {pktForwarded, bootReply, IntfId("Vlan99"), {"totalRepliesForwarded"}},
       {pktReceived, 0, kVlan10, {}},
       {pktForwarded, 3, kVlan10, {}},
       {pktDropped, 255, kVlan10, {}},
   };
   for (const Case& c : cases) {
      SCOPED_TRACE(testing::Message() << "op " << int(c.op) << " on " << c.intf.toString());
      Ptr<Status> status = make<Status>("local");
      status->intfStatusIs(kVlan10);
      status->intfStatusIs(kVlan20);
      Snapshot expected = snapshot(*status);
      for (const std::string& name : c.moved)
         expected[name] = 1;
      c.count(*status, c.op, c.intf);
      EXPECT_EQ(snapshot(*status), expected) << "counting never creates an entry either";
   }
}

// Each publication, by the counterUpdateTime it stamped.
struct Publications : Status::Reactor {
   void handleCounterUpdateTime() override { times.push_back(notifier()->counterUpdateTime()); }
   std::vector<double> times;
};

class DhcpRelayCountersSmTest : public testing::Test {
 protected:
   void SetUp() override {
      local_->intfStatusIs(kVlan10);
      local_->intfStatusIs(kVlan20);
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
   Publications publications_;
   std::unique_ptr<DhcpRelayCountersSm> sm_;
};

TEST_F(DhcpRelayCountersSmTest, ABurstIsPublishedOnceTheIntervalAfterItsFirstCountOrOnRequest) {
   const double first = utc_.now();
   // Steps of 1/256 s keep the clock sums exact.
   const double step = 1.0 / 256;
   for (int i = 0; i < 1000; ++i) {
      pktReceived(*local_, bootRequest, kVlan10);
      advance(step);
   }
   advance(5.0 - 1001 * step);
   EXPECT_TRUE(publications_.times.empty());
   EXPECT_EQ(published_->totalRequestsReceived(), 0u);

   advance(step);
   EXPECT_EQ(publications_.times, std::vector<double>{first + 5.0});
   EXPECT_EQ(snapshot(*published_), snapshot(*local_));
   EXPECT_EQ(published_->intfStatus(kVlan10)->requestsReceived(), 1000u);
   EXPECT_FALSE(sm_->counterUpdatePending());
   advance(60);
   EXPECT_EQ(publications_.times.size(), 1u) << "no change, no publication";

   // A per-interface count schedules too. A request no newer than the last publication
   // leaves that as it is; a newer one publishes at once, and the timer goes with it.
   pktDropped(*local_, bootRequest, kVlan20);
   config_->counterUpdateRequestTimeIs(first + 4);
   config_->counterUpdateRequestTimeIs(first + 5);
   EXPECT_EQ(publications_.times.size(), 1u);
   EXPECT_TRUE(sm_->counterUpdatePending());
   advance(1.0);
   config_->counterUpdateRequestTimeIs(utc_.now() - 0.5);
   EXPECT_EQ(publications_.times.back(), utc_.now());
   EXPECT_EQ(published_->intfStatus(kVlan20)->requestsDropped(), 1u);
   EXPECT_FALSE(sm_->counterUpdatePending());
   advance(10.0);
   EXPECT_EQ(publications_.times.size(), 2u);
}

TEST_F(DhcpRelayCountersSmTest, ResetsClearTheirCountersKeepTheRestAndPublishAtOnce) {
   uint64_t n = 1;
   fill(*local_, n);
   fill(*local_->intfStatus(kVlan10), n);
   fill(*local_->intfStatus(kVlan20), n);
   local_->numSmartRelayedHostsInc();
   advance(5.0);
   ASSERT_EQ(publications_.times.size(), 1u);

   // An interface reset clears its received, dropped and forwarded counts only. Its
   // configuration entry appears after the machine started.
   Ptr<IntfCounterConfig> intfConfig = config_->intfConfigIs(kVlan20);
   advance(1.0);
   Snapshot expected = snapshot(*local_);
   for (const char* name : {"requestsReceived", "requestsDropped", "repliesForwarded"})
      expected["Vlan20." + std::string(name)] = 0;
   expected["Vlan20.lastResetTime"] = utc_.now();
   intfConfig->resetTriggerIs(1);
   EXPECT_EQ(snapshot(*local_), expected);
   EXPECT_EQ(snapshot(*published_), expected);
   EXPECT_EQ(publications_.times.back(), utc_.now());

   // Without counters to reset, or once its entry is gone, a trigger changes nothing.
   config_->intfConfigIs(IntfId("Vlan30"))->resetTriggerIs(1);
   config_->intfConfigDel(kVlan20);
   intfConfig->resetTriggerIs(2);
   advance(10.0);
   EXPECT_EQ(publications_.times.size(), 2u);

   // Reset-all keeps each interface's cross-VRF count and warning, and the counts of live
   // client state.
   config_->resetAllTriggerIs(1);
   for (auto& [name, v] : expected) {
      if (name.ends_with("lastResetTime") || name == "lastResetAllTime")
         v = utc_.now();
      else if (!name.ends_with(".requestsForwardedWithCrossVrfIp") &&
               !name.ends_with(".smartRelayNoSecondary") && name != "numSmartRelayedHosts" &&
               name != "numClientBindings")
         v = 0;
   }
   EXPECT_EQ(snapshot(*local_), expected);
   EXPECT_EQ(snapshot(*published_), expected);
   EXPECT_EQ(publications_.times.back(), utc_.now());
   advance(10.0);
   EXPECT_EQ(publications_.times.size(), 3u);
}

TEST_F(DhcpRelayCountersSmTest, AfterARestartCountingContinuesFromThePublishedValues) {
   pktReceived(*local_, bootRequest, kVlan10);
   local_->numSmartRelayedHostsInc();
   config_->resetAllTriggerIs(1);
   pktReceived(*local_, bootRequest, kVlan10);
   pktReceived(*local_, bootRequest, kVlan10);
   pktForwarded(*local_, bootReply, kVlan20);
   advance(5.0);
   Snapshot expected = snapshot(*local_);
   expected["numSmartRelayedHosts"] = 0;  // went with the previous run

   // Nothing is published or reset before the new machine is initialized; a request made
   // meanwhile is newer than any publication and is answered on start.
   local_ = make<Status>("LocalDhcpRelayStatus");
   sm_ = std::make_unique<DhcpRelayCountersSm>(config_, published_, local_, wheel_);
   publications_.times.clear();
   pktReceived(*local_, bootRequest, kVlan10);
   config_->resetAllTriggerIs(2);
   advance(10.0);
   config_->counterUpdateRequestTimeIs(utc_.now());
   EXPECT_FALSE(sm_->counterUpdatePending());
   EXPECT_TRUE(publications_.times.empty());
   sm_->handleInitialized();
   EXPECT_EQ(publications_.times, std::vector<double>{utc_.now()});
   EXPECT_EQ(snapshot(*local_), expected);
   EXPECT_EQ(snapshot(*published_), expected);

   pktReceived(*local_, bootRequest, kVlan10);
   advance(5.0);
   expected["totalRequestsReceived"] = expected["Vlan10.requestsReceived"] = 3;
   EXPECT_EQ(snapshot(*published_), expected);
}

TEST_F(DhcpRelayCountersSmTest, PublishedInterfacesFollowTheLocalOnesAtTheNextPublication) {
   local_->intfStatusDel(kVlan20);
   local_->intfStatusIs(IntfId("Vlan30"));
   EXPECT_TRUE(published_->intfStatus(kVlan20)) << "not before the next publication";
   advance(5.0);
   EXPECT_EQ(snapshot(*published_), snapshot(*local_));

   // A re-created entry is a new record: its counts must still be noticed.
   local_->intfStatusDel(kVlan10);
   advance(5.0);
   local_->intfStatusIs(kVlan10);
   advance(5.0);
   local_->intfStatus(kVlan10)->requestsDroppedInc();
   advance(5.0);
   EXPECT_EQ(published_->intfStatus(kVlan10)->requestsDropped(), 1u);
}

}  // namespace
}  // namespace Ip::Helper::DhcpRelay
