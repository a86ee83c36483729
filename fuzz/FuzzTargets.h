#pragma once

// The bodies of the fuzz targets, shared by the libFuzzer programs and the unit test that
// replays the committed corpus. Each takes arbitrary bytes as a received packet, runs one
// decoder entry point on them and checks what must hold for any input; false means a
// property broke (the fuzz program then traps, so libFuzzer keeps the input).

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

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
};

}  // namespace Fuzz
