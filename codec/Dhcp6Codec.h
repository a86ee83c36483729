#pragma once

// The DHCPv6 message operations of the relay (and later of snooping). Nothing else in the
// agent walks DHCPv6 options: every read and edit goes through here, over the project's one
// TLV walker and byte cursor (RFC 8415 section 21.1: 2-byte code, 2-byte length).
//
// Common to all operations:
//  - Offsets are into the packet's data; `msgOffset` is where a DHCPv6 message starts (0
//    for a UDP payload). Every read is bounds-checked against the packet and against the
//    region it is told to stay in: an option that runs past its region ends the walk, and
//    what it did not reach is never read or edited.
//  - Edits either succeed whole or leave the packet unchanged (false); they allocate
//    nothing.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "platform/addr/EthAddr.h"
#include "platform/addr/Ip6Addr.h"
#include "platform/packet/Pkt.h"

namespace Ip::Helper::DhcpRelay {

// Message types (RFC 8415 section 7.3).
enum Dhcp6MsgType : uint8_t {
   dhcp6Solicit = 1,
   dhcp6Advertise = 2,
   dhcp6Request = 3,
   dhcp6Confirm = 4,
   dhcp6Renew = 5,
   dhcp6Rebind = 6,
   dhcp6Reply = 7,
   dhcp6Release = 8,
   dhcp6Decline = 9,
   dhcp6Reconfigure = 10,
   dhcp6InformationRequest = 11,
   dhcp6RelayForw = 12,
   dhcp6RelayRepl = 13,
};

// Option codes the relay reads or writes.
enum Dhcp6OptionCode : uint16_t {
   dhcp6OptClientId = 1,
   dhcp6OptIaNa = 3,
   dhcp6OptIaAddr = 5,
   dhcp6OptRelayMsg = 9,
   dhcp6OptVendorOpts = 17,
   dhcp6OptInterfaceId = 18,
   dhcp6OptIaPd = 25,
   dhcp6OptIaPrefix = 26,
   dhcp6OptRemoteId = 37,
   dhcp6OptVss = 68,
   dhcp6OptClientLinkLayerAddr = 79,
};

namespace Dhcp6Layout {
constexpr size_t msgType = 0;
constexpr size_t transactionId = 1;
constexpr size_t clientHeader = 4;  // options of a client/server message start here
constexpr size_t hopCount = 1;
constexpr size_t linkAddress = 2;
constexpr size_t peerAddress = 18;
constexpr size_t relayHeader = 34;  // options of a relay message start here
constexpr size_t optionHeader = 4;
// What wrapping a message in a Relay-Forw puts in front of it: the relay header and the
// Relay Message option's code and length.
constexpr size_t relayForwHead = relayHeader + optionHeader;    // 38
constexpr size_t remoteIdOption = optionHeader + 22;            // 26
constexpr size_t clientLinkLayerAddrOption = optionHeader + 8;  // 12
constexpr uint32_t cableLabsEnterprise = 4491;
constexpr uint16_t ccapCoresSubOption = 61;
}  // namespace Dhcp6Layout

// The byte between the interface name and the VRF name in Interface-Id. System interface
// names never hold it (letters, digits and "/.-_" only) and the configuration refuses VRF
// names that do, so the first one splits the option unambiguously.
constexpr char kInterfaceIdSeparator = ':';

// "SOLICIT" ... "RELAY-REPL"; "UNKNOWN" for any other value. Static text.
std::string_view dhcp6MsgTypeName(uint8_t type);

// The message type at msgOffset; nullopt for an empty packet.
std::optional<uint8_t> dhcp6MsgType(const Platform::Pkt& pkt, size_t msgOffset = 0);

// The fixed fields of a Relay-Forw or Relay-Repl at msgOffset.
struct Dhcp6RelayHdr {
   uint8_t msgType = 0;
   uint8_t hopCount = 0;
   Platform::Ip6Addr linkAddress;
   Platform::Ip6Addr peerAddress;
};
// Nullopt when fewer than 34 bytes follow msgOffset.
std::optional<Dhcp6RelayHdr> dhcp6RelayHdr(const Platform::Pkt& pkt, size_t msgOffset = 0);

// One option found in a region: where its header starts and its data.
struct Dhcp6Opt {
   size_t offset = 0;  // of the option code, in packet data offsets
   std::span<const uint8_t> data;
   size_t dataOffset() const { return offset + Dhcp6Layout::optionHeader; }
};
// The first option `code` among the options in [start, end) (end clipped to the packet);
// nullopt when absent or when the walk stops on a malformed option before finding it.
std::optional<Dhcp6Opt> dhcp6FindOption(const Platform::Pkt& pkt, uint16_t code, size_t start,
                                        size_t end);

// The Client Identifier's DUID of the client/server message at msgOffset (empty span when
// it has none); for tracing.
std::span<const uint8_t> dhcp6ClientDuid(const Platform::Pkt& pkt, size_t msgOffset = 0);
// The 24-bit transaction id of a client/server message; 0 when too short.
uint32_t dhcp6TransactionId(const Platform::Pkt& pkt, size_t msgOffset = 0);

// DUID types (RFC 8415 section 11).
enum Dhcp6DuidType : uint16_t {
   dhcp6DuidLlt = 1,   // link-layer address plus time
   dhcp6DuidEn = 2,    // enterprise number
   dhcp6DuidLl = 3,    // link-layer address
   dhcp6DuidUuid = 4,  // UUID
};
// The longest DUID: the type and 128 bytes (RFC 8415 section 11.1).
constexpr size_t kDhcp6MaxDuid = 130;

// The fields of a DUID that name a client (a DUID-LLT's time does not: the same client may
// send it anew). The views point into the DUID.
struct Dhcp6Duid {
   uint16_t type = 0;
   uint16_t hwType = 0;             // types 1 and 3
   Platform::EthAddr llAddr;        // types 1 and 3
   std::span<const uint8_t> uuid;   // type 4: 16 bytes
   uint32_t entno = 0;              // type 2
   std::span<const uint8_t> entId;  // type 2: what follows the enterprise number
};
// Reads a DUID of types 1 to 4 whose length fits its type: 14 bytes for type 1 and 10 for
// type 3 (a 6-byte link-layer address), 18 for type 4, 6 to kDhcp6MaxDuid for type 2;
// nullopt for any other.
std::optional<Dhcp6Duid> dhcp6ParseDuid(std::span<const uint8_t> duid);

// What a Relay-Repl (at offset 0) holds for the reply path.
struct Dhcp6RelayReply {
   Dhcp6RelayHdr hdr;
   size_t relayMsgOffset = 0;  // offset of option 9's data: the encapsulated message
   size_t relayMsgLength = 0;
   std::span<const uint8_t> interfaceId;  // option 18's data; empty when absent
   bool hasInterfaceId = false;
   bool hasRemoteId = false;
};
enum class Dhcp6ReplyError : uint8_t {
   none,
   tooShort,        // shorter than the relay header
   malformed,       // an option runs past the end of the message
   noRelayMessage,  // no option 9
   noInterfaceId,   // no option 18
};
// Reads a Relay-Repl at offset 0 of the packet; `error` says why not when it returns false
// (the first reason in the enum's order). The first option 9 and the first option 18 count.
bool dhcp6ParseRelayReply(const Platform::Pkt& pkt, Dhcp6RelayReply& out, Dhcp6ReplyError& error);

// Splits Interface-Id data into interface and VRF names at the first separator; nullopt
// when there is no separator or the interface part is empty. The views point into `data`.
struct Dhcp6InterfaceIdNames {
   std::string_view intf;
   std::string_view vrf;
};
std::optional<Dhcp6InterfaceIdNames> dhcp6SplitInterfaceId(std::span<const uint8_t> data);

// --- building a Relay-Forw (every function false, packet unchanged, when room runs out)

// Wraps the whole packet (a client message or a Relay-Forw of `msgLength` bytes at offset 0)
// in a Relay-Forw: grows the head by 38 and writes msg-type 12, `hopCount`, link-address ::,
// `peerAddress`, and option 9 with option-len msgLength. The message must be the packet's
// only content.
bool dhcp6WrapRelayForw(Platform::Pkt& pkt, uint8_t hopCount, const Platform::Ip6Addr& peerAddress);
void dhcp6RelayHopCountIs(Platform::Pkt& pkt, uint8_t hopCount);
void dhcp6RelayLinkAddressIs(Platform::Pkt& pkt, const Platform::Ip6Addr& linkAddress);

// Appends at the tail: Remote-Id (37; option-len 22: enterprise, DUID type 3, hardware type
// 1, the MAC, the 8-byte interface identifier), Client Link-Layer Address (79; type 1 and
// the MAC), Interface-Id (18; interface, separator, VRF), Virtual Subnet Selection (68;
// type 0 and the VRF name). Interface-Id is refused, too, for an empty interface name or one
// holding the separator: the reply could not be matched to it.
bool dhcp6AppendRemoteId(Platform::Pkt& pkt, uint32_t enterprise, const Platform::EthAddr& mac,
                         uint64_t interfaceIdValue);
bool addDhcp6LinkLayerAddressOpt(Platform::Pkt& pkt, const Platform::EthAddr& mac);
bool setIntfNameVrfInPkt(Platform::Pkt& pkt, std::string_view intf, std::string_view vrf);
bool dhcp6AppendVss(Platform::Pkt& pkt, std::string_view vrf);

// --- the reply path

// Opens (delta > 0) or closes (delta < 0) a gap of |delta| bytes at `offset`: the bytes
// from offset to the end move up (tail grows; the gap still holds the old bytes) or down
// (tail shrinks; the |delta| bytes before offset are gone).
bool preparePktForCcap(Platform::Pkt& pkt, size_t offset, int delta);

// Puts `cores` (CableLabs CCAP cores sub-option 61 of vendor option 17, enterprise 4491)
// into the message at [start, end): recurses through Relay-Repl option 9 (fixing each
// option 9 length on the way), edits the first option 17 of enterprise 4491 of an Advertise
// or Reply, or inserts one at `end`. Returns the change in packet length; 0 when nothing
// was done: no cores, another message type, a Relay-Repl without option 9 or nested deeper
// than 32 relays, or options that cannot be walked up to where the cores would go. `ok`
// turns false (packet unchanged) when the packet lacks room or the message would outgrow a
// UDP datagram (so no length inside it can overflow 16 bits). `intf` names the client
// interface in the trace lines.
int searchAndSetCcapCoresInPkt(Platform::Pkt& pkt, std::span<const Platform::Ip6Addr> cores,
                               std::string_view intf, size_t start, size_t end, bool& ok);

// Makes the packet exactly the message that option 9 of the Relay-Repl at offset 0 carries:
// drops the head up to its data and whatever follows it (traced "deleteHeadData" and
// "deleteTailData"). After searchAndSetCcapCoresInPkt the length is the parsed one plus its
// delta; the offset stays. False, unchanged, when the range is not inside the packet.
bool dhcp6UnwrapRelayMessage(Platform::Pkt& pkt, size_t relayMsgOffset, size_t relayMsgLength);

// The options region [optStart, optEnd) of the innermost Reply or Release (through nested
// Relay-Forw/Relay-Repl option 9s, at most 32) that holds IA_PD or IA_NA before any option
// that cannot be walked; false when there is none.
bool dhcpRelaySmv6ParseMsgForRouteInstall(const Platform::Pkt& pkt, size_t msgOffset,
                                          uint16_t& optStart, uint16_t& optEnd);

// One address (IA_NA's IAADDR, as a /128) or delegated prefix (IA_PD's IAPREFIX) of a
// Reply or Release, with its lifetimes in seconds (0xFFFFFFFF: infinite).
struct Dhcp6Lease {
   Platform::Ip6Prefix prefix;
   uint32_t preferredLifetime = 0;
   uint32_t validLifetime = 0;
   bool operator==(const Dhcp6Lease&) const = default;
};

// Walks the options region that dhcpRelaySmv6ParseMsgForRouteInstall found: into every IA_NA
// for its IAADDRs and every IA_PD for its IAPREFIXes, filling `out` in message order. Returns
// how many were found; those beyond out.size() are not reported. An IA option or address
// option too short for its fixed fields is skipped, and a walk that runs into bytes that
// cannot be walked ends there, keeping what it found before.
size_t dhcpRelaySmv6HandleIanaPd(const Platform::Pkt& pkt, uint16_t optStart, uint16_t optEnd,
                                 std::span<Dhcp6Lease> out);

}  // namespace Ip::Helper::DhcpRelay
