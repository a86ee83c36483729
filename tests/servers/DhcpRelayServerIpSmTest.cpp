#include "servers/DhcpRelayServerIpSm.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>

#include "platform/Trace.h"
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

}  // namespace
}  // namespace Ip::Helper::DhcpRelay
