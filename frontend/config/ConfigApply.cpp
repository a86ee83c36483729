#include "frontend/config/ConfigApply.h"

#include <dirent.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <set>
#include <type_traits>
#include <vector>

#include "platform/base/Assert.h"
#include "platform/trace/Trace.h"

namespace Frontend {

namespace {

namespace Relay = Ip::Helper::DhcpRelay;
namespace Snooping = Bridging::DhcpSnooping;
using Platform::IntfId;
using Platform::NamespaceName;
using Platform::VrfName;

template <class K>
const K& keyOf(const K& key) {
   return key;
}
template <class K, class V>
const K& keyOf(const std::pair<const K, V>& entry) {
   return entry.first;
}

// Brings a record's keyed collection to `want`: deletes the keys it should no longer
// hold, then sets every wanted entry (the record's setters notify only on a change).
// Stale keys are gathered first because deleting would invalidate the walk.
template <class Have, class Want, class Del, class Set>
void sync(const Have& have, const Want& want, Del del, Set set) {
   std::vector<std::decay_t<decltype(keyOf(*have.begin()))>> stale;
   for (const auto& entry : have) {
      if (!want.contains(keyOf(entry)))
         stale.push_back(keyOf(entry));
   }
   for (const auto& key : stale)
      del(key);
   for (const auto& entry : want)
      set(entry);
}

void applyInterface(Relay::IntfConfig& c, const InterfaceDoc& d) {
   std::set<Relay::VrfIpSrcIntfSrcIp> byAddress, byAddress6;
   std::set<Relay::VrfHostnameSrcIntfSrcIp> byName;
   for (const ServerDoc& s : d.servers) {
      if (s.hostname.empty()) {
         byAddress.insert({s.vrf, s.address, s.sourceInterface, s.sourceAddress});
      } else {
         byName.insert({s.vrf, s.hostname, s.sourceInterface, s.sourceAddress});
      }
   }
   for (const ServerDoc& s : d.serversV6) {
      byAddress6.insert({s.vrf, s.address, s.sourceInterface, s.sourceAddress});
   }
   c.vrfIs(d.vrf);
   sync(
       c.serverIp(), byAddress, [&](const auto& k) { c.serverIpDel(k); },
       [&](const auto& k) { c.serverIpIs(k, true); });
   sync(
       c.serverHostname(), byName, [&](const auto& k) { c.serverHostnameDel(k); },
       [&](const auto& k) { c.serverHostnameIs(k, true); });
   sync(
       c.serverIp6(), byAddress6, [&](const auto& k) { c.serverIp6Del(k); },
       [&](const auto& k) { c.serverIp6Is(k, true); });
   sync(
       c.ccapCores(), std::set<Platform::Ip6Addr>(d.ccapCores.begin(), d.ccapCores.end()),
       [&](const auto& a) { c.ccapCoresDel(a); }, [&](const auto& a) { c.ccapCoresIs(a); });
   c.smartRelayIs(d.smartRelay);
   c.informationOptionIs(d.informationOption);
   c.informationOptionPolicyIs(d.informationOptionPolicy);
   c.circuitIdIs(d.circuitId);
   c.routeInstallIs(d.routeInstall);
}

void applyRelay(Relay::Config& c, const ConfigDocument& doc) {
   c.smartRelayGlobalIs(doc.relay.smartRelay);
   c.dscpV4Is(doc.relay.dscpV4);
   c.dscpV6Is(doc.relay.dscpV6);
   c.alwaysOnIs(doc.relay.alwaysOn);
   c.clientLinkLayerAddrOptIs(doc.relay.clientLinkLayerAddress);
   sync(
       c.intfConfig(), doc.interfaces,
       [&](const IntfId& intf) {
          TRACE(2, "relay interface removed: ", intf);
          c.intfConfigDel(intf);
       },
       [&](const auto& entry) { applyInterface(*c.intfConfigIs(entry.first), entry.second); });
}

// Snooping is switched off before, and on after, its other settings change, so that
// it never runs on a half-applied configuration.
void applySnooping(Snooping::Config& c, Snooping::Dhcp6Config& c6, const SnoopingDoc& d) {
   if (!d.enabled) {
      c.enabledIs(false);
      c6.enabledIs(false);
   }
   sync(
       c.vlan(), d.vlans, [&](uint16_t v) { c.vlanDel(v); }, [&](uint16_t v) { c.vlanIs(v); });
   c.informationOptionIs(d.informationOption);
   c.circuitIdTypeIs(d.circuitIdType);
   c.circuitIdTypeValidIs(d.circuitIdTypeValid);
   c.circuitIdFormatStringIs(d.circuitIdFormat);
   sync(
       c6.vlan(), d.v6.vlans, [&](uint16_t v) { c6.vlanDel(v); },
       [&](uint16_t v) { c6.vlanIs(v); });
   c6.remoteIdOptionIs(d.v6.remoteIdOption);
   if (d.enabled) {
      c.enabledIs(true);
      c6.enabledIs(true);
   }
}

void applyPort(Bridging::SwitchIntfConfig& c, const PortDoc& d) {
   using Mode = Bridging::SwitchIntfConfig::SwitchportMode;
   // The VLANs first: a reactor to the mode reads them.
   c.accessVlanIs(d.vlan);
   c.nativeVlanIs(d.nativeVlan);
   sync(
       c.allowedVlans(), d.allowedVlans, [&](uint16_t v) { c.allowedVlansDel(v); },
       [&](uint16_t v) { c.allowedVlansIs(v); });
   c.switchportModeIs(d.mode == SwitchportMode::access ? Mode::access : Mode::trunk);
}

void applyBridging(Bridging::Config& c, const ConfigDocument& doc) {
   sync(
       c.switchIntfConfig(), doc.ports, [&](const IntfId& intf) { c.switchIntfConfigDel(intf); },
       [&](const auto& entry) { applyPort(*c.switchIntfConfigIs(entry.first), entry.second); });
}

const VrfName& defaultVrf() {
   static const VrfName name = VrfName::defaultVrf();
   return name;
}

// New VRFs are named before anything refers to them; their state stays with the
// namespace follower.
void addVrfs(Ip::AllVrfStatusLocal& all, const ConfigDocument& doc) {
   all.vrfIs(defaultVrf())->nsNameIs(NamespaceName("default"));
   for (const auto& [vrf, ns] : doc.vrfs)
      all.vrfIs(vrf)->nsNameIs(ns);
}

// Old VRFs go only once nothing in the relay configuration refers to them.
void removeVrfs(Ip::AllVrfStatusLocal& all, const ConfigDocument& doc) {
   std::vector<VrfName> stale;
   for (const auto& [vrf, status] : all.vrf()) {
      if (vrf != defaultVrf() && !doc.vrfs.contains(vrf))
         stale.push_back(vrf);
   }
   for (const VrfName& vrf : stale) {
      TRACE(2, "VRF removed: ", vrf.str());
      all.vrfDel(vrf);
   }
}

std::string readFirstLine(const std::string& path) {
   std::ifstream in(path);
   std::string line;
   std::getline(in, line);
   return line;
}

void applyDeviceNames(Interface::DeviceNameConfig& rec,
                      const std::map<Platform::IntfId, std::string>& want) {
   std::vector<Platform::IntfId> gone;
   for (const auto& [intf, dev] : rec.deviceName()) {
      if (!want.count(intf))
         gone.push_back(intf);
   }
   for (const auto& intf : gone)
      rec.deviceNameDel(intf);
   for (const auto& [intf, dev] : want)
      rec.deviceNameIs(intf, dev);
}

}  // namespace

void applyConfig(const ConfigDocument& doc, Targets& targets) {
   PLATFORM_ASSERT(targets.relay && targets.snooping && targets.snooping6 && targets.vrfs &&
                       targets.netStatus && targets.entityMib && targets.bridging &&
                       targets.deviceNames,
                   "applyConfig needs every target record");
   addVrfs(*targets.vrfs, doc);
   targets.netStatus->hostnameIs(doc.system.hostname.empty() ? hostHostname()
                                                             : doc.system.hostname);
   targets.entityMib->systemMacAddrIs(doc.system.bridgeMac ? *doc.system.bridgeMac
                                                           : hostBridgeMac());
   applyDeviceNames(*targets.deviceNames, doc.devices);
   applyBridging(*targets.bridging, doc);
   applyRelay(*targets.relay, doc);
   applySnooping(*targets.snooping, *targets.snooping6, doc.snooping);
   removeVrfs(*targets.vrfs, doc);
   TRACE(1, "configuration applied: ", doc.interfaces.size(), " relay interfaces, ",
         doc.vrfs.size(), " VRFs, ", doc.ports.size(), " switch ports");
}

std::string hostHostname() {
   char name[HOST_NAME_MAX + 1] = {};
   if (::gethostname(name, sizeof(name) - 1) != 0)
      return {};
   return name;
}

Platform::EthAddr hostBridgeMac(const std::string& sysClassNet) {
   // ARPHRD_ETHER: loopback, tunnels and other link types have no usable MAC.
   constexpr const char* kEthernetType = "1";
   Platform::EthAddr best;
   long bestIndex = std::numeric_limits<long>::max();
   DIR* dir = ::opendir(sysClassNet.c_str());
   if (!dir)
      return best;
   while (const dirent* entry = ::readdir(dir)) {
      const std::string name = entry->d_name;
      if (name == "." || name == "..")
         continue;
      const std::string base = sysClassNet + "/" + name + "/";
      if (readFirstLine(base + "type") != kEthernetType)
         continue;
      const auto mac = Platform::EthAddr::parse(readFirstLine(base + "address"));
      if (!mac || mac->isZero())
         continue;
      const std::string index = readFirstLine(base + "ifindex");
      char* end = nullptr;
      const long n = std::strtol(index.c_str(), &end, 10);
      if (index.empty() || *end != '\0' || n >= bestIndex)
         continue;
      best = *mac;
      bestIndex = n;
   }
   ::closedir(dir);
   return best;
}

}  // namespace Frontend
