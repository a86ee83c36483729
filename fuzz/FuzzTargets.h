#pragma once

// The bodies of the fuzz targets, shared by the libFuzzer programs and the unit test that
// replays the committed corpus. Each takes arbitrary bytes as a received packet, runs one
// decoder entry point on them and checks what must hold for any input; false means a
// property broke (the fuzz program then traps, so libFuzzer keeps the input).

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "codec/Dhcp6Codec.h"
#include "codec/DhcpCodec.h"
#include "codec/DhcpHdr.h"
#include "codec/Frame.h"
#include "codec/RelayAgentInfo.h"
#include "codec/TlvWalker.h"
#include "platform/packet/Pkt.h"

namespace Fuzz {

using Platform::IpAddr;

namespace Detail {

inline Platform::Ptr<Platform::Pkt> packetOf(std::span<const uint8_t> data) {
   return Platform::Pkt::copyOf(data, 0, 600);
}

inline bool samePacket(const Platform::Pkt& a, std::span<const uint8_t> b) {
   return std::equal(a.span().begin(), a.span().end(), b.begin(), b.end());
}

// `part` lies in the packet's data behind `from` and an option header.
inline bool within(const Platform::Pkt& pkt, std::span<const uint8_t> part, size_t from) {
   const uint8_t* first = pkt.data() + from + 4;
   return part.data() >= first && part.size() <= pkt.bytes() &&
          part.data() + part.size() <= pkt.data() + pkt.bytes();
}

struct InfoValues {
   std::string circuitId, remoteId, vrfName;
   IpAddr serverIdOverride, linkSelection;

   bool operator==(const InfoValues&) const = default;
   bool empty() const { return *this == InfoValues{}; }
};

inline bool decode(std::span<const uint8_t> value, InfoValues& v) {
   return Codec::decodeRelayAgentInfo(value, v.circuitId, v.remoteId, v.vrfName, v.serverIdOverride,
                                      v.linkSelection);
}

inline bool parse(const Platform::Pkt& pkt, InfoValues& v) {
   return Ip::Helper::DhcpRelay::parseInfoOpt(pkt, v.circuitId, v.remoteId, v.vrfName,
                                              v.serverIdOverride, v.linkSelection, 0);
}

template <class Format>
bool walkStaysInside(std::span<const uint8_t> data) {
   Codec::TlvWalker<Format> walker(data);
   Codec::Tlv tlv;
   size_t next = 0;
   while (walker.next(tlv) == Codec::TlvStep::Item) {
      const size_t header = Format::tagWidth + Format::lengthWidth;
      if (tlv.offset < next || tlv.offset + header + tlv.length > data.size() ||
          tlv.value.size() != tlv.length || tlv.value.data() != data.data() + tlv.offset + header)
         return false;
      next = tlv.offset + header + tlv.length;
   }
   return walker.stopOffset() >= next && walker.stopOffset() <= data.size();
}

}  // namespace Detail

// The generic walker in all three layouts: items lie inside the input, in order.
inline bool tlvWalker(std::span<const uint8_t> data) {
   return Detail::walkStaysInside<Codec::Dhcp4OptionFormat>(data) &&
          Detail::walkStaysInside<Codec::Dhcp4SubOptionFormat>(data) &&
          Detail::walkStaysInside<Codec::Dhcp6OptionFormat>(data);
}

// Header view and option reads; a server identifier that reads back must rewrite and
// read back as the new value, changing nothing else.
inline bool dhcpOptions(std::span<const uint8_t> data) {
   using namespace Ip::Helper::DhcpRelay;
   auto pkt = Detail::packetOf(data);
   const auto hdr = DhcpHdr::of(*pkt);
   if (hdr.has_value() != (data.size() >= DhcpLayout::fixedHeader))
      return false;
   if (hdr) {
      (void)hdr->bootpOp();
      (void)hdr->flags();
      (void)hdr->chaddr();
   }
   if (getDhcpMsgType(*pkt).empty())
      return false;
   (void)getRequestedIpOption(*pkt, bootRequest);
   (void)infoOptPresent(*pkt);
   const auto serverId = getServerId(*pkt);
   const IpAddr other(serverId ? ~serverId->value() : 0x0a000001);
   if (setServerId(*pkt, other) != serverId.has_value())
      return false;
   if (!serverId)
      return Detail::samePacket(*pkt, data);
   return getServerId(*pkt) == other && setServerId(*pkt, *serverId) &&
          Detail::samePacket(*pkt, data);
}

// Option 82 sub-options as the bytes of one option's value: what decodes must encode
// and decode to the same values.
inline bool relayAgentInfo(std::span<const uint8_t> data) {
   // An option's value is at most 255 bytes; longer input is cut to what a packet holds.
   const auto value = data.first(std::min<size_t>(data.size(), 255));
   Detail::InfoValues decoded;
   if (!Detail::decode(value, decoded))
      return true;
   Codec::RelayAgentInfoBuffer buffer;
   const auto size =
       Codec::encodeRelayAgentInfo({decoded.circuitId, decoded.remoteId, decoded.vrfName,
                                    decoded.serverIdOverride, decoded.linkSelection},
                                   buffer);
   // Decoded values came from at most 255 bytes of sub-options, so they fit again.
   if (!size)
      return false;
   if (*size == 0)
      return decoded.empty();
   Detail::InfoValues again;
   return Detail::decode(std::span(buffer).subspan(2, *size - 2), again) && again == decoded;
}

// parseInfoOpt on a reply must agree with infoOptPresent (values only come from an
// option that is there) and never change the packet.
inline bool infoOptParse(std::span<const uint8_t> data) {
   auto pkt = Detail::packetOf(data);
   Detail::InfoValues values;
   const bool parsed = Detail::parse(*pkt, values);
   if (parsed && !values.empty() && !Ip::Helper::DhcpRelay::infoOptPresent(*pkt))
      return false;
   return Detail::samePacket(*pkt, data);
}

// Add then strip: the relay's own option reads back as written, and stripping it gives
// back the message exactly as received. A refused add changes nothing.
inline bool infoOptEdit(std::span<const uint8_t> data) {
   using namespace Ip::Helper::DhcpRelay;
   auto pkt = Detail::packetOf(data);
   const bool hadOption = infoOptPresent(*pkt);
   const Detail::InfoValues added{"Vlan10", "sw1", "blue", IpAddr(0xc0000201), IpAddr(0xc0000200)};
   if (!preparePacket(*pkt, bootRequest, true, added.circuitId, added.remoteId, added.vrfName,
                      added.serverIdOverride, added.linkSelection, 0) ||
       hadOption)
      return Detail::samePacket(*pkt, data);
   Detail::InfoValues readBack;
   return Detail::parse(*pkt, readBack) && readBack == added &&
          preparePacket(*pkt, bootReply, true, {}, {}, {}, {}, {}, 0) &&
          Detail::samePacket(*pkt, data);
}

// The locators on any bytes: what they find lies inside the frame, an ICMPv6 message is no
// UDP datagram, every shorter cut of a located datagram is too short, and the datagram fixed
// in place reads back the same with sound checksums.
inline bool frameLocator(std::span<const uint8_t> data) {
   const Codec::FrameLayout at = Codec::locateFrame(data);
   if (const auto icmp = Codec::locateIcmp6(data);
       icmp && (at || icmp->message != icmp->l3 + Codec::Ipv6Layout::header ||
                icmp->message + icmp->bytes > data.size()))
      return false;
   if (!at)
      return true;
   const size_t ipHeader = at.ipv6 ? Codec::Ipv6Layout::header : Codec::Ipv4Layout::header;
   if ((at.l3 != Codec::EthLayout::header &&
        at.l3 != Codec::EthLayout::header + Codec::EthLayout::vlanTag) ||
       at.udp < at.l3 + ipHeader || at.payload != at.udp + Codec::UdpLayout::header ||
       at.datagramEnd() > data.size())
      return false;
   for (size_t n = 0; n < at.datagramEnd(); ++n)
      if (Codec::locateFrame(data.first(n)).error != Codec::FrameError::tooShort)
         return false;
   auto pkt = Platform::Pkt::copyOf(data.first(at.datagramEnd()), 0, 0);
   if (!Codec::fixUdpFrame(pkt->span(), at))
      return false;
   const Codec::FrameLayout again = Codec::locateFrame(pkt->span());
   return again && again.l3 == at.l3 && again.udp == at.udp &&
          again.payloadBytes == at.payloadBytes && Codec::frameChecksumsOk(pkt->span(), again) &&
          std::equal(data.begin() + static_cast<ptrdiff_t>(at.payload),
                     data.begin() + static_cast<ptrdiff_t>(at.datagramEnd()),
                     pkt->span().begin() + static_cast<ptrdiff_t>(at.payload));
}

// What a Relay-Repl reading reports lies inside the packet, the names split out of
// Interface-Id lie inside the option, and unwrapping leaves exactly the relay message.
inline bool dhcp6RelayReply(std::span<const uint8_t> data) {
   using namespace Ip::Helper::DhcpRelay;
   auto pkt = Detail::packetOf(data);
   Dhcp6RelayReply reply;
   Dhcp6ReplyError error;
   const bool parsed = dhcp6ParseRelayReply(*pkt, reply, error);
   if (parsed != (error == Dhcp6ReplyError::none) || !Detail::samePacket(*pkt, data))
      return false;
   if (!parsed)
      return true;
   const auto relayMsg = pkt->sub(reply.relayMsgOffset, reply.relayMsgLength);
   if (relayMsg.size() != reply.relayMsgLength || !reply.hasInterfaceId ||
       !Detail::within(*pkt, reply.interfaceId, Dhcp6Layout::relayHeader) ||
       reply.relayMsgOffset < Dhcp6Layout::relayHeader + Dhcp6Layout::optionHeader)
      return false;
   const auto names = dhcp6SplitInterfaceId(reply.interfaceId);
   if (names && (names->intf.empty() ||
                 names->intf.size() + 1 + names->vrf.size() != reply.interfaceId.size() ||
                 names->intf.data() != reinterpret_cast<const char*>(reply.interfaceId.data())))
      return false;
   const std::vector<uint8_t> inner(relayMsg.begin(), relayMsg.end());
   return dhcp6UnwrapRelayMessage(*pkt, reply.relayMsgOffset, reply.relayMsgLength) &&
          Detail::samePacket(*pkt, inner);
}

// CCAP cores on any bytes: the packet changes by exactly the reported delta, or not at all
// when refused, and setting the same cores again changes nothing.
inline bool dhcp6Ccap(std::span<const uint8_t> data) {
   using namespace Ip::Helper::DhcpRelay;
   static const Platform::Ip6Addr kCores[] = {*Platform::Ip6Addr::parse("2001:db8::1"),
                                              *Platform::Ip6Addr::parse("2001:db8::2")};
   auto pkt = Detail::packetOf(data);
   bool ok = false;
   const int delta = searchAndSetCcapCoresInPkt(*pkt, kCores, "Ethernet1", 0, data.size(), ok);
   if (!ok)
      return delta == 0 && Detail::samePacket(*pkt, data);
   if (static_cast<long>(pkt->bytes()) != static_cast<long>(data.size()) + delta)
      return false;
   const std::vector<uint8_t> once(pkt->span().begin(), pkt->span().end());
   const int again = searchAndSetCcapCoresInPkt(*pkt, kCores, "Ethernet1", 0, pkt->bytes(), ok);
   return ok && again == 0 && Detail::samePacket(*pkt, once);
}

// The located region lies inside the packet, behind a message header, and holds IA_PD or IA_NA;
// the leases read from it have valid prefix lengths and never overrun the room given.
inline bool dhcp6RouteInstall(std::span<const uint8_t> data) {
   using namespace Ip::Helper::DhcpRelay;
   auto pkt = Detail::packetOf(data);
   uint16_t start = 0, end = 0;
   if (!dhcpRelaySmv6ParseMsgForRouteInstall(*pkt, 0, start, end))
      return true;
   std::array<Dhcp6Lease, 4> leases;
   const size_t found = dhcpRelaySmv6HandleIanaPd(*pkt, start, end, leases);
   for (size_t i = 0; i < found; ++i)
      if (leases[i].prefix.len() > 128)
         return false;
   return found <= leases.size() && start >= Dhcp6Layout::clientHeader && start <= end &&
          end <= data.size() &&
          (dhcp6FindOption(*pkt, dhcp6OptIaPd, start, end) ||
           dhcp6FindOption(*pkt, dhcp6OptIaNa, start, end));
}

// Option look-ups report options that sit where they say, inside the region asked about.
inline bool dhcp6Options(std::span<const uint8_t> data) {
   using namespace Ip::Helper::DhcpRelay;
   auto pkt = Detail::packetOf(data);
   if (dhcp6RelayHdr(*pkt).has_value() != (data.size() >= Dhcp6Layout::relayHeader) ||
       dhcp6MsgTypeName(dhcp6MsgType(*pkt).value_or(0)).empty())
      return false;
   (void)dhcp6TransactionId(*pkt);
   const auto duid = dhcp6ClientDuid(*pkt);
   if (!duid.empty() && !Detail::within(*pkt, duid, Dhcp6Layout::clientHeader))
      return false;
   for (const size_t start : {Dhcp6Layout::clientHeader, Dhcp6Layout::relayHeader}) {
      for (const uint16_t code : {dhcp6OptClientId, dhcp6OptRelayMsg, dhcp6OptInterfaceId}) {
         const auto opt = dhcp6FindOption(*pkt, code, start, data.size() - data.size() / 3);
         if (!opt)
            continue;
         Platform::ByteReader header(pkt->sub(opt->offset, Dhcp6Layout::optionHeader));
         if (opt->offset < start || header.read16() != code ||
             header.read16() != opt->data.size() ||
             opt->data.data() != pkt->data() + opt->dataOffset() ||
             opt->dataOffset() + opt->data.size() > data.size() - data.size() / 3)
            return false;
      }
   }
   return Detail::samePacket(*pkt, data);
}

struct Target {
   std::string_view name;
   bool (*run)(std::span<const uint8_t>);
};

// The corpus directory of each target is fuzz/corpus/<name>.
inline constexpr Target kTargets[] = {
    {"tlv_walker", tlvWalker},
    {"dhcp_options", dhcpOptions},
    {"relay_agent_info", relayAgentInfo},
    {"info_opt_parse", infoOptParse},
    {"info_opt_edit", infoOptEdit},
    {"frame_locator", frameLocator},
    {"dhcp6_relay_reply", dhcp6RelayReply},
    {"dhcp6_ccap", dhcp6Ccap},
    {"dhcp6_route_install", dhcp6RouteInstall},
    {"dhcp6_options", dhcp6Options},
};

}  // namespace Fuzz
