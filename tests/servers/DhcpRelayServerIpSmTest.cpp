#include "servers/DhcpRelayServerIpSm.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/trace/Trace.h"
#include "servers/IntfServerIpCount.h"

namespace Ip::Helper::DhcpRelay {
namespace {

using Counts = std::map<std::string, uint32_t>;
using Platform::IntfId;
using Platform::IpGenAddr;
using Platform::make;
using Platform::VrfName;

VrfIpSrcIntfSrcIp server(const char* vrf, const char* ip, const char* srcIntf = "",
                         const char* srcIp = "") {
   return {VrfName(vrf), *IpGenAddr::parse(ip), *srcIntf ? IntfId(srcIntf) : IntfId(),
           *IpGenAddr::parse(srcIp)};
}

VrfHostnameSrcIntfSrcIp named(const char* vrf, const char* hostname, const char* srcIntf = "",
                              const char* srcIp = "") {
   return {VrfName(vrf), hostname, *srcIntf ? IntfId(srcIntf) : IntfId(), *IpGenAddr::parse(srcIp)};
}

Platform::IpAddr ip4(const char* text) {
   return *Platform::IpAddr::parse(text);
}

class DhcpRelayServerIpSmTest : public testing::Test {
 protected:
   void SetUp() override { sm_->handleInitialized(); }

   Counts counts(const IntfId& intf) const {
      Counts out;
      if (Ptr<IntfServerIp> servers = dir_->drIntfServerIp(intf))
         for (const auto& [key, count] : servers->serverIp())
            out[key.toString()] = count;
      return out;
   }

   Ptr<Config> config_ = make<Config>("config");
   Ptr<ResolutionRequestDir> requests_ = make<ResolutionRequestDir>("NamelookRequest");
   Ptr<ResolutionRecordDir> records_ = make<ResolutionRecordDir>("NamelookRecord");
   Ptr<IntfServerIpDir> dir_ = make<IntfServerIpDir>("DhcpRelayIntfServerIp");
   Ptr<HostnameToIntfNameMap> hostnames_ = make<HostnameToIntfNameMap>("HostnameToIntfNameMap");
   std::unique_ptr<DhcpRelayServerIpSm> sm_ =
       std::make_unique<DhcpRelayServerIpSm>(config_, requests_, records_, dir_, hostnames_);
   const IntfId vlan10_{"Vlan10"};
   const IntfId vlan20_{"Vlan20"};
   const VrfIpSrcIntfSrcIp a_ = server("default", "10.0.0.1");
};

// Servers named by host name: requests, the host name map, records and their addresses.
class HostnameServerTest : public DhcpRelayServerIpSmTest {
 protected:
   std::set<IntfId> namers(const std::string& hostname) const {
      const Ptr<HostnameToIntfName> entry = hostnames_->hostnameToIntfName(hostname);
      return entry ? entry->intfIdColl() : std::set<IntfId>{};
   }
   // A record as the resolver writes it: created empty, then one address at a time.
   Ptr<ResolutionRecord> resolve(const std::string& hostname,
                                 std::initializer_list<const char*> addrs) {
      Ptr<ResolutionRecord> record = records_->recordIs(hostname);
      for (const char* a : addrs)
         record->ipAddressIs(ip4(a));
      return record;
   }

   const std::string dhcp_ = "dhcp.example";
   const IntfId vlan30_{"Vlan30"};
};

TEST_F(HostnameServerTest, InterfacesNamingAHostShareOneRequest) {
   Platform::TraceCapture trace;
   config_->intfConfigIs(vlan10_)->serverHostnameIs(named("default", "dhcp.example"), true);
   config_->intfConfigIs(vlan20_)->serverHostnameIs(named("red", "dhcp.example"), true);
   EXPECT_EQ(requests_->request(dhcp_), 2u);
   EXPECT_EQ(namers(dhcp_), (std::set<IntfId>{vlan10_, vlan20_}));
   EXPECT_TRUE(std::count(trace.lines().begin(), trace.lines().end(),
                          "void Ip::Helper::DhcpRelay::IntfConfigServerIpSm::handleServerHostname("
                          "const Ip::Helper::DhcpRelay::VrfHostnameSrcIntfSrcIp&)Adding "
                          "dhcp.example to Namelook: Reference count = 2"));
   // No record yet: the name contributes no server.
   EXPECT_TRUE(counts(vlan10_).empty());
   EXPECT_TRUE(sm_->intfServerIpNamelookSm().empty());

   config_->intfConfig(vlan10_)->serverHostnameDel(named("default", "dhcp.example"));
   EXPECT_EQ(requests_->request(dhcp_), 1u);
   EXPECT_EQ(namers(dhcp_), (std::set<IntfId>{vlan20_}));
   EXPECT_TRUE(trace.contains(")dhcp.example: Reference count = 1"));
   EXPECT_FALSE(trace.contains(" removing hostnameIntfColl"));

   config_->intfConfig(vlan20_)->serverHostnameDel(named("red", "dhcp.example"));
   EXPECT_TRUE(requests_->request().empty());
   EXPECT_FALSE(hostnames_->hostnameToIntfName(dhcp_));
   EXPECT_TRUE(trace.contains(" removing hostnameIntfColl"));
   EXPECT_TRUE(trace.contains("Removing dhcp.example from Namelook."));
}

TEST_F(HostnameServerTest, ServersFollowTheAddressesOfTheRecord) {
   Platform::TraceCapture trace;
   config_->intfConfigIs(vlan10_)->serverHostnameIs(named("red", "dhcp.example", "Loopback0"),
                                                    true);
   config_->intfConfigIs(vlan20_)->serverHostnameIs(named("default", "dhcp.example"), true);
   Ptr<ResolutionRecord> record = resolve(dhcp_, {"10.0.0.1", "10.0.0.2"});
   ASSERT_TRUE(sm_->intfServerIpNamelookSm().contains(dhcp_));
   const Counts vlan10Both{{"vrf=red ip=10.0.0.1 srcIntf=Loopback0 srcIp=", 1},
                           {"vrf=red ip=10.0.0.2 srcIntf=Loopback0 srcIp=", 1}};
   const Counts vlan20Both{{"vrf=default ip=10.0.0.1 srcIntf= srcIp=", 1},
                           {"vrf=default ip=10.0.0.2 srcIntf= srcIp=", 1}};
   EXPECT_EQ(counts(vlan10_), vlan10Both);
   EXPECT_EQ(counts(vlan20_), vlan20Both);
   EXPECT_TRUE(trace.contains("dhcp.example with ip 10.0.0.2 configured in vrf red"));

   record->ipAddressDel(ip4("10.0.0.1"));
   EXPECT_EQ(counts(vlan10_), (Counts{{"vrf=red ip=10.0.0.2 srcIntf=Loopback0 srcIp=", 1}}));
   EXPECT_EQ(counts(vlan20_), (Counts{{"vrf=default ip=10.0.0.2 srcIntf= srcIp=", 1}}));
   record->ipAddressIs(ip4("10.0.0.1"));
   EXPECT_EQ(counts(vlan10_), vlan10Both);
   EXPECT_EQ(counts(vlan20_), vlan20Both);

   // Named after the record exists: the interface takes the current addresses itself, once.
   trace.clear();
   config_->intfConfigIs(vlan30_)->serverHostnameIs(named("default", "dhcp.example"), true);
   EXPECT_EQ(counts(vlan30_), vlan20Both);
   EXPECT_TRUE(trace.contains(" record exists for dhcp.example"));
   // Unnaming it gives exactly its own references back.
   config_->intfConfig(vlan30_)->serverHostnameDel(named("default", "dhcp.example"));
   EXPECT_TRUE(counts(vlan30_).empty());
   EXPECT_EQ(counts(vlan20_), vlan20Both);
}

TEST_F(HostnameServerTest, AnAddressConfiguredAndResolvedCountsTwice) {
   resolve(dhcp_, {"10.0.0.1"});
   Ptr<IntfConfig> intf = config_->intfConfigIs(vlan10_);
   intf->serverIpIs(a_, true);
   intf->serverHostnameIs(named("default", "dhcp.example"), true);
   Ptr<IntfServerIp> servers = dir_->drIntfServerIp(vlan10_);
   EXPECT_EQ(servers->serverIp(a_), 2u);

   intf->serverIpDel(a_);
   EXPECT_EQ(servers->serverIp(a_), 1u);
   intf->serverIpIs(a_, true);
   intf->serverHostnameDel(named("default", "dhcp.example"));
   EXPECT_EQ(servers->serverIp(a_), 1u);
   intf->serverIpDel(a_);
   EXPECT_TRUE(servers->serverIp().empty());
}

TEST_F(HostnameServerTest, TheResolvingMachineLivesWhileANameHasBothNamersAndARecord) {
   Platform::TraceCapture trace;
   Ptr<IntfConfig> intf = config_->intfConfigIs(vlan10_);
   intf->serverHostnameIs(named("default", "dhcp.example"), true);
   resolve(dhcp_, {"10.0.0.1"});
   EXPECT_TRUE(trace.contains(" Adding dhcp.example serverIpNamelookSm"));

   intf->serverHostnameDel(named("default", "dhcp.example"));
   EXPECT_FALSE(hostnames_->hostnameToIntfName(dhcp_));
   EXPECT_FALSE(sm_->intfServerIpNamelookSm().contains(dhcp_));
   EXPECT_TRUE(trace.contains(" Removing dhcp.example serverIpNamelookSm"));
   EXPECT_TRUE(counts(vlan10_).empty());

   // A record replaced by a new one is followed from the new one on. The resolver empties a
   // record before deleting it: deleting the machine withdraws nothing.
   intf->serverHostnameIs(named("default", "dhcp.example"), true);
   records_->record(dhcp_)->ipAddressDel(ip4("10.0.0.1"));
   EXPECT_TRUE(counts(vlan10_).empty());
   records_->recordDel(dhcp_);
   EXPECT_FALSE(sm_->intfServerIpNamelookSm().contains(dhcp_));
   Ptr<ResolutionRecord> record = resolve(dhcp_, {});
   EXPECT_EQ(sm_->intfServerIpNamelookSm().at(dhcp_)->record(), record);
   record->ipAddressIs(ip4("10.0.0.3"));
   EXPECT_EQ(counts(vlan10_), (Counts{{"vrf=default ip=10.0.0.3 srcIntf= srcIp=", 1}}));
}

TEST_F(HostnameServerTest, AnInterfaceLeavingWhileResolvedLeavesNoStrayCount) {
   Platform::TraceCapture trace;
   config_->intfConfigIs(vlan10_)->serverHostnameIs(named("default", "dhcp.example"), true);
   config_->intfConfigIs(vlan20_)->serverHostnameIs(named("default", "dhcp.example"), true);
   Ptr<ResolutionRecord> record = resolve(dhcp_, {"10.0.0.1", "10.0.0.2"});

   config_->intfConfigDel(vlan10_);
   EXPECT_FALSE(dir_->drIntfServerIp(vlan10_));
   EXPECT_EQ(requests_->request(dhcp_), 1u);
   EXPECT_EQ(namers(dhcp_), (std::set<IntfId>{vlan20_}));
   record->ipAddressDel(ip4("10.0.0.1"));
   EXPECT_FALSE(dir_->drIntfServerIp(vlan10_));
   EXPECT_EQ(counts(vlan20_), (Counts{{"vrf=default ip=10.0.0.2 srcIntf= srcIp=", 1}}));

   config_->intfConfigDel(vlan20_);
   EXPECT_TRUE(requests_->request().empty());
   EXPECT_TRUE(hostnames_->hostnameToIntfName().empty());
   EXPECT_TRUE(sm_->intfServerIpNamelookSm().empty());
   EXPECT_TRUE(dir_->drIntfServerIp().empty());

   // Back again: counted from scratch.
   config_->intfConfigIs(vlan10_)->serverHostnameIs(named("default", "dhcp.example"), true);
   EXPECT_EQ(requests_->request(dhcp_), 1u);
   EXPECT_EQ(counts(vlan10_), (Counts{{"vrf=default ip=10.0.0.2 srcIntf= srcIp=", 1}}));

   // A namer without configuration is skipped, and gets no server set.
   hostnames_->hostnameToIntfName(dhcp_)->intfIdCollIs(vlan30_);
   record->ipAddressIs(ip4("10.0.0.4"));
   EXPECT_TRUE(trace.contains(")No intf config forVlan30"));
   EXPECT_FALSE(dir_->drIntfServerIp(vlan30_));
   EXPECT_EQ(counts(vlan10_).size(), 2u);
}

TEST_F(HostnameServerTest, StartUpCountsAddressesThenHostNames) {
   sm_.reset();
   resolve(dhcp_, {"10.0.0.1"});
   Ptr<IntfConfig> intf = config_->intfConfigIs(vlan10_);
   intf->serverHostnameIs(named("default", "dhcp.example"), true);
   intf->serverIpIs(a_, true);
   sm_ = std::make_unique<DhcpRelayServerIpSm>(config_, requests_, records_, dir_, hostnames_);
   EXPECT_TRUE(requests_->request().empty());

   Platform::TraceCapture trace;
   sm_->handleInitialized();
   EXPECT_EQ(dir_->drIntfServerIp(vlan10_)->serverIp(a_), 2u);
   EXPECT_EQ(requests_->request(dhcp_), 1u);
   EXPECT_TRUE(sm_->intfServerIpNamelookSm().contains(dhcp_));
   std::vector<std::string> counted;
   for (const std::string& line : trace.lines())
      if (line.find("serverIp: Reference count = ") != std::string::npos)
         counted.push_back(line.substr(line.find(')') + 1));
   EXPECT_EQ(counted,
             (std::vector<std::string>{
                 " Adding vrf=default ip=10.0.0.1 srcIntf= srcIp= to Vlan10 serverIp: Reference "
                 "count = 1",
                 " Adding vrf=default ip=10.0.0.1 srcIntf= srcIp= to Vlan10 serverIp: Reference "
                 "count = 2"}));
}

TEST_F(HostnameServerTest, TeardownChangesNothingAndFiresNoAssertion) {
   config_->intfConfigIs(vlan10_)->serverHostnameIs(named("default", "dhcp.example"), true);
   config_->intfConfigIs(vlan20_)->serverHostnameIs(named("default", "dhcp.example"), true);
   Ptr<ResolutionRecord> record = resolve(dhcp_, {"10.0.0.1"});
   sm_.reset();
   EXPECT_EQ(requests_->request(dhcp_), 2u);
   EXPECT_EQ(counts(vlan10_).size(), 1u);
   // What the directories' other holders do afterwards reaches no deleted machine.
   record->ipAddressDel(ip4("10.0.0.1"));
   hostnames_->hostnameToIntfNameDelAll();
   config_->intfConfig(vlan10_)->serverHostnameDel(named("default", "dhcp.example"));
   config_->intfConfigDelAll();
   records_->recordDelAll();
   EXPECT_EQ(counts(vlan20_).size(), 1u);
}

TEST_F(HostnameServerTest, RemovingANameNoInterfaceListsIsABrokenInvariant) {
   Ptr<IntfConfig> intf = config_->intfConfigIs(vlan10_);
   EXPECT_DEATH(intf->serverHostnameIs(named("default", "dhcp.example"), false),
                "hostnameIntfColl");
}

TEST_F(DhcpRelayServerIpSmTest, AnAddressStaysUntilItsLastSourceGoes) {
   Platform::TraceCapture trace;
   Ptr<IntfConfig> intf = config_->intfConfigIs(vlan10_);
   intf->serverIpIs(a_, true);
   // Same server and VRF, other sources: separate entries.
   intf->serverIpIs(server("default", "10.0.0.1", "Loopback0"), true);
   intf->serverIpIs(server("default", "10.0.0.1", "", "10.9.9.9"), true);
   EXPECT_EQ(counts(vlan10_), (Counts{{"vrf=default ip=10.0.0.1 srcIntf= srcIp=", 1},
                                      {"vrf=default ip=10.0.0.1 srcIntf= srcIp=10.9.9.9", 1},
                                      {"vrf=default ip=10.0.0.1 srcIntf=Loopback0 srcIp=", 1}}));

   // A host name of the interface resolving to the first entry's server and sources.
   Ptr<IntfServerIp> servers = dir_->drIntfServerIp(vlan10_);
   intfServerIpInc(servers, a_);
   EXPECT_TRUE(
       trace.contains(" Adding vrf=default ip=10.0.0.1 srcIntf= srcIp= to Vlan10 "
                      "serverIp: Reference count = 2"));
   intf->serverIpDel(a_);
   EXPECT_EQ(servers->serverIp(a_), 1u);
   EXPECT_FALSE(trace.contains(" Deleting "));

   intfServerIpDec(servers, a_);
   EXPECT_EQ(servers->serverIp().size(), 2u);
   EXPECT_TRUE(trace.contains(" Deleting vrf=default ip=10.0.0.1 srcIntf= srcIp= serverIp Vlan10"));

   // Removing what was never added wraps the count, also through an entry set to false.
   intfServerIpDec(servers, a_);
   EXPECT_EQ(servers->serverIp(a_), 4294967295u);
   config_->intfConfigIs(vlan20_)->serverIpIs(a_, false);
   EXPECT_EQ(dir_->drIntfServerIp(vlan20_)->serverIp(a_), 4294967295u);
}

TEST_F(DhcpRelayServerIpSmTest, AnInterfaceLeavingTakesItsServerSetAtOnce) {
   Ptr<IntfConfig> intf = config_->intfConfigIs(vlan10_);
   intf->serverIpIs(a_, true);
   intf->serverIpIs(server("red", "10.0.0.2"), true);
   config_->intfConfigIs(vlan20_)->serverIpIs(a_, true);
   Ptr<IntfServerIp> servers = dir_->drIntfServerIp(vlan10_);
   intfServerIpInc(servers, a_);
   struct EntryLog : IntfServerIp::Reactor {
      void handleServerIp(const VrfIpSrcIntfSrcIp&) override { ++calls; }
      int calls = 0;
   } log;
   log.notifierIs(servers);

   config_->intfConfigDel(vlan10_);
   EXPECT_FALSE(dir_->drIntfServerIp(vlan10_));
   EXPECT_FALSE(sm_->intfConfigServerIpSm().contains(vlan10_));
   // Not counted down entry by entry first: whoever follows the set sees it go whole.
   EXPECT_EQ(log.calls, 0);
   EXPECT_EQ(counts(vlan20_).size(), 1u);

   config_->intfConfigIs(vlan10_)->serverIpIs(a_, true);
   EXPECT_EQ(counts(vlan10_), (Counts{{"vrf=default ip=10.0.0.1 srcIntf= srcIp=", 1}}));
}

TEST_F(DhcpRelayServerIpSmTest, StartUpCountsTheConfigurationOnceAndIgnoresEarlierChanges) {
   sm_.reset();
   Ptr<IntfConfig> intf = config_->intfConfigIs(vlan10_);
   intf->serverIpIs(a_, true);
   sm_ = std::make_unique<DhcpRelayServerIpSm>(config_, requests_, records_, dir_, hostnames_);
   config_->intfConfigIs(vlan20_)->serverIpIs(a_, true);
   intf->serverIpIs(server("red", "10.0.0.2"), true);
   EXPECT_TRUE(dir_->drIntfServerIp().empty());

   sm_->handleInitialized();
   sm_->handleInitialized();
   EXPECT_EQ(counts(vlan10_), (Counts{{"vrf=default ip=10.0.0.1 srcIntf= srcIp=", 1},
                                      {"vrf=red ip=10.0.0.2 srcIntf= srcIp=", 1}}));
   EXPECT_EQ(counts(vlan20_), (Counts{{"vrf=default ip=10.0.0.1 srcIntf= srcIp=", 1}}));
   EXPECT_EQ(sm_->intfConfigServerIpSm().at(vlan20_)->intfServerIp(),
             dir_->drIntfServerIp(vlan20_));
}

// One interface may name a host twice (another VRF or source): it leaves the name's index,
// and the name stops being asked for, only once neither entry names it.
TEST_F(HostnameServerTest, TwoEntriesNamingOneHostLeaveTheIndexWithTheLast) {
   Ptr<IntfConfig> c = config_->intfConfigIs(vlan10_);
   c->serverHostnameIs(named("default", "dhcp.example"), true);
   c->serverHostnameIs(named("red", "dhcp.example"), true);
   c->serverHostnameDel(named("default", "dhcp.example"));
   EXPECT_EQ(namers(dhcp_), std::set<IntfId>{vlan10_});
   // The remaining entry still follows the name's addresses.
   resolve(dhcp_, {"10.0.0.5"});
   EXPECT_EQ(counts(vlan10_), (Counts{{server("red", "10.0.0.5").toString(), 1}}));
   c->serverHostnameDel(named("red", "dhcp.example"));
   EXPECT_TRUE(namers(dhcp_).empty());
   EXPECT_EQ(requests_->request(dhcp_), 0u);
}

}  // namespace
}  // namespace Ip::Helper::DhcpRelay
