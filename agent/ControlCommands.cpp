#include "agent/ControlCommands.h"

#include <map>

#include "frontend/ConfigJson.h"
#include "frontend/ControlProtocol.h"
#include "platform/KernelInterfaces.h"
#include "platform/NetNs.h"

namespace Ip::Helper::DhcpRelay {

using nlohmann::json;

namespace {

// One VRF as the operator sees it: the default VRF is the agent's own namespace.
struct VrfView {
   std::string vrf;
   std::string ns;
   bool active;
};

std::vector<VrfView> vrfViews(const Frontend::ConfigDocument& doc) {
   std::vector<VrfView> out{{Platform::VrfName::defaultVrf().toString(), "", true}};
   for (const auto& [vrf, ns] : doc.vrfs) {
      out.push_back({vrf.toString(), ns.toString(), Platform::netNsExists(ns.toString())});
   }
   return out;
}

json counters(const auto& record) {
   json out = json::object();
   record.forEachCounter([&](std::string_view name, uint64_t v) { out[std::string(name)] = v; });
   return out;
}

}  // namespace

ControlCommands::ControlCommands(Frontend::ControlServer& server,
                                 const Frontend::ConfigFrontEnd& config,
                                 const Platform::StateStore& store, Reload reload)
    : config_(config), store_(store), reload_(std::move(reload)) {
   server.handlerIs("show", [this](const json& r) { return doShow(r); });
   server.handlerIs("reload", [this](const json&) { return doReload(); });
}

json ControlCommands::doShow(const json& request) const {
   const std::string& what = Frontend::requestString(request, "what");
   if (what == "config") {
      json out = Frontend::configDocumentJson(config_.document());
      out["file"] = config_.path();
      return out;
   }
   if (what == "vrfs")
      return doShowVrfs();
   if (what == "interfaces")
      return doShowInterfaces();
   if (what == "status")
      return doShowStatus();
   throw Frontend::ControlError("cannot show \"" + what +
                                "\": choose config, interfaces, vrfs or status");
}

json ControlCommands::doShowVrfs() const {
   json out = json::array();
   for (const VrfView& v : vrfViews(config_.document())) {
      out.push_back({{"vrf", v.vrf}, {"namespace", v.ns}, {"active", v.active}});
   }
   return out;
}

json ControlCommands::doShowInterfaces() const {
   // A device is the system interface of the same name unless the file maps a
   // system interface onto it.
   const auto& devices = config_.document().devices;
   std::map<std::string, std::string> systemName;
   for (const auto& [intf, dev] : devices)
      systemName[dev] = intf.toString();
   auto intfIdOf = [&](const std::string& device) -> std::optional<std::string> {
      if (auto it = systemName.find(device); it != systemName.end())
         return it->second;
      auto id = Platform::IntfId::parse(device);
      if (id && !devices.count(*id))
         return device;
      return std::nullopt;
   };

   json vrfs = json::array();
   for (const VrfView& v : vrfViews(config_.document())) {
      json entry = {{"vrf", v.vrf}, {"namespace", v.ns}, {"active", v.active}};
      json intfs = json::array();
      if (v.active) {
         std::string error;
         for (const auto& k : Platform::listKernelInterfaces(v.ns, error)) {
            intfs.push_back(Frontend::kernelInterfaceJson(k, intfIdOf(k.device)));
         }
         if (!error.empty())
            entry["error"] = error;
      }
      entry["interfaces"] = intfs;
      vrfs.push_back(entry);
   }
   return {{"vrfs", vrfs}};
}

json ControlCommands::doShowStatus() const {
   auto status = store_.entityConst<Status>("ip/helper/dhcprelay/status");
   if (!status)
      throw Frontend::ControlError("the relay status is not mounted yet");
   json intfs = json::object();
   for (const auto& [intf, s] : status->intfStatus()) {
      json bindings = json::array();
      for (const auto& [prefix, b] : s->prefixBinding()) {
         const PrefixBindingAttrs& a = b->addrAttrs();
         bindings.push_back({{"prefix", prefix.toString()},
                             {"nextHop", a.nextHop.toString()},
                             {"vrf", a.vrf.toString()},
                             {"preferredLifetime", a.preferredLifetime},
                             {"validLifetime", a.validLifetime}});
      }
      intfs[intf.toString()] = {{"lastResetTime", s->lastResetTime()},
                                {"counters", counters(*s)},
                                {"prefixBindings", bindings}};
   }
   return {{"counters", counters(*status)},
           {"interfaces", intfs},
           {"numSmartRelayedHosts", status->numSmartRelayedHosts()},
           {"counterUpdateTime", status->counterUpdateTime()},
           {"lastResetAllTime", status->lastResetAllTime()},
           {"runControl", status->runControl()}};
}

json ControlCommands::doReload() const {
   std::vector<std::string> errors = reload_();
   if (!errors.empty()) {
      std::string text;
      for (const std::string& e : errors)
         text += (text.empty() ? "" : "\n") + e;
      throw Frontend::ControlError(text);
   }
   return {{"file", config_.path()}};
}

}  // namespace Ip::Helper::DhcpRelay
