#include "servers/DhcpRelayServerIpSm.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <memory>
#include <set>
#include <string>

#include "servers/IntfServerIpCount.h"
#include "tests/support/ServerKeys.h"

namespace Ip::Helper::DhcpRelay {
namespace {

using Platform::IntfId;
using Platform::make;
using Platform::VrfName;
using TestKeys::server;

VrfHostnameSrcIntfSrcIp named(const char* vrf, const char* srcIntf = "") {
   return {VrfName(vrf), "dhcp.example", *srcIntf ? IntfId(srcIntf) : IntfId(), {}};
}

class DhcpRelayServerIpSmTest : public testing::Test {
 protected:
   void SetUp() override { sm_->handleInitialized(); }

   // The interface's server set, "vrf ip [via srcIntf] [from srcIp] [xCount]" in key order.
   std::string servers(const IntfId& intf) const {
      std::string out;
      if (Ptr<IntfServerIp> set = dir_->drIntfServerIp(intf)) {
         for (const auto& [key, count] : set->serverIp()) {
            out += (out.empty() ? "" : ", ") + key.vrf.str() + " " + key.ip.toString();
            if (!key.srcIntf.empty())
               out += " via " + key.srcIntf.toString();
            if (!key.srcIp.isEmpty())
               out += " from " + key.srcIp.toString();
            if (count != 1)
               out += " x" + std::to_string(count);
         }
      }
      return out;
   }
   std::set<IntfId> namers() const {
      const Ptr<HostnameToIntfName> entry = hostnames_->hostnameToIntfName(dhcp_);
      return entry ? entry->intfIdColl() : std::set<IntfId>{};
   }
   // A record as the resolver writes it: created empty, then one address at a time.
   Ptr<ResolutionRecord> resolve(std::initializer_list<const char*> addrs) {
      Ptr<ResolutionRecord> record = records_->recordIs(dhcp_);
      for (const char* a : addrs)
         record->ipAddressIs(*Platform::IpAddr::parse(a));
      return record;
   }
   Ptr<IntfConfig> intf(const IntfId& id) { return config_->intfConfigIs(id); }
   void restart() {
      sm_ = std::make_unique<DhcpRelayServerIpSm>(config_, requests_, records_, dir_, hostnames_);
   }

   Ptr<Config> config_ = make<Config>("config");
   Ptr<ResolutionRequestDir> requests_ = make<ResolutionRequestDir>("NamelookRequest");
   Ptr<ResolutionRecordDir> records_ = make<ResolutionRecordDir>("NamelookRecord");
   Ptr<IntfServerIpDir> dir_ = make<IntfServerIpDir>("DhcpRelayIntfServerIp");
   Ptr<HostnameToIntfNameMap> hostnames_ = make<HostnameToIntfNameMap>("HostnameToIntfNameMap");
   std::unique_ptr<DhcpRelayServerIpSm> sm_ =
       std::make_unique<DhcpRelayServerIpSm>(config_, requests_, records_, dir_, hostnames_);
   const std::string dhcp_ = "dhcp.example";
   const IntfId vlan10_{"Vlan10"};
   const IntfId vlan20_{"Vlan20"};
   const IntfId vlan30_{"Vlan30"};
   const VrfIpSrcIntfSrcIp a_ = server("default", "10.0.0.1");
};

// Every entry naming the host counts once in its request; an interface leaves the name's
// index, and the name stops being asked for, only with its last entry naming it.
TEST_F(DhcpRelayServerIpSmTest, EntriesNamingAHostShareOneRequest) {
   intf(vlan10_)->serverHostnameIs(named("default"), true);
   intf(vlan10_)->serverHostnameIs(named("red", "Loopback0"), true);
   intf(vlan20_)->serverHostnameIs(named("red"), true);
   EXPECT_EQ(requests_->request(dhcp_), 3u);
   EXPECT_EQ(namers(), (std::set<IntfId>{vlan10_, vlan20_}));
   // No record yet: the name contributes no server.
   EXPECT_EQ(servers(vlan10_), "");
   EXPECT_TRUE(sm_->intfServerIpNamelookSm().empty());

   intf(vlan10_)->serverHostnameDel(named("default"));
   EXPECT_EQ(requests_->request(dhcp_), 2u);
   EXPECT_EQ(namers(), (std::set<IntfId>{vlan10_, vlan20_}));
   intf(vlan10_)->serverHostnameDel(named("red", "Loopback0"));
   EXPECT_EQ(requests_->request(dhcp_), 1u);
   EXPECT_EQ(namers(), (std::set<IntfId>{vlan20_}));
   intf(vlan20_)->serverHostnameDel(named("red"));
   EXPECT_TRUE(requests_->request().empty());
   EXPECT_FALSE(hostnames_->hostnameToIntfName(dhcp_));
}

TEST_F(DhcpRelayServerIpSmTest, ServersFollowTheAddressesOfTheRecord) {
   intf(vlan10_)->serverHostnameIs(named("red", "Loopback0"), true);
   intf(vlan20_)->serverHostnameIs(named("default"), true);
   Ptr<ResolutionRecord> record = resolve({"10.0.0.1", "10.0.0.2"});
   const std::string vlan10Both = "red 10.0.0.1 via Loopback0, red 10.0.0.2 via Loopback0";
   const std::string vlan20Both = "default 10.0.0.1, default 10.0.0.2";
   EXPECT_EQ(servers(vlan10_), vlan10Both);
   EXPECT_EQ(servers(vlan20_), vlan20Both);

   record->ipAddressDel(*Platform::IpAddr::parse("10.0.0.1"));
   EXPECT_EQ(servers(vlan10_), "red 10.0.0.2 via Loopback0");
   EXPECT_EQ(servers(vlan20_), "default 10.0.0.2");
   record->ipAddressIs(*Platform::IpAddr::parse("10.0.0.1"));
   EXPECT_EQ(servers(vlan10_), vlan10Both);

   // Named after the record exists: the interface takes the current addresses itself, once;
   // unnaming it gives exactly its own references back.
   intf(vlan30_)->serverHostnameIs(named("default"), true);
   EXPECT_EQ(servers(vlan30_), vlan20Both);
   intf(vlan30_)->serverHostnameDel(named("default"));
   EXPECT_EQ(servers(vlan30_), "");
   EXPECT_EQ(servers(vlan20_), vlan20Both);
}

// A server stays while any source names it: an address configured and the same address
// resolved from a host name count twice; other source overrides are other servers.
TEST_F(DhcpRelayServerIpSmTest, AServerStaysUntilItsLastSourceGoes) {
   resolve({"10.0.0.1"});
   Ptr<IntfConfig> vlan10 = intf(vlan10_);
   vlan10->serverIpIs(a_, true);
   vlan10->serverIpIs(server("default", "10.0.0.1", "Loopback0"), true);
   vlan10->serverIpIs(server("default", "10.0.0.1", "", "10.9.9.9"), true);
   vlan10->serverHostnameIs(named("default"), true);
   EXPECT_EQ(servers(vlan10_),
             "default 10.0.0.1 x2, default 10.0.0.1 from 10.9.9.9, default 10.0.0.1 via Loopback0");

   vlan10->serverIpDel(a_);
   EXPECT_EQ(dir_->drIntfServerIp(vlan10_)->serverIp(a_), 1u);
   vlan10->serverHostnameDel(named("default"));
   EXPECT_EQ(servers(vlan10_), "default 10.0.0.1 from 10.9.9.9, default 10.0.0.1 via Loopback0");

   // Removing what was never added wraps the count, also through an entry set to false.
   intfServerIpDec(dir_->drIntfServerIp(vlan10_), a_);
   EXPECT_EQ(dir_->drIntfServerIp(vlan10_)->serverIp(a_), 4294967295u);
   intf(vlan20_)->serverIpIs(a_, false);
   EXPECT_EQ(dir_->drIntfServerIp(vlan20_)->serverIp(a_), 4294967295u);
}

TEST_F(DhcpRelayServerIpSmTest, TheResolvingMachineLivesWhileANameHasBothNamersAndARecord) {
   Ptr<IntfConfig> vlan10 = intf(vlan10_);
   vlan10->serverHostnameIs(named("default"), true);
   resolve({"10.0.0.1"});
   ASSERT_TRUE(sm_->intfServerIpNamelookSm().contains(dhcp_));

   vlan10->serverHostnameDel(named("default"));
   EXPECT_FALSE(sm_->intfServerIpNamelookSm().contains(dhcp_));
   EXPECT_EQ(servers(vlan10_), "");

   // A record replaced by a new one is followed from the new one on. The resolver empties a
   // record before deleting it: deleting the machine withdraws nothing.
   vlan10->serverHostnameIs(named("default"), true);
   records_->record(dhcp_)->ipAddressDel(*Platform::IpAddr::parse("10.0.0.1"));
   records_->recordDel(dhcp_);
   EXPECT_FALSE(sm_->intfServerIpNamelookSm().contains(dhcp_));
   Ptr<ResolutionRecord> record = resolve({});
   EXPECT_EQ(sm_->intfServerIpNamelookSm().at(dhcp_)->record(), record);
   resolve({"10.0.0.3"});
   EXPECT_EQ(servers(vlan10_), "default 10.0.0.3");
}

// Leaving takes the server set whole, without counting it down entry by entry first, and
// gives back the interface's requests; the other namers keep theirs.
TEST_F(DhcpRelayServerIpSmTest, AnInterfaceLeavingTakesItsServerSetAndRequestsAtOnce) {
   intf(vlan10_)->serverHostnameIs(named("default"), true);
   intf(vlan10_)->serverIpIs(server("red", "10.0.0.9"), true);
   intf(vlan20_)->serverHostnameIs(named("default"), true);
   Ptr<ResolutionRecord> record = resolve({"10.0.0.1", "10.0.0.2"});
   struct EntryLog : IntfServerIp::Reactor {
      void handleServerIp(const VrfIpSrcIntfSrcIp&) override { ++calls; }
      int calls = 0;
   } log;
   log.notifierIs(dir_->drIntfServerIp(vlan10_));

   config_->intfConfigDel(vlan10_);
   EXPECT_FALSE(dir_->drIntfServerIp(vlan10_));
   EXPECT_FALSE(sm_->intfConfigServerIpSm().contains(vlan10_));
   EXPECT_EQ(log.calls, 0);
   EXPECT_EQ(requests_->request(dhcp_), 1u);
   EXPECT_EQ(namers(), (std::set<IntfId>{vlan20_}));
   record->ipAddressDel(*Platform::IpAddr::parse("10.0.0.1"));
   EXPECT_FALSE(dir_->drIntfServerIp(vlan10_));
   EXPECT_EQ(servers(vlan20_), "default 10.0.0.2");

   config_->intfConfigDel(vlan20_);
   EXPECT_TRUE(requests_->request().empty());
   EXPECT_TRUE(hostnames_->hostnameToIntfName().empty());
   EXPECT_TRUE(sm_->intfServerIpNamelookSm().empty());
   EXPECT_TRUE(dir_->drIntfServerIp().empty());

   // Back again: counted from scratch.
   intf(vlan10_)->serverHostnameIs(named("default"), true);
   EXPECT_EQ(requests_->request(dhcp_), 1u);
   EXPECT_EQ(servers(vlan10_), "default 10.0.0.2");

   // A namer without configuration is skipped, and gets no server set.
   hostnames_->hostnameToIntfName(dhcp_)->intfIdCollIs(vlan30_);
   resolve({"10.0.0.4"});
   EXPECT_FALSE(dir_->drIntfServerIp(vlan30_));
   EXPECT_EQ(servers(vlan10_), "default 10.0.0.2, default 10.0.0.4");
}

TEST_F(DhcpRelayServerIpSmTest, StartUpCountsAddressesThenHostNamesOnceAndIgnoresEarlierChanges) {
   sm_.reset();
   resolve({"10.0.0.1"});
   intf(vlan10_)->serverHostnameIs(named("default"), true);
   intf(vlan10_)->serverIpIs(a_, true);
   restart();
   intf(vlan20_)->serverIpIs(a_, true);
   intf(vlan10_)->serverIpIs(server("red", "10.0.0.2"), true);
   EXPECT_TRUE(dir_->drIntfServerIp().empty());
   EXPECT_TRUE(requests_->request().empty());

   sm_->handleInitialized();
   sm_->handleInitialized();
   EXPECT_EQ(servers(vlan10_), "default 10.0.0.1 x2, red 10.0.0.2");
   EXPECT_EQ(servers(vlan20_), "default 10.0.0.1");
   EXPECT_EQ(requests_->request(dhcp_), 1u);
   EXPECT_TRUE(sm_->intfServerIpNamelookSm().contains(dhcp_));
}

TEST_F(DhcpRelayServerIpSmTest, TeardownChangesNothingAndFiresNoAssertion) {
   intf(vlan10_)->serverHostnameIs(named("default"), true);
   intf(vlan20_)->serverHostnameIs(named("default"), true);
   Ptr<ResolutionRecord> record = resolve({"10.0.0.1"});
   sm_.reset();
   EXPECT_EQ(requests_->request(dhcp_), 2u);
   EXPECT_EQ(servers(vlan10_), "default 10.0.0.1");
   // What the directories' other holders do afterwards reaches no deleted machine.
   record->ipAddressDel(*Platform::IpAddr::parse("10.0.0.1"));
   hostnames_->hostnameToIntfNameDelAll();
   intf(vlan10_)->serverHostnameDel(named("default"));
   config_->intfConfigDelAll();
   records_->recordDelAll();
   EXPECT_EQ(servers(vlan20_), "default 10.0.0.1");
}

TEST_F(DhcpRelayServerIpSmTest, RemovingANameNoInterfaceListsIsABrokenInvariant) {
   EXPECT_DEATH(intf(vlan10_)->serverHostnameIs(named("default"), false), "hostnameIntfColl");
}

}  // namespace
}  // namespace Ip::Helper::DhcpRelay
