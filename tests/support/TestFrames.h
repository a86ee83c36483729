#pragma once

// Frames for the tests of the packet sockets: what a client sends before it has an address,
// and what the capture filter must tell apart. The codec builds them; a test bends one
// header field at a time (protocol, fragment, IP options) and the codec fixes the lengths
// and checksums around it.

#include <array>
#include <cstdint>
#include <initializer_list>
#include <utility>
#include <vector>

#include "codec/Frame.h"

namespace Platform::TestFrames {

using Bytes = std::vector<uint8_t>;

constexpr uint16_t kIpv4 = Codec::EthLayout::typeIpv4;
constexpr uint16_t kIpv6 = Codec::EthLayout::typeIpv6;
constexpr uint8_t kUdp = Codec::kIpProtoUdp;

// Big-endian, the last `bytes` bytes of v.
inline void put(Bytes& b, uint32_t v, int bytes) {
   for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8)
      b.push_back(static_cast<uint8_t>(v >> shift));
}

inline Bytes operator+(Bytes a, const Bytes& b) {
   a.insert(a.end(), b.begin(), b.end());
   return a;
}

// Broadcast from the far end's MAC; each tag is TPID << 16 | TCI, outermost first.
inline Bytes eth(uint16_t type, std::initializer_list<uint32_t> tags = {}) {
   Bytes b{0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x02, 0, 0, 0, 0, 0x0b};
   for (uint32_t tag : tags)
      put(b, tag, 4);
   put(b, type, 2);
   return b;
}

// A payload that tells frames apart: the marker, then some zeros.
inline Bytes marked(uint32_t marker) {
   Bytes b;
   put(b, marker, 4);
   b.resize(28);
   return b;
}

namespace Detail {

// The IP packet of a frame the codec built (callers put their own Ethernet header in front)
// with single bytes changed, its lengths and checksums fixed again: the transport stays
// UDP-shaped whatever the protocol field then says.
inline Bytes bent(Pkt& frame, bool ipv6, size_t ipHeader,
                  std::initializer_list<std::pair<size_t, uint8_t>> changes) {
   frame.shrinkHead(Codec::EthLayout::header);
   for (const auto& [off, v] : changes)
      frame.write(off, std::array{v});
   Codec::fixUdpFrame(frame.span(), {Codec::FrameError::none, ipv6, 0, ipHeader,
                                     ipHeader + Codec::UdpLayout::header});
   return {frame.span().begin(), frame.span().end()};
}

}  // namespace Detail

// 0.0.0.0 -> 255.255.255.255 with `optionWords` words of IP options (NOPs), checksummed.
inline Bytes ipv4(uint8_t proto, uint16_t srcPort, uint16_t dstPort, const Bytes& payload,
                  uint8_t optionWords = 0, uint16_t fragment = 0) {
   using namespace Codec;
   const size_t options = 4u * optionWords, headers = EthLayout::header + Ipv4Layout::header;
   // The IP header moves to the front of the head room to make room for its options.
   auto pkt = Pkt::copyOf(payload, kUdp4FrameHeaders + options);
   prependUdp4Frame(*pkt, {.dstIp = IpAddr::broadcast(), .srcPort = srcPort, .dstPort = dstPort});
   pkt->growHead(options);
   pkt->moveRange(options, 0, headers);
   pkt->write(headers, Bytes(options, 1));
   return Detail::bent(
       *pkt, false, Ipv4Layout::header + options,
       {{Ipv4Layout::versionIhl, static_cast<uint8_t>(Ipv4Layout::version4NoOptions + optionWords)},
        {Ipv4Layout::protocol, proto},
        {Ipv4Layout::fragment, static_cast<uint8_t>(fragment >> 8)},
        {Ipv4Layout::fragment + 1, static_cast<uint8_t>(fragment)}});
}
inline Bytes ipv4(uint8_t proto, uint16_t srcPort, uint16_t dstPort, uint32_t marker,
                  uint8_t optionWords = 0, uint16_t fragment = 0) {
   return ipv4(proto, srcPort, dstPort, marked(marker), optionWords, fragment);
}

// fe80::b -> ff02::1:2, the transport directly after the fixed header.
inline Bytes ipv6(uint8_t nextHeader, uint16_t srcPort, uint16_t dstPort, uint32_t marker) {
   using namespace Codec;
   auto pkt = Pkt::copyOf(marked(marker), kUdp6FrameHeaders);
   prependUdp6Frame(
       *pkt,
       {{}, {}, *Ip6Addr::parse("fe80::b"), *Ip6Addr::parse("ff02::1:2"), srcPort, dstPort, 1});
   return Detail::bent(*pkt, true, Ipv6Layout::header, {{Ipv6Layout::nextHeader, nextHeader}});
}

}  // namespace Platform::TestFrames
