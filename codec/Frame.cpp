#include "codec/Frame.h"

#include <algorithm>
#include <optional>

#include "platform/packet/ByteCursor.h"

namespace Codec {

using Platform::ByteReader;
using Platform::ByteWriter;

namespace {

// The Internet checksum (RFC 1071) as a sum of big-endian 32-bit words: 2^16 is 1 modulo
// 2^16 - 1, so the folded sum is the one of 16-bit words, in half the additions. An odd
// last byte is padded with zero, so only the last span summed may have an odd length.
uint64_t inetSum(std::span<const uint8_t> bytes, uint64_t sum = 0) {
   const uint8_t* p = bytes.data();
   size_t n = bytes.size();
   for (; n >= 4; p += 4, n -= 4)
      sum += uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
   if (n >= 2) {
      sum += uint32_t{p[0]} << 8 | p[1];
      p += 2;
      n -= 2;
   }
   if (n)
      sum += uint32_t{p[0]} << 8;
   return sum;
}

uint16_t inetChecksum(uint64_t sum) {
   while (sum >> 16)
      sum = (sum & 0xffff) + (sum >> 16);
   return static_cast<uint16_t>(~sum);
}

std::optional<uint8_t> read8At(std::span<const uint8_t> bytes, size_t off) {
   ByteReader r(bytes);
   return r.skip(off) ? r.read8() : std::nullopt;
}

std::optional<uint16_t> read16At(std::span<const uint8_t> bytes, size_t off) {
   ByteReader r(bytes);
   return r.skip(off) ? r.read16() : std::nullopt;
}

// Only for offsets the caller has checked against the frame's size.
void write16At(std::span<uint8_t> bytes, size_t off, uint16_t v) {
   ByteWriter(bytes.subspan(off)).write16(v);
}

FrameError locateIpv4(std::span<const uint8_t> ip, FrameLayout& at) {
   const auto versionIhl = read8At(ip, Ipv4Layout::versionIhl);
   if (versionIhl && *versionIhl >> 4 != 4)
      return FrameError::notIp;
   const auto total = read16At(ip, Ipv4Layout::totalLength);
   const auto fragment = read16At(ip, Ipv4Layout::fragment);
   const auto protocol = read8At(ip, Ipv4Layout::protocol);
   if (!versionIhl || !total || !fragment || !protocol)
      return FrameError::tooShort;
   const size_t ihl = size_t{*versionIhl & 0x0fu} * 4;
   if (ihl < Ipv4Layout::header)
      return FrameError::badHeaderLength;
   if (*fragment & (Ipv4Layout::moreFragments | Ipv4Layout::fragmentOffset))
      return FrameError::fragment;
   if (*protocol != kIpProtoUdp)
      return FrameError::notUdp;
   if (ihl > *total)
      return FrameError::badHeaderLength;
   if (*total > ip.size())
      return FrameError::tooShort;
   const auto udpLength = read16At(ip, ihl + UdpLayout::length);
   if (*total - ihl < UdpLayout::header || !udpLength || *udpLength != *total - ihl)
      return FrameError::badLength;
   at.udp = at.l3 + ihl;
   at.payloadBytes = *udpLength - UdpLayout::header;
   return FrameError::none;
}

FrameError locateIpv6(std::span<const uint8_t> ip, FrameLayout& at) {
   const auto version = read8At(ip, Ipv6Layout::versionClassFlow);
   if (version && *version >> 4 != 6)
      return FrameError::notIp;
   const auto payloadLength = read16At(ip, Ipv6Layout::payloadLength);
   const auto nextHeader = read8At(ip, Ipv6Layout::nextHeader);
   if (!version || !payloadLength || !nextHeader)
      return FrameError::tooShort;
   if (*nextHeader == Ipv6Layout::nextHeaderFragment)
      return FrameError::fragment;
   if (*nextHeader != kIpProtoUdp)
      return FrameError::notUdp;
   if (ip.size() < Ipv6Layout::header || *payloadLength > ip.size() - Ipv6Layout::header)
      return FrameError::tooShort;
   // A payload length of 0 is a jumbogram's, whose UDP length cannot be 0 either.
   const auto udpLength = read16At(ip, Ipv6Layout::header + UdpLayout::length);
   if (*payloadLength < UdpLayout::header || !udpLength || *udpLength != *payloadLength)
      return FrameError::badLength;
   at.ipv6 = true;
   at.udp = at.l3 + Ipv6Layout::header;
   at.payloadBytes = *udpLength - UdpLayout::header;
   return FrameError::none;
}

// Addresses, protocol and upper-layer length: RFC 768 for IPv4, RFC 8200 section 8.1 for
// IPv6.
uint64_t pseudoHeaderSum(std::span<const uint8_t> frame, size_t l3, bool ipv6, uint8_t protocol,
                         size_t bytes) {
   const auto addresses =
       ipv6 ? frame.subspan(l3 + Ipv6Layout::src, 32) : frame.subspan(l3 + Ipv4Layout::src, 8);
   return inetSum(addresses, protocol + bytes);
}

// The type after the Ethernet header and at most one tag; `l3` is where what it names starts.
std::optional<uint16_t> etherType(std::span<const uint8_t> frame, size_t& l3) {
   ByteReader r(frame);
   std::optional<uint16_t> type;
   if (!r.skip(EthLayout::type) || !(type = r.read16()))
      return std::nullopt;
   if (*type == EthLayout::typeVlan && (!r.skip(EthLayout::vlanTag - 2) || !(type = r.read16())))
      return std::nullopt;
   l3 = r.offset();
   return type;
}

bool offsetsFit(size_t frameBytes, const FrameLayout& at) {
   const size_t ipHeader = at.ipv6 ? Ipv6Layout::header : Ipv4Layout::header;
   return at.udp >= at.l3 + ipHeader && at.payload == at.udp + UdpLayout::header &&
          at.payload <= frameBytes;
}

void writeEth(ByteWriter& out, const Platform::EthAddr& dst, const Platform::EthAddr& src,
              uint16_t type) {
   out.bytes(dst.bytes());
   out.bytes(src.bytes());
   out.write16(type);
}

// The payload length is left 0 for fixUdpFrame when the payload is UDP.
void writeIpv6(ByteWriter& out, uint8_t trafficClass, uint16_t payloadLength, uint8_t nextHeader,
               uint8_t hopLimit, const Platform::Ip6Addr& src, const Platform::Ip6Addr& dst) {
   out.write32(Ipv6Layout::version6 | uint32_t{trafficClass} << 20);
   out.write16(payloadLength);
   out.write8(nextHeader);
   out.write8(hopLimit);
   out.bytes(src.bytes());
   out.bytes(dst.bytes());
}

void writeUdp(ByteWriter& out, uint16_t srcPort, uint16_t dstPort) {
   out.write16(srcPort);
   out.write16(dstPort);
   out.write16(0);  // length and checksum: fixUdpFrame's
   out.write16(0);
}

FrameLayout builtLayout(bool ipv6) {
   FrameLayout at;
   at.error = FrameError::none;
   at.ipv6 = ipv6;
   at.l3 = EthLayout::header;
   at.udp = at.l3 + (ipv6 ? Ipv6Layout::header : Ipv4Layout::header);
   at.payload = at.udp + UdpLayout::header;
   return at;
}

constexpr size_t kMaxUdpPayload = 0xffff - UdpLayout::header;

}  // namespace

std::string_view frameErrorText(FrameError error) {
   switch (error) {
      case FrameError::none:
         return "no error";
      case FrameError::tooShort:
         return "frame too short";
      case FrameError::notIp:
         return "not IPv4 or IPv6";
      case FrameError::fragment:
         return "IP fragment";
      case FrameError::notUdp:
         return "not UDP";
      case FrameError::badHeaderLength:
         return "bad IPv4 header length";
      case FrameError::badLength:
         return "IP and UDP lengths disagree";
   }
   return "unknown frame error";
}

FrameLayout locateFrame(std::span<const uint8_t> frame) {
   FrameLayout at;
   const auto type = etherType(frame, at.l3);
   if (!type)
      return at;
   if (*type == EthLayout::typeIpv4)
      at.error = locateIpv4(frame.subspan(at.l3), at);
   else if (*type == EthLayout::typeIpv6)
      at.error = locateIpv6(frame.subspan(at.l3), at);
   else
      at.error = FrameError::notIp;
   if (!at)
      return at;
   at.payload = at.udp + UdpLayout::header;
   at.srcPort = read16At(frame, at.udp + UdpLayout::srcPort).value_or(0);
   at.dstPort = read16At(frame, at.udp + UdpLayout::dstPort).value_or(0);
   return at;
}

std::optional<Platform::EthAddr> frameSrcMac(std::span<const uint8_t> frame) {
   ByteReader r(frame);
   Platform::EthAddr::Bytes mac{};
   if (frame.size() < EthLayout::header || !r.skip(EthLayout::src))
      return std::nullopt;
   const auto bytes = *r.bytes(mac.size());
   std::copy(bytes.begin(), bytes.end(), mac.begin());
   return Platform::EthAddr(mac);
}

bool frameChecksumsOk(std::span<const uint8_t> frame, const FrameLayout& at) {
   if (!at || at.datagramEnd() > frame.size())
      return false;
   if (!at.ipv6 && inetChecksum(inetSum(frame.subspan(at.l3, at.udp - at.l3))) != 0)
      return false;
   const auto udp = frame.subspan(at.udp, at.datagramEnd() - at.udp);
   if (!at.ipv6 && read16At(udp, UdpLayout::checksum) == 0)
      return true;
   return inetChecksum(
              inetSum(udp, pseudoHeaderSum(frame, at.l3, at.ipv6, kIpProtoUdp, udp.size()))) == 0;
}

bool fixUdpFrame(std::span<uint8_t> frame, const FrameLayout& at) {
   if (!offsetsFit(frame.size(), at) || frame.size() - at.payload > kMaxUdpPayload)
      return false;
   const size_t udpBytes = frame.size() - at.udp;
   if (at.ipv6) {
      write16At(frame, at.l3 + Ipv6Layout::payloadLength, static_cast<uint16_t>(udpBytes));
   } else {
      const size_t total = at.udp - at.l3 + udpBytes;
      if (total > 0xffff)
         return false;
      write16At(frame, at.l3 + Ipv4Layout::totalLength, static_cast<uint16_t>(total));
      write16At(frame, at.l3 + Ipv4Layout::checksum, 0);
      write16At(frame, at.l3 + Ipv4Layout::checksum,
                inetChecksum(inetSum(frame.subspan(at.l3, at.udp - at.l3))));
   }
   write16At(frame, at.udp + UdpLayout::length, static_cast<uint16_t>(udpBytes));
   write16At(frame, at.udp + UdpLayout::checksum, 0);
   const uint16_t sum = inetChecksum(inetSum(
       frame.subspan(at.udp), pseudoHeaderSum(frame, at.l3, at.ipv6, kIpProtoUdp, udpBytes)));
   // 0 on the wire means "no checksum" (RFC 768); over IPv6 it is not allowed at all.
   write16At(frame, at.udp + UdpLayout::checksum, sum == 0 ? 0xffff : sum);
   return true;
}

bool prependUdp4Frame(Platform::Pkt& pkt, const Udp4Frame& f) {
   if (pkt.bytes() > kMaxUdpPayload - Ipv4Layout::header || !pkt.growHead(kUdp4FrameHeaders))
      return false;
   ByteWriter out(pkt.span());
   writeEth(out, f.dstMac, f.srcMac, EthLayout::typeIpv4);
   out.write8(Ipv4Layout::version4NoOptions);
   out.write8(f.tos);
   out.write16(0);  // total length: fixUdpFrame's
   out.write16(0);  // id
   out.write16(0);  // no fragmentation flags, offset 0
   out.write8(f.ttl);
   out.write8(kIpProtoUdp);
   out.write16(0);  // checksum: fixUdpFrame's
   out.write32(f.srcIp.value());
   out.write32(f.dstIp.value());
   writeUdp(out, f.srcPort, f.dstPort);
   return fixUdpFrame(pkt.span(), builtLayout(false));
}

bool prependUdp6Frame(Platform::Pkt& pkt, const Udp6Frame& f) {
   if (pkt.bytes() > kMaxUdpPayload || !pkt.growHead(kUdp6FrameHeaders))
      return false;
   ByteWriter out(pkt.span());
   writeEth(out, f.dstMac, f.srcMac, EthLayout::typeIpv6);
   writeIpv6(out, f.trafficClass, 0, kIpProtoUdp, f.hopLimit, f.srcIp, f.dstIp);
   writeUdp(out, f.srcPort, f.dstPort);
   return fixUdpFrame(pkt.span(), builtLayout(true));
}

std::optional<Icmp6Location> locateIcmp6(std::span<const uint8_t> frame) {
   size_t l3 = 0;
   if (etherType(frame, l3) != EthLayout::typeIpv6)
      return std::nullopt;
   const auto ip = frame.subspan(l3);
   const auto version = read8At(ip, Ipv6Layout::versionClassFlow);
   const auto payloadLength = read16At(ip, Ipv6Layout::payloadLength);
   if (ip.size() < Ipv6Layout::header || *version >> 4 != 6 ||
       read8At(ip, Ipv6Layout::nextHeader) != kIpProtoIcmp6 ||
       *payloadLength < Icmp6Layout::header || *payloadLength > ip.size() - Ipv6Layout::header)
      return std::nullopt;
   const Icmp6Location at{l3, l3 + Ipv6Layout::header, *payloadLength};
   const uint64_t pseudo = pseudoHeaderSum(frame, l3, true, kIpProtoIcmp6, at.bytes);
   if (inetChecksum(inetSum(frame.subspan(at.message, at.bytes), pseudo)) != 0)
      return std::nullopt;
   return at;
}

bool prependIcmp6Frame(Platform::Pkt& pkt, const Icmp6Frame& f) {
   const size_t bytes = pkt.bytes();
   if (bytes < Icmp6Layout::header || bytes > 0xffff || !pkt.growHead(kIcmp6FrameHeaders))
      return false;
   ByteWriter out(pkt.span());
   writeEth(out, f.dstMac, f.srcMac, EthLayout::typeIpv6);
   writeIpv6(out, 0, static_cast<uint16_t>(bytes), kIpProtoIcmp6, f.hopLimit, f.srcIp, f.dstIp);
   const auto frame = pkt.span();
   const size_t checksum = kIcmp6FrameHeaders + Icmp6Layout::checksum;
   write16At(frame, checksum, 0);
   const uint64_t pseudo = pseudoHeaderSum(frame, EthLayout::header, true, kIpProtoIcmp6, bytes);
   write16At(frame, checksum, inetChecksum(inetSum(frame.subspan(kIcmp6FrameHeaders), pseudo)));
   return true;
}

}  // namespace Codec
