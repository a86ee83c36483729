#include "codec/Dhcp6Codec.h"

#include <algorithm>
#include <array>
#include <initializer_list>
#include <limits>

#include "codec/Dhcp6Walk.h"
#include "platform/base/Assert.h"
#include "platform/packet/ByteCursor.h"
#include "platform/trace/Trace.h"

namespace Ip::Helper::DhcpRelay {

namespace {

using Codec::Tlv;
using Codec::TlvStep;
namespace Layout = Dhcp6Layout;

constexpr size_t kMaxLength = std::numeric_limits<uint16_t>::max();

// Indexed by message type.
constexpr std::array<std::string_view, 14> kMsgTypeNames = {
    "UNKNOWN",    "SOLICIT",   "ADVERTISE", "REQUEST", "CONFIRM",     "RENEW",
    "REBIND",     "REPLY",     "RELEASE",   "DECLINE", "RECONFIGURE", "INFORMATION-REQUEST",
    "RELAY-FORW", "RELAY-REPL"};

std::span<const uint8_t> bytesOf(std::string_view text) {
   return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

// One option of `parts` back to back at the tail; false, unchanged, when its data would not
// fit the 16-bit length or the packet has no room for it.
bool appendOption(Platform::Pkt& pkt, uint16_t code,
                  std::initializer_list<std::span<const uint8_t>> parts) {
   size_t length = 0;
   for (const auto& part : parts)
      length += part.size();
   if (length > kMaxLength)
      return false;
   size_t at = pkt.bytes();
   if (!pkt.growTail(Layout::optionHeader + length))
      return false;
   std::array<uint8_t, Layout::optionHeader> header{};
   Platform::ByteWriter writer(header);
   bool written = writer.write16(code) && writer.write16(static_cast<uint16_t>(length)) &&
                  pkt.write(at, header);
   at += header.size();
   for (const auto& part : parts) {
      written = written && pkt.write(at, part);
      at += part.size();
   }
   PLATFORM_ASSERT(written, "DHCPv6 option write outside the packet");
   return true;
}

bool isRelayMsgType(uint8_t type) {
   return type == dhcp6RelayForw || type == dhcp6RelayRepl;
}

}  // namespace

std::string_view dhcp6MsgTypeName(uint8_t type) {
   return type < kMsgTypeNames.size() ? kMsgTypeNames[type] : kMsgTypeNames[0];
}

std::optional<uint8_t> dhcp6MsgType(const Platform::Pkt& pkt, size_t msgOffset) {
   return pkt.at(msgOffset);
}

std::optional<Dhcp6RelayHdr> dhcp6RelayHdr(const Platform::Pkt& pkt, size_t msgOffset) {
   Platform::ByteReader reader(pkt.sub(msgOffset, Layout::relayHeader));
   if (reader.remaining() != Layout::relayHeader)
      return std::nullopt;
   Dhcp6RelayHdr hdr;
   hdr.msgType = *reader.read8();
   hdr.hopCount = *reader.read8();
   Platform::Ip6Addr::Bytes addr{};
   const auto link = *reader.bytes(addr.size());
   std::copy(link.begin(), link.end(), addr.begin());
   hdr.linkAddress = Platform::Ip6Addr(addr);
   const auto peer = *reader.bytes(addr.size());
   std::copy(peer.begin(), peer.end(), addr.begin());
   hdr.peerAddress = Platform::Ip6Addr(addr);
   return hdr;
}

std::optional<Dhcp6Opt> dhcp6FindOption(const Platform::Pkt& pkt, uint16_t code, size_t start,
                                        size_t end) {
   Tlv tlv;
   if (Codec::dhcp6FindFirst(pkt, start, end, tlv, [&](const Tlv& t) { return t.tag == code; }) !=
       TlvStep::Item)
      return std::nullopt;
   return Dhcp6Opt{tlv.offset, tlv.value};
}

std::span<const uint8_t> dhcp6ClientDuid(const Platform::Pkt& pkt, size_t msgOffset) {
   const auto opt =
       dhcp6FindOption(pkt, dhcp6OptClientId, msgOffset + Layout::clientHeader, pkt.bytes());
   return opt ? opt->data : std::span<const uint8_t>();
}

uint32_t dhcp6TransactionId(const Platform::Pkt& pkt, size_t msgOffset) {
   Platform::ByteReader reader(pkt.sub(msgOffset, Layout::clientHeader));
   const auto word = reader.read32();
   return word ? *word & 0xffffff : 0;
}

std::optional<Dhcp6Duid> dhcp6ParseDuid(std::span<const uint8_t> duid) {
   constexpr size_t kLinkLayerDuid = 10, kLinkLayerTimeDuid = 14, kUuidDuid = 18, kEnMinDuid = 6;
   Platform::ByteReader reader(duid);
   Dhcp6Duid out;
   out.type = reader.read16().value_or(0);
   const auto linkLayer = [&](bool withTime) {
      out.hwType = *reader.read16();
      if (withTime)
         reader.skip(4);
      Platform::EthAddr::Bytes mac{};
      const auto bytes = *reader.bytes(mac.size());
      std::copy(bytes.begin(), bytes.end(), mac.begin());
      out.llAddr = Platform::EthAddr(mac);
   };
   switch (out.type) {
      case dhcp6DuidLlt:
         if (duid.size() != kLinkLayerTimeDuid)
            return std::nullopt;
         linkLayer(true);
         return out;
      case dhcp6DuidLl:
         if (duid.size() != kLinkLayerDuid)
            return std::nullopt;
         linkLayer(false);
         return out;
      case dhcp6DuidUuid:
         if (duid.size() != kUuidDuid)
            return std::nullopt;
         out.uuid = duid.subspan(2);
         return out;
      case dhcp6DuidEn:
         if (duid.size() < kEnMinDuid || duid.size() > kDhcp6MaxDuid)
            return std::nullopt;
         out.entno = *reader.read32();
         out.entId = duid.subspan(kEnMinDuid);
         return out;
      default:
         return std::nullopt;
   }
}

bool dhcp6ParseRelayReply(const Platform::Pkt& pkt, Dhcp6RelayReply& out, Dhcp6ReplyError& error) {
   out = Dhcp6RelayReply{};
   const auto hdr = dhcp6RelayHdr(pkt);
   if (!hdr) {
      error = Dhcp6ReplyError::tooShort;
      return false;
   }
   out.hdr = *hdr;
   bool hasRelayMsg = false;
   Codec::Dhcp6Walker walker = Codec::dhcp6Walker(pkt, Layout::relayHeader, pkt.bytes());
   Tlv tlv;
   TlvStep step;
   // The first of each option counts, as on the way out only one of each was written.
   while ((step = walker.next(tlv)) == TlvStep::Item) {
      if (tlv.tag == dhcp6OptRelayMsg && !hasRelayMsg) {
         hasRelayMsg = true;
         out.relayMsgOffset = tlv.offset + Layout::optionHeader;
         out.relayMsgLength = tlv.length;
      } else if (tlv.tag == dhcp6OptInterfaceId && !out.hasInterfaceId) {
         out.hasInterfaceId = true;
         out.interfaceId = tlv.value;
      } else if (tlv.tag == dhcp6OptRemoteId) {
         out.hasRemoteId = true;
      }
   }
   error = step == TlvStep::Malformed ? Dhcp6ReplyError::malformed
           : !hasRelayMsg             ? Dhcp6ReplyError::noRelayMessage
           : !out.hasInterfaceId      ? Dhcp6ReplyError::noInterfaceId
                                      : Dhcp6ReplyError::none;
   return error == Dhcp6ReplyError::none;
}

std::optional<Dhcp6InterfaceIdNames> dhcp6SplitInterfaceId(std::span<const uint8_t> data) {
   const std::string_view text(reinterpret_cast<const char*>(data.data()), data.size());
   const size_t sep = text.find(kInterfaceIdSeparator);
   if (sep == std::string_view::npos || sep == 0)
      return std::nullopt;
   return Dhcp6InterfaceIdNames{text.substr(0, sep), text.substr(sep + 1)};
}

bool dhcp6WrapRelayForw(Platform::Pkt& pkt, uint8_t hopCount,
                        const Platform::Ip6Addr& peerAddress) {
   const size_t msgLength = pkt.bytes();
   if (msgLength > kMaxLength || !pkt.growHead(Layout::relayForwHead))
      return false;
   std::array<uint8_t, Layout::relayForwHead> head{};
   Platform::ByteWriter writer(head);
   const bool built = writer.write8(dhcp6RelayForw) && writer.write8(hopCount) &&
                      writer.bytes(Platform::Ip6Addr().bytes()) &&
                      writer.bytes(peerAddress.bytes()) && writer.write16(dhcp6OptRelayMsg) &&
                      writer.write16(static_cast<uint16_t>(msgLength)) && pkt.write(0, head);
   PLATFORM_ASSERT(built, "Relay-Forw header write outside the packet");
   return true;
}

void dhcp6RelayHopCountIs(Platform::Pkt& pkt, uint8_t hopCount) {
   pkt.write(Layout::hopCount, std::span(&hopCount, 1));
}

void dhcp6RelayLinkAddressIs(Platform::Pkt& pkt, const Platform::Ip6Addr& linkAddress) {
   pkt.write(Layout::linkAddress, linkAddress.bytes());
}

bool dhcp6AppendRemoteId(Platform::Pkt& pkt, uint32_t enterprise, const Platform::EthAddr& mac,
                         uint64_t interfaceIdValue) {
   constexpr uint16_t duidLinkLayer = 3;  // RFC 8415 section 11.4
   constexpr uint16_t hwTypeEthernet = 1;
   std::array<uint8_t, Layout::remoteIdOption - Layout::optionHeader> data{};
   Platform::ByteWriter writer(data);
   const bool built = writer.write32(enterprise) && writer.write16(duidLinkLayer) &&
                      writer.write16(hwTypeEthernet) && writer.bytes(mac.bytes()) &&
                      writer.write32(static_cast<uint32_t>(interfaceIdValue >> 32)) &&
                      writer.write32(static_cast<uint32_t>(interfaceIdValue));
   PLATFORM_ASSERT(built && writer.remaining() == 0, "Remote-Id layout");
   return appendOption(pkt, dhcp6OptRemoteId, {data});
}

bool addDhcp6LinkLayerAddressOpt(Platform::Pkt& pkt, const Platform::EthAddr& mac) {
   static constexpr std::array<uint8_t, 2> kLinkLayerEthernet = {0, 1};
   return appendOption(pkt, dhcp6OptClientLinkLayerAddr, {kLinkLayerEthernet, mac.bytes()});
}

bool setIntfNameVrfInPkt(Platform::Pkt& pkt, std::string_view intf, std::string_view vrf) {
   static constexpr uint8_t kSeparator = kInterfaceIdSeparator;
   // A name holding the separator could not be split back on the way in.
   if (intf.empty() || intf.find(kInterfaceIdSeparator) != std::string_view::npos)
      return false;
   return appendOption(pkt, dhcp6OptInterfaceId,
                       {bytesOf(intf), std::span(&kSeparator, 1), bytesOf(vrf)});
}

bool dhcp6AppendVss(Platform::Pkt& pkt, std::string_view vrf) {
   static constexpr uint8_t kVssTypeNvtAscii = 0;  // RFC 6607 section 3.1
   return appendOption(pkt, dhcp6OptVss, {std::span(&kVssTypeNvtAscii, 1), bytesOf(vrf)});
}

bool dhcp6UnwrapRelayMessage(Platform::Pkt& pkt, size_t relayMsgOffset, size_t relayMsgLength) {
   if (relayMsgOffset > pkt.bytes() || relayMsgLength > pkt.bytes() - relayMsgOffset)
      return false;
   const size_t tail = pkt.bytes() - relayMsgOffset - relayMsgLength;
   TRACE(7, "   deleteHeadData ", relayMsgOffset, " bytes");
   TRACE(7, "   deleteTailData ", tail, " bytes");
   const bool cut = pkt.shrinkTail(tail) && pkt.shrinkHead(relayMsgOffset);
   PLATFORM_ASSERT(cut, "relay message outside the packet");
   return true;
}

bool dhcpRelaySmv6ParseMsgForRouteInstall(const Platform::Pkt& pkt, size_t msgOffset,
                                          uint16_t& optStart, uint16_t& optEnd) {
   size_t start = msgOffset;
   size_t end = pkt.bytes();
   for (size_t depth = 0; depth <= Codec::kDhcp6MaxRelayDepth; ++depth) {
      TRACE(7, "Header offset ", start);
      const auto type = start < end ? pkt.at(start) : std::nullopt;
      if (!type)
         break;
      if (isRelayMsgType(*type)) {
         TRACE(7, " Found a relayFw/relayReply message. Looking within this");
         const auto relayMsg =
             dhcp6FindOption(pkt, dhcp6OptRelayMsg, start + Layout::relayHeader, end);
         if (!relayMsg)
            break;
         start = relayMsg->dataOffset();
         end = start + relayMsg->data.size();
         TRACE(7, "Setting endoffset to: ", end);
         continue;
      }
      if (*type != dhcp6Reply && *type != dhcp6Release)
         break;
      TRACE(7, " Found release/reply header");
      const size_t options = start + Layout::clientHeader;
      Tlv tlv;
      const TlvStep found = Codec::dhcp6FindFirst(pkt, options, end, tlv, [](const Tlv& t) {
         return t.tag == dhcp6OptIaPd || t.tag == dhcp6OptIaNa;
      });
      if (found != TlvStep::Item || end > kMaxLength)
         break;
      optStart = static_cast<uint16_t>(options);
      optEnd = static_cast<uint16_t>(end);
      return true;
   }
   TRACE(7, " No PD/IANA options in the DHCP message. Nothing to install");
   return false;
}

size_t dhcpRelaySmv6HandleIanaPd(const Platform::Pkt& pkt, uint16_t optStart, uint16_t optEnd,
                                 std::span<Dhcp6Lease> out) {
   // IA_NA and IA_PD: IAID, T1, T2, then their own options.
   constexpr size_t kIaFixed = 12;
   size_t found = 0;
   TRACE(7, "Current Offset: ", optStart, " End offset : ", optEnd);
   Codec::Dhcp6Walker walker = Codec::dhcp6Walker(pkt, optStart, optEnd);
   Tlv ia;
   while (walker.next(ia) == TlvStep::Item) {
      TRACE(7, "Current Offset: ", ia.offset, " Option Len: ", ia.length);
      const bool pd = ia.tag == dhcp6OptIaPd;
      if (!pd && ia.tag != dhcp6OptIaNa)
         continue;
      TRACE(7, pd ? "IAPD Option found." : "IANA Option found.");
      if (ia.length < kIaFixed)
         continue;
      const size_t inner = ia.offset + Layout::optionHeader + kIaFixed;
      Codec::Dhcp6Walker addrs =
          Codec::dhcp6Walker(pkt, inner, ia.offset + Layout::optionHeader + ia.length);
      Tlv addr;
      while (addrs.next(addr) == TlvStep::Item) {
         if (addr.tag != (pd ? dhcp6OptIaPrefix : dhcp6OptIaAddr))
            continue;
         TRACE(7, pd ? "IAPD Prefix Option found." : "IA Address Option found.");
         Platform::ByteReader r(addr.value);
         Dhcp6Lease lease;
         std::optional<uint32_t> preferred, valid;
         std::optional<uint8_t> len = 128;
         std::optional<std::span<const uint8_t>> bytes;
         if (pd) {
            preferred = r.read32();
            valid = r.read32();
            len = r.read8();
            bytes = r.bytes(16);
         } else {
            bytes = r.bytes(16);
            preferred = r.read32();
            valid = r.read32();
         }
         if (!preferred || !valid || !len || !bytes || *len > 128)
            continue;
         Platform::Ip6Addr::Bytes address{};
         std::copy(bytes->begin(), bytes->end(), address.begin());
         lease.prefix = Platform::Ip6Prefix(Platform::Ip6Addr(address), *len);
         lease.preferredLifetime = *preferred;
         lease.validLifetime = *valid;
         if (found < out.size())
            out[found] = lease;
         ++found;
      }
   }
   return std::min(found, out.size());
}

}  // namespace Ip::Helper::DhcpRelay
