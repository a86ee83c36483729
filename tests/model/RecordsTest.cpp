#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "model/ClientContext.h"
#include "model/Config.h"
#include "model/CounterConfig.h"
#include "model/DhcpPacketQueues.h"
#include "model/HostnameMap.h"
#include "model/IntfServerIpDir.h"
#include "model/Namelook.h"
#include "model/Status.h"
#include "model/VrfIpPair.h"
#include "model/VrfIpSrcIntfSrcIp.h"
#include "model/VrfWithCountDir.h"
#include "model/snooping/SnoopingConfig.h"
#include "model/snooping/SnoopingStatus.h"
#include "model/switch/Bridging.h"
#include "model/switch/IntfStatusDir.h"
#include "model/switch/Ip6Status.h"
#include "model/switch/IpStatus.h"
#include "model/switch/KernelNetInfo.h"
#include "model/switch/MlagStatus.h"
#include "model/switch/SystemStatus.h"
#include "model/switch/VrfStatus.h"
#include "platform/store/StateStore.h"

namespace Ip::Helper::DhcpRelay {
namespace {

using Namelook::ResolutionRecord;
using Namelook::ResolutionRecordDir;
using Namelook::ResolutionRequestDir;
using Platform::EthAddr;
using Platform::IntfId;
using Platform::IpAddr;
using Platform::IpGenAddr;
using Platform::Ptr;
using Platform::VrfName;

IpGenAddr ip(const char* text) {
   return *IpGenAddr::parse(text);
}

TEST(RelayKeysTest, ServerKeysOrderByVrfThenServerThenSources) {
   const VrfName red("red");
   const VrfName blue("blue");
   const IntfId lo("Loopback0");
   // Written in the expected order; every field decides somewhere.
   const std::vector<VrfIpSrcIntfSrcIp> ordered = {
       {blue, ip("10.0.0.9"), {}, {}},
       {red, ip("10.0.0.1"), {}, {}},
       {red, ip("10.0.0.1"), {}, ip("10.1.1.1")},
       {red, ip("10.0.0.1"), lo, {}},
       {red, ip("10.0.0.2"), {}, {}},
       {red, ip("2001:db8::1"), {}, {}},
   };
   std::vector<VrfIpSrcIntfSrcIp> sorted(ordered.rbegin(), ordered.rend());
   std::sort(sorted.begin(), sorted.end());
   EXPECT_EQ(sorted, ordered);
   // Hashes follow equality: every key is distinct and lands as its own entry.
   std::unordered_set<VrfIpSrcIntfSrcIp> set(ordered.begin(), ordered.end());
   set.insert(ordered.front());
   EXPECT_EQ(set.size(), ordered.size());

   EXPECT_EQ(ordered[3].toString(), "vrf=red ip=10.0.0.1 srcIntf=Loopback0 srcIp=");
   EXPECT_EQ((VrfHostnameSrcIntfSrcIp{red, "dhcp.example.com", {}, ip("10.1.1.1")}).toString(),
             "vrf=red hostname=dhcp.example.com srcIntf= srcIp=10.1.1.1");
   EXPECT_LT((VrfHostnameSrcIntfSrcIp{red, "a", lo, {}}),
             (VrfHostnameSrcIntfSrcIp{red, "b", {}, {}}));
   EXPECT_EQ(std::unordered_set<VrfHostnameSrcIntfSrcIp>(
                 {{red, "a", {}, {}}, {red, "a", lo, {}}, {red, "a", {}, {}}})
                 .size(),
             2u);

   EXPECT_EQ(genVrfIpPair(red, ip("10.0.0.1")).toString(), "red:10.0.0.1");
   EXPECT_NE(genVrfIpPair(red, ip("10.0.0.1")), genVrfIpPair(blue, ip("10.0.0.1")));
   EXPECT_EQ(std::unordered_set<VrfIpPair>(
                 {genVrfIpPair(red, ip("10.0.0.1")), genVrfIpPair(red, ip("10.0.0.1"))})
                 .size(),
             1u);
}

// Collection keys and set elements reach the handler intact even when the caller
// passes the stored element itself (the natural way to clear while walking).
TEST(RecordsTest, DeletingByTheStoredElementHandsTheHandlerALiveValue) {
   struct Log : HostnameToIntfName::Reactor {
      void handleIntfIdColl(const IntfId& intf) override { seen.push_back(intf.toString()); }
      std::vector<std::string> seen;
   } log;
   Ptr<HostnameToIntfNameMap> map = Platform::make<HostnameToIntfNameMap>("map");
   Ptr<HostnameToIntfName> h = map->hostnameToIntfNameIs("dhcp.example.com");
   EXPECT_EQ(map->hostnameToIntfNameIs("dhcp.example.com"), h);
   log.notifierIs(h);
   for (const char* intf : {"Ethernet1", "Ethernet1", "Ethernet2"})
      h->intfIdCollIs(IntfId(intf));
   while (!h->intfIdColl().empty())
      h->intfIdCollDel(*h->intfIdColl().begin());
   EXPECT_EQ(log.seen,
             (std::vector<std::string>{"Ethernet1", "Ethernet2", "Ethernet1", "Ethernet2"}));
}

TEST(RecordsTest, ReferenceCountsReadZeroWhenAbsentAndNotifyOnlyOnChange) {
   struct Log : IntfServerIp::Reactor {
      void handleServerIp(const VrfIpSrcIntfSrcIp&) override { ++calls; }
      int calls = 0;
   } log;
   Ptr<IntfServerIpDir> dir = Platform::make<IntfServerIpDir>("dir");
   Ptr<IntfServerIp> s = dir->drIntfServerIpIs(IntfId("Vlan10"));
   log.notifierIs(s);
   const VrfIpSrcIntfSrcIp key{VrfName("red"), ip("10.0.0.1"), {}, {}};
   EXPECT_EQ(s->serverIp(key), 0u);
   s->serverIpIs(key, 2);
   s->serverIpIs(key, 2);
   EXPECT_EQ(s->serverIp(key), 2u);
   s->serverIpDel(key);
   s->serverIpDel(key);
   EXPECT_EQ(log.calls, 2);

   Ptr<ResolutionRequestDir> requests = Platform::make<ResolutionRequestDir>("requests");
   EXPECT_EQ(requests->request("dhcp.example.com"), 0u);
}

TEST(RecordsTest, VrfCountNotifiesOnChangeAndRefusesToGoNegative) {
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   struct Log : VrfWithCount::Reactor {
      void handleCount() override { ++calls; }
      int calls = 0;
   } log;
   Ptr<VrfWithCountDir> dir = Platform::make<VrfWithCountDir>("dir");
   Ptr<VrfWithCount> red = dir->vrfCountIs(VrfName("red"));
   log.notifierIs(red);
   red->countInc();
   red->countInc(2);
   red->countInc(0);
   red->countDec(3);
   EXPECT_EQ(red->count(), 0u);
   EXPECT_EQ(log.calls, 3);
   EXPECT_DEATH(red->countDec(), "VrfWithCount decremented below zero");
}

TEST(RecordsTest, CrossVrfBindingLookupAndChangeDetection) {
   struct Log : ClientContext::Reactor {
      void handleCrossVrfClientBinding(const EthAddr&) override { ++calls; }
      int calls = 0;
   } log;
   Ptr<ClientContext> ctx = Platform::make<ClientContext>("clientContext");
   log.notifierIs(ctx);
   const EthAddr mac = *EthAddr::parse("00:11:22:33:44:55");
   EXPECT_EQ(ctx->crossVrfClientBinding(mac), nullptr);
   CrossVrfClientBinding b{genVrfIpPair(VrfName("red"), ip("10.0.0.1")),
                           genVrfIpPair(VrfName("blue"), ip("10.9.0.1")),
                           genVrfIpPair(VrfName("blue"), ip("10.9.9.9")), IpAddr(0x0a000000)};
   ctx->crossVrfClientBindingIs(mac, b);
   ctx->crossVrfClientBindingIs(mac, b);
   b.activeSubnet = IpAddr(0x0a010000);
   ctx->crossVrfClientBindingIs(mac, b);
   ASSERT_NE(ctx->crossVrfClientBinding(mac), nullptr);
   EXPECT_EQ(*ctx->crossVrfClientBinding(mac), b);
   EXPECT_EQ(b.toString(),
             "ingress=red:10.0.0.1 egress=blue:10.9.0.1 server=blue:10.9.9.9 subnet=10.1.0.0");
   ctx->crossVrfClientBindingDel(mac);
   EXPECT_EQ(log.calls, 3);
}

struct Mounter {
   Platform::StateStore::MountGroup& group;
   std::vector<std::string>& names;
   template <class T>
   void add(const char* path) {
      group.mount<T>(path, Platform::MountMode::write);
      names.push_back(T::kTypeName);
   }
};

// Type names are how published state is matched to mounts: a copied record that
// kept another's name would mount as the wrong type.
TEST(RecordsTest, TopLevelRecordsMountUnderDistinctTypeNames) {
   std::vector<std::function<void()>> posted;
   Platform::StateStore store([&](std::function<void()> fn) { posted.push_back(std::move(fn)); });
   auto group = store.mountGroup();
   std::vector<std::string> names;
   Mounter mount{*group, names};
   mount.add<Config>("ip/helper/dhcprelay/config");
   mount.add<Status>("ip/helper/dhcprelay/status");
   mount.add<CounterConfig>("ip/helper/dhcprelay/counterConfig");
   mount.add<ClientContext>("ip/helper/dhcprelay/clientContext");
   mount.add<DhcpPacketQueues>("ip/helper/dhcprelay/DhcpPacketQueues");
   mount.add<IntfServerIpDir>("local/intfServerIp");
   mount.add<VrfWithCountDir>("local/vrfCount");
   mount.add<HostnameToIntfNameMap>("local/hostnameToIntfName");
   mount.add<ResolutionRequestDir>("namelook/request");
   mount.add<ResolutionRecordDir>("namelook/record");
   mount.add<::Ip::AllVrfStatusLocal>("ip/vrf/status/local");
   mount.add<::Ip::Status>("ip/status");
   mount.add<::Ip6::Status>("ip6/status");
   mount.add<::Ip6::MulticastGroupsForApplications>("ip6/multicastGroups/application");
   mount.add<::Interface::AllIntfStatusDir>("interface/status/all");
   mount.add<::Interface::AllIntfStatusLocalDir>("interface/status/local");
   mount.add<::KernelNetInfo::Status>("kni/status");
   mount.add<::System::NetStatus>("sys/net/status");
   mount.add<::EntityMib::Status>("hardware/entmib");
   mount.add<::MlagDhcpRelay::Status>("mlag/dhcprelay/status");
   mount.add<::Bridging::Config>("bridging/config");
   mount.add<::Bridging::VlanStatusDir>("bridging/vlan/status");
   mount.add<::Bridging::DhcpSnooping::Config>("bridging/dhcpsnooping/config");
   mount.add<::Bridging::DhcpSnooping::Dhcp6Config>("bridging/dhcpsnooping/dhcp6Config");
   mount.add<::Bridging::DhcpSnooping::CounterConfig>("bridging/dhcpsnooping/counterConfig");
   mount.add<::Bridging::DhcpSnooping::Status>("bridging/dhcpsnooping/status");
   std::vector<Platform::StateStore::MountStatus> result;
   group->close([&](Platform::StateStore::MountStatus s) { result.push_back(s); });
   for (auto& fn : posted)
      fn();
   EXPECT_EQ(result, (std::vector{Platform::StateStore::mountSuccess_}));
   for (const char* child :
        {IntfStatus::kTypeName, PrefixBinding::kTypeName, IntfCounterConfig::kTypeName,
         IntfServerIp::kTypeName, VrfWithCount::kTypeName, HostnameToIntfName::kTypeName,
         ResolutionRecord::kTypeName, ::Ip::VrfStatusLocal::kTypeName,
         ::Ip::IpIntfStatus::kTypeName, ::Ip6::IntfStatus::kTypeName,
         ::Interface::IntfStatus::kTypeName, ::Interface::IntfStatusLocal::kTypeName,
         ::KernelNetInfo::KernelIntf::kTypeName, ::Bridging::SwitchIntfConfig::kTypeName,
         ::Bridging::VlanStatus::kTypeName, ::Bridging::DhcpSnooping::VlanStatus::kTypeName,
         ::Bridging::DhcpSnooping::DebugCounters::kTypeName}) {
      names.push_back(child);
   }
   EXPECT_EQ(std::set<std::string>(names.begin(), names.end()).size(), names.size());
}

}  // namespace
}  // namespace Ip::Helper::DhcpRelay
