#include "codec/RelayAgentInfo.h"

#include "codec/DhcpOptions.h"
#include "codec/TlvWalker.h"
#include "platform/addr/VrfName.h"
#include "platform/packet/ByteCursor.h"

namespace Codec {

namespace {

std::span<const uint8_t> bytesOf(std::string_view text) {
   return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

bool putText(Platform::ByteWriter& out, uint8_t code, std::string_view text) {
   return text.empty() ||
          (text.size() <= 0xff && out.write8(code) &&
           out.write8(static_cast<uint8_t>(text.size())) && out.bytes(bytesOf(text)));
}

bool putAddr(Platform::ByteWriter& out, uint8_t code, Platform::IpAddr addr) {
   return addr.isZero() || (out.write8(code) && out.write8(4) && out.write32(addr.value()));
}

bool putVrf(Platform::ByteWriter& out, std::string_view name) {
   return name.empty() || (name.size() <= Platform::VrfName::maxLength &&
                           out.write8(RelayAgentSubOption::virtualSubnet) &&
                           out.write8(static_cast<uint8_t>(1 + name.size())) &&
                           out.write8(vssTypeNvtAscii) && out.bytes(bytesOf(name)));
}

// Each known sub-option once: a second copy would leave it to chance which value the
// relay acts on, and an override address picked that way redirects a client.
bool firstTime(uint32_t& seen, unsigned bit) {
   const uint32_t mask = uint32_t{1} << bit;
   if (seen & mask)
      return false;
   seen |= mask;
   return true;
}

std::optional<Platform::IpAddr> addrOf(const Tlv& tlv) {
   Platform::ByteReader reader(tlv.value);
   if (tlv.length != 4)
      return std::nullopt;
   return Platform::IpAddr(*reader.read32());
}

bool vrfNameOf(const Tlv& tlv, std::string& out) {
   if (tlv.value.empty())
      return false;
   const auto name = tlv.value.subspan(1);
   if (tlv.value[0] == vssTypeGlobal)
      return name.empty();
   if (tlv.value[0] != vssTypeNvtAscii || name.size() > Platform::VrfName::maxLength)
      return false;
   out.assign(name.begin(), name.end());
   return true;
}

// The relay's own sub-options after whatever the writer holds, and the option's length byte:
// the size of the whole option, 0 when it holds nothing, nullopt when it does not fit.
std::optional<size_t> finishOwn(Platform::ByteWriter& writer, const RelayAgentInfoValues& v,
                                RelayAgentInfoBuffer& out) {
   const bool fits = putAddr(writer, RelayAgentSubOption::linkSelection, v.linkSelection) &&
                     putAddr(writer, RelayAgentSubOption::serverIdOverride, v.serverIdOverride) &&
                     putVrf(writer, v.vrfName);
   if (!fits)
      return std::nullopt;
   const size_t size = writer.offset();
   if (size == 2)
      return 0;
   out[1] = static_cast<uint8_t>(size - 2);
   return size;
}

}  // namespace

std::optional<size_t> encodeRelayAgentInfo(const RelayAgentInfoValues& values,
                                           RelayAgentInfoBuffer& out) {
   Platform::ByteWriter writer(out);
   // The length byte is written last, once the sub-options are known to fit: the
   // buffer is exactly as large as the largest option.
   writer.write8(DhcpOption::relayAgentInfo);
   writer.write8(0);
   if (!putText(writer, RelayAgentSubOption::circuitId, values.circuitId) ||
       !putText(writer, RelayAgentSubOption::remoteId, values.remoteId))
      return std::nullopt;
   return finishOwn(writer, values, out);
}

std::optional<size_t> rewriteRelayAgentInfo(std::span<const uint8_t> value,
                                            const RelayAgentInfoValues& own,
                                            RelayAgentInfoBuffer& out) {
   Platform::ByteWriter writer(out);
   writer.write8(DhcpOption::relayAgentInfo);
   writer.write8(0);
   TlvWalker<Dhcp4SubOptionFormat> walker(value);
   Tlv tlv;
   TlvStep step;
   while ((step = walker.next(tlv)) == TlvStep::Item) {
      if (isRelayOwnSubOption(static_cast<uint8_t>(tlv.tag)))
         continue;
      if (!writer.write8(static_cast<uint8_t>(tlv.tag)) ||
          !writer.write8(static_cast<uint8_t>(tlv.length)) || !writer.bytes(tlv.value))
         return std::nullopt;
   }
   if (step != TlvStep::EndOfData)
      return std::nullopt;
   return finishOwn(writer, own, out);
}

bool decodeRelayAgentInfo(std::span<const uint8_t> value, std::string& circuitId,
                          std::string& remoteId, std::string& vrfName,
                          Platform::IpAddr& serverIdOverride, Platform::IpAddr& linkSelection) {
   circuitId.clear();
   remoteId.clear();
   vrfName.clear();
   serverIdOverride = Platform::IpAddr();
   linkSelection = Platform::IpAddr();

   TlvWalker<Dhcp4SubOptionFormat> walker(value);
   Tlv tlv;
   TlvStep step;
   uint32_t seen = 0;
   while ((step = walker.next(tlv)) == TlvStep::Item) {
      switch (tlv.tag) {
         case RelayAgentSubOption::circuitId:
            if (!firstTime(seen, 0))
               return false;
            circuitId.assign(tlv.value.begin(), tlv.value.end());
            break;
         case RelayAgentSubOption::remoteId:
            if (!firstTime(seen, 1))
               return false;
            remoteId.assign(tlv.value.begin(), tlv.value.end());
            break;
         case RelayAgentSubOption::linkSelection: {
            const auto addr = addrOf(tlv);
            if (!firstTime(seen, 2) || !addr)
               return false;
            linkSelection = *addr;
            break;
         }
         case RelayAgentSubOption::serverIdOverride: {
            const auto addr = addrOf(tlv);
            if (!firstTime(seen, 3) || !addr)
               return false;
            serverIdOverride = *addr;
            break;
         }
         case RelayAgentSubOption::virtualSubnet:
            if (!firstTime(seen, 4) || !vrfNameOf(tlv, vrfName))
               return false;
            break;
         default:
            break;
      }
   }
   return step == TlvStep::EndOfData;
}

}  // namespace Codec
