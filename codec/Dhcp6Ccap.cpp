// CableLabs CCAP cores in server replies: the one DHCPv6 edit that resizes a message in the
// middle, so every enclosing length is planned before the first byte moves.

#include <algorithm>
#include <array>
#include <cstdlib>

#include "codec/Dhcp6Codec.h"
#include "codec/Dhcp6Walk.h"
#include "platform/base/Assert.h"
#include "platform/packet/ByteCursor.h"
#include "platform/trace/Trace.h"

namespace Ip::Helper::DhcpRelay {

namespace {

using Codec::Tlv;
using Codec::TlvStep;
namespace Layout = Dhcp6Layout;

// The largest DHCPv6 message a UDP datagram carries. A message within it has every length
// field inside it within 16 bits too, so this one bound covers them all.
constexpr size_t kMaxMessage = 0xffff - 8;

constexpr size_t kVsiHeader = Layout::optionHeader + 4;  // code, length, enterprise
constexpr size_t kCoreBytes = sizeof(Platform::Ip6Addr::Bytes);

bool isCableLabsVsi(const Tlv& tlv) {
   Platform::ByteReader reader(tlv.value);
   return tlv.tag == dhcp6OptVendorOpts && reader.read32() == Layout::cableLabsEnterprise;
}

void put16(Platform::Pkt& pkt, size_t at, size_t value) {
   std::array<uint8_t, 2> field{};
   const bool written =
       Platform::ByteWriter(field).write16(static_cast<uint16_t>(value)) && pkt.write(at, field);
   PLATFORM_ASSERT(written, "CCAP length write outside the packet");
}

size_t get16(const Platform::Pkt& pkt, size_t at) {
   Platform::ByteReader reader(pkt.sub(at, 2));
   return reader.read16().value_or(0);
}

// Sub-option 61 header and the addresses at `at`.
void putCcapSubOpt(Platform::Pkt& pkt, size_t at, std::span<const Platform::Ip6Addr> cores) {
   put16(pkt, at, Layout::ccapCoresSubOption);
   put16(pkt, at + 2, kCoreBytes * cores.size());
   at += Layout::optionHeader;
   for (const Platform::Ip6Addr& core : cores) {
      const bool written = pkt.write(at, core.bytes());
      PLATFORM_ASSERT(written, "CCAP core write outside the packet");
      at += kCoreBytes;
   }
}

// preparePktForCcap, refused as well when the message would outgrow a datagram.
bool resize(Platform::Pkt& pkt, size_t at, int delta) {
   return (delta <= 0 || pkt.bytes() + static_cast<size_t>(delta) <= kMaxMessage) &&
          preparePktForCcap(pkt, at, delta);
}

// The three edits return the change in packet length, nullopt (unchanged) without room.

std::optional<int> insertOpt17AndCcap(Platform::Pkt& pkt, std::span<const Platform::Ip6Addr> cores,
                                      std::string_view intf, size_t end) {
   TRACE(7, " for intf: ", intf);
   const size_t subOpt = Layout::optionHeader + kCoreBytes * cores.size();
   const int delta = static_cast<int>(kVsiHeader + subOpt);
   if (!resize(pkt, end, delta))
      return std::nullopt;
   std::array<uint8_t, kVsiHeader> vsi{};
   Platform::ByteWriter writer(vsi);
   const bool written = writer.write16(dhcp6OptVendorOpts) && writer.write16(4 + subOpt) &&
                        writer.write32(Layout::cableLabsEnterprise) && pkt.write(end, vsi);
   PLATFORM_ASSERT(written, "option 17 write outside the packet");
   putCcapSubOpt(pkt, end + kVsiHeader, cores);
   TRACE(6, "Inserted Opt17 and CCAP cores, with a change in pkt length = ", delta);
   return delta;
}

std::optional<int> editCcapSubOpt(Platform::Pkt& pkt, std::span<const Platform::Ip6Addr> cores,
                                  std::string_view intf, const Tlv& vsi, const Tlv& sub) {
   TRACE(7, " for intf: ", intf);
   const int delta = static_cast<int>(kCoreBytes * cores.size()) - static_cast<int>(sub.length);
   if (!resize(pkt, sub.offset + Layout::optionHeader + sub.length, delta))
      return std::nullopt;
   putCcapSubOpt(pkt, sub.offset, cores);
   put16(pkt, vsi.offset + 2, static_cast<size_t>(static_cast<int>(vsi.length) + delta));
   TRACE(6, "Modified CCAP cores, with a change in pkt length = ", delta);
   return delta;
}

std::optional<int> insertCcapSubOpt(Platform::Pkt& pkt, std::span<const Platform::Ip6Addr> cores,
                                    std::string_view intf, const Tlv& vsi) {
   TRACE(7, " for intf: ", intf);
   const size_t subOpt = Layout::optionHeader + kCoreBytes * cores.size();
   const int delta = static_cast<int>(subOpt);
   if (!resize(pkt, vsi.offset + Layout::optionHeader + vsi.length, delta))
      return std::nullopt;
   putCcapSubOpt(pkt, vsi.offset + Layout::optionHeader + vsi.length, cores);
   put16(pkt, vsi.offset + 2, vsi.length + subOpt);
   TRACE(6, "Inserted CCAP cores, with a change in pkt length = ", delta);
   return delta;
}

// The cores into the Advertise or Reply at [start, end); 0 when it is neither or its options
// cannot be walked up to where the cores would go.
std::optional<int> setCoresInMessage(Platform::Pkt& pkt, std::span<const Platform::Ip6Addr> cores,
                                     std::string_view intf, size_t start, size_t end) {
   const auto type = pkt.at(start);
   if (type != dhcp6Reply && type != dhcp6Advertise)
      return 0;
   Tlv vsi;
   const TlvStep vsiStep =
       Codec::dhcp6FindFirst(pkt, start + Layout::clientHeader, end, vsi, isCableLabsVsi);
   if (vsiStep == TlvStep::EndOfData)
      return insertOpt17AndCcap(pkt, cores, intf, end);
   Tlv sub;
   const TlvStep subStep =
       vsiStep == TlvStep::Item
           ? Codec::dhcp6FindFirst(pkt, vsi.offset + kVsiHeader,
                                   vsi.offset + Layout::optionHeader + vsi.length, sub,
                                   [](const Tlv& t) { return t.tag == Layout::ccapCoresSubOption; })
           : TlvStep::Malformed;
   if (subStep == TlvStep::Malformed) {
      TRACE(7, " malformed options in ", dhcp6MsgTypeName(*type), "; CCAP cores not set");
      return 0;
   }
   if (subStep == TlvStep::Item)
      return editCcapSubOpt(pkt, cores, intf, vsi, sub);
   return insertCcapSubOpt(pkt, cores, intf, vsi);
}

}  // namespace

bool preparePktForCcap(Platform::Pkt& pkt, size_t offset, int delta) {
   const size_t bytes = pkt.bytes();
   const size_t gap = static_cast<size_t>(std::abs(static_cast<long>(delta)));
   if (offset > bytes)
      return false;
   if (delta > 0)
      return pkt.growTail(gap) && pkt.moveRange(offset, offset + gap, bytes - offset);
   if (gap > offset)
      return false;
   return pkt.moveRange(offset, offset - gap, bytes - offset) && pkt.shrinkTail(gap);
}

int searchAndSetCcapCoresInPkt(Platform::Pkt& pkt, std::span<const Platform::Ip6Addr> cores,
                               std::string_view intf, size_t start, size_t end, bool& ok) {
   TRACE(7, " for intf: ", intf);
   ok = true;
   if (cores.empty())
      return 0;
   if (cores.size() > kMaxMessage / kCoreBytes) {
      ok = false;
      return 0;
   }
   end = std::min(end, pkt.bytes());
   // The Relay Message options on the way in, whose lengths change with the message inside.
   std::array<size_t, Codec::kDhcp6MaxRelayDepth> relayMsgs{};
   size_t depth = 0;
   for (; start < end && pkt.at(start) == dhcp6RelayRepl; ++depth) {
      if (depth == relayMsgs.size()) {
         TRACE(7, " relay-reply nested deeper than ", relayMsgs.size(), " relays; not edited");
         return 0;
      }
      const auto relayMsg =
          dhcp6FindOption(pkt, dhcp6OptRelayMsg, start + Layout::relayHeader, end);
      if (!relayMsg) {
         TRACE(7, "   received 'relay-reply' doesn't contain a 'relay-message' option.");
         return 0;
      }
      relayMsgs[depth] = relayMsg->offset;
      start = relayMsg->dataOffset();
      end = start + relayMsg->data.size();
   }
   if (start >= end)
      return 0;
   const std::optional<int> delta = setCoresInMessage(pkt, cores, intf, start, end);
   if (!delta) {
      TRACE(6, " no room for CCAP cores in a message of ", pkt.bytes(), " bytes, tail room ",
            pkt.tailroom());
      ok = false;
      return 0;
   }
   for (size_t i = 0; i < depth; ++i) {
      const size_t lengthAt = relayMsgs[i] + 2;
      put16(pkt, lengthAt, static_cast<size_t>(static_cast<int>(get16(pkt, lengthAt)) + *delta));
   }
   return *delta;
}

}  // namespace Ip::Helper::DhcpRelay
