#include "counters/DhcpRelayCounters.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "codec/DhcpHdr.h"
#include "platform/trace/Trace.h"

namespace Ip::Helper::DhcpRelay {
namespace {

using Platform::IntfId;
using Platform::make;

using Snapshot = std::map<std::string, uint64_t>;

// Every counter of the record and of its interfaces, by "name" or "intf.name".
Snapshot snapshot(const Status& status) {
   Snapshot out;
   status.forEachCounter([&](std::string_view name, uint64_t v) { out[std::string(name)] = v; });
   for (const auto& [intf, entry] : status.intfStatus()) {
      entry->forEachCounter([&](std::string_view name, uint64_t v) {
         out[intf.toString() + "." + std::string(name)] = v;
      });
   }
   return out;
}

// Only the counters that moved, with their new values.
Snapshot moved(const Snapshot& before, const Snapshot& after) {
   Snapshot out;
   for (const auto& [name, v] : after) {
      if (before.at(name) != v)
         out[name] = v;
   }
   return out;
}

using Count = void (*)(Status&, uint8_t, const IntfId&);

TEST(DhcpRelayCountersTest, EachMessageBumpsItsTotalAndOnlyThreeInterfaceCounters) {
   struct Case {
      const char* what;
      Count count;
      uint8_t op;
      Snapshot expected;
   };
   const Case cases[] = {
       {"request received",
        pktReceived,
        bootRequest,
        {{"totalRequestsReceived", 1}, {"Vlan10.requestsReceived", 1}}},
       {"reply received", pktReceived, bootReply, {{"totalRepliesReceived", 1}}},
       {"request forwarded", pktForwarded, bootRequest, {{"totalRequestsForwarded", 1}}},
       {"reply forwarded",
        pktForwarded,
        bootReply,
        {{"totalRepliesForwarded", 1}, {"Vlan10.repliesForwarded", 1}}},
       {"request dropped",
        pktDropped,
        bootRequest,
        {{"totalRequestsDropped", 1}, {"Vlan10.requestsDropped", 1}}},
       {"reply dropped", pktDropped, bootReply, {{"totalRepliesDropped", 1}}},
       {"op 0", pktReceived, 0, {}},
       {"op 3", pktForwarded, 3, {}},
       {"op 255", pktDropped, 255, {}},
   };
   for (const Case& c : cases) {
      Ptr<Status> status = make<Status>("local");
      status->intfStatusIs(IntfId("Vlan10"));
      status->intfStatusIs(IntfId("Vlan20"));
      const Snapshot before = snapshot(*status);
      c.count(*status, c.op, IntfId("Vlan10"));
      EXPECT_EQ(moved(before, snapshot(*status)), c.expected) << c.what;
   }
}

TEST(DhcpRelayCountersTest, InterfacesWithoutAStatusEntryCountOnlyGlobally) {
   Ptr<Status> status = make<Status>("local");
   status->intfStatusIs(IntfId("Vlan10"));
   const Snapshot before = snapshot(*status);
   pktReceived(*status, bootRequest, IntfId("Vlan99"));
   pktDropped(*status, bootRequest, IntfId());
   pktForwarded(*status, bootReply, IntfId("Vlan99"));
   EXPECT_EQ(moved(before, snapshot(*status)), (Snapshot{{"totalRequestsReceived", 1},
                                                         {"totalRequestsDropped", 1},
                                                         {"totalRepliesForwarded", 1}}));
   EXPECT_EQ(status->intfStatus().size(), 1u) << "counting never creates an entry";
}

TEST(DhcpRelayCountersTest, UnknownOpsAreTracedWithTheOpAndInterface) {
   Platform::TraceCapture trace;
   Ptr<Status> status = make<Status>("local");
   pktReceived(*status, 7, IntfId("Ethernet1/1"));
   ASSERT_EQ(trace.lines().size(), 1u);
   EXPECT_TRUE(trace.contains("Ip::Helper::DhcpRelay::pktReceived("));
   EXPECT_TRUE(trace.contains("op 7 on Ethernet1/1")) << trace.lines()[0];
}

// Distinct values, so that a counter copied into the wrong slot shows.
#define FILL(name, Name) record.name##Is(n++);
void fill(Status& record, uint64_t& n) {
   DHCP_RELAY_STATUS_COUNTERS(FILL)
}
void fill(IntfStatus& record, uint64_t& n){DHCP_RELAY_INTF_STATUS_COUNTERS(FILL)}
#undef FILL

TEST(DhcpRelayCountersTest, CopyCarriesEveryCounterAndCreatesMissingInterfaces) {
   Ptr<Status> from = make<Status>("from");
   uint64_t n = 1;
   fill(*from, n);
   fill(*from->intfStatusIs(IntfId("Vlan10")), n);
   fill(*from->intfStatusIs(IntfId("Vlan20")), n);
   from->intfStatus(IntfId("Vlan20"))->lastResetTimeIs(1.7e9 + 2);
   from->lastResetAllTimeIs(1.7e9 + 1);
   from->counterUpdateTimeIs(1.7e9 + 3);
   from->numSmartRelayedHostsInc();

   Ptr<Status> to = make<Status>("to");
   to->intfStatusIs(IntfId("Vlan10"))->requestsReceivedIs(999);
   to->intfStatusIs(IntfId("Vlan30"))->requestsReceivedIs(5);
   Snapshot expected = snapshot(*from);
   for (const auto& [name, v] : snapshot(*to)) {
      if (name.starts_with("Vlan30."))
         expected[name] = v;
   }

   copyDhcpRelayCounters(*from, *to);
   EXPECT_EQ(snapshot(*to), expected) << "an interface only `to` has is left as it is";
   EXPECT_EQ(to->lastResetAllTime(), 1.7e9 + 1);
   EXPECT_EQ(to->intfStatus(IntfId("Vlan20"))->lastResetTime(), 1.7e9 + 2);
   EXPECT_EQ(to->counterUpdateTime(), 0) << "each publication stamps its own time";
   EXPECT_EQ(to->numSmartRelayedHosts(), 0u) << "live per-client state is not history";
}

}  // namespace
}  // namespace Ip::Helper::DhcpRelay
