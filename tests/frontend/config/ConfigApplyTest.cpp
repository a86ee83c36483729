#include "frontend/config/ConfigApply.h"

#include <gtest/gtest.h>

#include <cctype>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "frontend/config/ConfigParser.h"
#include "platform/store/Watch.h"

namespace Frontend {
namespace {

namespace Relay = Ip::Helper::DhcpRelay;
namespace Snooping = Bridging::DhcpSnooping;
using Platform::IntfId;
using Platform::make;
using Platform::Ptr;
using Platform::VrfName;
using Log = std::vector<std::string>;

Targets freshTargets() {
   Targets t;
   t.relay = make<Relay::Config>("config");
   t.snooping = make<Snooping::Config>("config");
   t.snooping6 = make<Snooping::Dhcp6Config>("dhcp6Config");
   t.vrfs = make<Ip::AllVrfStatusLocal>("local");
   t.netStatus = make<System::NetStatus>("status");
   t.entityMib = make<EntityMib::Status>("entmib");
   t.bridging = make<Bridging::Config>("config");
   t.deviceNames = make<Interface::DeviceNameConfig>("deviceName");
   return t;
}

ConfigDocument document(const std::string& text) {
   const ParsedConfig r = parseConfigText(text, "t.yaml");
   EXPECT_EQ(r.errors, std::vector<std::string>{}) << text;
   return r.document;
}

// Everything the targets hold, one fact per line, so that a reload can be compared
// with a fresh start.
std::string dump(const Targets& t) {
   std::ostringstream o;
   const Relay::Config& r = *t.relay;
   o << "relay " << r.smartRelayGlobal() << int(r.dscpV4()) << int(r.dscpV6()) << r.alwaysOn()
     << r.clientLinkLayerAddrOpt() << "\n";
   for (const auto& [id, c] : r.intfConfig()) {
      o << id.toString() << " vrf=" << c->vrf().str() << " flags=" << c->smartRelay()
        << c->informationOption() << c->routeInstall() << " circuitId=" << c->circuitId() << "\n";
      for (const auto& [k, v] : c->serverIp())
         o << "  ip " << k.toString() << v << "\n";
      for (const auto& [k, v] : c->serverHostname())
         o << "  name " << k.toString() << v << "\n";
      for (const auto& [k, v] : c->serverIp6())
         o << "  ip6 " << k.toString() << v << "\n";
      for (const auto& [a, v] : c->ccapCores())
         o << "  ccap " << a.toString() << v << "\n";
   }
   const Snooping::Config& s = *t.snooping;
   o << "snooping " << s.enabled() << s.informationOption() << s.circuitIdTypeValid()
     << int(s.circuitIdType()) << s.circuitIdFormatString();
   for (uint16_t v : s.vlan())
      o << " " << v;
   o << "\nsnooping6 " << t.snooping6->enabled() << t.snooping6->remoteIdOption();
   for (uint16_t v : t.snooping6->vlan())
      o << " " << v;
   o << "\n";
   for (const auto& [vrf, st] : t.vrfs->vrf()) {
      o << "vrf " << vrf.str() << " ns=" << st->nsName().str() << " state=" << int(st->state())
        << "\n";
   }
   o << "host " << t.netStatus->hostname() << " " << t.entityMib->systemMacAddr().toString()
     << "\n";
   for (const auto& [id, p] : t.bridging->switchIntfConfig()) {
      o << "port " << id.toString() << " mode=" << int(p->switchportMode())
        << " access=" << p->accessVlan() << " native=" << p->nativeVlan() << " allowed=";
      for (uint16_t v : p->allowedVlans())
         o << v << ",";
      o << "\n";
   }
   for (const auto& [id, dev] : t.deviceNames->deviceName())
      o << "device " << id.toString() << "=" << dev << "\n";
   return o.str();
}

// --- every notification, logged ----------------------------------------------------------

std::string text(uint16_t v) {
   return std::to_string(v);
}
template <class Key>
std::string text(const Key& k) {
   return k.toString();
}

// Logs the handler's attribute (with a lower-case first letter) after `prefix`, then its key
// if it has one.
auto entry(Log& log, const std::string& prefix, std::string attr) {
   attr[0] = static_cast<char>(std::tolower(attr[0]));
   return [&log, line = prefix + attr](const auto&... key) {
      log.push_back((line + ... + (" " + text(key))));
   };
}

// Logs "<prefix><attribute>[ <key>]" for every notification of a record the targets hold at
// construction time, for each handler its record's Reactor has.
class Watch {
 public:
#define ON(R, Attr) std::pair(#Attr, &R::Reactor::handle##Attr)
   explicit Watch(const Targets& t) {
      using RC = Relay::Config;
      using IC = Relay::IntfConfig;
      using SC = Snooping::Config;
      using S6 = Snooping::Dhcp6Config;
      using PC = Bridging::SwitchIntfConfig;
      watch(t.relay, "relay.", ON(RC, IntfConfig), ON(RC, SmartRelayGlobal), ON(RC, DscpV4),
            ON(RC, DscpV6), ON(RC, AlwaysOn), ON(RC, ClientLinkLayerAddrOpt));
      for (const auto& [id, c] : t.relay->intfConfig()) {
         watch(c, id.toString() + ".", ON(IC, ServerIp), ON(IC, ServerHostname), ON(IC, ServerIp6),
               ON(IC, CcapCores), ON(IC, SmartRelay), ON(IC, InformationOption), ON(IC, CircuitId),
               ON(IC, Vrf), ON(IC, RouteInstall));
      }
      watch(t.snooping, "snooping.", ON(SC, Enabled), ON(SC, Vlan), ON(SC, InformationOption),
            ON(SC, CircuitIdTypeValid), ON(SC, CircuitIdType), ON(SC, CircuitIdFormatString));
      watch(t.snooping6, "snooping6.", ON(S6, Enabled), ON(S6, Vlan), ON(S6, RemoteIdOption));
      watch(t.vrfs, "vrfs.", ON(Ip::AllVrfStatusLocal, Vrf));
      for (const auto& [vrf, s] : t.vrfs->vrf()) {
         watch(s, "vrf " + vrf.str() + ".", ON(Ip::VrfStatusLocal, NsName),
               ON(Ip::VrfStatusLocal, State));
      }
      watch(t.netStatus, "netStatus.", ON(System::NetStatus, Hostname),
            ON(System::NetStatus, DomainName));
      watch(t.entityMib, "entityMib.", ON(EntityMib::Status, SystemMacAddr));
      watch(t.bridging, "bridging.", ON(Bridging::Config, SwitchIntfConfig));
      for (const auto& [id, p] : t.bridging->switchIntfConfig()) {
         watch(p, id.toString() + ".", ON(PC, SwitchportMode), ON(PC, AccessVlan),
               ON(PC, NativeVlan), ON(PC, AllowedVlans));
      }
   }
#undef ON

   Log log;

 private:
   template <class Record, class... Handler>
   void watch(const Ptr<Record>& record, const std::string& prefix,
              std::pair<const char*, Handler>... handlers) {
      auto w = std::make_unique<Platform::Watch<const Record>>();
      (w->on(handlers.second, entry(log, prefix, handlers.first)), ...);
      w->notifierIs(record);
      watches_.push_back(std::move(w));
   }

   std::vector<std::unique_ptr<Platform::ReactorBase>> watches_;
};

// --- reload -----------------------------------------------------------------------------

const char* const kBase = R"(
vrfs: {red: ns-red, blue: ns-blue}
system: {hostname: relay1, bridge-mac: 02:00:00:00:01:00}
relay: {dscp-v4: 10}
devices: {Ethernet1: eth1}
interfaces:
  Ethernet1:
    servers:
      - address: 192.0.2.1
      - hostname: dhcp.example.net
    servers-v6:
      - address: 2001:db8::1
    ccap-cores: [2001:db8:cc::1]
    information-option: true
  Ethernet2:
    vrf: red
    information-option: true
    servers:
      - address: 192.0.2.2
snooping:
  enabled: true
  vlans: [10, 20]
  v6: {vlans: [10]}
bridging:
  ports:
    Ethernet5: {mode: access, vlan: 10}
    Ethernet6: {mode: trunk, allowed-vlans: [10, 20]}
)";

struct Edit {
   std::string from;
   std::string to;
};

// `before` edits the first file, `after` the reloaded one.
struct Reload {
   std::string name;
   std::vector<Edit> after;
   Log notified;
   std::vector<Edit> before = {};
};

std::string edited(std::string text, const std::vector<Edit>& edits) {
   for (const Edit& e : edits) {
      const size_t at = text.find(e.from);
      EXPECT_NE(at, std::string::npos) << e.from;
      if (at != std::string::npos)
         text.replace(at, e.from.size(), e.to);
   }
   return text;
}

// What the namespace follower would have done after the first load.
void activateRed(const Targets& t) {
   if (const auto red = t.vrfs->vrf(*VrfName::parse("red"))) {
      red->stateIs(Ip::VrfStatusLocal::State::active);
   }
}

const std::string kE2Server = "      - address: 192.0.2.2\n";

const std::vector<Reload> kReloads = {
    {"sameDocument", {}, {}},
    {"serverAdded",
     {{kE2Server, kE2Server + "      - address: 192.0.2.3\n"}},
     {"Ethernet2.serverIp vrf=red ip=192.0.2.3 srcIntf= srcIp="}},
    {"hostnameServerRemoved",
     {{"      - hostname: dhcp.example.net\n", ""}},
     {"Ethernet1.serverHostname vrf=default hostname=dhcp.example.net srcIntf= srcIp="}},
    {"serverSourceChanged",
     {{kE2Server, kE2Server + "        source-interface: Loopback0\n"}},
     {"Ethernet2.serverIp vrf=red ip=192.0.2.2 srcIntf= srcIp=",
      "Ethernet2.serverIp vrf=red ip=192.0.2.2 srcIntf=Loopback0 srcIp="}},
    {"interfaceVrfChangedMovesItsServers",
     {{"    vrf: red\n", "    vrf: blue\n"}},
     {"Ethernet2.vrf", "Ethernet2.serverIp vrf=red ip=192.0.2.2 srcIntf= srcIp=",
      "Ethernet2.serverIp vrf=blue ip=192.0.2.2 srcIntf= srcIp="}},
    {"interfaceRemoved",
     {{"  Ethernet2:\n    vrf: red\n    information-option: true\n    servers:\n" + kE2Server, ""}},
     {"relay.intfConfig Ethernet2"}},
    {"interfaceAdded",
     {{"snooping:", "  Ethernet3: {circuit-id: x}\nsnooping:"}},
     {"relay.intfConfig Ethernet3"}},
    {"interfaceAttributes",
     {{"    information-option: true\n", "    smart-relay: true\n    route-install: true\n"},
      {"[2001:db8:cc::1]", "[2001:db8:cc::2]"},
      {"2001:db8::1\n", "2001:db8::1\n        vrf: red\n"}},
     {"Ethernet1.serverIp6 vrf=default ip=2001:db8::1 srcIntf= srcIp=",
      "Ethernet1.serverIp6 vrf=red ip=2001:db8::1 srcIntf= srcIp=",
      "Ethernet1.ccapCores 2001:db8:cc::1", "Ethernet1.ccapCores 2001:db8:cc::2",
      "Ethernet1.smartRelay", "Ethernet1.informationOption", "Ethernet1.routeInstall"}},
    {"relayGlobals",
     {{"relay: {dscp-v4: 10}",
       "relay: {dscp-v4: 11, dscp-v6: 1, always-on: true, smart-relay: true,"
       " client-link-layer-address: true}"}},
     {"relay.smartRelayGlobal", "relay.dscpV4", "relay.dscpV6", "relay.alwaysOn",
      "relay.clientLinkLayerAddrOpt"}},
    {"vrfNamespaceChangedKeepsState", {{"red: ns-red", "red: ns-red2"}}, {"vrf red.nsName"}},
    {"vrfAddedAndRemoved",
     {{"blue: ns-blue", "green: ns-green"}},
     {"vrfs.vrf green", "vrfs.vrf blue"}},
    {"snoopingDisabledBeforeItsSettingsChange",
     {{"  enabled: true\n  vlans: [10, 20]\n", "  vlans: [20, 30]\n  circuit-id-type: 0\n"},
      {"v6: {vlans: [10]}", "v6: {vlans: [10], remote-id-option: true}"}},
     {"snooping.enabled", "snooping6.enabled", "snooping.vlan 10", "snooping.vlan 30",
      "snooping.circuitIdTypeValid", "snooping6.remoteIdOption"}},
    {"snoopingEnabledAfterItsSettingsChange",
     {{"  vlans: [10, 20]\n", "  vlans: [10]\n"}},
     {"snooping.vlan 20", "snooping.enabled", "snooping6.enabled"},
     {{"  enabled: true\n", "  enabled: false\n"}}},
    {"portModeChanged",
     {{"{mode: access, vlan: 10}", "{mode: trunk, native-vlan: 10, allowed-vlans: [10]}"}},
     {"Ethernet5.accessVlan", "Ethernet5.nativeVlan", "Ethernet5.allowedVlans 10",
      "Ethernet5.switchportMode"}},
    {"portRemoved",
     {{"    Ethernet6: {mode: trunk, allowed-vlans: [10, 20]}\n", ""}},
     {"bridging.switchIntfConfig Ethernet6"}},
    {"hostFacts",
     {{"hostname: relay1, bridge-mac: 02:00:00:00:01:00",
       "hostname: relay2, bridge-mac: 02:00:00:00:01:01"}},
     {"netStatus.hostname", "entityMib.systemMacAddr"}},
    // The device map is plain data: only the final comparison sees it.
    {"deviceRenamed", {{"Ethernet1: eth1", "Ethernet1: eth9, Ethernet2: eth2"}}, {}},
};

void PrintTo(const Reload& c, std::ostream* os) {
   *os << c.name;
}

class ReloadTest : public testing::TestWithParam<Reload> {};

// A reload notifies exactly the changes, in an order reactors can rely on, and leaves
// the records as a fresh start with the new file would.
TEST_P(ReloadTest, NotifiesOnlyWhatChanged) {
   const Reload& c = GetParam();
   const ConfigDocument before = document(edited(kBase, c.before));
   const ConfigDocument after = document(edited(kBase, c.after));

   Targets t = freshTargets();
   applyConfig(before, t);
   activateRed(t);
   Watch watch(t);
   applyConfig(after, t, &before);
   EXPECT_EQ(watch.log, c.notified);

   Targets fresh = freshTargets();
   applyConfig(after, fresh);
   activateRed(fresh);
   EXPECT_EQ(dump(t), dump(fresh));
}

INSTANTIATE_TEST_SUITE_P(ConfigApply, ReloadTest, testing::ValuesIn(kReloads),
                         [](const testing::TestParamInfo<Reload>& i) { return i.param.name; });

std::string repoRoot() {
   return DHCP_RELAY_SOURCE_DIR;
}

TEST(ConfigApply, ShippedExampleIsValidAndASecondApplyNotifiesNothing) {
   const ParsedConfig r = parseConfigFile(repoRoot() + "/examples/dhcp-relay.yaml");
   ASSERT_EQ(r.errors, std::vector<std::string>{});
   // The example is documentation: every section must really be read.
   const ConfigDocument& d = r.document;
   EXPECT_TRUE(!d.vrfs.empty() && !d.devices.empty() && !d.interfaces.empty() && !d.ports.empty() &&
               d.system.bridgeMac && !d.snooping.vlans.empty());
   Targets t = freshTargets();
   applyConfig(r.document, t);
   Watch watch(t);
   applyConfig(r.document, t);
   EXPECT_EQ(watch.log, Log{});
}

// New VRFs start inactive. What the file stops saying falls back to the default VRF alone
// and to the host's name and MAC, not to the old values.
TEST(ConfigApply, NewVrfsStartInactiveAndWhatTheFileLeavesOutFallsBack) {
   Targets t = freshTargets();
   applyConfig(document("vrfs: {red: ns-red}\n"
                        "system: {hostname: relay1, bridge-mac: 02:00:00:00:01:00}\n"),
               t);
   ASSERT_EQ(t.vrfs->vrf().size(), 2u);
   const auto red = t.vrfs->vrf(*VrfName::parse("red"));
   EXPECT_EQ(red->nsName().str(), "ns-red");
   EXPECT_EQ(red->state(), Ip::VrfStatusLocal::State::inactive);
   EXPECT_EQ(t.netStatus->hostname(), "relay1");
   EXPECT_EQ(t.entityMib->systemMacAddr().toString(), "02:00:00:00:01:00");

   applyConfig(document("vrfs: {}\n"), t);
   ASSERT_EQ(t.vrfs->vrf().size(), 1u);
   EXPECT_EQ(t.vrfs->vrf().begin()->first, VrfName::defaultVrf());
   EXPECT_EQ(t.vrfs->vrf().begin()->second->nsName().str(), "default");
   EXPECT_EQ(t.netStatus->hostname(), hostHostname());
   EXPECT_FALSE(hostHostname().empty());
   EXPECT_EQ(t.entityMib->systemMacAddr(), hostBridgeMac());
}

TEST(ConfigApply, BridgeMacIsTheLowestEthernetDevicesAndSkipsOthers) {
   const auto mac = [](const char* text) { return *Platform::EthAddr::parse(text); };
   constexpr uint16_t kEther = 1, kLoopback = 772, kGre = 778;
   struct Case {
      std::vector<HostLink> links;
      const char* want;
   };
   const std::vector<Case> cases = {
       {{}, "00:00:00:00:00:00"},
       {{{1, kLoopback, mac("00:00:00:00:00:00")}}, "00:00:00:00:00:00"},
       {{{7, kEther, mac("02:00:00:00:00:07")},
         {1, kLoopback, mac("00:00:00:00:00:00")},
         {2, kGre, mac("02:00:00:00:00:02")},
         {3, kEther, mac("00:00:00:00:00:00")},
         {5, kEther, mac("02:00:00:00:00:05")},
         {9, kEther, mac("02:00:00:00:00:09")}},
        "02:00:00:00:00:05"},
   };
   for (const Case& c : cases)
      EXPECT_EQ(lowestEthernetMac(c.links).toString(), c.want);
}

}  // namespace
}  // namespace Frontend
