#include "frontend/config/ConfigParser.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace Frontend {
namespace {

using Platform::EthAddr;
using Platform::IntfId;
using Platform::Ip6Addr;
using Platform::IpAddr;
using Platform::IpGenAddr;
using Platform::NamespaceName;
using Platform::VrfName;

// "<c*N>" stands for N copies of c, so that length limits read in place.
std::string expand(std::string s) {
   for (size_t at; (at = s.find("<")) != std::string::npos;) {
      const size_t end = s.find('>', at);
      s.replace(at, end - at + 1, std::stoul(s.substr(at + 3, end - at - 3)), s[at + 1]);
   }
   return s;
}

// Test texts start with a newline so that the first line of YAML is line 1 below the
// opening quote.
ParsedConfig parse(std::string s) {
   if (!s.empty() && s[0] == '\n')
      s.erase(0, 1);
   return parseConfigText(expand(s), "r.yaml");
}

struct BadFile {
   std::string name;
   std::string text;
   std::vector<std::string> errors;
};

// Each file gathers the faults of one area, so the table also shows that every fault
// of a file is reported, in line order, and nothing else.
const std::vector<BadFile> kBadFiles = {
    {"syntax",
     "\nrelay: [1,\n",
     {"r.yaml:2: (syntax): did not find expected node content (while parsing a flow node)"}},
    {"undefinedAlias",
     "\nrelay: *none\n",
     {"r.yaml:1: (syntax): the referenced anchor is not defined"}},
    {"rootIsList", "\n- a\n", {"r.yaml:1: (root): expected a map, got a list"}},
    {"rootIsScalar", "\nhello\n", {"r.yaml:1: (root): expected a map, got \"hello\""}},
    {"twoDocuments",
     "\nrelay: {}\n---\nrelay: {}\n",
     {"r.yaml:3: (root): only one YAML document is allowed"}},
    {"unknownAndDuplicateKeys",
     R"(
relays: {}
relay:
  dscp-v4: 1
  dscp-v4: 2
  smartrelay: true
relay: {}
)",
     {"r.yaml:1: relays: unknown key; allowed: vrfs, system, relay, devices, interfaces, "
      "snooping, bridging, metrics",
      "r.yaml:4: relay.dscp-v4: duplicate key (first at line 3)",
      "r.yaml:5: relay.smartrelay: unknown key; allowed: smart-relay, dscp-v4, dscp-v6, "
      "always-on, client-link-layer-address, remote-id",
      "r.yaml:6: relay: duplicate key (first at line 2)"}},
    {"wrongTypes",
     R"(
relay:
  smart-relay: yes
  always-on: "true"
  dscp-v4: [1]
  dscp-v6: 0x10
  client-link-layer-address:
system: [a]
interfaces: [Ethernet1]
snooping:
  v6: true
bridging:
  ports: [Ethernet2]
)",
     {"r.yaml:2: relay.smart-relay: expected true or false, got \"yes\"",
      "r.yaml:3: relay.always-on: expected true or false, got a quoted string \"true\"",
      "r.yaml:4: relay.dscp-v4: expected an integer, got a list",
      "r.yaml:5: relay.dscp-v6: expected an integer, got \"0x10\"",
      "r.yaml:6: relay.client-link-layer-address: expected true or false, got nothing",
      "r.yaml:7: system: expected a map, got a list",
      "r.yaml:8: interfaces: expected a map, got a list",
      "r.yaml:10: snooping.v6: expected a map, got \"true\"",
      "r.yaml:12: bridging.ports: expected a map, got a list"}},
    {"ranges",
     R"(
relay:
  dscp-v4: 64
  dscp-v6: -1
snooping:
  vlans: [0, 1, 4094, 4095, 99999999999999999999, 1]
  circuit-id-type: 256
  v6:
    vlans:
      - 10
      - ten
)",
     {"r.yaml:2: relay.dscp-v4: DSCP outside 0..63: 64",
      "r.yaml:3: relay.dscp-v6: DSCP outside 0..63: -1",
      "r.yaml:5: snooping.vlans[0]: VLAN id outside 1..4094: 0",
      "r.yaml:5: snooping.vlans[3]: VLAN id outside 1..4094: 4095",
      "r.yaml:5: snooping.vlans[4]: VLAN id outside 1..4094: 99999999999999999999",
      "r.yaml:5: snooping.vlans[5]: duplicate VLAN 1",
      "r.yaml:6: snooping.circuit-id-type: circuit-id type outside 0..255: 256",
      "r.yaml:10: snooping.v6.vlans[1]: expected an integer, got \"ten\""}},
    {"servers",
     R"(
interfaces:
  Ethernet1:
    servers:
      - address: 10.0.0.300
      - address: 192.0.2.1
        hostname: dhcp.example.net
      - vrf: default
      - address: 192.0.2.2
        source-interface: Loopback0
        source-address: 192.0.2.3
      - address: 2001:db8::1
      - hostname: -bad.example.net
      - 192.0.2.4
      - address: 192.0.2.5
        port: 67
      - address: 192.0.2.5
        source-address: 2001:db8::5
    servers-v6:
      - address: 192.0.2.1
      - hostname: dhcp.example.net
)",
     {"r.yaml:4: interfaces.Ethernet1.servers[0].address: not an IPv4 address: \"10.0.0.300\"",
      "r.yaml:5: interfaces.Ethernet1.servers[1]: needs exactly one of address and hostname",
      "r.yaml:7: interfaces.Ethernet1.servers[2]: needs exactly one of address and hostname",
      "r.yaml:8: interfaces.Ethernet1.servers[3]: source-interface and source-address exclude "
      "each other",
      "r.yaml:11: interfaces.Ethernet1.servers[4].address: not an IPv4 address: \"2001:db8::1\"",
      "r.yaml:12: interfaces.Ethernet1.servers[5].hostname: not a host name: "
      "\"-bad.example.net\"",
      "r.yaml:13: interfaces.Ethernet1.servers[6]: expected a map, got \"192.0.2.4\"",
      "r.yaml:15: interfaces.Ethernet1.servers[7].port: unknown key; allowed: address, "
      "hostname, vrf, source-interface, source-address",
      "r.yaml:17: interfaces.Ethernet1.servers[8].source-address: not an IPv4 address: "
      "\"2001:db8::5\"",
      "r.yaml:19: interfaces.Ethernet1.servers-v6[0].address: not an IPv6 address: "
      "\"192.0.2.1\"",
      "r.yaml:20: interfaces.Ethernet1.servers-v6[1].hostname: unknown key; allowed: address, "
      "vrf, source-interface, source-address",
      "r.yaml:20: interfaces.Ethernet1.servers-v6[1]: needs address"}},
    {"duplicateEntries",
     R"(
interfaces:
  Ethernet1:
    vrf: red
    servers:
      - address: 192.0.2.1
      - address: 192.0.2.1
        vrf: default
      - address: 192.0.2.1
        vrf: red
    ccap-cores: [2001:db8::1, "2001:DB8::1"]
  Ethernet1: {}
vrfs:
  red: ns-red
)",
     {"r.yaml:6: interfaces.Ethernet1.servers[1].vrf: a server in another VRF needs "
      "information-option: true on the interface (its replies find the client by the VRF name "
      "in option 82)",
      "r.yaml:8: interfaces.Ethernet1.servers[2]: same server as line 5",
      "r.yaml:10: interfaces.Ethernet1.ccap-cores[1]: duplicate address 2001:db8::1",
      "r.yaml:11: interfaces.Ethernet1: duplicate key (first at line 2)"}},
    {"vrfReferences",
     R"(
interfaces:
  Ethernet1:
    vrf: blue
    information-option: true
    servers:
      - address: 192.0.2.1
        vrf: red
      - address: 192.0.2.2
        vrf: green
    servers-v6:
      - address: 2001:db8::1
        vrf: ""
vrfs:
  red: ns-red
  green: ns-red
  default: ns-default
  yellow: default
)",
     {"r.yaml:3: interfaces.Ethernet1.vrf: unknown VRF \"blue\" (not \"default\" nor in vrfs)",
      "r.yaml:12: interfaces.Ethernet1.servers-v6[0].vrf: VRF name is empty",
      "r.yaml:15: vrfs.green: namespace \"ns-red\" already holds VRF \"red\"",
      "r.yaml:16: vrfs.default: the default VRF is the agent's own namespace and takes no "
      "entry",
      "r.yaml:17: vrfs.yellow: namespace \"default\" is the default VRF's own"}},
    {"names",
     R"(
vrfs:
  <v*101>: ns
  red: <n*151>
  blue: ../x
  a:b: ns-ab
devices:
  Ethernet1: a-very-long-name0
  Ethernet2: eth:0
  Ethernet3: eth0
  Ethernet4: eth0
interfaces:
  Ethernet1/1:
    circuit-id: ""
  Ethernet 2: {}
  <i*65>: {}
  Ethernet3:
    servers:
      - address: 192.0.2.1
        source-interface: "Loopback0\t"
      - hostname: a..example.net
      - hostname: a_b.example.net
      - hostname: <h*64>.example.net
system:
  hostname: "host name"
)",
     {"r.yaml:2: vrfs.<v*101>: VRF name longer than 100 bytes",
      "r.yaml:3: vrfs.red: namespace name longer than 150 bytes",
      "r.yaml:4: vrfs.blue: not a namespace name: \"../x\"",
      "r.yaml:5: vrfs.a:b: VRF name holds \":\", which separates interface and VRF in the "
      "DHCPv6 Interface-Id: \"a:b\"",
      "r.yaml:7: devices.Ethernet1: not a kernel device name (1 to 15 bytes, no \"/\", \":\" or "
      "space): \"a-very-long-name0\"",
      "r.yaml:8: devices.Ethernet2: not a kernel device name (1 to 15 bytes, no \"/\", \":\" or "
      "space): \"eth:0\"",
      "r.yaml:10: devices.Ethernet4: device \"eth0\" is already the device of Ethernet3",
      "r.yaml:14: interfaces.Ethernet 2: not an interface name (letters, digits and \"/.-_\"): "
      "\"Ethernet 2\"",
      "r.yaml:15: interfaces.<i*65>: interface name longer than 64 bytes",
      "r.yaml:19: interfaces.Ethernet3.servers[0].source-interface: not an interface name "
      "(letters, digits and \"/.-_\"): \"Loopback0\\x09\"",
      "r.yaml:20: interfaces.Ethernet3.servers[1].hostname: not a host name: \"a..example.net\"",
      "r.yaml:21: interfaces.Ethernet3.servers[2].hostname: not a host name: "
      "\"a_b.example.net\"",
      "r.yaml:22: interfaces.Ethernet3.servers[3].hostname: not a host name: "
      "\"<h*64>.example.net\"",
      "r.yaml:24: system.hostname: not a host name: \"host name\""}},
    {"lengthLimits",
     R"(
interfaces:
  Ethernet1:
    circuit-id: <c*256>
    servers:
      - hostname: <h*63>.<h*63>.<h*63>.<h*63>
)",
     {"r.yaml:3: interfaces.Ethernet1.circuit-id: circuit-id longer than 255 bytes (256)",
      "r.yaml:5: interfaces.Ethernet1.servers[0].hostname: host name longer than 253 bytes"}},
    {"snoopingAndBridging",
     R"(
system:
  bridge-mac: 02:00:00:00:01
snooping:
  circuit-id-format: "%v:%p"
  circuit-id-type: "0"
  enable: true
bridging:
  ports:
    Ethernet2: {mode: access}
    Ethernet3: {mode: trunk, vlan: 10}
    Ethernet4: {mode: access, vlan: 10, allowed-vlans: [10]}
    Ethernet5: {vlan: 10}
    Ethernet6: {mode: hybrid}
    Ethernet7:
  vlans: [1]
)",
     {"r.yaml:2: system.bridge-mac: not a MAC address: \"02:00:00:00:01\"",
      "r.yaml:4: snooping.circuit-id-format: expected \"%p:%v\" (port:vlan) or \"%h:%p\" "
      "(host:port), got \"%v:%p\"",
      "r.yaml:5: snooping.circuit-id-type: expected an integer, got a quoted string \"0\"",
      "r.yaml:6: snooping.enable: unknown key; allowed: enabled, vlans, information-option, "
      "circuit-id-type, circuit-id-format, v6",
      "r.yaml:9: bridging.ports.Ethernet2: mode access needs vlan",
      "r.yaml:10: bridging.ports.Ethernet3: mode trunk needs allowed-vlans",
      "r.yaml:10: bridging.ports.Ethernet3.vlan: applies to mode access only (trunks take "
      "native-vlan)",
      "r.yaml:11: bridging.ports.Ethernet4.allowed-vlans: applies to mode trunk only",
      "r.yaml:12: bridging.ports.Ethernet5: needs mode (access or trunk)",
      "r.yaml:13: bridging.ports.Ethernet6.mode: expected access or trunk, got \"hybrid\"",
      "r.yaml:14: bridging.ports.Ethernet7: needs mode (access or trunk)",
      "r.yaml:15: bridging.vlans: unknown key; allowed: ports"}},
    {"explicitTags",
     "relay: {dscp-v4: !!int 5, smart-relay: !!bool true, dscp-v6: !!str 5}\n",
     {"r.yaml:1: relay.dscp-v6: expected an integer, got \"5\" tagged tag:yaml.org,2002:str"}},
    {"macs",
     R"(
system:
  bridge-mac: 01:00:5e:00:00:01
)",
     {"r.yaml:2: system.bridge-mac: not a unicast MAC address: \"01:00:5e:00:00:01\""}},
};

void PrintTo(const BadFile& c, std::ostream* os) {
   *os << c.name;
}

class BadFileTest : public testing::TestWithParam<BadFile> {};

TEST_P(BadFileTest, ReportsEveryFaultWithItsLineAndField) {
   const BadFile& c = GetParam();
   const ParsedConfig r = parse(c.text);
   std::vector<std::string> errors;
   for (const std::string& e : c.errors)
      errors.push_back(expand(e));
   EXPECT_EQ(r.errors, errors);
   // A refused file never yields a partial document.
   EXPECT_EQ(r.document, ConfigDocument{});
}

INSTANTIATE_TEST_SUITE_P(ConfigParser, BadFileTest, testing::ValuesIn(kBadFiles),
                         [](const testing::TestParamInfo<BadFile>& i) { return i.param.name; });

IntfId intf(const char* name) {
   return *IntfId::parse(name);
}
VrfName vrf(const char* name) {
   return *VrfName::parse(name);
}
IpGenAddr addr(const char* text) {
   return *IpGenAddr::parse(text);
}

TEST(ConfigParser, FillsDefaultsAndInheritsTheInterfaceVrf) {
   const ParsedConfig r = parse(R"(
interfaces:
  Ethernet1:
    servers:
      - address: 192.0.2.1
      - hostname: dhcp.example.net.
        vrf: default
      - address: 192.0.2.2
        source-interface: Loopback0
    servers-v6:
      - address: ff05::1:3
        source-address: 2001:db8::1
    ccap-cores: &cores [2001:db8::2, 2001:db8::1]
    vrf: red
    information-option: true
  Ethernet2: {ccap-cores: *cores}
vrfs: {red: ns-red}
snooping:
  circuit-id-type: 0
  v6:
bridging:
  ports:
    Ethernet3: {mode: trunk, allowed-vlans: [20, 10]}
)");
   ASSERT_EQ(r.errors, std::vector<std::string>{});

   ConfigDocument want;
   want.vrfs.emplace(vrf("red"), *NamespaceName::parse("ns-red"));
   InterfaceDoc& e1 = want.interfaces[intf("Ethernet1")];
   e1.vrf = vrf("red");
   e1.informationOption = true;
   e1.servers = {{addr("192.0.2.1"), "", vrf("red"), {}, {}},
                 {{}, "dhcp.example.net.", vrf("default"), {}, {}},
                 {addr("192.0.2.2"), "", vrf("red"), intf("Loopback0"), {}}};
   e1.serversV6 = {{addr("ff05::1:3"), "", vrf("red"), {}, addr("2001:db8::1")}};
   e1.ccapCores = {*Ip6Addr::parse("2001:db8::2"), *Ip6Addr::parse("2001:db8::1")};
   want.interfaces[intf("Ethernet2")].ccapCores = e1.ccapCores;
   want.snooping.circuitIdTypeValid = true;
   PortDoc& trunk = want.ports[intf("Ethernet3")];
   trunk.mode = SwitchportMode::trunk;
   trunk.allowedVlans = {10, 20};
   EXPECT_EQ(r.document, want);
}

TEST(ConfigParser, AcceptsValuesAtTheirLimits) {
   const ParsedConfig r = parse(R"(
vrfs:
  <v*100>: <n*150>
interfaces:
  <i*64>:
    vrf: <v*100>
    circuit-id: <c*255>
    servers:
      - hostname: <h*63>.<h*63>.<h*63>.<h*61>
relay: {dscp-v4: 63, dscp-v6: 0}
snooping: {circuit-id-type: 255, vlans: [1, 4094]}
devices: {Ethernet1: <d*15>}
)");
   ASSERT_EQ(r.errors, std::vector<std::string>{});
   const ConfigDocument& d = r.document;
   EXPECT_EQ(std::tuple(d.interfaces.begin()->second.circuitId.size(), d.relay.dscpV4,
                        d.snooping.circuitIdType, d.snooping.vlans),
             std::tuple(255u, 63, 255, std::set<uint16_t>{1, 4094}));
}

// A truncated file must not stop all relaying: a file without configuration is refused,
// one whose sections are all commented out is taken with a warning.
TEST(ConfigParser, EmptyFilesAreRefusedAndFilesThatRelayNothingWarned) {
   for (const char* text : {"", "\n\n", "# nothing yet\n  # indented comment\n", "---\n"}) {
      EXPECT_EQ(parse(text).errors,
                std::vector<std::string>{"r.yaml:1: (root): the file holds no configuration "
                                         "(empty, or only comments); a truncated file must not "
                                         "stop all relaying"})
          << text;
   }
   const std::string nothing =
       "r.yaml: no interface has servers and snooping is off: the agent will relay nothing";
   ParsedConfig r = parse("vrfs:\ninterfaces:\n# Ethernet1: {}\n");
   EXPECT_EQ(r.errors, std::vector<std::string>{});
   EXPECT_EQ(r.document, ConfigDocument{});
   EXPECT_EQ(r.warnings, std::vector<std::string>{nothing});
   EXPECT_EQ(parse("interfaces: {Ethernet1: {servers: [192.0.2.1]}}\n").warnings,
             std::vector<std::string>{});
   // What this version reads but does not do yet is said too.
   EXPECT_EQ(parse("snooping: {enabled: true}\n").warnings,
             std::vector<std::string>{"r.yaml: snooping.enabled: this version does not snoop yet"});
}

// Whatever a file holds, reading it costs bounded time and memory, and the reply stays a
// screenful.
TEST(ConfigParser, HostileFilesAreRefusedCheaply) {
   std::string bomb = "a0: &a0 [x, x, x, x, x, x, x, x, x, x]\n";
   for (int i = 1; i < 40; ++i) {
      const std::string p = "a" + std::to_string(i - 1);
      bomb += "a" + std::to_string(i) + ": &a" + std::to_string(i) + " [*" + p + ", *" + p + ", *" +
              p + ", *" + p + ", *" + p + ", *" + p + ", *" + p + ", *" + p + ", *" + p + ", *" +
              p + "]\n";
   }
   EXPECT_EQ(parseConfigText(bomb, "r.yaml").errors,
             std::vector<std::string>{
                 "r.yaml:7: (syntax): aliases expand the document beyond 4000000 nodes"});
   EXPECT_EQ(
       parse("relay: &r [*r]\n").errors,
       std::vector<std::string>{
           "r.yaml:1: (syntax): an alias inside the node it refers to makes an endless tree"});

   std::string many = "interfaces:\n";
   for (int i = 0; i < 5000; ++i)
      many += "  E" + std::to_string(i) + ": {bogus: 1}\n";
   const std::vector<std::string> errors = parseConfigText(many, "r.yaml").errors;
   ASSERT_EQ(errors.size(), kMaxReportedErrors + 1);
   EXPECT_EQ(errors.back(), "r.yaml: 4980 more errors not shown");
}

TEST(ConfigParser, OnlyRegularFilesOfBoundedSizeAreRead) {
   char tmpl[] = "/tmp/config-test-XXXXXX";
   ASSERT_NE(mkdtemp(tmpl), nullptr);
   const std::string dir = tmpl;
   const std::string fifo = dir + "/fifo", big = dir + "/big.yaml";
   ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
   {
      std::ofstream out(big);
      out << "# " << std::string(kMaxConfigBytes, 'x') << "\n";
   }
   const std::string missing = dir + "/missing.yaml";
   const std::vector<std::pair<std::string, std::string>> cases = {
       {missing, "cannot read: No such file or directory"},
       {dir, "not a regular file"},
       {fifo, "not a regular file"},  // and open() does not wait for a writer
       {"/dev/zero", "not a regular file"},
       {big, "larger than 16 MiB; refused"},
   };
   for (const auto& [path, why] : cases)
      EXPECT_EQ(parseConfigFile(path).errors, std::vector<std::string>{path + ": " + why});
   std::filesystem::remove_all(dir);
}

TEST(ConfigParser, MetricsListenIsAnAddressAndAPort) {
   struct Case {
      const char* value;
      const char* errorOrListen;  // the error after "r.yaml:2: metrics.listen: ", or listenText
   };
   const std::vector<Case> cases = {
       {"\"[::1]:9467\"", "[::1]:9467"},
       {"0.0.0.0:65535", "0.0.0.0:65535"},
       {"127.0.0.1", "expected ADDRESS:PORT or [IPV6]:PORT, got \"127.0.0.1\""},
       {"\"[::1]9467\"", "expected ADDRESS:PORT or [IPV6]:PORT, got \"[::1]9467\""},
       {"127.0.0.1:0", "not a port (1..65535): \"0\""},
       {"127.0.0.1:65536", "not a port (1..65535): \"65536\""},
       {"localhost:9467", "not an IPv4 address: \"localhost\""},
       {"\"[127.0.0.1]:9467\"", "not an IPv6 address: \"127.0.0.1\""},
   };
   for (const Case& c : cases) {
      const ParsedConfig r =
          parseConfigText(std::string("metrics:\n  listen: ") + c.value + "\n", "r.yaml");
      if (r.ok())
         EXPECT_EQ(r.document.metrics.listenText(), c.errorOrListen) << c.value;
      else
         EXPECT_EQ(r.errors, std::vector<std::string>{std::string("r.yaml:2: metrics.listen: ") +
                                                      c.errorOrListen})
             << c.value;
   }
   EXPECT_FALSE(parseConfigText("metrics: {}\n", "r.yaml").document.metrics.enabled());
}

}  // namespace
}  // namespace Frontend
