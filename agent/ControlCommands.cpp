#include "agent/ControlCommands.h"

#include <fmt/format.h>
#include <unistd.h>

#include <map>
#include <set>

#include "frontend/config/ConfigJson.h"
#include "frontend/control/ControlProtocol.h"
#include "frontend/kernel/KernelFrontEnd.h"
#include "frontend/metrics/MetricsText.h"
#include "model/switch/KernelNetInfo.h"
#include "model/switch/VrfStatus.h"
#include "platform/trace/Trace.h"

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

json prefixBindingJson(const Platform::Ip6Prefix& prefix, const PrefixBindingAttrs& a) {
   return {{"prefix", prefix.toString()},
           {"nextHop", a.nextHop.toString()},
           {"vrf", a.vrf.toString()},
           {"preferredLifetime", a.preferredLifetime},
           {"validLifetime", a.validLifetime}};
}

json drops(const Status& status, uint8_t families) {
   json out = json::object();
   status.forEachDrop([&](std::string_view name, uint64_t v) { out[std::string(name)] = v; },
                      families);
   return out;
}

// "192.0.2.10", "198.51.100.7 vrf red from Loopback0", "dhcp.example.net from 192.0.2.1".
std::string serverText(const Frontend::ServerDoc& s) {
   std::string out = s.hostname.empty() ? s.address.toString() : s.hostname;
   out += " vrf " + s.vrf.toString();
   if (!s.sourceInterface.empty())
      out += " from " + s.sourceInterface.toString();
   else if (!s.sourceAddress.isEmpty())
      out += " from " + s.sourceAddress.toString();
   return out;
}

json warnings(const IntfStatus& s) {
   json out = json::array();
   if (s.smartRelayNoSecondary())
      out.push_back(
          "smart relay is on but the interface has no secondary address: relaying "
          "from the primary address");
   return out;
}

}  // namespace

ControlCommands::ControlCommands(Frontend::ControlServer& server,
                                 const Frontend::ConfigFrontEnd& config,
                                 const Platform::StateStore& store, const Platform::Clock& utc,
                                 Reload reload, const Frontend::MetricsServer& metrics)
    : config_(config),
      store_(store),
      utc_(utc),
      reload_(std::move(reload)),
      metrics_(metrics),
      startTime_(utc.now()) {
   server.handlerIs("show", [this](const json& r) { return doShow(r); });
   server.handlerIs("clear", [this](const json& r) { return doClear(r); });
   server.asyncHandlerIs("reload", [this](const json&, Frontend::ControlServer::Reply reply) {
      reload_(
          [this, reply](const std::vector<std::string>& errors) { reply(reloadReply(errors)); });
   });
   server.handlerIs("trace", [](const json& r) { return doTrace(r); });
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
   if (what == "counters")
      return doShowCounters(request);
   if (what == "routes")
      return doShowRoutes();
   if (what == "duid-bindings")
      return doShowDuidBindings();
   throw Frontend::ControlError(
       "cannot show \"" + what +
       "\": choose config, interfaces, vrfs, status, counters, routes or duid-bindings");
}

// The DHCPv6 relay's prefix bindings, each the route it keeps in its VRF's namespace.
json ControlCommands::doShowRoutes() const {
   config_.counterConfig()->counterUpdateRequestTimeIs(utc_.now());
   const double now = utc_.now();
   json routes = json::array();
   for (const auto& [intf, s] : status(true)->intfStatus()) {
      for (const auto& [prefix, b] : s->prefixBinding()) {
         const PrefixBindingAttrs& a = b->addrAttrs();
         const bool never = a.validLifetime == 0 || a.validLifetime == 0xffffffff;
         json route = prefixBindingJson(prefix, a);
         route["interface"] = intf.toString();
         route["writeTime"] = a.writeTime;
         route["remaining"] =
             never ? json(nullptr) : json(std::max(0.0, a.writeTime + a.validLifetime - now));
         routes.push_back(std::move(route));
      }
   }
   return {{"routes", routes}};
}

Ptr<const Ip::AllVrfStatusLocal> ControlCommands::vrfs() const {
   auto vrfs = store_.publishedAs<const Ip::AllVrfStatusLocal>("ip/vrf/status/local");
   if (!vrfs)
      throw Frontend::ControlError("the VRF status is not published yet");
   return vrfs;
}

json ControlCommands::doShowVrfs() const {
   config_.counterConfig()->counterUpdateRequestTimeIs(utc_.now());
   const Ptr<const Status> relay = store_.entityConst<Status>("ip/helper/dhcprelay/status");
   json out = json::array();
   for (const auto& [name, vrf] : vrfs()->vrf()) {
      out.push_back({{"vrf", name.toString()},
                     {"namespace", vrf->nsName().toString()},
                     {"active", vrf->state() == Ip::VrfStatusLocal::State::active}});
      if (relay && !relay->vrfSocketError(name).empty())
         out.back()["error"] = relay->vrfSocketError(name);
   }
   return out;
}

// Relaying interfaces whose device the agent does not see in their VRF (its namespace
// missing included), checked at each request: the file may name devices that appear later.
std::vector<ControlCommands::MissingDevice> ControlCommands::missingDevices() const {
   const Frontend::ConfigDocument& doc = config_.document();
   const Ptr<const Ip::AllVrfStatusLocal> all = vrfs();
   std::map<Platform::VrfName, std::set<std::string>> present;
   std::vector<MissingDevice> out;
   for (const auto& [intf, cfg] : doc.interfaces) {
      auto [seen, fresh] = present.try_emplace(cfg.vrf);
      const Ptr<const Ip::VrfStatusLocal> vrf = all->vrf(cfg.vrf);
      if (fresh && vrf && vrf->state() == Ip::VrfStatusLocal::State::active) {
         if (auto table = store_.publishedAs<const KernelNetInfo::Status>(
                 KernelNetInfo::kernelTablePath(vrf->nsName().toString()))) {
            for (const auto& [ifindex, k] : table->interfaceByIndex())
               seen->second.insert(k->deviceName());
         }
      }
      std::string device = doc.deviceOf(intf);
      if (!seen->second.contains(device))
         out.push_back({intf, std::move(device), cfg.vrf});
   }
   return out;
}

json ControlCommands::doShowInterfaces() const {
   const Interface::DeviceNameConfig& devices = *config_.targets().deviceNames;
   std::map<Platform::VrfName, json> missing;
   for (const MissingDevice& m : missingDevices())
      missing[m.vrf].push_back({{"intfId", m.intf.toString()}, {"device", m.device}});
   json out = json::array();
   for (const auto& [name, vrf] : vrfs()->vrf()) {
      const bool active = vrf->state() == Ip::VrfStatusLocal::State::active;
      json intfs = json::array();
      auto table = store_.publishedAs<const KernelNetInfo::Status>(
          KernelNetInfo::kernelTablePath(vrf->nsName().toString()));
      if (active && table) {
         for (const auto& [ifindex, k] : table->interfaceByIndex())
            intfs.push_back(kernelIntfJson(*k, devices.intfIdOf(k->deviceName())));
      }
      out.push_back({{"vrf", name.toString()},
                     {"namespace", vrf->nsName().toString()},
                     {"active", active},
                     {"interfaces", intfs}});
      if (auto m = missing.find(name); m != missing.end())
         out.back()["missing"] = std::move(m->second);
   }
   return {{"vrfs", out}};
}

Ptr<const Status> ControlCommands::status(bool v6) const {
   // The DHCPv6 relay's is mounted with the DHCPv4 one.
   auto status = store_.entityConst<Status>(v6 ? "ip/helper/dhcprelay/status6"
                                               : "ip/helper/dhcprelay/status");
   if (!status)
      throw Frontend::ControlError("the relay status is not mounted yet");
   return status;
}

json ControlCommands::doShowStatus() const {
   // Published at once, so that these counters are those show counters would give.
   config_.counterConfig()->counterUpdateRequestTimeIs(utc_.now());
   auto status = this->status();
   json warned = config_.fileWarnings();
   for (const auto& [vrf, error] : status->vrfSocketError())
      warned.push_back("VRF " + vrf.toString() + " relays nothing: " + error);
   if (!metrics_.error().empty())
      warned.push_back("metrics endpoint not served: " + metrics_.error());
   std::map<Platform::IntfId, std::string> missing;
   for (const MissingDevice& m : missingDevices()) {
      std::string text = "device \"" + m.device + "\" does not exist in VRF " + m.vrf.toString() +
                         ": the interface relays nothing until it appears";
      warned.push_back(m.intf.toString() + ": " + text);
      missing.emplace(m.intf, std::move(text));
   }
   // One family's interfaces: their counters, servers of that family and warnings.
   const auto interfaces = [&](const Status& st, bool v6) {
      json intfs = json::object();
      for (const auto& [intf, s] : st.intfStatus()) {
         json bindings = json::array();
         for (const auto& [prefix, b] : s->prefixBinding())
            bindings.push_back(prefixBindingJson(prefix, b->addrAttrs()));
         json intfWarnings = warnings(*s);
         if (auto m = missing.find(intf); m != missing.end())
            intfWarnings.push_back(m->second);
         json servers = json::array();
         if (auto cfg = config_.document().interfaces.find(intf);
             cfg != config_.document().interfaces.end()) {
            for (const Frontend::ServerDoc& server :
                 v6 ? cfg->second.serversV6 : cfg->second.servers)
               servers.push_back(serverText(server));
         }
         intfs[intf.toString()] = {{"lastResetTime", s->lastResetTime()},
                                   {"counters", counters(*s)},
                                   {"servers", servers},
                                   {"warnings", intfWarnings}};
         if (v6)
            intfs[intf.toString()]["prefixBindings"] = bindings;
      }
      return intfs;
   };
   auto status6 = this->status(true);
   for (const auto& [vrf, error] : status6->vrfSocketError())
      warned.push_back("VRF " + vrf.toString() + " relays no DHCPv6: " + error);
   const double now = utc_.now();
   return {{"counters", counters(*status)},
           {"drops", drops(*status, kDropV4)},
           {"interfaces", interfaces(*status, false)},
           {"dhcpv6",
            {{"counters", counters(*status6)},
             {"drops", drops(*status6, kDropV6)},
             {"interfaces", interfaces(*status6, true)},
             {"prefixBindingsRefused", status6->prefixBindingsRefused()},
             {"counterUpdateTime", status6->counterUpdateTime()},
             {"runControl", status6->runControl()}}},
           {"numSmartRelayedHosts", status->numSmartRelayedHosts()},
           {"numClientBindings", status->numClientBindings()},
           {"clientBindingsRefused", status->clientBindingsRefused()},
           {"counterUpdateTime", status->counterUpdateTime()},
           {"lastResetAllTime", status->lastResetAllTime()},
           {"runControl", status->runControl()},
           {"families",
            {{"dhcpv4", status->runControl() ? "running" : "idle"},
             {"dhcpv6", status6->runControl() ? "running" : "idle"}}},
           {"agent",
            {{"version", DHCP_RELAY_VERSION},
             {"pid", ::getpid()},
             {"startTime", startTime_},
             {"uptime", now - startTime_}}},
           {"config", {{"file", config_.path()}, {"loadedAt", config_.loadedAt()}}},
           {"warnings", warned}};
}

// The published counters lag the packet paths by up to the publication interval;
// asking for them first makes the counters machine publish at once.
json ControlCommands::doShowCounters(const json& request) const {
   config_.counterConfig()->counterUpdateRequestTimeIs(utc_.now());
   const bool one = request.contains("interface");
   const std::string& wanted = one ? Frontend::requestString(request, "interface") : "";
   bool found = false;
   const auto family = [&](const Status& status, uint8_t dropFamilies) {
      json intfs = json::object();
      for (const auto& [intf, s] : status.intfStatus()) {
         if (one && intf.toString() != wanted)
            continue;
         found = true;
         intfs[intf.toString()] = {{"lastResetTime", s->lastResetTime()},
                                   {"counters", counters(*s)}};
      }
      json out = {{"counterUpdateTime", status.counterUpdateTime()}, {"interfaces", intfs}};
      if (!one) {
         out["lastResetAllTime"] = status.lastResetAllTime();
         out["counters"] = counters(status);
         out["drops"] = drops(status, dropFamilies);
      }
      return out;
   };
   // DHCPv4 at the top, as before DHCPv6 came; DHCPv6 in the same shape beside it.
   json out = family(*status(), kDropV4);
   out["dhcpv6"] = family(*status(true), kDropV6);
   if (one && !found)
      throw Frontend::ControlError("no relay counters for interface " + wanted);
   return out;
}

// Published first, as for show counters, so that a scrape and the command agree. Before
// the relay's status is mounted there is only the agent to show.
std::string ControlCommands::metricsText() const {
   config_.counterConfig()->counterUpdateRequestTimeIs(utc_.now());
   const auto status = store_.entityConst<Status>("ip/helper/dhcprelay/status");
   const auto status6 = store_.entityConst<Status>("ip/helper/dhcprelay/status6");
   std::vector<Frontend::MetricsFamily> families;
   if (status)
      families.push_back({"dhcpv4", *status, kDropV4});
   if (status6)
      families.push_back({"dhcpv6", *status6, kDropV6});
   return Frontend::metricsText({DHCP_RELAY_VERSION, startTime_}, families);
}

// The DUID-to-MAC bindings of the moment, read from the machines themselves: they come and
// go with each client message, too often to be records in the store.
json ControlCommands::doShowDuidBindings() const {
   const DhcpRelaySmv6* relay6 = relay6_ ? relay6_() : nullptr;
   if (!relay6)
      throw Frontend::ControlError("the DHCPv6 relay is not running yet");
   json vrfs = json::array();
   for (const auto& [name, sm] : relay6->dhcpVrfSmv6s()) {
      const DuidMacBindings& table = sm->duidMacBindings();
      json bindings = json::array();
      for (const auto& [key, b] : table.dhcp6DuidMacBindings()) {
         std::string duid;
         for (const uint8_t byte : b.duid())
            duid += fmt::format("{}{:02x}", duid.empty() ? "" : ":", byte);
         const std::string intf = b.intfIdName.toString();
         bindings.push_back(
             {{"duid", duid},
              {"xid", key.xid},
              {"mac", b.llAddr.isZero() ? json(nullptr) : json(b.llAddr.toString())},
              {"interface", intf.empty() ? json(nullptr) : json(intf)},
              {"held", b.cachedPkt ? json(dhcp6MsgTypeName(b.rcvdMsgType)) : json(nullptr)},
              {"age", table.age(b)}});
      }
      json captures = json::object();
      for (const auto& [intf, state] : sm->captureStates())
         captures[intf.toString()] = state;
      vrfs.push_back({{"vrf", name.toString()},
                      {"captures", captures},
                      {"bindings", bindings},
                      {"refused", table.refused()}});
   }
   return {{"limit", DuidMacBindings::kMaxBindings}, {"vrfs", vrfs}};
}

// Clearing is a trigger in the counter configuration; the counters machine resets
// and publishes at once.
json ControlCommands::doClear(const json& request) const {
   if (Frontend::requestString(request, "what") != "counters")
      throw Frontend::ControlError("cannot clear \"" + Frontend::requestString(request, "what") +
                                   "\": choose counters");
   const Ptr<CounterConfig>& cc = config_.counterConfig();
   if (!request.contains("interface")) {
      cc->resetAllTriggerIs(cc->resetAllTrigger() + 1);
      return {{"cleared", "all"}};
   }
   const std::string& name = Frontend::requestString(request, "interface");
   auto intf = Platform::IntfId::parse(name);
   if (!intf || (!status()->intfStatus(*intf) && !status(true)->intfStatus(*intf)))
      throw Frontend::ControlError("no relay counters for interface " + name);
   auto entry = cc->intfConfigIs(*intf);
   entry->resetTriggerIs(entry->resetTrigger() + 1);
   return {{"cleared", name}};
}

// Operators follow clients at level 5 (one line per message) without a restart.
json ControlCommands::doTrace(const json& request) {
   const int previous = Platform::Trace::textLevel();
   if (request.contains("level")) {
      const std::string& text = Frontend::requestString(request, "level");
      int level = -2;
      if (text == "off")
         level = -1;
      else if (text == "all")
         level = Platform::kTraceLevelMax;
      else if (text.size() == 1 && text[0] >= '0' && text[0] <= '9')
         level = text[0] - '0';
      if (level == -2)
         throw Frontend::ControlError("trace level \"" + text + "\" is not 0..9, off or all");
      Platform::Trace::textLevelIs(level);
      TRACE(1, "text trace level ", previous, " -> ", level, " by an operator");
   }
   return {{"level", Platform::Trace::textLevel()}, {"previous", previous}};
}

json ControlCommands::reloadReply(const std::vector<std::string>& errors) const {
   if (!errors.empty()) {
      std::string text;
      for (const std::string& e : errors)
         text += (text.empty() ? "" : "\n") + e;
      return Frontend::controlReplyError(text);
   }
   json data = {{"file", config_.path()}};
   if (std::vector<std::string> warnings = config_.warnings(); !warnings.empty())
      data["warnings"] = std::move(warnings);
   return Frontend::controlReplyOk(data);
}

}  // namespace Ip::Helper::DhcpRelay
