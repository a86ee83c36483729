#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "model/ClientContext.h"
#include "model/DhcpPacketQueues.h"
#include "model/Status.h"
#include "model/VrfIpPair.h"
#include "model/VrfIpSrcIntfSrcIp.h"
#include "model/VrfWithCountDir.h"
#include "model/snooping/SnoopingStatus.h"

namespace Ip::Helper::DhcpRelay {
namespace {

using Platform::IntfId;
using Platform::IpAddr;
using Platform::IpGenAddr;
using Platform::Ptr;
using Platform::VrfName;

IpGenAddr ip(const char* text) {
   return *IpGenAddr::parse(text);
}

// Hashes follow equality, whatever is stored past a name: each key type's fields all count.
TEST(RelayKeysTest, EqualKeysHashAlikeAndEveryFieldTellsKeysApart) {
   const VrfName red("red");
   const VrfName blue("blue");
   const IntfId lo("Loopback0");
   EXPECT_EQ((std::unordered_set<VrfIpSrcIntfSrcIp>{{blue, ip("10.0.0.9"), {}, {}},
                                                    {red, ip("10.0.0.1"), {}, {}},
                                                    {red, ip("10.0.0.1"), {}, ip("10.1.1.1")},
                                                    {red, ip("10.0.0.1"), lo, {}},
                                                    {red, ip("10.0.0.1"), {}, {}},
                                                    {red, ip("2001:db8::1"), {}, {}}}
                  .size()),
             5u);
   EXPECT_EQ(std::unordered_set<VrfHostnameSrcIntfSrcIp>(
                 {{red, "a", {}, {}}, {red, "a", lo, {}}, {red, "a", {}, {}}})
                 .size(),
             2u);
   EXPECT_EQ(std::unordered_set<VrfIpPair>({genVrfIpPair(red, ip("10.0.0.1")),
                                            genVrfIpPair(red, ip("10.0.0.1")),
                                            genVrfIpPair(blue, ip("10.0.0.1"))})
                 .size(),
             2u);
}

TEST(RecordsTest, CountsRefuseToGoBelowZero) {
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   Ptr<VrfWithCount> red = Platform::make<VrfWithCountDir>("dir")->vrfCountIs(VrfName("red"));
   red->countInc(2);
   red->countDec(2);
   EXPECT_DEATH(red->countDec(), "VrfWithCount decremented below zero");
   Ptr<Status> status = Platform::make<Status>("status");
   status->numSmartRelayedHostsInc();
   status->numSmartRelayedHostsDec();
   EXPECT_DEATH(status->numSmartRelayedHostsDec(), "numSmartRelayedHosts decremented below zero");
}

// Type names are how published state is matched to mounts: a record copied from another that
// kept its name would mount as the wrong type. Read from the sources, so a new record is
// checked too.
TEST(RecordsTest, EveryRecordHasATypeNameOfItsOwn) {
   const std::filesystem::path model = std::filesystem::path(DHCP_RELAY_SOURCE_DIR) / "model";
   const std::regex declared(R"re(PLATFORM_ENTITY_TYPE\("([^"]+)"\))re");
   std::map<std::string, std::vector<std::string>> files;
   for (const auto& entry : std::filesystem::recursive_directory_iterator(model)) {
      if (!entry.is_regular_file())
         continue;
      std::stringstream text;
      text << std::ifstream(entry.path()).rdbuf();
      const std::string s = text.str();
      for (std::sregex_iterator m(s.begin(), s.end(), declared), end; m != end; ++m)
         files[(*m)[1]].push_back(entry.path().filename().string());
   }
   EXPECT_GT(files.size(), 40u);
   for (const auto& [name, where] : files)
      EXPECT_EQ(where.size(), 1u) << name << " in " << ::testing::PrintToString(where);
}

// "name=value ..." of every counter of the record, in list order.
template <class T>
std::string counters(const T& record) {
   std::string out;
   record.forEachCounter([&](std::string_view name, uint64_t v) {
      out += (out.empty() ? "" : " ") + std::string(name) + "=" + std::to_string(v);
   });
   return out;
}

// The names are what the counters read out as: tools depend on them.
TEST(StatusTest, CountersAreListedUnderTheirPublishedNames) {
   Ptr<Status> status = Platform::make<Status>("status");
   EXPECT_EQ(counters(*status),
             "totalRequestsReceived=0 totalRequestsForwarded=0 totalRequestsDropped=0 "
             "totalRequestsDroppedByOption79=0 totalRequestsForwardedWithCrossVrfIp=0 "
             "totalRequestsForwardedWithNonSubnetIp=0 totalRepliesReceived=0 "
             "totalRepliesForwarded=0 totalRepliesDropped=0");
   EXPECT_EQ(counters(*status->intfStatusIs(IntfId("Vlan10"))),
             "requestsReceived=0 requestsDropped=0 requestsDroppedByOption79=0 "
             "requestsForwardedWithCrossVrfIp=0 requestsForwardedWithNonSubnetIp=0 "
             "repliesForwarded=0");
   Ptr<Bridging::DhcpSnooping::Status> snooping =
       Platform::make<Bridging::DhcpSnooping::Status>("snooping");
   std::string expected;
   for (const char* dir : {"snoopingToRelay", "relayToSnooping"}) {
      for (const char* what : {"Received", "Forwarded", "DropVlanIdErr", "DropParseErr",
                               "DropDhcpOpErr", "DropInfoOptErr", "DropDisabled"})
         expected += (expected.empty() ? "" : " ") + std::string(dir) + what + "=0";
   }
   EXPECT_EQ(counters(*snooping->debugCounters()), expected);
   EXPECT_EQ(counters(*snooping->vlanStatusIs(10)),
             "requestsReceived=0 requestsForwarded=0 repliesReceived=0 repliesForwarded=0");
}

// Logs each per-counter handler under the counter's name, and the generic one.
#define LOG_COUNTER_HANDLER(name, Name) \
   void handle##Name() override {       \
      log.push_back(#name);             \
   }

// A counter change notifies its own handler, then the generic one; setting the value it has
// notifies nobody. A handler may delete the interface entry whose creation it is told of.
TEST(StatusTest, EveryChangeNotifiesItsHandlersAndAHandlerMayDeleteTheEntry) {
   struct StatusLog : Status::Reactor {
      DHCP_RELAY_STATUS_COUNTERS(LOG_COUNTER_HANDLER)
      void handleCounter() override { log.push_back("counter"); }
      void handleIntfStatus(const IntfId& intf) override {
         log.push_back(intf.toString());
         status->intfStatusDel(intf);
      }
      Ptr<Status> status = Platform::make<Status>("status");
      std::vector<std::string> log;
   } r;
   const Ptr<Status> status = r.status;
   r.notifierIs(status);
   status->totalRepliesDroppedInc();
   status->totalRequestsReceivedIs(7);
   status->totalRequestsReceivedIs(7);  // no change
   status->countersReset();
   EXPECT_EQ(counters(*status).find("=7"), std::string::npos);
   EXPECT_TRUE(status->intfStatusIs(IntfId("Ethernet1")));
   EXPECT_TRUE(status->intfStatus().empty());
   EXPECT_EQ(r.log, (std::vector<std::string>{
                        "totalRepliesDropped", "counter", "totalRequestsReceived", "counter",
                        "totalRequestsReceived", "counter", "totalRepliesDropped", "counter",
                        "Ethernet1", "Ethernet1"}));  // created, deleted

   r.notifierIs(nullptr);
   Ptr<IntfStatus> first = status->intfStatusIs(IntfId("Ethernet2"));
   EXPECT_EQ(status->intfStatusIs(IntfId("Ethernet2")), first);
}

using Platform::Pkt;
using Meta = SnoopingToRelayQueueMetadata;

DhcpPacketInfo packetInfo(size_t bytes = 300) {
   return DhcpPacketInfo{
       Pkt::create(bytes), IntfId("Ethernet1"), true, static_cast<uint32_t>(bytes), {}};
}

class DhcpPacketQueuesTest : public ::testing::Test {
 protected:
   Ptr<DhcpPacketQueues> queues = Platform::make<DhcpPacketQueues>("DhcpPacketQueues");
};

// Attaching offers what is already queued through the whole-queue handlers; an entry
// enqueued later is announced by its index.
TEST_F(DhcpPacketQueuesTest, EachQueueNotifiesOnlyItsOwnHandlers) {
   // An announced entry is already in the queue.
   struct HandlerLog : DhcpPacketQueues::Reactor {
      void handleSnoopingToRelayPacket(uint32_t i) override {
         calls.push_back("s2r " + std::to_string(i) +
                         (!notifier()->snoopingToRelayQueue(i) ? "?" : ""));
      }
      void handleRelayToSnoopingPacket(uint32_t i) override {
         calls.push_back("r2s " + std::to_string(i) +
                         (!notifier()->relayToSnoopingQueue(i) ? "?" : ""));
      }
      void handleSnoopingToRelayPacket() override { calls.push_back("s2r all"); }
      void handleRelayToSnoopingPacket() override { calls.push_back("r2s all"); }
      std::vector<std::string> calls;
   } log;
   log.notifierIs(queues);
   queues->snoopingToRelayQueueEnq(packetInfo());
   queues->relayToSnoopingQueueEnq(packetInfo());
   queues->relayToSnoopingQueueEnq(packetInfo());
   // Dequeues and single deletions are the consumer's own doing: no notification.
   queues->snoopingToRelayQueueDeq();
   queues->relayToSnoopingQueueDel(0);
   queues->relayToSnoopingQueueDelAll();
   queues->relayToSnoopingQueueDelAll();  // already empty: no change
   queues->snoopingToRelayQueueMetadataIs({5, 7});
   queues->snoopingToRelayQueueMetadataIs({5, 7});
   EXPECT_EQ(log.calls, (std::vector<std::string>{"s2r all", "r2s all", "s2r 0", "r2s 0", "r2s 1",
                                                  "r2s all", "s2r all"}));
   EXPECT_TRUE(queues->relayToSnoopingQueue().empty());
}

TEST_F(DhcpPacketQueuesTest, IndicesGrowAndHeadFollowsTheOldestEntry) {
   // Missing entries give empty records.
   EXPECT_TRUE(!queues->snoopingToRelayQueueDeq());
   EXPECT_TRUE(!queues->relayToSnoopingQueueDeq());
   EXPECT_TRUE(!queues->snoopingToRelayQueue(0));
   queues->snoopingToRelayQueueDel(42);
   EXPECT_EQ(queues->snoopingToRelayQueueMetadata(), (Meta{0, 0}));
   DhcpPacketInfo info = packetInfo();
   for (uint32_t i = 0; i < 3; ++i)
      EXPECT_EQ(queues->snoopingToRelayQueueEnq(info), i);
   EXPECT_EQ(info.packet->refCount(), 4u);
   queues->snoopingToRelayQueueDeq();
   EXPECT_EQ(queues->snoopingToRelayQueueMetadata(), (Meta{1, 3}));
   queues->snoopingToRelayQueueDel(2);
   queues->snoopingToRelayQueueDeq();
   // Emptied: head moves to the index the next entry will get; indices do not restart.
   // Removed entries released their packets.
   EXPECT_EQ(queues->snoopingToRelayQueueMetadata(), (Meta{3, 3}));
   EXPECT_EQ(info.packet->refCount(), 1u);
   EXPECT_EQ(queues->snoopingToRelayQueueEnq(info), 3u);

   // A restored `next` ahead of the tail is honoured; one behind it is not.
   queues->snoopingToRelayQueueMetadataIs({3, 10});
   EXPECT_EQ(queues->snoopingToRelayQueueEnq(info), 10u);
   queues->snoopingToRelayQueueMetadataIs({3, 2});
   EXPECT_EQ(queues->snoopingToRelayQueueEnq(info), 11u);

   queues->snoopingToRelayQueueDelAll();
   EXPECT_EQ(queues->snoopingToRelayQueueMetadata(), (Meta{12, 12}));
   EXPECT_EQ(info.packet->refCount(), 1u);
   // The other queue keeps its own indices.
   EXPECT_EQ(queues->relayToSnoopingQueueEnq(info), 0u);

   // An exhausted index space is fatal, also when only the tail exhausts it, whatever `next`
   // was restored to.
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   constexpr uint32_t last = std::numeric_limits<uint32_t>::max() - 1;
   queues->snoopingToRelayQueueMetadataIs({last, last});
   EXPECT_EQ(queues->snoopingToRelayQueueEnq(info), last);
   EXPECT_DEATH(queues->snoopingToRelayQueueEnq(info), "linkqueue index space full");
   queues->snoopingToRelayQueueMetadataIs({last, 0});
   EXPECT_DEATH(queues->snoopingToRelayQueueEnq(info), "linkqueue index space full");
}

TEST_F(DhcpPacketQueuesTest, OrderAndLookupSurviveRingWrapAndGrowth) {
   PacketLinkQueue q;
   std::vector<DhcpPacketInfo> sent;
   uint32_t head = 0;
   // Keep a backlog that wraps the ring several times, then grows it while wrapped.
   for (int round = 0; round < 40; ++round) {
      for (int i = 0; i < 3; ++i) {
         sent.push_back(packetInfo());
         q.enq(sent.back());
      }
      for (int i = 0; i < 2; ++i)
         EXPECT_EQ(q.deq(), sent[head++]);
   }
   // Deleting from the middle leaves a gap that lookups must step over.
   const uint32_t gap = head + 5;
   EXPECT_TRUE(q.del(gap));
   EXPECT_FALSE(q.del(gap));
   EXPECT_TRUE(!q.entry(gap));
   std::vector<uint32_t> order;
   q.forEach([&](uint32_t index, const DhcpPacketInfo& info) {
      order.push_back(index);
      EXPECT_EQ(info, sent[index]);
      EXPECT_EQ(q.entry(index), sent[index]);
   });
   ASSERT_EQ(order.size(), q.size());
   EXPECT_EQ(q.size(), sent.size() - head - 1);
   EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
   EXPECT_EQ(order.front(), head);
}

// Queued entries are told apart by the packet they hold, not by its bytes.
TEST(DhcpPacketInfoTest, EqualityIsPacketIdentityPlusFields) {
   const DhcpPacketInfo a = packetInfo();
   DhcpPacketInfo other = a;
   EXPECT_EQ(a, other);
   other.srcIp6Addr = *Platform::Ip6Addr::parse("fe80::1");
   EXPECT_NE(a, other);
   other = a;
   other.packet = Pkt::copyOf(a.packet->span());
   EXPECT_NE(a, other);
   EXPECT_TRUE(!DhcpPacketInfo{} && !!a);
}

}  // namespace
}  // namespace Ip::Helper::DhcpRelay
