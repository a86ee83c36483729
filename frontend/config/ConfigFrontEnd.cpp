#include "frontend/config/ConfigFrontEnd.h"

#include <chrono>
#include <map>
#include <set>

#include "frontend/config/ConfigParser.h"
#include "frontend/config/ConfigReader.h"
#include "model/switch/SystemStatus.h"
#include "model/switch/VrfStatus.h"
#include "platform/trace/Trace.h"

namespace Frontend {

using Platform::make;

ConfigFrontEnd::ConfigFrontEnd(Platform::StateStore& store, std::string path)
    : store_(store), path_(std::move(path)) {
   targets_.relay = make<Ip::Helper::DhcpRelay::Config>("config");
   targets_.snooping = make<Bridging::DhcpSnooping::Config>("config");
   targets_.snooping6 = make<Bridging::DhcpSnooping::Dhcp6Config>("dhcp6Config");
   targets_.vrfs = make<Ip::AllVrfStatusLocal>("local");
   targets_.netStatus = make<System::NetStatus>("status");
   targets_.entityMib = make<EntityMib::Status>("entmib");
   targets_.bridging = make<Bridging::Config>("config");
   targets_.deviceNames = make<Interface::DeviceNameConfig>("deviceName");
   counterConfig_ = make<Ip::Helper::DhcpRelay::CounterConfig>("counterConfig");
   snoopingCounterConfig_ = make<Bridging::DhcpSnooping::CounterConfig>("counterConfig");
   snooping6CounterConfig_ = make<Bridging::DhcpSnooping::CounterConfig>("dhcp6CounterConfig");
   mlagStatus_ = make<MlagDhcpRelay::Status>("mlagStatus");
   vlanStatus_ = make<Bridging::VlanStatusDir>("status");

   store_.publish("ip/helper/dhcprelay/config", targets_.relay);
   store_.publish("ip/helper/dhcprelay/counterConfig", counterConfig_);
   store_.publish("ip/helper/dhcprelay/mlagStatus", mlagStatus_);
   store_.publish("ip/vrf/status/local", targets_.vrfs);
   store_.publish("bridging/config", targets_.bridging);
   store_.publish("interface/config/deviceName", targets_.deviceNames);
   store_.publish("bridging/vlan/status", vlanStatus_);
   store_.publish("bridging/dhcpsnooping/config", targets_.snooping);
   store_.publish("bridging/dhcpsnooping/counterConfig", snoopingCounterConfig_);
   store_.publish("bridging/dhcpsnooping/dhcp6Config", targets_.snooping6);
   store_.publish("bridging/dhcpsnooping/dhcp6CounterConfig", snooping6CounterConfig_);
   store_.publish("sys/net/status", targets_.netStatus);
   store_.publish("hardware/entmib", targets_.entityMib);
}

std::vector<std::string> ConfigFrontEnd::load() {
   return apply(readConfigFile(path_));
}

std::vector<std::string> ConfigFrontEnd::apply(ParsedConfig parsed) {
   if (!parsed.ok()) {
      for (const std::string& e : parsed.errors)
         TRACE(0, " configuration refused: ", e);
      return parsed.errors;
   }
   fileWarnings_ = std::move(parsed.warnings);
   deviceWarnings_ = std::move(parsed.deviceWarnings);
   for (const std::string& w : warnings())
      TRACE(1, " configuration warning: ", w);
   loadedAt_ =
       std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
   applyConfig(parsed.document, targets_, &document_);
   document_ = std::move(parsed.document);
   doApplyVlanMembership();
   // What the operator configured, in one line at every reload (and at start, once the
   // trace is up).
   TRACE(1, " configuration loaded from ", path_, ": ", summary());
   return {};
}

std::vector<std::string> ConfigFrontEnd::warnings() const {
   std::vector<std::string> all = fileWarnings_;
   all.insert(all.end(), deviceWarnings_.begin(), deviceWarnings_.end());
   return all;
}

std::string ConfigFrontEnd::summary() const {
   size_t relaying = 0, servers = 0, servers6 = 0;
   for (const auto& [intf, cfg] : document_.interfaces) {
      relaying += !cfg.servers.empty() || !cfg.serversV6.empty();
      servers += cfg.servers.size();
      servers6 += cfg.serversV6.size();
   }
   return std::to_string(relaying) + " of " + std::to_string(document_.interfaces.size()) +
          " interfaces relay, to " + std::to_string(servers) + " DHCPv4 and " +
          std::to_string(servers6) + " DHCPv6 server entries; " +
          std::to_string(document_.vrfs.size() + 1) + " VRFs; snooping " +
          (document_.snooping.enabled ? "on" : "off");
}

void ConfigFrontEnd::doApplyVlanMembership() {
   std::map<uint16_t, std::set<Platform::IntfId>> want;
   for (const auto& [port, cfg] : document_.ports) {
      if (cfg.mode == SwitchportMode::access) {
         want[cfg.vlan].insert(port);
      } else {
         for (uint16_t vlan : cfg.allowedVlans)
            want[vlan].insert(port);
         want[cfg.nativeVlan].insert(port);
      }
   }
   std::vector<uint16_t> gone;
   for (const auto& [vlan, status] : vlanStatus_->vlanStatus()) {
      if (!want.count(vlan))
         gone.push_back(vlan);
   }
   for (uint16_t vlan : gone)
      vlanStatus_->vlanStatusDel(vlan);
   for (const auto& [vlan, ports] : want) {
      auto status = vlanStatus_->vlanStatusIs(vlan);
      std::vector<Platform::IntfId> left;
      for (const auto& port : status->vlanPortStatus()) {
         if (!ports.count(port))
            left.push_back(port);
      }
      for (const auto& port : left)
         status->vlanPortStatusDel(port);
      for (const auto& port : ports)
         status->vlanPortStatusIs(port);
   }
}

}  // namespace Frontend
