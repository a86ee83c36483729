#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <vector>

#include "agent/DhcpRelayAgent.h"
#include "frontend/config/ConfigFrontEnd.h"
#include "model/switch/Ip6Status.h"
#include "model/switch/IpStatus.h"
#include "platform/loop/Clock.h"
#include "platform/loop/EventLoop.h"
#include "platform/store/Dir.h"
#include "tests/relay4/RelayTestBed.h"

namespace Ip::Helper::DhcpRelay {
namespace {

// Drives the agent host's start-up by hand: front ends publish, the agent mounts,
// and the group completes on a later "turn" that the test runs itself.
class AgentStartup : public ::testing::Test {
 protected:
   ~AgentStartup() override {
      if (!configPath_.empty())
         std::remove(configPath_.c_str());
   }

   AgentStartup()
       : wheel_(clock_, clock_),
         loop_(wheel_),
         store_([this](std::function<void()> fn) { posted_.push_back(std::move(fn)); }),
         ctx_{loop_, Agent::kAgentName} {
      setenv("BLIPJET_DISABLE", "1", 1);
   }

   // The front ends publish (the IP status only when asked), the agent mounts, and the
   // posted completion runs.
   std::unique_ptr<Agent> start(bool withIpStatus) {
      // ctest runs these tests in parallel processes: each writes a file of its own.
      const std::string path =
          ::testing::TempDir() + "/agent-startup-" + std::to_string(::getpid()) + ".yaml";
      configPath_ = path;
      std::ofstream(path) << "vrfs: {}\n";
      config_ = std::make_unique<Frontend::ConfigFrontEnd>(store_, path);
      EXPECT_TRUE(config_->load().empty());
      if (withIpStatus) {
         store_.publish("ip/status", Platform::make<Ip::Status>("status"));
         store_.publish("ip6/status", Platform::make<Ip6::Status>("status"));
      }
      // The relay's sockets are doubles here: a unit test opens nothing on the host.
      auto agent =
          std::make_unique<Agent>(ctx_, std::make_unique<DhcpRelay::Test::TestPamFactory>());
      agent->doInit(store_);
      return agent;
   }

   void runPosted() {
      auto fns = std::move(posted_);
      posted_.clear();
      for (auto& fn : fns)
         fn();
   }

   Platform::ManualClock clock_;
   Platform::TimerWheel wheel_;
   Platform::EventLoop loop_;
   std::vector<std::function<void()>> posted_;
   Platform::StateStore store_;
   Platform::AgentContext ctx_;
   std::unique_ptr<Frontend::ConfigFrontEnd> config_;
   std::string configPath_;
};

// When a mount group completes is the store's (StateStoreTest); here, what the agent builds
// once it does.
TEST_F(AgentStartup, BuildsTheGraphOnceEveryFrontEndHasPublished) {
   EXPECT_TRUE(dynamic_cast<Agent*>(agentFactory(ctx_).get()));
   store_.frontEndPending(Frontend::ConfigFrontEnd::kName);
   auto agent = start(true);
   runPosted();
   EXPECT_FALSE(agent->objectGraphBuilt()) << "completed before the front end was ready";
   store_.frontEndReady(Frontend::ConfigFrontEnd::kName);
   runPosted();
   ASSERT_TRUE(agent->objectGraphBuilt());
   EXPECT_TRUE(agent->dhcpPacketQueues() && agent->dhcp6PacketQueues());
   EXPECT_NE(agent->localDhcpRelayStatus(), store_.entity<Status>("ip/helper/dhcprelay/status"))
       << "counters accumulate locally, apart from the published status";
   auto mcGroups = store_.entity<Platform::Dir>("ip6/multicastGroups/application");
   ASSERT_TRUE(mcGroups);
   EXPECT_TRUE(mcGroups->entry("dhcprelay"));
}

TEST_F(AgentStartup, MissingReadOnlyStateIsAFailedMount) {
   auto agent = start(false);
   EXPECT_DEATH(runPosted(), "status == Statebase::mountSuccess_");
}

}  // namespace
}  // namespace Ip::Helper::DhcpRelay
