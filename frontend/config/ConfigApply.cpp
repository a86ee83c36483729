#include "frontend/config/ConfigApply.h"

#include <linux/if_arp.h>
#include <linux/rtnetlink.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <set>
#include <type_traits>
#include <vector>

#include "platform/base/Assert.h"
#include "platform/linux/Netlink.h"
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

void applyRelay(Relay::Config& c, const ConfigDocument& doc, const ConfigDocument* applied) {
   c.smartRelayGlobalIs(doc.relay.smartRelay);
   c.dscpV4Is(doc.relay.dscpV4);
   c.dscpV6Is(doc.relay.dscpV6);
   c.alwaysOnIs(doc.relay.alwaysOn);
   c.clientLinkLayerAddrOptIs(doc.relay.clientLinkLayerAddress);
   c.remoteIdEnterpriseIs(doc.relay.remoteIdEnterprise);
   c.remoteIdMacIs(doc.relay.remoteIdMac.value_or(Platform::EthAddr()));
   sync(
       c.intfConfig(), doc.interfaces,
       [&](const IntfId& intf) {
          TRACE(2, "relay interface removed: ", intf);
          c.intfConfigDel(intf);
       },
       [&](const auto& entry) {
          if (applied && c.intfConfig(entry.first)) {
             auto before = applied->interfaces.find(entry.first);
             if (before != applied->interfaces.end() && before->second == entry.second)
                return;
          }
          applyInterface(*c.intfConfigIs(entry.first), entry.second);
       });
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

void applyConfig(const ConfigDocument& doc, Targets& targets, const ConfigDocument* applied) {
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
   applyRelay(*targets.relay, doc, applied);
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

Platform::EthAddr lowestEthernetMac(const std::vector<HostLink>& links) {
   const HostLink* best = nullptr;
   for (const HostLink& l : links) {
      // Loopback, tunnels and other link types have no usable MAC.
      if (l.type != ARPHRD_ETHER || l.mac.isZero())
         continue;
      if (!best || l.ifindex < best->ifindex)
         best = &l;
   }
   return best ? best->mac : Platform::EthAddr();
}

// A link dump rather than /sys/class/net: sysfs costs three files per device, which adds
// up on a switch with thousands of VLAN devices and is paid again on every reload.
Platform::EthAddr hostBridgeMac() {
   std::string error;
   auto socket = Platform::NetlinkSocket::open("", 0, false, error);
   if (!socket) {
      TRACE(0, " no bridge MAC from the kernel: ", error);
      return {};
   }
   alignas(nlmsghdr) std::array<uint8_t, 64> request{};
   nlmsghdr* nlh = mnl_nlmsg_put_header(request.data());
   nlh->nlmsg_type = RTM_GETLINK;
   nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
   nlh->nlmsg_seq = socket->nextSeq();
   auto* ifi = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
   ifi->ifi_family = AF_UNSPEC;
   if (!socket->send(nlh, error)) {
      TRACE(0, " no bridge MAC from the kernel: ", error);
      return {};
   }
   std::vector<HostLink> links;
   std::vector<uint8_t> buffer(Platform::kNetlinkBufferSize);
   for (bool done = false; !done;) {
      const ssize_t n = socket->receive(buffer);
      if (n == -EINTR || n == 0)
         continue;
      if (n < 0) {
         TRACE(0, " no bridge MAC from the kernel: ", std::strerror(static_cast<int>(-n)));
         return {};
      }
      Platform::forEachNetlinkMessage(
          {buffer.data(), static_cast<size_t>(n)}, [&](const nlmsghdr* m) {
             if (m->nlmsg_type == NLMSG_DONE || m->nlmsg_type == NLMSG_ERROR)
                done = true;
             const auto* link = Platform::netlinkHeader<ifinfomsg>(m);
             if (m->nlmsg_type != RTM_NEWLINK || !link)
                return;
             auto attrs = Platform::netlinkAttrs<IFLA_ADDRESS + 1>(m, sizeof(ifinfomsg));
             const nlattr* a = attrs[IFLA_ADDRESS];
             if (!a || mnl_attr_get_payload_len(a) != 6)
                return;
             Platform::EthAddr::Bytes bytes;
             std::memcpy(bytes.data(), mnl_attr_get_payload(a), 6);
             links.push_back({static_cast<uint32_t>(link->ifi_index), link->ifi_type,
                              Platform::EthAddr(bytes)});
          });
   }
   return lowestEthernetMac(links);
}

}  // namespace Frontend
