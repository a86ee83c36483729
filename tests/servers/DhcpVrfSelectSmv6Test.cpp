#include "servers/DhcpVrfSelectSmv6.h"

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>

#include "model/switch/IpStatus.h"
#include "servers/DhcpRelayServerIpSm.h"
#include "servers/DhcpVrfSelectSmv4.h"
#include "tests/support/ServerKeys.h"

namespace Ip::Helper::DhcpRelay {
namespace {

using Platform::IntfId;
using Platform::make;
using Platform::VrfName;
using TestKeys::server;
using TestKeys::vrfCounts;

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
