#pragma once

#include <memory>
#include <string>
#include <vector>

#include "agent/ControlCommands.h"
#include "frontend/config/ConfigFrontEnd.h"
#include "frontend/config/ConfigReader.h"
#include "frontend/control/ControlServer.h"
#include "frontend/kernel/KernelFrontEnd.h"
#include "frontend/metrics/MetricsServer.h"
#include "frontend/state/PrefixBindingFile.h"
#include "platform/linux/Fd.h"
#include "platform/loop/Clock.h"
#include "platform/loop/EventLoop.h"
#include "platform/loop/TimerWheel.h"
#include "platform/store/AgentHost.h"
#include "platform/store/StateStore.h"

namespace Ip::Helper::DhcpRelay {

struct DaemonOptions {
   std::string configPath;
   std::string socketPath;
   // Where the DHCPv6 relay keeps its prefix bindings; empty: beside the control socket.
   std::string stateFile;
};

// The agent host as a process: the event loop, the state store with its front
// ends, the control socket and the DHCP relay agent. Members are declared in the
// order they are needed, so the agent goes first when the daemon is destroyed.
class Daemon {
 public:
   explicit Daemon(const DaemonOptions& options);
   ~Daemon();

   // Runs until SIGTERM or SIGINT; SIGHUP reloads the configuration file. Returns
   // the process exit code: 0 after a clean stop, 1 when the configuration or the
   // control socket keeps the agent from starting. Under systemd (Type=notify) it
   // reports READY=1 once started, RELOADING=1 and READY=1 around a reload, and
   // STOPPING=1 when told to stop.
   int run();

 private:
   // Reads the file on the reader's thread and applies it on the loop; `done` hears the
   // errors. Reloads asked for while one runs share one more read once it ends: the file
   // may have changed since the running read began.
   void doReload(ControlCommands::ReloadDone done);
   void doStartRead();
   // Brings the metrics endpoint to the configuration in force.
   void doApplyMetrics();
   // Tells systemd the agent is ready the first time it is: the control socket listens
   // and the agent's object graph is built. Until then it looks again shortly.
   void doCheckReady();
   bool agentReady() const;
   // Once ready: the prefix bindings of the previous run go back to the DHCPv6 relay, which
   // keeps the file up to date from then on; what has not come back after kRestoreSeconds
   // (interfaces that are slow to relay again) loses its route.
   void doRestorePrefixBindings();
   // The agent's DHCPv6 relay; null until its object graph is built.
   DhcpRelaySmv6* relay6() const;
   static constexpr double kRestoreSeconds = 10;

   static constexpr double kReadyPollSeconds = 0.02;

   DaemonOptions options_;
   Platform::Fd namespaceClaim_;
   Platform::MonotonicClock monotonic_;
   Platform::UtcClock utc_;
   Platform::TimerWheel wheel_;
   Platform::EventLoop loop_;
   Platform::Timer readyTimer_;
   bool ready_ = false;
   Platform::StateStore store_;
   Frontend::ConfigFrontEnd config_;
   Frontend::ConfigReader reader_;
   std::vector<ControlCommands::ReloadDone> reloadWaiters_;
   std::unique_ptr<Frontend::KernelFrontEnd> kernel_;
   Frontend::ControlServer server_;
   std::unique_ptr<ControlCommands> commands_;
   // After the commands it renders through, so that it closes first.
   Frontend::MetricsServer metrics_;
   Platform::AgentContext ctx_;
   std::unique_ptr<Platform::Agent> agent_;
   std::unique_ptr<Frontend::PrefixBindingFile> prefixBindings_;
   Platform::Timer restoreTimer_;
};

}  // namespace Ip::Helper::DhcpRelay
