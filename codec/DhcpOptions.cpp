#include "codec/DhcpOptions.h"

#include "codec/DhcpHdr.h"
#include "platform/packet/ByteCursor.h"

namespace Codec {

namespace Layout = Ip::Helper::DhcpRelay::DhcpLayout;

namespace {

using OptionWalker = TlvWalker<Dhcp4OptionFormat>;

OptionWalker walkerOver(const Platform::Pkt& pkt, const OptionArea& area) {
   return OptionWalker(pkt.sub(area.offset, area.length), area.offset);
}

// RFC 2132 section 9.3: 1 lends `file`, 2 `sname`, 3 both, read in that order.
bool addLentAreas(uint8_t overload, size_t dhcpOffset, DhcpOptionAreas& out) {
   if (overload < 1 || overload > 3)
      return false;
   if (overload & 1)
      out.areas[out.count++] = {dhcpOffset + Layout::file, Layout::fileLength};
   if (overload & 2)
      out.areas[out.count++] = {dhcpOffset + Layout::sname, Layout::snameLength};
   return true;
}

}  // namespace

OptionsStatus locateOptionAreas(const Platform::Pkt& pkt, size_t dhcpOffset, DhcpOptionAreas& out) {
   out = DhcpOptionAreas{};
   if (dhcpOffset > pkt.bytes() || pkt.bytes() - dhcpOffset < Layout::fixedHeader)
      return OptionsStatus::Malformed;
   Platform::ByteReader cookie(pkt.sub(dhcpOffset + Layout::cookie, 4));
   if (cookie.read32() != Layout::cookieValue)
      return OptionsStatus::NoOptions;

   const size_t start = dhcpOffset + Layout::options;
   out.areas[0] = {start, pkt.bytes() - start};
   out.count = 1;
   OptionWalker walker = walkerOver(pkt, out.areas[0]);
   Tlv tlv;
   TlvStep step;
   std::optional<uint8_t> overload;
   while ((step = walker.next(tlv)) == TlvStep::Item) {
      if (tlv.tag != DhcpOption::overload)
         continue;
      if (overload || tlv.length != 1)
         return OptionsStatus::Malformed;
      overload = tlv.value[0];
   }
   if (step == TlvStep::Malformed)
      return OptionsStatus::Malformed;
   if (step == TlvStep::EndOption)
      out.endOffset = walker.stopOffset();
   if (overload && !addLentAreas(*overload, dhcpOffset, out))
      return OptionsStatus::Malformed;
   return OptionsStatus::Ok;
}

OptionLookup findOption(const Platform::Pkt& pkt, const DhcpOptionAreas& areas, uint8_t code) {
   OptionLookup found;
   for (const OptionArea& area : areas.list()) {
      OptionWalker walker = walkerOver(pkt, area);
      Tlv tlv;
      TlvStep step;
      while ((step = walker.next(tlv)) == TlvStep::Item) {
         if (tlv.tag == code && found.instances++ == 0)
            found.first = tlv;
      }
      if (step == TlvStep::Malformed)
         return OptionLookup{};
   }
   found.status = OptionsStatus::Ok;
   return found;
}

OptionLookup findOption(const Platform::Pkt& pkt, size_t dhcpOffset, uint8_t code) {
   DhcpOptionAreas areas;
   const OptionsStatus status = locateOptionAreas(pkt, dhcpOffset, areas);
   if (status != OptionsStatus::Ok)
      return OptionLookup{status, 0, {}};
   return findOption(pkt, areas, code);
}

std::optional<Tlv> singleOption(const Platform::Pkt& pkt, size_t dhcpOffset, uint8_t code,
                                size_t width) {
   const OptionLookup found = findOption(pkt, dhcpOffset, code);
   if (found.status != OptionsStatus::Ok || found.instances != 1 || found.first.length != width)
      return std::nullopt;
   return found.first;
}

}  // namespace Codec
