#pragma once

// The Ethernet, IPv4, IPv6 and UDP headers around a DHCP message: where their fields are,
// where the message is inside a captured frame, and the headers built or repaired around a
// message in a packet's buffer, and the IPv6 frames of ICMPv6 (neighbour discovery, for the
// load tool). The relay's reply path, snooping, the load tools and the tests all go through
// here; nothing else indexes frame bytes.
//
// Received frames are read through the byte cursor and reported, never asserted on.
// Building and repairing allocate nothing: headers go into a packet's head room, lengths
// and checksums are written over the bytes already there.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "platform/addr/EthAddr.h"
#include "platform/addr/Ip6Addr.h"
#include "platform/addr/IpAddr.h"
#include "platform/packet/EthHeader.h"
#include "platform/packet/Pkt.h"

namespace Codec {

// Field offsets, each counted from the start of its own header.
namespace EthLayout {
constexpr size_t dst = 0;
constexpr size_t src = 6;
constexpr size_t type = Platform::kEthTypeOffset;
constexpr size_t header = Platform::kEthHeaderBytes;
// An 802.1Q tag takes the type's place: its TPID, its TCI, then the type it wraps.
constexpr size_t vlanTag = Platform::kVlanTagBytes;
constexpr uint16_t typeVlan = Platform::kEthTypeVlan;
constexpr uint16_t typeIpv4 = 0x0800;
constexpr uint16_t typeIpv6 = 0x86dd;
}  // namespace EthLayout

namespace Ipv4Layout {
constexpr size_t versionIhl = 0;
constexpr size_t tos = 1;
constexpr size_t totalLength = 2;
constexpr size_t id = 4;
constexpr size_t fragment = 6;  // flags and fragment offset
constexpr size_t ttl = 8;
constexpr size_t protocol = 9;
constexpr size_t checksum = 10;
constexpr size_t src = 12;
constexpr size_t dst = 16;
constexpr size_t header = 20;  // without options
constexpr uint8_t version4NoOptions = 0x45;
constexpr uint16_t moreFragments = 0x2000;
constexpr uint16_t fragmentOffset = 0x1fff;
}  // namespace Ipv4Layout

namespace Ipv6Layout {
constexpr size_t versionClassFlow = 0;
constexpr size_t payloadLength = 4;
constexpr size_t nextHeader = 6;
constexpr size_t hopLimit = 7;
constexpr size_t src = 8;
constexpr size_t dst = 24;
constexpr size_t header = 40;
constexpr uint32_t version6 = 0x60000000;
constexpr uint8_t nextHeaderFragment = 44;
}  // namespace Ipv6Layout

namespace UdpLayout {
constexpr size_t srcPort = 0;
constexpr size_t dstPort = 2;
constexpr size_t length = 4;
constexpr size_t checksum = 6;
constexpr size_t header = 8;
}  // namespace UdpLayout

namespace Icmp6Layout {
constexpr size_t type = 0;
constexpr size_t code = 1;
constexpr size_t checksum = 2;
constexpr size_t header = 4;
}  // namespace Icmp6Layout

constexpr uint8_t kIpProtoUdp = 17;
constexpr uint8_t kIpProtoIcmp6 = 58;

// What the builders put in front of a payload: where the DHCP message of a frame they
// built starts.
constexpr size_t kUdp4FrameHeaders = EthLayout::header + Ipv4Layout::header + UdpLayout::header;
constexpr size_t kUdp6FrameHeaders = EthLayout::header + Ipv6Layout::header + UdpLayout::header;

// Why a frame holds no UDP payload the codec can reach.
enum class FrameError : uint8_t {
   none,
   tooShort,         // the frame ends inside a header or before the datagram's end
   notIp,            // neither IPv4 nor IPv6 after the Ethernet header and at most one tag
   fragment,         // any fragment: even the first holds only part of the payload
   notUdp,           // another protocol, or IPv6 extension headers in front of UDP
   badHeaderLength,  // an IPv4 header length below 20 or past the total length
   badLength,        // the IP and UDP lengths disagree, or leave no room for UDP
};

// Static text, for traces.
std::string_view frameErrorText(FrameError error);

// Where the headers and the UDP payload of a frame are, as offsets into the frame, and the
// UDP ports. Bytes after `payload + payloadBytes` are link padding, not part of the datagram.
struct FrameLayout {
   FrameError error = FrameError::tooShort;
   bool ipv6 = false;
   size_t l3 = 0;
   size_t udp = 0;
   size_t payload = 0;
   size_t payloadBytes = 0;
   uint16_t srcPort = 0;
   uint16_t dstPort = 0;

   explicit operator bool() const { return error == FrameError::none; }
   size_t datagramEnd() const { return payload + payloadBytes; }
};

// Ethernet, optionally one 802.1Q tag, IPv4 (with options, not fragmented) or IPv6 (UDP
// right after the fixed header), UDP. Checksums are not looked at: see frameChecksumsOk.
FrameLayout locateFrame(std::span<const uint8_t> frame);

// The source MAC address of a frame; nullopt when it is shorter than an Ethernet header.
std::optional<Platform::EthAddr> frameSrcMac(std::span<const uint8_t> frame);

// True when the IPv4 header checksum (IPv4) and the UDP checksum hold. A UDP checksum of 0
// over IPv4 means "none" and holds; over IPv6 it never does. Check this before editing a
// received frame: fixUdpFrame computes checksums afresh, which would make a frame damaged
// on the way look sound.
bool frameChecksumsOk(std::span<const uint8_t> frame, const FrameLayout& at);

// Writes the IP and UDP lengths and the checksums of a frame whose UDP payload, from
// `at.payload` to the end of `frame`, was edited in place (grown or shrunk): trim link
// padding (`datagramEnd`) before the edit. False, nothing written, when the payload no
// longer fits the IP length field or `at` does not fit the frame.
bool fixUdpFrame(std::span<uint8_t> frame, const FrameLayout& at);

// The header fields the builders take; the rest is fixed: no VLAN tag, IPv4 without options,
// id 0, no fragmentation flags, IPv6 flow label 0.
struct Udp4Frame {
   Platform::EthAddr dstMac{};
   Platform::EthAddr srcMac{};
   Platform::IpAddr srcIp{};
   Platform::IpAddr dstIp{};
   uint16_t srcPort = 0;
   uint16_t dstPort = 0;
   uint8_t ttl = 64;
   uint8_t tos = 0;
};

struct Udp6Frame {
   Platform::EthAddr dstMac{};
   Platform::EthAddr srcMac{};
   Platform::Ip6Addr srcIp{};
   Platform::Ip6Addr dstIp{};
   uint16_t srcPort = 0;
   uint16_t dstPort = 0;
   uint8_t hopLimit = 64;
   uint8_t trafficClass = 0;
};

// Turn the packet's bytes, a UDP payload, into a whole frame with lengths and checksums, in
// the head room. False, packet unchanged, when the head room is short or the payload too
// long for one datagram.
bool prependUdp4Frame(Platform::Pkt& pkt, const Udp4Frame& fields);
bool prependUdp6Frame(Platform::Pkt& pkt, const Udp6Frame& fields);

// ICMPv6 (RFC 4443) right after the IPv6 header: the neighbour discovery the DHCPv6 load tool
// answers for the clients it plays, which have no stack of their own. The agent leaves
// neighbour discovery to the kernel.
constexpr size_t kIcmp6FrameHeaders = EthLayout::header + Ipv6Layout::header;

// Where a frame's ICMPv6 message is; bytes after `message + bytes` are link padding.
struct Icmp6Location {
   size_t l3 = 0;
   size_t message = 0;
   size_t bytes = 0;
};

// Ethernet, optionally one 802.1Q tag, IPv6 with ICMPv6 as its next header, the message
// inside the frame and its checksum sound; nullopt for anything else.
std::optional<Icmp6Location> locateIcmp6(std::span<const uint8_t> frame);

struct Icmp6Frame {
   Platform::EthAddr dstMac{};
   Platform::EthAddr srcMac{};
   Platform::Ip6Addr srcIp{};
   Platform::Ip6Addr dstIp{};
   uint8_t hopLimit = 255;  // what neighbour discovery insists on (RFC 4861 section 7.1)
};

// Turn the packet's bytes, an ICMPv6 message, into a whole frame with the payload length and
// the message's checksum written, in the head room. False, packet unchanged, when the head
// room is short or the bytes are no ICMPv6 message (shorter than its header, longer than
// one IPv6 payload).
bool prependIcmp6Frame(Platform::Pkt& pkt, const Icmp6Frame& fields);

}  // namespace Codec
