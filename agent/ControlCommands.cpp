#include "agent/ControlCommands.h"

#include "frontend/ConfigJson.h"
#include "frontend/ControlProtocol.h"
#include "model/switch/KernelNetInfo.h"
#include "model/switch/VrfStatus.h"
#include "platform/KernelFrontEnd.h"

namespace Ip::Helper::DhcpRelay {

using nlohmann::json;

namespace {

json counters(const auto& record) {
   json out = json::object();
   record.forEachCounter([&](std::string_view name, uint64_t v) { out[std::string(name)] = v; });
   return out;
}

json kernelIntfJson(const KernelNetInfo::KernelIntf& k, const Platform::IntfId& intfId) {
   json ipv4 = json::array();
   for (const auto& a : k.ipv4())
      ipv4.push_back(a.toString());
   json ipv6 = json::array();
   for (const auto& a : k.ipv6())
      ipv6.push_back(a.toString());
   const std::string id = intfId.toString();
   return {{"ifindex", k.ifindex()},
           {"device", k.deviceName()},
           {"mac", k.mac().isZero() ? json(nullptr) : json(k.mac().toString())},
           {"up", k.up()},
           {"running", k.running()},
           {"ipv4", ipv4},
           {"ipv6", ipv6},
           {"intfId", id.empty() ? json(nullptr) : json(id)}};
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

Ptr<const Ip::AllVrfStatusLocal> ControlCommands::vrfs() const {
   auto vrfs = store_.publishedAs<const Ip::AllVrfStatusLocal>("ip/vrf/status/local");
   if (!vrfs)
      throw Frontend::ControlError("the VRF status is not published yet");
   return vrfs;
}

json ControlCommands::doShowVrfs() const {
   json out = json::array();
   for (const auto& [name, vrf] : vrfs()->vrf()) {
      out.push_back({{"vrf", name.toString()},
                     {"namespace", vrf->nsName().toString()},
                     {"active", vrf->state() == Ip::VrfStatusLocal::State::active}});
   }
   return out;
}

json ControlCommands::doShowInterfaces() const {
   const Interface::DeviceNameConfig& devices = *config_.targets().deviceNames;
   json out = json::array();
   for (const auto& [name, vrf] : vrfs()->vrf()) {
      const bool active = vrf->state() == Ip::VrfStatusLocal::State::active;
      json intfs = json::array();
      auto table = store_.publishedAs<const KernelNetInfo::Status>(
          Platform::kernelTablePath(vrf->nsName().toString()));
      if (active && table) {
         for (const auto& [ifindex, k] : table->interfaceByIndex())
            intfs.push_back(kernelIntfJson(*k, devices.intfIdOf(k->deviceName())));
      }
      out.push_back({{"vrf", name.toString()},
                     {"namespace", vrf->nsName().toString()},
                     {"active", active},
                     {"interfaces", intfs}});
   }
   return {{"vrfs", out}};
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
