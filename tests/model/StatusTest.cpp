#include "model/Status.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "model/snooping/SnoopingStatus.h"

namespace Ip::Helper::DhcpRelay {
namespace {

using Platform::IntfId;
using Platform::Ptr;

template <class T>
std::vector<std::pair<std::string, uint64_t>> counters(const T& record) {
   std::vector<std::pair<std::string, uint64_t>> out;
   record.forEachCounter([&](std::string_view name, uint64_t v) { out.emplace_back(name, v); });
   return out;
}

template <class T>
std::vector<std::string> counterNames(const T& record) {
   std::vector<std::string> out;
   for (const auto& [name, v] : counters(record))
      out.push_back(name);
   return out;
}

// Logs each per-counter handler under the counter's name, and the generic one.
#define LOG_COUNTER_HANDLER(name, Name) \
   void handle##Name() override {       \
      log.push_back(#name);             \
   }

struct StatusLog : Status::Reactor {
   DHCP_RELAY_STATUS_COUNTERS(LOG_COUNTER_HANDLER)
   void handleCounter() override { log.push_back("counter"); }
   void handleIntfStatus(const IntfId& intf) override { log.push_back(intf.toString()); }
   std::vector<std::string> log;
};

// The names are what the counters read out as: tools depend on them.
TEST(StatusTest, CountersAreListedUnderTheirPublishedNames) {
   Ptr<Status> status = Platform::make<Status>("status");
   EXPECT_EQ(counterNames(*status),
             (std::vector<std::string>{
                 "totalRequestsReceived", "totalRequestsForwarded", "totalRequestsDropped",
                 "totalRequestsDroppedByOption79", "totalRequestsForwardedWithCrossVrfIp",
                 "totalRequestsForwardedWithNonSubnetIp", "totalRepliesReceived",
                 "totalRepliesForwarded", "totalRepliesDropped"}));
   Ptr<IntfStatus> intf = status->intfStatusIs(IntfId("Vlan10"));
   EXPECT_EQ(
       counterNames(*intf),
       (std::vector<std::string>{"requestsReceived", "requestsDropped", "requestsDroppedByOption79",
                                 "requestsForwardedWithCrossVrfIp",
                                 "requestsForwardedWithNonSubnetIp", "repliesForwarded"}));
   Ptr<Bridging::DhcpSnooping::Status> snooping =
       Platform::make<Bridging::DhcpSnooping::Status>("snooping");
   std::vector<std::string> expected;
   for (const char* dir : {"snoopingToRelay", "relayToSnooping"}) {
      for (const char* what : {"Received", "Forwarded", "DropVlanIdErr", "DropParseErr",
                               "DropDhcpOpErr", "DropInfoOptErr", "DropDisabled"}) {
         expected.push_back(std::string(dir) + what);
      }
   }
   EXPECT_EQ(counterNames(*snooping->debugCounters()), expected);
   EXPECT_EQ(counterNames(*snooping->vlanStatusIs(10)),
             (std::vector<std::string>{"requestsReceived", "requestsForwarded", "repliesReceived",
                                       "repliesForwarded"}));
}

TEST(StatusTest, EveryCounterChangeNotifiesItsHandlerThenTheGenericOne) {
   Ptr<Status> status = Platform::make<Status>("status");
   StatusLog r;
   r.notifierIs(status);
   status->totalRepliesDroppedInc();
   status->totalRequestsReceivedIs(7);
   status->totalRequestsReceivedIs(7);  // no change
   EXPECT_EQ(r.log, (std::vector<std::string>{"totalRepliesDropped", "counter",
                                              "totalRequestsReceived", "counter"}));
}

// Copying is covered with the relay's counter copy, which is built on countersIs.
TEST(StatusTest, ResetClearsAndNotifiesEveryCounter) {
   Ptr<Status> status = Platform::make<Status>("status");
#define BUMP(name, Name) status->name##Is(1);
   DHCP_RELAY_STATUS_COUNTERS(BUMP)
#undef BUMP
   StatusLog r;
   r.notifierIs(status);
   status->countersReset();
   for (const auto& [name, v] : counters(*status))
      EXPECT_EQ(v, 0u) << name;
   // One per-counter and one generic notification for each counter.
   EXPECT_EQ(r.log.size(), 2 * counters(*status).size());
}

TEST(StatusTest, IntfStatusIsCreatesOnceAndSurvivesAHandlerThatDeletesIt) {
   Ptr<Status> status = Platform::make<Status>("status");
   struct Deleter : Status::Reactor {
      Ptr<Status> status;
      int calls = 0;
      void handleIntfStatus(const IntfId& intf) override {
         ++calls;
         status->intfStatusDel(intf);
      }
   } r;
   r.status = status;
   r.notifierIs(status);
   Ptr<IntfStatus> s = status->intfStatusIs(IntfId("Ethernet1"));
   ASSERT_TRUE(s);
   EXPECT_EQ(s->intfId(), IntfId("Ethernet1"));
   EXPECT_EQ(r.calls, 2);  // created, then deleted by the handler
   EXPECT_TRUE(status->intfStatus().empty());

   r.notifierIs(nullptr);
   Ptr<IntfStatus> first = status->intfStatusIs(IntfId("Ethernet2"));
   EXPECT_EQ(status->intfStatusIs(IntfId("Ethernet2")), first);
}

TEST(StatusTest, SmartRelayedHostsCountCannotGoBelowZero) {
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   Ptr<Status> status = Platform::make<Status>("status");
   status->numSmartRelayedHostsInc();
   status->numSmartRelayedHostsDec();
   EXPECT_EQ(status->numSmartRelayedHosts(), 0u);
   EXPECT_DEATH(status->numSmartRelayedHostsDec(), "numSmartRelayedHosts decremented below zero");
}

}  // namespace
}  // namespace Ip::Helper::DhcpRelay
