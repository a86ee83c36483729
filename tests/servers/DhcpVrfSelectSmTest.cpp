#include "servers/DhcpVrfSelectSmv4.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "model/switch/IpStatus.h"
#include "platform/trace/Trace.h"
#include "servers/ActiveVrfCount.h"
#include "servers/DhcpRelayServerIpSm.h"
#include "servers/DhcpVrfSelectSmv6.h"
#include "servers/IntfServerIpCount.h"
#include "tests/support/ServerKeys.h"

namespace Ip::Helper::DhcpRelay {
namespace {

using Platform::IntfId;
using Platform::make;
using Platform::VrfName;
using TestKeys::server;
using TestKeys::vrfCounts;

class DhcpVrfSelectSmv4Test : public testing::Test {
 protected:
   void SetUp() override { sm_->handleInitialized(); }

   std::string counts() const { return vrfCounts(*active_); }
   Ptr<Ip::IpIntfStatus> statusIs(const IntfId& intf, const char* vrf) {
      Ptr<Ip::IpIntfStatus> status = ipStatus_->ipIntfStatusIs(intf);
      status->vrfIs(VrfName(vrf));
      return status;
   }
   void serverInc(const IntfId& intf, const VrfIpSrcIntfSrcIp& key) {
      intfServerIpInc(serverDir_->drIntfServerIpIs(intf), key);
   }
   void serverDec(const IntfId& intf, const VrfIpSrcIntfSrcIp& key) {
      intfServerIpDec(serverDir_->drIntfServerIpIs(intf), key);
   }

   Ptr<Ip::Status> ipStatus_ = make<Ip::Status>("ip/status");
   Ptr<IntfServerIpDir> serverDir_ = make<IntfServerIpDir>("DhcpRelayIntfServerIp");
   Ptr<VrfWithCountDir> active_ = make<VrfWithCountDir>("ActiveVrfDirv4");
   std::unique_ptr<DhcpVrfSelectSmv4> sm_ =
       std::make_unique<DhcpVrfSelectSmv4>(ipStatus_, serverDir_, active_);
   const IntfId vlan10_{"Vlan10"};
   const IntfId vlan20_{"Vlan20"};
   const VrfIpSrcIntfSrcIp red1_ = server("red", "10.0.0.1");
   const VrfIpSrcIntfSrcIp red2_ = server("red", "10.0.0.2");
};

TEST_F(DhcpVrfSelectSmv4Test, ServersCountTheirVrfAndTheirInterfaceVrfOnce) {
   statusIs(vlan20_, "default");
   serverInc(vlan20_, server("default", "10.0.0.9"));
   EXPECT_EQ(counts(), "default:0");

   statusIs(vlan10_, "blue");
   serverInc(vlan10_, red1_);
   EXPECT_EQ(counts(), "blue:1 default:0 red:1");
   // A second source naming the same server (a resolved host name) adds no server.
   serverInc(vlan10_, red1_);
   serverDec(vlan10_, red1_);
   serverInc(vlan10_, red2_);
   EXPECT_EQ(counts(), "blue:1 default:0 red:2");
   serverDec(vlan10_, red2_);
   EXPECT_EQ(counts(), "blue:1 default:0 red:1");

   serverDec(vlan10_, red1_);
   EXPECT_EQ(counts(), "default:0");

   // A server set deleted whole lowers every VRF it named, its interface's too.
   serverInc(vlan10_, red1_);
   serverInc(vlan10_, server("red", "10.0.0.1", "Loopback0"));
   serverInc(vlan10_, server("green", "10.0.0.3"));
   serverInc(vlan20_, red2_);
   EXPECT_EQ(counts(), "blue:1 default:0 green:1 red:3");
   serverDir_->drIntfServerIpDel(vlan10_);
   EXPECT_EQ(counts(), "default:0 red:1");

   // The interface VRF counts only while the interface has an IP status, whichever of the
   // status and the first server comes first.
   serverInc(vlan10_, red1_);
   ipStatus_->ipIntfStatusDel(vlan10_);
   EXPECT_EQ(counts(), "default:0 red:2");
   statusIs(vlan10_, "green");
   EXPECT_EQ(counts(), "default:0 green:1 red:2");
}

TEST_F(DhcpVrfSelectSmv4Test, AnInterfaceMovingVrfRaisesTheNewBeforeLoweringTheOld) {
   Ptr<Ip::IpIntfStatus> status = statusIs(vlan10_, "blue");
   // Hears the status first and adds a server, which reads the new VRF before the machine's
   // own status reactor does: the interface must still move only once.
   struct AddServerOnVrfChange : Ip::IpIntfStatus::Reactor {
      void handleVrf() override {
         if (notifier()->vrf() == VrfName("yellow"))
            intfServerIpInc(servers, server("red", "10.0.0.2"));
      }
      Ptr<IntfServerIp> servers;
   } early;
   early.servers = serverDir_->drIntfServerIpIs(vlan10_);
   early.notifierIs(status);
   serverInc(vlan10_, red1_);
   struct DirLog : VrfWithCountDir::Reactor {
      void handleVrfCount(const VrfName& vrf) override {
         seen.push_back((notifier()->vrfCount(vrf) ? "+" : "-") + vrf.str());
      }
      std::vector<std::string> seen;
   } log;
   log.notifierIs(active_);

   status->vrfIs(VrfName("green"));
   EXPECT_EQ(log.seen, (std::vector<std::string>{"+green", "-blue"}));
   EXPECT_EQ(counts(), "default:0 green:1 red:1");
   status->vrfIs(VrfName("red"));
   EXPECT_EQ(counts(), "default:0 red:2");

   status->vrfIs(VrfName("yellow"));
   EXPECT_EQ(counts(), "default:0 red:2 yellow:1");
}

TEST_F(DhcpVrfSelectSmv4Test, StartUpRebuildsTheDirectoryFromCurrentState) {
   sm_.reset();
   active_->vrfCountIs(VrfName("stale"))->countIs(3);
   active_->vrfCountIs(VrfName::defaultVrf())->countIs(7);
   sm_ = std::make_unique<DhcpVrfSelectSmv4>(ipStatus_, serverDir_, active_);
   statusIs(vlan10_, "blue");
   serverInc(vlan10_, red1_);
   serverInc(vlan10_, red1_);
   EXPECT_EQ(counts(), "default:7 stale:3");

   sm_->handleInitialized();
   sm_->handleInitialized();
   EXPECT_EQ(counts(), "blue:1 default:0 red:1");
}

TEST(ActiveVrfCountTest, ADecrementWithoutItsIncrementStopsTheAgent) {
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   Ptr<VrfWithCountDir> active = make<VrfWithCountDir>("ActiveVrfDirv4");
   activeVrfInc(*active, VrfName("red"));
   activeVrfDec(*active, VrfName("red"));
   activeVrfDec(*active, VrfName::defaultVrf());
   EXPECT_TRUE(active->vrfCount().empty());
   // The trace line is what an operator finds in the log of the crash.
   EXPECT_DEATH(
       {
          ::setenv("BLIPJET_DISABLE", "1", 1);
          ::setenv("DHCP_RELAY_TRACE", "0", 1);
          ::unsetenv("DHCP_RELAY_TRACE_FILE");
          Platform::Trace::init("test");
          activeVrfDec(*active, VrfName("red"));
       },
       "\\[servers\\] Fail to remove red from activeVrfDir: \n(.|\n)*assertion failed");
}

// The IPv6 selection beside the whole IPv4 one, over one configuration and interfaces that
// sit in the same VRF for both families.
class DhcpVrfSelectSmv6Test : public testing::Test {
 protected:
   void SetUp() override {
      serverIpSm_.handleInitialized();
      sm4_.handleInitialized();
      sm6_.handleInitialized();
   }

   // "status INTF VRF", "nostatus INTF", "unconfigure INTF", and for a server
   // "server6|false6|del6|server4 INTF VRF IP".
   void apply(const std::string& change) {
      std::istringstream in(change);
      std::string verb, intfName, vrf, ip;
      in >> verb >> intfName >> vrf >> ip;
      const IntfId intf(intfName);
      if (verb == "status") {
         ipStatus_->ipIntfStatusIs(intf)->vrfIs(VrfName(vrf));
         ip6Status_->intfIs(intf)->vrfIs(VrfName(vrf));
      } else if (verb == "nostatus") {
         ipStatus_->ipIntfStatusDel(intf);
         ip6Status_->intfDel(intf);
      } else if (verb == "unconfigure") {
         config_->intfConfigDel(intf);
      } else {
         const Ptr<IntfConfig> c = config_->intfConfigIs(intf);
         const VrfIpSrcIntfSrcIp key = server(vrf.c_str(), ip.c_str());
         if (verb == "server6" || verb == "false6")
            c->serverIp6Is(key, verb == "server6");
         else if (verb == "del6")
            c->serverIp6Del(key);
         else
            c->serverIpIs(key, true);
      }
   }

   Ptr<Config> config_ = make<Config>("config");
   Ptr<Ip::Status> ipStatus_ = make<Ip::Status>("ip/status");
   Ptr<Ip6::Status> ip6Status_ = make<Ip6::Status>("ip6/status");
   Ptr<IntfServerIpDir> serverDir_ = make<IntfServerIpDir>("DhcpRelayIntfServerIp");
   Ptr<VrfWithCountDir> active4_ = make<VrfWithCountDir>("ActiveVrfDirv4");
   Ptr<VrfWithCountDir> active6_ = make<VrfWithCountDir>("ActiveVrfDirv6");
   DhcpRelayServerIpSm serverIpSm_{config_, make<ResolutionRequestDir>("NamelookRequest"),
                                   make<ResolutionRecordDir>("NamelookRecord"), serverDir_,
                                   make<HostnameToIntfNameMap>("HostnameToIntfNameMap")};
   DhcpVrfSelectSmv4 sm4_{ipStatus_, serverDir_, active4_};
   DhcpVrfSelectSmv6 sm6_{config_, ip6Status_, active6_};
};

TEST_F(DhcpVrfSelectSmv6Test, CountsFollowServersAndInterfaces) {
   const struct {
      const char* change;
      const char* v6;
      const char* v4;
   } steps[] = {
       {"status Vlan10 red", "default:0", "default:0"},
       // Once to reach the server, once to hear the interface's clients.
       {"server6 Vlan10 red 2001:db8::1", "default:0 red:2", "default:0"},
       {"server4 Vlan10 blue 10.0.0.1", "default:0 red:2", "blue:1 default:0 red:1"},
       {"server6 Vlan10 blue 2001:db8::2", "blue:1 default:0 red:2", "blue:1 default:0 red:1"},
       // A false entry is configured but counts as removed, and deleting it changes nothing.
       {"false6 Vlan10 blue 2001:db8::2", "default:0 red:2", "blue:1 default:0 red:1"},
       {"del6 Vlan10 blue 2001:db8::2", "default:0 red:2", "blue:1 default:0 red:1"},
       // An interface with only false entries has no servers.
       {"false6 Vlan20 green 2001:db8::3", "default:0 red:2", "blue:1 default:0 red:1"},
       {"status Vlan20 yellow", "default:0 red:2", "blue:1 default:0 red:1"},
       {"server6 Vlan20 green 2001:db8::3", "default:0 green:1 red:2 yellow:1",
        "blue:1 default:0 red:1"},
       // An interface moving VRF takes its count along.
       {"status Vlan10 green", "default:0 green:2 red:1 yellow:1", "blue:1 default:0 green:1"},
       {"server6 Vlan10 red 2001:db8::5", "default:0 green:2 red:2 yellow:1",
        "blue:1 default:0 green:1"},
       // Deleted whole, a configuration lowers each server's VRF once and its interface's once.
       {"unconfigure Vlan10", "default:0 green:1 yellow:1", "default:0"},
       // The interface counts only while it has an IPv6 status.
       {"nostatus Vlan20", "default:0 green:1", "default:0"},
       {"status Vlan20 red", "default:0 green:1 red:1", "default:0"},
       // Its last server set to false, the interface has none left.
       {"false6 Vlan20 green 2001:db8::3", "default:0", "default:0"},
       {"del6 Vlan20 green 2001:db8::3", "default:0", "default:0"},
   };
   for (const auto& step : steps) {
      apply(step.change);
      EXPECT_EQ(vrfCounts(*active6_), step.v6) << step.change;
      EXPECT_EQ(vrfCounts(*active4_), step.v4) << step.change;
      // A selection started now derives the same from the state as it stands.
      Ptr<VrfWithCountDir> fresh = make<VrfWithCountDir>("ActiveVrfDirv6");
      fresh->vrfCountIs(VrfName("stale"))->countIs(1);
      DhcpVrfSelectSmv6 started(config_, ip6Status_, fresh);
      started.handleInitialized();
      EXPECT_EQ(vrfCounts(*fresh), step.v6) << "started after " << step.change;
   }
}

}  // namespace
}  // namespace Ip::Helper::DhcpRelay
