#include "frontend/config/ConfigJson.h"

namespace Frontend {

using nlohmann::json;

namespace {

template <class T>
json strings(const T& values) {
   json out = json::array();
   for (const auto& v : values)
      out.push_back(v.toString());
   return out;
}

json serverJson(const ServerDoc& s) {
   json out = json::object();
   if (s.hostname.empty()) {
      out["address"] = s.address.toString();
   } else {
      out["hostname"] = s.hostname;
   }
   out["vrf"] = s.vrf.toString();
   if (!s.sourceInterface.toString().empty())
      out["source-interface"] = s.sourceInterface.toString();
   if (!s.sourceAddress.isEmpty())
      out["source-address"] = s.sourceAddress.toString();
   return out;
}

json serversJson(const std::vector<ServerDoc>& servers) {
   json out = json::array();
   for (const ServerDoc& s : servers)
      out.push_back(serverJson(s));
   return out;
}

const char* infoOptionPolicyText(Ip::Helper::DhcpRelay::InfoOptionPolicy p) {
   using Ip::Helper::DhcpRelay::InfoOptionPolicy;
   switch (p) {
      case InfoOptionPolicy::keep:
         return "keep";
      case InfoOptionPolicy::replace:
         return "replace";
      case InfoOptionPolicy::drop:
         break;
   }
   return "drop";
}

json interfaceJson(const InterfaceDoc& i) {
   return {{"vrf", i.vrf.toString()},
           {"servers", serversJson(i.servers)},
           {"servers-v6", serversJson(i.serversV6)},
           {"ccap-cores", strings(i.ccapCores)},
           {"smart-relay", i.smartRelay},
           {"information-option", i.informationOption},
           {"information-option-policy", infoOptionPolicyText(i.informationOptionPolicy)},
           {"circuit-id", i.circuitId.empty() ? json(nullptr) : json(i.circuitId)},
           {"route-install", i.routeInstall}};
}

json portJson(const PortDoc& p) {
   if (p.mode == SwitchportMode::access)
      return {{"mode", "access"}, {"vlan", p.vlan}};
   return {{"mode", "trunk"}, {"native-vlan", p.nativeVlan}, {"allowed-vlans", p.allowedVlans}};
}

}  // namespace

json configDocumentJson(const ConfigDocument& doc) {
   json vrfs = json::object();
   for (const auto& [vrf, ns] : doc.vrfs)
      vrfs[vrf.toString()] = ns.toString();
   json devices = json::object();
   for (const auto& [intf, dev] : doc.devices)
      devices[intf.toString()] = dev;
   json interfaces = json::object();
   for (const auto& [intf, cfg] : doc.interfaces)
      interfaces[intf.toString()] = interfaceJson(cfg);
   json ports = json::object();
   for (const auto& [intf, cfg] : doc.ports)
      ports[intf.toString()] = portJson(cfg);

   const SnoopingDoc& sn = doc.snooping;
   return {
       {"vrfs", vrfs},
       {"system",
        {{"hostname", doc.system.hostname.empty() ? json(nullptr) : json(doc.system.hostname)},
         {"bridge-mac",
          doc.system.bridgeMac ? json(doc.system.bridgeMac->toString()) : json(nullptr)}}},
       {"relay",
        {{"smart-relay", doc.relay.smartRelay},
         {"dscp-v4", doc.relay.dscpV4},
         {"dscp-v6", doc.relay.dscpV6},
         {"always-on", doc.relay.alwaysOn},
         {"client-link-layer-address", doc.relay.clientLinkLayerAddress},
         {"remote-id",
          {{"enterprise-number", doc.relay.remoteIdEnterprise},
           {"mac",
            doc.relay.remoteIdMac ? json(doc.relay.remoteIdMac->toString()) : json(nullptr)}}}}},
       {"devices", devices},
       {"interfaces", interfaces},
       {"snooping",
        {{"enabled", sn.enabled},
         {"vlans", sn.vlans},
         {"information-option", sn.informationOption},
         {"circuit-id-type", sn.circuitIdTypeValid ? json(sn.circuitIdType) : json(nullptr)},
         {"circuit-id-format", sn.circuitIdFormat},
         {"v6", {{"vlans", sn.v6.vlans}, {"remote-id-option", sn.v6.remoteIdOption}}}}},
       {"bridging", {{"ports", ports}}},
       {"metrics",
        {{"listen", doc.metrics.enabled() ? json(doc.metrics.listenText()) : json(nullptr)}}},
   };
}

}  // namespace Frontend
