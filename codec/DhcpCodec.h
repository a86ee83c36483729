#pragma once

// The DHCPv4 message operations of the relay and of snooping. Nothing else in the agent
// walks DHCP options: every read and edit of an option goes through here.
//
// Common to all operations:
//  - `dhcpOffset` is where the DHCP message starts in the packet's data: 0 for a UDP
//    payload (what the relay receives), 42 for a whole Ethernet/IPv4/UDP frame. An edit
//    changes only bytes from there on; the IP and UDP lengths and checksums in front of
//    it are the caller's. For a UDP payload there is nothing to keep consistent: the
//    DHCP message has no length field of its own and the datagram is the packet's bytes.
//  - A message shorter than the 236-byte fixed header has no options. Options exist only
//    after the magic cookie 99.130.83.99 at offset 236 (RFC 2131 section 3).
//  - Option 53, 54 and 50 are also found in `file` and then `sname` when option 52
//    lends them (RFC 2131 section 4.1). An option of fixed width that appears more than
//    once counts as absent: RFC 3396 would join the instances into a value of the wrong
//    width, and picking one would let a client choose what the relay and the server see.
//  - An option area that cannot be walked (a length running past its end) is malformed
//    as a whole: nothing is read from it and nothing is edited.
//  - Edits either succeed whole or leave the packet unchanged. Nothing allocates: the
//    only strings written are the caller's outputs of parseInfoOpt.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "codec/DhcpHdr.h"
#include "platform/addr/IpAddr.h"
#include "platform/packet/Pkt.h"

namespace Ip::Helper::DhcpRelay {

// The name of option 53's value ("DHCPDISCOVER" ... "DHCPTLS", RFC 2132 section 9.6 and
// the later message-type RFCs 3203, 4388, 6926, 7724). Besides those:
//   "BOOTP"         no option 53 (or no options at all): a BOOTP message, which relays
//                   forward like any other (RFC 1542);
//   "DHCPUNKNOWN"   option 53 with a value no RFC assigns;
//   "DHCPMALFORMED" shorter than the fixed header, an option area that cannot be walked,
//                   or option 53 duplicated or not 1 byte long.
// The text is static; tracing it costs nothing.
std::string_view getDhcpMsgType(const Platform::Pkt& pkt, size_t dhcpOffset = 0);

// Option 54 when the message carries exactly one, 4 bytes long.
std::optional<Platform::IpAddr> getServerId(const Platform::Pkt& pkt, size_t dhcpOffset = 0);

// Rewrites the value of option 54 in place, wherever it is (options, file or sname).
// False, packet unchanged, when there is no usable option 54: one is never added, because
// a client leaves it out on purpose (DISCOVER, and REQUEST in INIT-REBOOT, REBINDING and
// RENEWING, RFC 2131 table 5) and a server would then treat the message differently.
bool setServerId(Platform::Pkt& pkt, Platform::IpAddr addr, size_t dhcpOffset = 0);

// Option 50 of a request (op 1); nullopt for any other op, since RFC 2131 table 3 bars it
// from server messages.
std::optional<Platform::IpAddr> getRequestedIpOption(const Platform::Pkt& pkt, uint8_t op,
                                                     size_t dhcpOffset = 0);

// True when the message carries option 82 anywhere, so a caller can apply RFC 3046
// section 2.1 (discard it from an untrusted circuit) without walking options itself.
// False for a malformed option area, which every edit refuses anyway.
bool infoOptPresent(const Platform::Pkt& pkt, size_t dhcpOffset = 0);

// Adds (op 1, bootRequest) or removes (op 2, bootReply) the relay agent information
// option. `flag` says whether the relay does option 82 work on this packet at all; when
// false the packet is left as it is and the call succeeds, for both ops.
//
// op 1: option 82 with the sub-options whose values are set (see RelayAgentInfoValues:
// an empty circuit-id, remote-id or VRF name and a 0.0.0.0 address are left out), in
// the order 1 circuit-id, 2 remote-id, 5 link selection, 11 server identifier override,
// 151 VRF name (VSS type 0, NVT ASCII). It goes right before the end option of the
// options field (RFC 3046 section 2.1: it is the last option); the bytes after the end
// option move up by the option's size, the client's options keep their bytes and order.
// The VSS control sub-option (152) is not added: the VRF name is for this relay to
// recognise its own cross-VRF reply, which a server echoes verbatim (RFC 3046 section
// 2.2) whether or not it implements VSS, and 152 would make a reply from a server that
// does not implement VSS one the relay has to refuse.
//   - The message already carries option 82 (added by a trusted downstream element or
//     a snooping bridge that left giaddr zero): it is left unchanged and the call
//     succeeds, since a relay must not add a second one (RFC 3046 sections 2.1 and
//     2.1.1). A relay that prepares one packet several times, once per server, removes
//     its own option first (op 2), or this rule keeps the first copy's values.
//   - No value set: nothing to carry, unchanged, true.
//   - False, unchanged: no magic cookie, no end option in the options field, a malformed
//     option area, an option over 255 bytes or a VRF name over the VRF name limit, or
//     not enough tail room in the packet.
// op 2: removes every option 82, closing the gap in the options field (the bytes after
// it move back) and padding it out in a lent `file` or `sname` (those fields have a
// fixed size). True when there was none, or no options at all; false, unchanged, for a
// malformed option area.
// Any other op: false.
//
// The last argument of the relay's calls is 0: see `dhcpOffset` above.
bool preparePacket(Platform::Pkt& pkt, uint8_t op, bool flag, std::string_view circuitId,
                   std::string_view remoteId, std::string_view vrfName,
                   Platform::IpAddr serverIdOverride, Platform::IpAddr linkSelection,
                   size_t dhcpOffset);

// Puts the relay's own link selection, server identifier override and VRF name sub-options
// (those set) into the option 82 a first-hop agent added, replacing any of theirs with
// those codes, so that a copy that needs them carries them while the first hop's
// circuit-id and remote-id travel on (one option 82 per message, RFC 3046 section 2.1).
// Without option 82 it adds one with just these sub-options. False, unchanged: option 82
// outside the options field or more than once, a malformed area, a result over 255
// bytes, not enough tail room.
bool mergeInfoOpt(Platform::Pkt& pkt, std::string_view vrfName, Platform::IpAddr serverIdOverride,
                  Platform::IpAddr linkSelection, size_t dhcpOffset);

// Takes the relay's own sub-options (link selection, server identifier override, VRF name)
// out of option 82 and leaves the rest as it came, so that a first-hop agent finds its own
// option in the reply; an option left empty goes. True when there is nothing to take out.
bool stripOwnInfoSubOptions(Platform::Pkt& pkt, size_t dhcpOffset);

// Option 51, the lease time in seconds, when the message carries exactly one of 4 bytes.
std::optional<uint32_t> getLeaseTime(const Platform::Pkt& pkt, size_t dhcpOffset = 0);

// Reads option 82 of a reply into the outputs, cleared first. A message without option
// 82 (or without options) parses: every output is empty, and the reply of a relay
// that adds no option is still relayed. False when the option area is malformed, option
// 82 appears more than once, or its sub-options are malformed (see
// Codec::decodeRelayAgentInfo). The outputs are strings the caller keeps; assigning to
// them reuses their capacity.
bool parseInfoOpt(const Platform::Pkt& pkt, std::string& circuitId, std::string& remoteId,
                  std::string& vrfName, Platform::IpAddr& serverIdOverride,
                  Platform::IpAddr& linkSelection, size_t dhcpOffset);

}  // namespace Ip::Helper::DhcpRelay
