#pragma once

#include <functional>
#include <string>
#include <vector>

#include "frontend/config/ConfigFrontEnd.h"
#include "frontend/control/ControlServer.h"
#include "frontend/metrics/MetricsServer.h"
#include "model/Status.h"
#include "model/switch/VrfStatus.h"
#include "platform/loop/Clock.h"
#include "relay6/DhcpRelaySmv6.h"

namespace Ip::Helper::DhcpRelay {

// The operator's view of the running agent: answers dhcp-relay-ctl's requests
// from the configuration in force, the kernel and the relay's status records.
class ControlCommands {
 public:
   // `reload` re-reads the configuration file off the event loop and, once it is applied
   // or refused, calls back with what is wrong with it (nothing when it was applied).
   using ReloadDone = std::function<void(const std::vector<std::string>& errors)>;
   using Reload = std::function<void(ReloadDone done)>;

   ControlCommands(Frontend::ControlServer& server, const Frontend::ConfigFrontEnd& config,
                   const Platform::StateStore& store, const Platform::Clock& utc, Reload reload,
                   const Frontend::MetricsServer& metrics);

   // The metrics endpoint's text: the counters show counters would give at this moment.
   std::string metricsText() const;
   // Where show duid-bindings finds the DHCPv6 relay: null until the agent has built it.
   void relay6Is(std::function<const DhcpRelaySmv6*()> relay6) { relay6_ = std::move(relay6); }

 private:
   nlohmann::json doShow(const nlohmann::json& request) const;
   Ptr<const Ip::AllVrfStatusLocal> vrfs() const;
   nlohmann::json doShowVrfs() const;
   nlohmann::json doShowInterfaces() const;
   nlohmann::json doShowStatus() const;
   nlohmann::json doShowRoutes() const;
   nlohmann::json doShowCounters(const nlohmann::json& request) const;
   nlohmann::json doShowDuidBindings() const;
   nlohmann::json doClear(const nlohmann::json& request) const;
   // The relay's published status: the DHCPv4 relay's, or with `v6` the DHCPv6 relay's.
   Ptr<const Status> status(bool v6 = false) const;
   struct MissingDevice {
      Platform::IntfId intf;
      std::string device;
      Platform::VrfName vrf;
   };
   std::vector<MissingDevice> missingDevices() const;
   nlohmann::json reloadReply(const std::vector<std::string>& errors) const;
   static nlohmann::json doTrace(const nlohmann::json& request);

   const Frontend::ConfigFrontEnd& config_;
   const Platform::StateStore& store_;
   const Platform::Clock& utc_;
   Reload reload_;
   const Frontend::MetricsServer& metrics_;
   double startTime_;
   std::function<const DhcpRelaySmv6*()> relay6_;
};

}  // namespace Ip::Helper::DhcpRelay
