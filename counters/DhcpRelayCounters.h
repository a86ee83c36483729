#pragma once

#include <cstdint>

#include "model/Status.h"
#include "platform/addr/IntfId.h"

namespace Ip::Helper::DhcpRelay {

// Counting on the DHCPv4 packet paths, on the agent-local Status, by the BOOTP op byte
// (bootRequest, bootReply; see codec/DhcpHdr.h). `intf` is the client
// interface, empty when there is none; it is counted only when it has an intfStatus entry.
// Per interface only requests received, requests dropped and replies forwarded are counted
// here. Other ops are traced and not counted. These run once per packet: they allocate
// nothing and format no trace text unless a sink keeps the line.
void pktReceived(Status& status, uint8_t op, const Platform::IntfId& intf);
void pktForwarded(Status& status, uint8_t op, const Platform::IntfId& intf);
void pktDropped(Status& status, uint8_t op, const Platform::IntfId& intf);
// The one way the packet paths drop a message: the totals above, the reason's counter and a
// trace line naming the reason. The caller writes its own line with the details.
void pktDropped(Status& status, uint8_t op, const Platform::IntfId& intf, DropReason reason);

// DHCPv6 counting, on the DHCPv6 relay's own Status, by message type: what travels towards
// servers (client messages, Relay-Forw, and types no RFC assigns, which the relay forwards
// like client messages) counts as a request, what travels towards clients (Advertise,
// Reply, Reconfigure, Relay-Repl) as a reply.
uint8_t dhcp6Direction(uint8_t msgType);
inline void pkt6Received(Status& status, uint8_t msgType, const Platform::IntfId& intf) {
   pktReceived(status, dhcp6Direction(msgType), intf);
}
inline void pkt6Forwarded(Status& status, uint8_t msgType, const Platform::IntfId& intf) {
   pktForwarded(status, dhcp6Direction(msgType), intf);
}
inline void pkt6Dropped(Status& status, uint8_t msgType, const Platform::IntfId& intf,
                        DropReason reason) {
   pktDropped(status, dhcp6Direction(msgType), intf, reason);
}

// Copies the counters and reset times of `from` into `to`, globally and per interface,
// creating the intfStatus entries `to` lacks. Entries `to` has beyond `from` are left alone,
// so copying the published counters into a local Status at start-up never removes an
// interface the agent already knows; publication removes them (DhcpRelayCountersSm).
// Neither counterUpdateTime (each publication stamps its own) nor numSmartRelayedHosts (a
// count of live per-client state, which does not survive the agent) is copied.
void copyDhcpRelayCounters(const Status& from, Status& to);

}  // namespace Ip::Helper::DhcpRelay
