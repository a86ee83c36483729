#include "agent/Daemon.h"

#include <systemd/sd-daemon.h>
#include <time.h>

#include <csignal>
#include <cstdio>

#include "agent/DhcpRelayAgent.h"
#include "agent/ProcessChecks.h"
#include "model/switch/VrfStatus.h"
#include "platform/trace/Trace.h"

namespace Ip::Helper::DhcpRelay {

Daemon::Daemon(const DaemonOptions& options)
    : options_(options),
      wheel_(monotonic_, utc_),
      loop_(wheel_),
      readyTimer_(wheel_, [this] { doCheckReady(); }),
      store_([this](std::function<void()> fn) { loop_.post(std::move(fn)); }),
      config_(store_, options.configPath),
      reader_(loop_),
      server_(loop_, options.socketPath),
      metrics_(loop_, [this] { return commands_->metricsText(); }),
      ctx_{loop_, Agent::kAgentName},
      restoreTimer_(wheel_, [this] {
         if (DhcpRelaySmv6* relay6 = this->relay6())
            relay6->handleRestoreSettled();
      }) {}

Daemon::~Daemon() {
   // The agent's machines go first, in the reverse of the order they were built,
   // while the records and the loop they use still exist.
   restoreTimer_.cancel();
   if (DhcpRelaySmv6* relay6 = this->relay6())
      relay6->bindingJournalIs(nullptr);
   agent_.reset();
   Platform::Trace::shutdown();
}

int Daemon::run() {
   // The configuration file must be good before anything starts.
   store_.frontEndPending(Frontend::ConfigFrontEnd::kName);
   if (auto errors = config_.load(); !errors.empty()) {
      for (const std::string& e : errors)
         std::fprintf(stderr, "%s\n", e.c_str());
      return 1;
   }
   std::string error;
   namespaceClaim_ = claimNamespace(error);
   if (!namespaceClaim_ || !probeRelayPrivileges(error) || !server_.start(error)) {
      std::fprintf(stderr, "%s\n", error.c_str());
      return 1;
   }
   // Not inside the TRACE: its pieces are evaluated only when a sink keeps the line, and
   // the trace starts later.
   const unsigned long files = raiseFileLimit();
   commands_ = std::make_unique<ControlCommands>(
       server_, config_, store_, utc_,
       [this](ControlCommands::ReloadDone done) { doReload(std::move(done)); }, metrics_);

   Platform::AgentRegistry registry;
   registry.agentFactoryIs(Agent::kAgentName, agentFactory);
   agent_ = registry.agentNew(Agent::kAgentName, ctx_);
   agent_->doInit(store_);
   commands_->relay6Is([this]() -> const DhcpRelaySmv6* { return relay6(); });
   TRACE(1, " starting with ", config_.path(), ": ", config_.summary(),
         "; open descriptors allowed: ", files);
   for (const std::string& w : config_.warnings())
      TRACE(1, " configuration warning: ", w);
   doApplyMetrics();
   // VRF namespaces, interfaces and addresses, followed live from the kernel; built
   // once tracing runs, and published before the agent's mounts complete.
   kernel_ = std::make_unique<Frontend::KernelFrontEnd>(loop_, store_);
   store_.frontEndReady(Frontend::ConfigFrontEnd::kName);

   auto stop = [this] {
      sd_notify(0, "STOPPING=1");
      loop_.stop();
   };
   loop_.onSignal(SIGTERM, stop);
   loop_.onSignal(SIGINT, stop);
   loop_.onSignal(SIGHUP, [this] { doReload([](const std::vector<std::string>&) {}); });
   doCheckReady();
   loop_.run();
   TRACE(1, " stopping");
   return 0;
}

void Daemon::doReload(ControlCommands::ReloadDone done) {
   reloadWaiters_.push_back(std::move(done));
   if (!reader_.busy())
      doStartRead();
}

void Daemon::doStartRead() {
   // systemd holds `systemctl reload` until READY=1 follows; the time stamp tells this
   // reload from an earlier one. Before the agent is ready there is nothing to hold.
   if (ready_) {
      timespec now{};
      clock_gettime(CLOCK_MONOTONIC, &now);
      sd_notifyf(0, "RELOADING=1\nMONOTONIC_USEC=%llu",
                 static_cast<unsigned long long>(now.tv_sec) * 1'000'000ULL +
                     static_cast<unsigned long long>(now.tv_nsec) / 1'000ULL);
   }
   TRACE(2, " reading ", config_.path());
   reader_.read(config_.path(),
                [this, waiters = std::move(reloadWaiters_)](Frontend::ParsedConfig parsed) {
                   const std::vector<std::string> errors = config_.apply(std::move(parsed));
                   if (errors.empty()) {
                      TRACE(1, " configuration reloaded from ", config_.path());
                      doApplyMetrics();
                   }
                   // A refused file leaves the running configuration in force: the agent is as
                   // ready as before, and the refusal reaches the operator through dhcp-relay-ctl's
                   // exit status.
                   if (ready_)
                      sd_notify(0, "READY=1");
                   for (const ControlCommands::ReloadDone& done : waiters)
                      done(errors);
                   if (!reloadWaiters_.empty())
                      doStartRead();
                });
   reloadWaiters_.clear();
}

// A port another program holds is no reason to stop relaying: the failure is traced and
// shown among show status' warnings, and the next reload tries again.
void Daemon::doApplyMetrics() {
   const Frontend::MetricsDoc& m = config_.document().metrics;
   metrics_.listenIs(m.address, m.port);
}

// Ready once every VRF the relay needs and the kernel has (its namespace exists) has had
// its sockets opened, or failed to (that VRF then shows its error): a VRF waiting for its
// namespace would otherwise hold the service in "activating" for good.
bool Daemon::agentReady() const {
   const auto* agent = dynamic_cast<const Agent*>(agent_.get());
   if (!server_.listening() || !agent || !agent->objectGraphBuilt())
      return false;
   const auto vrfs = store_.publishedAs<const Ip::AllVrfStatusLocal>("ip/vrf/status/local");
   const Ptr<Status>& relay = agent->localDhcpRelayStatus();
   const Ptr<Status>& relay6 = agent->localDhcp6RelayStatus();
   if (!vrfs || !relay || !relay6 || !agent->activeVrfDirv4() || !agent->activeVrfDirv6())
      return false;
   const auto tried = [&](const VrfWithCountDir& active, const Status& status, bool withDefault) {
      for (const auto& [name, count] : active.vrfCount()) {
         if (name.isDefault() && !withDefault)
            continue;
         const auto vrf = vrfs->vrf(name);
         if (vrf && vrf->state() == Ip::VrfStatusLocal::State::active &&
             !status.vrfSocketsTried(name))
            return false;
      }
      return true;
   };
   // The DHCPv6 relay has its default VRF socket only while it runs.
   const bool default6 =
       !relay6->runControl() || relay6->vrfSocketsTried(Platform::VrfName::defaultVrf());
   return tried(*agent->activeVrfDirv4(), *relay, true) &&
          tried(*agent->activeVrfDirv6(), *relay6, false) && default6;
}

void Daemon::doCheckReady() {
   if (ready_)
      return;
   if (!agentReady()) {
      readyTimer_.armIn(kReadyPollSeconds);
      return;
   }
   ready_ = true;
   const Status& relay = *dynamic_cast<const Agent&>(*agent_).localDhcpRelayStatus();
   const Status& relay6 = *dynamic_cast<const Agent&>(*agent_).localDhcp6RelayStatus();
   TRACE(1, " ready: relay sockets open in ",
         relay.vrfSocketsTried().size() - relay.vrfSocketError().size(), " VRFs, failed in ",
         relay.vrfSocketError().size(), "; DHCPv6 relay sockets open in ",
         relay6.vrfSocketsTried().size() - relay6.vrfSocketError().size(), " VRFs, failed in ",
         relay6.vrfSocketError().size());
   doRestorePrefixBindings();
   sd_notify(0, "READY=1");
}

DhcpRelaySmv6* Daemon::relay6() const {
   const auto* agent = dynamic_cast<const Agent*>(agent_.get());
   return agent && agent->dhcp6Root() ? agent->dhcp6Root()->dhcpRelaySmv6() : nullptr;
}

void Daemon::doRestorePrefixBindings() {
   DhcpRelaySmv6* relay6 = this->relay6();
   if (!relay6)
      return;
   std::string path = options_.stateFile;
   if (path.empty()) {
      const size_t slash = options_.socketPath.rfind('/');
      path =
          (slash == std::string::npos ? std::string(".") : options_.socketPath.substr(0, slash)) +
          "/prefix-bindings.json";
   }
   std::vector<std::string> errors;
   std::vector<SavedPrefixBinding> saved = Frontend::PrefixBindingFile::load(path, errors);
   for (const std::string& e : errors)
      TRACE(1, " ", e);
   TRACE(1, " ", saved.size(), " prefix bindings of the previous run in ", path);
   prefixBindings_ = std::make_unique<Frontend::PrefixBindingFile>(
       loop_, path, [relay6] { return relay6->savedBindings(); });
   relay6->bindingJournalIs(prefixBindings_.get());
   relay6->restoredBindingsIs(std::move(saved));
   restoreTimer_.armIn(kRestoreSeconds);
}

}  // namespace Ip::Helper::DhcpRelay
