#include "codec/DhcpCodec.h"

#include <array>

#include "codec/DhcpHdr.h"
#include "codec/DhcpOptions.h"
#include "codec/RelayAgentInfo.h"
#include "codec/TlvWalker.h"
#include "platform/base/Assert.h"
#include "platform/packet/ByteCursor.h"
#include "platform/trace/Trace.h"

namespace Ip::Helper::DhcpRelay {

namespace {

using Codec::DhcpOptionAreas;
using Codec::OptionsStatus;
using Codec::Tlv;
using Codec::TlvStep;
namespace DhcpOption = Codec::DhcpOption;

// Indexed by the value of option 53.
constexpr std::array<std::string_view, 19> kMsgTypeNames = {"DHCPUNKNOWN",
                                                            "DHCPDISCOVER",
                                                            "DHCPOFFER",
                                                            "DHCPREQUEST",
                                                            "DHCPDECLINE",
                                                            "DHCPACK",
                                                            "DHCPNAK",
                                                            "DHCPRELEASE",
                                                            "DHCPINFORM",
                                                            "DHCPFORCERENEW",
                                                            "DHCPLEASEQUERY",
                                                            "DHCPLEASEUNASSIGNED",
                                                            "DHCPLEASEUNKNOWN",
                                                            "DHCPLEASEACTIVE",
                                                            "DHCPBULKLEASEQUERY",
                                                            "DHCPLEASEQUERYDONE",
                                                            "DHCPACTIVELEASEQUERY",
                                                            "DHCPLEASEQUERYSTATUS",
                                                            "DHCPTLS"};

std::optional<Platform::IpAddr> addrOption(const Platform::Pkt& pkt, size_t dhcpOffset,
                                           uint8_t code) {
   const auto tlv = Codec::singleOption(pkt, dhcpOffset, code, 4);
   if (!tlv)
      return std::nullopt;
   Platform::ByteReader reader(tlv->value);
   return Platform::IpAddr(*reader.read32());
}

bool addInfoOpt(Platform::Pkt& pkt, const Codec::RelayAgentInfoValues& values, size_t dhcpOffset) {
   DhcpOptionAreas areas;
   const OptionsStatus status = Codec::locateOptionAreas(pkt, dhcpOffset, areas);
   if (status != OptionsStatus::Ok) {
      TRACE(8, " no option area to add option 82 to: ",
            status == OptionsStatus::NoOptions ? "no magic cookie" : "malformed");
      return false;
   }
   if (!areas.endOffset) {
      TRACE(8, " options field has no end option; option 82 not added");
      return false;
   }
   const Codec::OptionLookup present = Codec::findOption(pkt, areas, DhcpOption::relayAgentInfo);
   if (present.status != OptionsStatus::Ok) {
      TRACE(8, " malformed option area; option 82 not added");
      return false;
   }
   if (present.instances != 0) {
      TRACE(8, " option 82 already present; forwarded as it is");
      return true;
   }
   Codec::RelayAgentInfoBuffer option;
   const auto size = Codec::encodeRelayAgentInfo(values, option);
   if (!size) {
      TRACE(8, " option 82 values do not fit in one option; circuit-id ", values.circuitId.size(),
            " bytes, remote-id ", values.remoteId.size(), " bytes, vrf name ",
            values.vrfName.size(), " bytes");
      return false;
   }
   if (*size == 0)
      return true;
   const size_t at = *areas.endOffset;
   const size_t tail = pkt.bytes() - at;
   if (!pkt.growTail(*size)) {
      TRACE(8, " no tail room for ", *size, " bytes of option 82; room ", pkt.tailroom());
      return false;
   }
   // The ranges come from the packet itself and it just grew by `size`, so a refusal
   // here is a broken invariant, not bad input.
   const bool moved = pkt.moveRange(at, at + *size, tail);
   PLATFORM_ASSERT(moved, "option 82 gap outside the packet");
   const bool written = pkt.write(at, std::span<const uint8_t>(option.data(), *size));
   PLATFORM_ASSERT(written, "option 82 write outside the packet");
   return true;
}

// The options field is walked again from where an instance was cut out, because the
// bytes behind it have moved.
void cutFromOptionsField(Platform::Pkt& pkt, size_t from) {
   for (;;) {
      Codec::TlvWalker<Codec::Dhcp4OptionFormat> walker(pkt.sub(from, pkt.bytes() - from), from);
      Tlv tlv;
      TlvStep step;
      while ((step = walker.next(tlv)) == TlvStep::Item && tlv.tag != DhcpOption::relayAgentInfo) {
      }
      if (step != TlvStep::Item)
         return;
      const size_t size = 2 + tlv.length;
      const size_t after = tlv.offset + size;
      const bool cut =
          pkt.moveRange(after, tlv.offset, pkt.bytes() - after) && pkt.shrinkTail(size);
      PLATFORM_ASSERT(cut, "option 82 cut outside the packet");
      from = tlv.offset;
   }
}

// `file` and `sname` keep their size: the option's bytes become pad options.
void padOutOfLentArea(Platform::Pkt& pkt, const Codec::OptionArea& area) {
   static constexpr std::array<uint8_t, Codec::maxRelayAgentInfoBytes> kPads{};
   Codec::TlvWalker<Codec::Dhcp4OptionFormat> walker(pkt.sub(area.offset, area.length),
                                                     area.offset);
   Tlv tlv;
   while (walker.next(tlv) == TlvStep::Item) {
      if (tlv.tag != DhcpOption::relayAgentInfo)
         continue;
      const bool padded = pkt.write(tlv.offset, std::span(kPads).first(2 + tlv.length));
      PLATFORM_ASSERT(padded, "option 82 padding outside the packet");
   }
}

bool removeInfoOpt(Platform::Pkt& pkt, size_t dhcpOffset) {
   DhcpOptionAreas areas;
   const OptionsStatus status = Codec::locateOptionAreas(pkt, dhcpOffset, areas);
   if (status == OptionsStatus::NoOptions)
      return true;
   const Codec::OptionLookup present =
       status == OptionsStatus::Ok ? Codec::findOption(pkt, areas, DhcpOption::relayAgentInfo)
                                   : Codec::OptionLookup{};
   if (present.status != OptionsStatus::Ok) {
      TRACE(8, " malformed option area; option 82 not removed");
      return false;
   }
   if (present.instances == 0)
      return true;
   // Lent areas lie in the fixed header, before the options field, so cutting from the
   // options field does not move them.
   for (const Codec::OptionArea& area : areas.list().subspan(1))
      padOutOfLentArea(pkt, area);
   cutFromOptionsField(pkt, areas.optionsField().offset);
   return true;
}

// Replaces the one option 82 of the options field by what `rewrite` makes of its value
// (nothing left: the option goes); without an option 82 `rewrite` gets an empty value and
// a new option goes right before the end option.
template <class Rewrite>
bool replaceInfoOpt(Platform::Pkt& pkt, size_t dhcpOffset, Rewrite&& rewrite) {
   DhcpOptionAreas areas;
   if (Codec::locateOptionAreas(pkt, dhcpOffset, areas) != OptionsStatus::Ok)
      return false;
   const Codec::OptionLookup present = Codec::findOption(pkt, areas, DhcpOption::relayAgentInfo);
   if (present.status != OptionsStatus::Ok || present.instances > 1)
      return false;
   const Codec::OptionArea& field = areas.optionsField();
   size_t at = 0, oldSize = 0;
   std::span<const uint8_t> value;
   if (present.instances == 1) {
      at = present.first.offset;
      if (at < field.offset || at >= field.offset + field.length)
         return false;
      oldSize = 2 + present.first.length;
      value = present.first.value;
   } else {
      if (!areas.endOffset)
         return false;
      at = *areas.endOffset;
   }
   Codec::RelayAgentInfoBuffer option;
   const std::optional<size_t> size = rewrite(value, option);
   if (!size)
      return false;
   const size_t after = at + oldSize;
   const size_t tail = pkt.bytes() - after;
   if (*size > oldSize) {
      if (!pkt.growTail(*size - oldSize))
         return false;
   }
   const bool moved = pkt.moveRange(after, at + *size, tail);
   PLATFORM_ASSERT(moved, "option 82 gap outside the packet");
   if (*size < oldSize) {
      const bool shrunk = pkt.shrinkTail(oldSize - *size);
      PLATFORM_ASSERT(shrunk, "option 82 cut outside the packet");
   }
   const bool written = pkt.write(at, std::span<const uint8_t>(option.data(), *size));
   PLATFORM_ASSERT(written, "option 82 write outside the packet");
   return true;
}

}  // namespace

bool mergeInfoOpt(Platform::Pkt& pkt, std::string_view vrfName, Platform::IpAddr serverIdOverride,
                  Platform::IpAddr linkSelection, size_t dhcpOffset) {
   const Codec::RelayAgentInfoValues own{{}, {}, vrfName, serverIdOverride, linkSelection};
   return replaceInfoOpt(pkt, dhcpOffset, [&](std::span<const uint8_t> value, auto& out) {
      return Codec::rewriteRelayAgentInfo(value, own, out);
   });
}

bool stripOwnInfoSubOptions(Platform::Pkt& pkt, size_t dhcpOffset) {
   if (!infoOptPresent(pkt, dhcpOffset))
      return Codec::findOption(pkt, dhcpOffset, DhcpOption::relayAgentInfo).status !=
             OptionsStatus::Malformed;
   return replaceInfoOpt(pkt, dhcpOffset, [](std::span<const uint8_t> value, auto& out) {
      return Codec::rewriteRelayAgentInfo(value, {}, out);
   });
}

std::optional<uint32_t> getLeaseTime(const Platform::Pkt& pkt, size_t dhcpOffset) {
   const auto tlv = Codec::singleOption(pkt, dhcpOffset, DhcpOption::leaseTime, 4);
   if (!tlv)
      return std::nullopt;
   Platform::ByteReader reader(tlv->value);
   return *reader.read32();
}

std::string_view getDhcpMsgType(const Platform::Pkt& pkt, size_t dhcpOffset) {
   const Codec::OptionLookup found = Codec::findOption(pkt, dhcpOffset, DhcpOption::msgType);
   if (found.status == OptionsStatus::NoOptions ||
       (found.status == OptionsStatus::Ok && found.instances == 0))
      return "BOOTP";
   if (found.status != OptionsStatus::Ok || found.instances != 1 || found.first.length != 1)
      return "DHCPMALFORMED";
   const uint8_t type = found.first.value[0];
   return type < kMsgTypeNames.size() ? kMsgTypeNames[type] : kMsgTypeNames[0];
}

std::optional<Platform::IpAddr> getServerId(const Platform::Pkt& pkt, size_t dhcpOffset) {
   return addrOption(pkt, dhcpOffset, DhcpOption::serverId);
}

bool setServerId(Platform::Pkt& pkt, Platform::IpAddr addr, size_t dhcpOffset) {
   const auto tlv = Codec::singleOption(pkt, dhcpOffset, DhcpOption::serverId, 4);
   if (!tlv) {
      TRACE(8, " no single 4-byte server identifier option to rewrite");
      return false;
   }
   std::array<uint8_t, 4> value{};
   Platform::ByteWriter(value).write32(addr.value());
   const bool written = pkt.write(tlv->offset + 2, value);
   PLATFORM_ASSERT(written, "server identifier write outside the packet");
   return true;
}

std::optional<Platform::IpAddr> getRequestedIpOption(const Platform::Pkt& pkt, uint8_t op,
                                                     size_t dhcpOffset) {
   if (op != bootRequest)
      return std::nullopt;
   return addrOption(pkt, dhcpOffset, DhcpOption::requestedIp);
}

bool infoOptPresent(const Platform::Pkt& pkt, size_t dhcpOffset) {
   const Codec::OptionLookup found = Codec::findOption(pkt, dhcpOffset, DhcpOption::relayAgentInfo);
   return found.status == OptionsStatus::Ok && found.instances != 0;
}

bool preparePacket(Platform::Pkt& pkt, uint8_t op, bool flag, std::string_view circuitId,
                   std::string_view remoteId, std::string_view vrfName,
                   Platform::IpAddr serverIdOverride, Platform::IpAddr linkSelection,
                   size_t dhcpOffset) {
   if (op != bootRequest && op != bootReply) {
      TRACE(8, " unknown op ", op);
      return false;
   }
   if (!flag)
      return true;
   if (op == bootReply)
      return removeInfoOpt(pkt, dhcpOffset);
   return addInfoOpt(pkt, {circuitId, remoteId, vrfName, serverIdOverride, linkSelection},
                     dhcpOffset);
}

bool parseInfoOpt(const Platform::Pkt& pkt, std::string& circuitId, std::string& remoteId,
                  std::string& vrfName, Platform::IpAddr& serverIdOverride,
                  Platform::IpAddr& linkSelection, size_t dhcpOffset) {
   const Codec::OptionLookup found = Codec::findOption(pkt, dhcpOffset, DhcpOption::relayAgentInfo);
   if (found.status == OptionsStatus::Malformed) {
      TRACE(8, " malformed option area");
      return false;
   }
   if (found.instances > 1) {
      TRACE(8, " option 82 appears ", found.instances, " times");
      return false;
   }
   const std::span<const uint8_t> value =
       found.instances == 1 ? found.first.value : std::span<const uint8_t>();
   if (!Codec::decodeRelayAgentInfo(value, circuitId, remoteId, vrfName, serverIdOverride,
                                    linkSelection)) {
      TRACE(8, " malformed option 82 sub-options");
      return false;
   }
   return true;
}

}  // namespace Ip::Helper::DhcpRelay
