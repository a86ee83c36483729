#include "agent/Daemon.h"

#include <csignal>
#include <cstdio>

#include "agent/ControlCommands.h"
#include "agent/DhcpRelayAgent.h"
#include "frontend/ConfigFrontEnd.h"
#include "frontend/ControlServer.h"
#include "model/switch/Ip6Status.h"
#include "model/switch/IpStatus.h"
#include "platform/Clock.h"
#include "platform/EventLoop.h"
#include "platform/TimerWheel.h"
#include "platform/Trace.h"

namespace Ip::Helper::DhcpRelay {

namespace {

void printErrors(const std::vector<std::string>& errors) {
   for (const std::string& e : errors)
      std::fprintf(stderr, "%s\n", e.c_str());
}

}  // namespace

int runDaemon(const DaemonOptions& options) {
   Platform::MonotonicClock monotonic;
   Platform::UtcClock utc;
   Platform::TimerWheel wheel(monotonic, utc);
   Platform::EventLoop loop(wheel);
   Platform::StateStore store([&loop](std::function<void()> fn) { loop.post(std::move(fn)); });

   // The configuration file must be good before anything starts.
   Frontend::ConfigFrontEnd config(store, options.configPath);
   store.frontEndPending(Frontend::ConfigFrontEnd::kName);
   if (auto errors = config.load(); !errors.empty()) {
      printErrors(errors);
      return 1;
   }

   // Interface addresses as the kernel reports them, per interface.
   store.publish("ip/status", Platform::make<Ip::Status>("status"));
   store.publish("ip6/status", Platform::make<Ip6::Status>("status"));

   Frontend::ControlServer server(loop, options.socketPath);
   if (std::string error; !server.start(error)) {
      std::fprintf(stderr, "%s\n", error.c_str());
      return 1;
   }

   auto reload = [&config] {
      std::vector<std::string> errors = config.load();
      if (errors.empty())
         TRACE(1, "configuration reloaded from ", config.path());
      return errors;
   };
   ControlCommands commands(server, config, store, reload);

   Platform::AgentRegistry registry;
   registry.agentFactoryIs(Agent::kAgentName, agentFactory);
   Platform::AgentContext ctx{loop, Agent::kAgentName};
   std::unique_ptr<Platform::Agent> agent = registry.agentNew(Agent::kAgentName, ctx);
   agent->doInit(store);
   store.frontEndReady(Frontend::ConfigFrontEnd::kName);

   loop.onSignal(SIGTERM, [&loop] { loop.stop(); });
   loop.onSignal(SIGINT, [&loop] { loop.stop(); });
   loop.onSignal(SIGHUP, [&reload] { reload(); });
   loop.run();

   TRACE(1, "stopping");
   // The agent's machines go first, in the reverse of the order they were built,
   // while the records and the loop they use still exist.
   agent.reset();
   Platform::Trace::shutdown();
   return 0;
}

}  // namespace Ip::Helper::DhcpRelay
