#include "frontend/kernel/KernelTableFollower.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "tests/support/NetnsFixture.h"

namespace Frontend {
namespace {

using namespace Platform;

using KernelNetInfo::KernelIntf;
using KernelNetInfo::Status;
using Texts = std::vector<std::string>;

template <class C>
Texts texts(const C& values) {
   Texts out;
   for (const auto& v : values)
      out.push_back(v.toString());
   return out;
}

// One line per device, IPv6 sorted: the follower keeps a set, `ip` prints a list.
std::string line(uint32_t ifindex, const std::string& name, const EthAddr& mac, bool up,
                 bool running, const Texts& ipv4, Texts ipv6) {
   std::sort(ipv6.begin(), ipv6.end());
   std::string s = std::to_string(ifindex) + " " + name + " " + mac.toString() +
                   (up ? " up" : " down") + (running ? " running" : "");
   for (const auto& t : ipv4)
      s += " " + t;
   for (const auto& t : ipv6)
      s += " " + t;
   return s;
}

Texts describe(const Status& table) {
   Texts out;
   for (const auto& [ifindex, k] : table.interfaceByIndex())
      out.push_back(line(ifindex, k->deviceName(), k->mac(), k->up(), k->running(),
                         texts(k->ipv4()), texts(k->ipv6())));
   return out;
}

struct IntfLog : KernelIntf::Reactor {
   int name = 0, up = 0, running = 0, ipv4 = 0, ipv6 = 0;
   void handleDeviceName() override { ++name; }
   void handleUp() override { ++up; }
   void handleRunning() override { ++running; }
   void handleIpv4() override { ++ipv4; }
   void handleIpv6(const Ip6Prefix&) override { ++ipv6; }
   int total() const { return name + up + running + ipv4 + ipv6; }
};

struct TableLog : Status::Reactor {
   std::vector<uint32_t> changed;
   void handleInterfaceByIndex(uint32_t ifindex) override { changed.push_back(ifindex); }
};

class KernelTableFollowerTest : public TestNet::NetnsTest {
 protected:
   void TearDown() override {
      followers_.clear();
      NetnsTest::TearDown();
   }

   // Each `ip -n ns` command in turn, until one fails.
   static bool ipIn(const std::string& ns, std::initializer_list<std::string> commands) {
      return std::ranges::all_of(
          commands, [&](const std::string& c) { return TestNet::ip("-n " + ns + " " + c) == 0; });
   }
   // A new namespace holding the veth pair v0-v1.
   std::string nsWithPair(const std::string& tag) {
      const std::string ns = nsAdd(tag);
      EXPECT_TRUE(ipIn(ns, {"link add v0 type veth peer name v1"}));
      return ns;
   }

   // A follower of `ns` writing `table`, once in sync.
   KernelTableFollower& follow(const std::string& ns, const Ptr<Status>& table) {
      followers_.push_back(std::make_unique<KernelTableFollower>(loop_, ns, table));
      std::string error;
      EXPECT_TRUE(followers_.back()->start(error)) << error;
      EXPECT_TRUE(turnUntil([&] { return followers_.back()->inSync(); }));
      return *followers_.back();
   }
   Ptr<Status> followed(const std::string& ns) {
      auto table = make<Status>();
      follow(ns, table);
      return table;
   }

   // What `ip` reads, with running as "up, and the operational state up or unknown", and
   // only the IPv6 addresses that passed duplicate address detection.
   static Texts kernelView(const std::string& ns) {
      const std::string text = TestNet::output("ip -j -n " + ns + " addr show 2>/dev/null");
      auto doc = nlohmann::json::parse(text, nullptr, false);
      if (!doc.is_array())
         return {"unreadable: " + text};
      Texts out;
      for (const auto& d : doc) {
         const auto& flags = d["flags"];
         const bool up = std::find(flags.begin(), flags.end(), "UP") != flags.end();
         const std::string oper = d.value("operstate", "");
         Texts ipv4, ipv6;
         for (const auto& a : d["addr_info"]) {
            if (a.value("tentative", false) || a.value("dadfailed", false))
               continue;
            std::string addr = a.value("local", "") + "/" + std::to_string(a.value("prefixlen", 0));
            (a.value("family", "") == "inet" ? ipv4 : ipv6).push_back(addr);
         }
         out.push_back(line(d.value("ifindex", 0u), d.value("ifname", ""),
                            EthAddr::parse(d.value("address", "")).value_or(EthAddr()), up,
                            up && (oper == "UP" || oper == "UNKNOWN"), ipv4, ipv6));
      }
      std::sort(out.begin(), out.end());
      return out;
   }

   static bool matchesKernel(const std::string& ns, const Status& table) {
      Texts ours = describe(table);
      std::sort(ours.begin(), ours.end());
      return ours == kernelView(ns);
   }

   Ptr<KernelIntf> byName(const Status& table, const std::string& name) {
      for (const auto& [ifindex, k] : table.interfaceByIndex())
         if (k->deviceName() == name)
            return k;
      return nullptr;
   }

   // The flags `ip` shows for an address of a device ("tentative", "dadfailed"), in its
   // order; "absent" when the device does not have it.
   static std::string kernelFlags(const std::string& ns, const std::string& device,
                                  const std::string& addr) {
      const std::string text =
          TestNet::output("ip -j -n " + ns + " addr show dev " + device + " 2>/dev/null");
      auto doc = nlohmann::json::parse(text, nullptr, false);
      if (!doc.is_array() || doc.size() != 1)
         return "unreadable: " + text;
      for (const auto& a : doc[0]["addr_info"]) {
         if (a.value("local", "") != addr)
            continue;
         std::string flags;
         for (const char* flag : {"dadfailed", "tentative"})
            if (a.value(flag, false))
               flags += (flags.empty() ? "" : " ") + std::string(flag);
         return flags;
      }
      return "absent";
   }

   // Notifications arrive in the order the kernel sent them: once an address added now is
   // in the table, the follower has read everything sent before it.
   bool caughtUp(const std::string& ns, const Status& table, const std::string& device) {
      const std::string marker = "2001:db8:ffff::" + std::to_string(++markers_);
      const Ip6Prefix prefix = *Ip6Prefix::parse(marker + "/128");
      EXPECT_TRUE(ipIn(ns, {"addr add " + marker + "/128 dev " + device + " nodad"}));
      return turnUntil([&] {
         const Ptr<KernelIntf> k = byName(table, device);
         return k && k->ipv6().contains(prefix);
      });
   }

   int markers_ = 0;

   std::vector<std::unique_ptr<KernelTableFollower>> followers_;
};

TEST_F(KernelTableFollowerTest, Ipv4ListFollowsKernelOrderThroughPromotion) {
   const std::string ns = nsAdd("order");
   ASSERT_TRUE(ipIn(ns, {"link add v0 address 02:00:00:00:00:01 type veth peer name v1",
                         "addr add 192.0.2.1/24 dev v0"}));
   auto table = followed(ns);
   EXPECT_TRUE(matchesKernel(ns, *table));
   Ptr<KernelIntf> v0 = byName(*table, "v0");
   ASSERT_TRUE(v0);

   // Secondaries stay behind every primary, whatever order they came in.
   ASSERT_EQ(TestNet::shell("ip netns exec " + ns +
                            " sysctl -qw net.ipv4.conf.all.promote_secondaries=1"),
             0);
   ASSERT_TRUE(ipIn(ns, {"addr add 192.0.2.2/24 dev v0", "addr add 192.0.2.3/24 dev v0",
                         "addr add 198.51.100.1/30 dev v0"}));
   const Texts added{"192.0.2.1/24", "198.51.100.1/30", "192.0.2.2/24", "192.0.2.3/24"};
   EXPECT_TRUE(turnUntil([&] { return texts(v0->ipv4()) == added; }))
       << testing::PrintToString(texts(v0->ipv4()));

   // The kernel promotes 192.0.2.2 and moves it behind the remaining primary: one change.
   IntfLog log;
   log.notifierIs(v0);
   ASSERT_TRUE(ipIn(ns, {"addr del 192.0.2.1/24 dev v0"}));
   const Texts promoted{"198.51.100.1/30", "192.0.2.2/24", "192.0.2.3/24"};
   EXPECT_TRUE(turnUntil([&] { return texts(v0->ipv4()) == promoted; }));
   EXPECT_TRUE(turnUntil([&] { return followers_[0]->inSync(); }));
   loop_.runOnce(50);
   EXPECT_EQ(log.ipv4, 1);
   EXPECT_EQ(log.total(), 1);
   EXPECT_TRUE(matchesKernel(ns, *table));
}

TEST_F(KernelTableFollowerTest, LinkStateNameAndIpv6FollowTheKernel) {
   const std::string ns = nsWithPair("link");
   auto table = followed(ns);
   Ptr<KernelIntf> v0 = byName(*table, "v0");
   Ptr<KernelIntf> v1 = byName(*table, "v1");
   ASSERT_TRUE(v0 && v1);
   IntfLog log;
   log.notifierIs(v0);

   // Host bits are part of an interface address.
   const Ip6Prefix global = *Ip6Prefix::parse("2001:db8::5/64");
   ASSERT_TRUE(ipIn(ns, {"addr add 2001:db8::5/64 dev v0 nodad"}));
   EXPECT_TRUE(turnUntil([&] { return v0->ipv6().contains(global); }));
   ASSERT_TRUE(ipIn(ns, {"addr del 2001:db8::5/64 dev v0"}));
   EXPECT_TRUE(turnUntil([&] { return !v0->ipv6().contains(global); }));
   EXPECT_EQ(log.ipv6, 2);

   // Up without a carrier is not running.
   ASSERT_TRUE(ipIn(ns, {"link set v0 up"}));
   EXPECT_TRUE(turnUntil([&] { return v0->up(); }));
   EXPECT_FALSE(v0->running());
   ASSERT_TRUE(ipIn(ns, {"link set v1 name w1", "link set w1 up"}));
   EXPECT_TRUE(turnUntil([&] { return v0->running() && v1->up(); }));
   EXPECT_EQ(v1->deviceName(), "w1");
   ASSERT_TRUE(ipIn(ns, {"link set v0 down"}));
   EXPECT_TRUE(turnUntil([&] { return !v0->up(); }));
   EXPECT_FALSE(v0->running());
   EXPECT_EQ(log.up, 2);
   EXPECT_EQ(log.running, 2);
   EXPECT_EQ(log.name, 0);
   EXPECT_TRUE(turnUntil([&] { return matchesKernel(ns, *table); }));
}

// The DHCPv6 relay takes link and source addresses from the table, so an address appears
// only once duplicate address detection has passed, whether notified or dumped.
TEST_F(KernelTableFollowerTest, Ipv6AddressesAppearOnlyOnceDuplicateDetectionPassed) {
   const std::string ns = nsWithPair("dad");
   // No link-local addresses: only the test's own change.
   ASSERT_TRUE(ipIn(ns, {"link set v0 addrgenmode none", "link set v1 addrgenmode none"}));
   // One probe, sent at once, and a tenth of a second without an answer passes.
   ASSERT_EQ(TestNet::shell("ip netns exec " + ns +
                            " sysctl -qw net.ipv6.conf.v0.accept_dad=1"
                            " net.ipv6.conf.v0.dad_transmits=1"
                            " net.ipv6.conf.v0.router_solicitation_delay=0"
                            " net.ipv6.neigh.v0.retrans_time_ms=100"),
             0);
   // With its peer down v0 has no carrier, and detection waits for one.
   ASSERT_TRUE(ipIn(ns, {"link set v0 up"}));
   auto table = followed(ns);
   Ptr<KernelIntf> v0 = byName(*table, "v0");
   ASSERT_TRUE(v0);
   IntfLog log;
   log.notifierIs(v0);
   const Ip6Prefix unchecked = *Ip6Prefix::parse("2001:db8::9/64");
   const Ip6Prefix checked = *Ip6Prefix::parse("2001:db8::1/64");
   const Ip6Prefix duplicate = *Ip6Prefix::parse("2001:db8::2/64");

   ASSERT_TRUE(ipIn(ns, {"addr add 2001:db8::9/64 dev v0 nodad"}));
   EXPECT_TRUE(turnUntil([&] { return v0->ipv6().contains(unchecked); }));

   ASSERT_TRUE(ipIn(ns, {"addr add 2001:db8::1/64 dev v0"}));
   ASSERT_TRUE(caughtUp(ns, *table, "v1"));
   auto dumped = followed(ns);
   ASSERT_EQ(kernelFlags(ns, "v0", "2001:db8::1"), "tentative");
   EXPECT_EQ(texts(v0->ipv6()), (Texts{"2001:db8::9/64"}));
   EXPECT_EQ(texts(byName(*dumped, "v0")->ipv6()), (Texts{"2001:db8::9/64"}));
   // The kernel notifies the address again when detection passes.
   ASSERT_TRUE(ipIn(ns, {"link set v1 up"}));
   EXPECT_TRUE(turnUntil([&] {
      return v0->ipv6().contains(checked) && byName(*dumped, "v0")->ipv6().contains(checked);
   }));

   // Detection fails on an address the peer holds already.
   ASSERT_TRUE(
       ipIn(ns, {"addr add 2001:db8::2/64 dev v1 nodad", "addr add 2001:db8::2/64 dev v0"}));
   EXPECT_TRUE(turnUntil([&] { return kernelFlags(ns, "v0", "2001:db8::2") != "tentative"; }));
   ASSERT_EQ(kernelFlags(ns, "v0", "2001:db8::2"), "dadfailed tentative");
   ASSERT_TRUE(caughtUp(ns, *table, "v1"));
   EXPECT_FALSE(v0->ipv6().contains(duplicate));
   followers_.pop_back();
   dumped = followed(ns);
   EXPECT_FALSE(byName(*dumped, "v0")->ipv6().contains(duplicate));

   EXPECT_EQ(log.ipv6, 2);
   EXPECT_TRUE(followers_[0]->inSync());
   EXPECT_TRUE(matchesKernel(ns, *table));
   EXPECT_TRUE(matchesKernel(ns, *dumped));
}

TEST_F(KernelTableFollowerTest, DeviceMovedToAnotherNamespaceChangesTables) {
   const std::string a = nsWithPair("a");
   const std::string b = nsAdd("b");
   auto tableA = followed(a);
   auto tableB = followed(b);
   ASSERT_TRUE(byName(*tableA, "v1"));
   const uint32_t v0Index = byName(*tableA, "v0")->ifindex();

   ASSERT_TRUE(ipIn(a, {"link set dev v1 netns " + b}));
   EXPECT_TRUE(turnUntil([&] { return !byName(*tableA, "v1") && byName(*tableB, "v1"); }));
   EXPECT_TRUE(tableA->interfaceByIndex(v0Index));
   EXPECT_TRUE(matchesKernel(a, *tableA));
   EXPECT_TRUE(matchesKernel(b, *tableB));

   // Deleting one end of a pair deletes both, each in its own namespace.
   ASSERT_TRUE(ipIn(b, {"link del v1"}));
   EXPECT_TRUE(turnUntil([&] { return !byName(*tableB, "v1") && !byName(*tableA, "v0"); }));
}

TEST_F(KernelTableFollowerTest, LostNotificationsAreRepairedAsADifference) {
   const std::string ns = nsWithPair("lost");
   ASSERT_TRUE(ipIn(ns, {"link add w0 type veth peer name w1", "addr add 192.0.2.1/24 dev v0",
                         "addr add 2001:db8::1/64 dev v0 nodad"}));
   auto table = make<Status>();
   KernelTableFollower& follower = follow(ns, table);
   IntfLog loLog;
   loLog.notifierIs(table->interfaceByIndex(1));
   TableLog tableLog;
   tableLog.notifierIs(table);
   std::vector<uint32_t> pair{byName(*table, "w0")->ifindex(), byName(*table, "w1")->ifindex()};

   // The smallest receive buffer holds a few notifications; the batch below makes hundreds,
   // and the deletions at its end are surely among the lost ones.
   const int smallest = 0;
   ASSERT_EQ(::setsockopt(follower.fd(), SOL_SOCKET, SO_RCVBUF, &smallest, sizeof(smallest)), 0);
   const std::string batch = "/tmp/" + ns + ".batch";
   {
      std::unique_ptr<FILE, int (*)(FILE*)> f(std::fopen(batch.c_str(), "w"), &std::fclose);
      ASSERT_TRUE(f);
      for (int i = 1; i <= 100; ++i) {
         std::fprintf(f.get(), "addr add 198.51.100.%d/32 dev v0\n", i);
         std::fprintf(f.get(), "addr add 2001:db8:1::%x/128 dev v0 nodad\n", i);
      }
      std::fprintf(f.get(), "addr del 192.0.2.1/24 dev v0\naddr del 2001:db8::1/64 dev v0\n");
      std::fprintf(f.get(), "link del w0\nlink set v0 up\n");
   }
   const bool ok = ipIn(ns, {"-batch " + batch});
   std::remove(batch.c_str());
   ASSERT_TRUE(ok);

   EXPECT_TRUE(turnUntil([&] { return follower.inSync() && matchesKernel(ns, *table); }));
   EXPECT_GE(follower.resyncs(), 1u);
   EXPECT_EQ(byName(*table, "v0")->ipv4().size(), 100u);
   // Only what changed was touched: no device was deleted and created again.
   std::sort(tableLog.changed.begin(), tableLog.changed.end());
   std::sort(pair.begin(), pair.end());
   EXPECT_EQ(tableLog.changed, pair);
   EXPECT_EQ(loLog.total(), 0);
}

// Routes are counted, not kept: each route or rule change moves the generation on, and the
// device table does not notice.
TEST_F(KernelTableFollowerTest, RouteAndRuleChangesMoveTheRouteGeneration) {
   const std::string ns = nsAdd("route");
   auto table = followed(ns);
   TableLog log;
   log.notifierIs(table);
   for (const char* change :
        {"route add blackhole 198.51.100.0/24", "rule add to 203.0.113.0/24 table 7",
         "route del blackhole 198.51.100.0/24"}) {
      const uint64_t before = table->routeGeneration();
      ASSERT_TRUE(ipIn(ns, {change}));
      EXPECT_TRUE(turnUntil([&] { return table->routeGeneration() != before; })) << change;
   }
   EXPECT_TRUE(log.changed.empty());
}

TEST_F(KernelTableFollowerTest, RestartKeepsTheTableAndStopClearsIt) {
   const std::string ns = nsAdd("stop");
   auto table = make<Status>();
   KernelTableFollower missing(loop_, ns + "-missing", table);
   std::string error;
   EXPECT_FALSE(missing.start(error));
   EXPECT_NE(error.find(ns + "-missing"), std::string::npos) << error;
   EXPECT_FALSE(missing.started());

   ASSERT_TRUE(ipIn(ns, {"link add v0 type veth peer name v1"}));
   follow(ns, table);
   ASSERT_EQ(table->interfaceByIndex().size(), 3u);
   TableLog log;
   log.notifierIs(table);

   // The owner may keep the table across followers: destruction leaves it, and a new
   // follower over it changes nothing that did not change.
   followers_.clear();
   KernelTableFollower& again = follow(ns, table);
   EXPECT_TRUE(log.changed.empty());
   EXPECT_EQ(table->interfaceByIndex().size(), 3u);

   again.stop();
   EXPECT_FALSE(again.started());
   EXPECT_TRUE(table->interfaceByIndex().empty());
   EXPECT_EQ(log.changed.size(), 3u);
   // Nothing is followed any more.
   ASSERT_TRUE(ipIn(ns, {"link add x0 type veth peer name x1"}));
   loop_.runOnce(50);
   EXPECT_TRUE(table->interfaceByIndex().empty());
}

}  // namespace
}  // namespace Frontend
