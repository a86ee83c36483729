#pragma once

// The control protocol between dhcp-relay-ctl and the running agent.
//
// Transport: a Unix stream socket (default kDefaultControlSocket, mode 0600, so only
// root talks to the agent). Each side writes one JSON object per line ('\n'). A
// connection may carry any number of requests; each gets exactly one reply, in order.
// Blank lines are ignored. A line longer than kMaxControlLine bytes gets an error reply
// and the connection is closed after it.
//
// Request:   {"cmd": "<command>", ...command fields}
// Reply:     {"ok": true, "data": <command result>}
//        or  {"ok": false, "error": "<message for the operator>"}
//
// Commands and the data of their replies:
//
//   {"cmd": "show", "what": "config"}
//     The configuration in force, keyed like the configuration file:
//     {"vrfs":       {"red": "ns-red"},
//      "system":     {"hostname": "relay1", "bridge-mac": "02:00:00:00:01:00" | null},
//      "relay":      {"smart-relay": false, "dscp-v4": 0, "dscp-v6": 0,
//                     "always-on": false, "client-link-layer-address": false},
//      "devices":    {"Ethernet1": "veth-client"},
//      "interfaces": {"Ethernet1": {
//                       "vrf": "default",
//                       "servers":    [{"address": "192.0.2.10", "vrf": "default"},
//                                      {"address": "198.51.100.7", "vrf": "red",
//                                       "source-interface": "Loopback0"},
//                                      {"address": "203.0.113.5", "vrf": "default",
//                                       "source-address": "192.0.2.1"},
//                                      {"hostname": "dhcp.example.net", "vrf": "default"}],
//                       "servers-v6": [{"address": "2001:db8::10", "vrf": "default"}],
//                       "ccap-cores": ["2001:db8:cc::1"],
//                       "smart-relay": false, "information-option": true,
//                       "circuit-id": "rack4-port1" | null, "route-install": false}},
//      "snooping":   {"enabled": false, "vlans": [10, 20], "information-option": true,
//                     "circuit-id-type": 0 | null, "circuit-id-format": "%p:%v",
//                     "v6": {"vlans": [10], "remote-id-option": true}},
//      "bridging":   {"ports": {"Ethernet2": {"mode": "access", "vlan": 10},
//                               "Ethernet3": {"mode": "trunk", "native-vlan": 1,
//                                             "allowed-vlans": [10, 20]}}},
//      "file":       "/etc/dhcp-relay-agent/dhcp-relay.yaml"}       (optional)
//     Optional server fields are left out when unset.
//
//   {"cmd": "show", "what": "interfaces"}
//     The kernel's devices of every VRF, as the agent follows them:
//     {"vrfs": [{"vrf": "default", "namespace": "default", "active": true,
//                "interfaces": [{"ifindex": 1, "device": "lo", "mac": "00:00:00:00:00:00",
//                                "up": true, "running": true,
//                                "ipv4": ["127.0.0.1/8"], "ipv6": ["::1/128"],
//                                "intfId": "Loopback0" | null}]}]}
//     "mac" is null for devices without an Ethernet address; "intfId" is the system
//     interface name the configuration maps to the device, null when none does.
//     An inactive VRF has an empty "interfaces" list. The namespace of the default VRF
//     is the agent's own, named "default" (as in Ip::AllVrfStatusLocal).
//
//   {"cmd": "show", "what": "vrfs"}
//     [{"vrf": "default", "namespace": "default", "active": true},
//      {"vrf": "red", "namespace": "ns-red", "active": false}]
//
//   {"cmd": "show", "what": "status"}
//     The relay's Status record; attribute and counter names as in model/Status.h,
//     times as UTC seconds since the epoch (0: never):
//     {"runControl": true, "numSmartRelayedHosts": 0,
//      "counterUpdateTime": 1714560000.5, "lastResetAllTime": 0,
//      "counters": {"totalRequestsReceived": 12, ..., "totalRepliesDropped": 0},
//      "interfaces": {"Ethernet1": {
//                       "lastResetTime": 0,
//                       "counters": {"requestsReceived": 3, ..., "repliesForwarded": 3},
//                       "prefixBindings": [{"prefix": "2001:db8:100::/56",
//                                           "nextHop": "fe80::1", "vrf": "default",
//                                           "preferredLifetime": 3600,
//                                           "validLifetime": 7200}]}}}
//
//   {"cmd": "show", "what": "routes"}
//     The DHCPv6 relay's prefix bindings, each a route in its VRF; "remaining" is null
//     for a binding that never ends:
//     {"routes": [{"prefix": "2001:db8:100::/56", "nextHop": "fe80::1",
//                  "interface": "Ethernet1", "vrf": "default", "preferredLifetime": 3600,
//                  "validLifetime": 7200, "writeTime": 1714560000.5, "remaining": 7190.2}]}
//
//   {"cmd": "show", "what": "duid-bindings"}
//     The DHCPv6 relay's DUID-to-MAC bindings (client-link-layer-address), per VRF with a
//     DHCPv6 socket: a client message of which one copy came (the captured frame or the
//     socket's) and the other not yet. "mac" is the frame's source (null until the frame
//     came), "held" the type of the message waiting for it (null when none waits), "age"
//     seconds since the first copy; "refused" counts bindings the VRF had no room for;
//     "captures" names the interfaces whose frames are captured, with "open", "closed" or
//     "cannot open: <reason>":
//     {"limit": 4096,
//      "vrfs": [{"vrf": "default", "refused": 0, "captures": {"Ethernet1": "open"},
//                "bindings": [{"duid": "00:03:00:01:02:00:00:00:0c:01", "xid": 1193046,
//                              "mac": "02:00:00:00:0c:01" | null,
//                              "interface": "Ethernet1" | null,
//                              "held": "SOLICIT" | null, "age": 1.5}]}]}
//
//   {"cmd": "reload"}
//     Re-reads the configuration file and applies it whole, or not at all (then the
//     reply is an error listing what is wrong, one problem per line).
//     data: {"file": "<path>", "warnings": ["..."]}   (both optional)

#include <nlohmann/json.hpp>

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>

#include "platform/linux/Fd.h"

namespace Frontend {

inline constexpr const char* kDefaultControlSocket = "/run/dhcp-relay-agent/ctl.sock";
inline constexpr size_t kMaxControlLine = 64 * 1024;

// Thrown by a command handler to send {"ok": false, "error": message}.
class ControlError : public std::runtime_error {
 public:
   explicit ControlError(const std::string& message) : std::runtime_error(message) {}
};

nlohmann::json controlReplyOk(nlohmann::json data);
nlohmann::json controlReplyError(const std::string& message);

// A reply or request as the single line that goes on the wire, newline included.
// Strings that are not valid UTF-8 (device names, hostnames from the outside) are
// repaired rather than allowed to fail the reply.
std::string controlLine(const nlohmann::json& message);

// The string field `key` of a request; throws ControlError naming the field when it is
// missing or not a string.
const std::string& requestString(const nlohmann::json& request, const char* key);

// The command line's side: blocking, one request at a time, each with a time limit so a
// wedged agent cannot hang an operator's shell.
class ControlClient {
 public:
   explicit ControlClient(int timeoutSeconds = 30) : timeoutSeconds_(timeoutSeconds) {}

   // error is the system's reason (strerror text) when nothing answers at path.
   bool connect(const std::string& path, std::string& error);
   // The reply object, or nullopt when the connection failed before a whole reply came.
   std::optional<nlohmann::json> request(const nlohmann::json& request, std::string& error);

 private:
   Platform::Fd fd_;
   int timeoutSeconds_;
   std::string pending_;  // bytes after the last reply line
};

}  // namespace Frontend
