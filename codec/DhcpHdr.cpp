#include "codec/DhcpHdr.h"

#include <algorithm>
#include <array>

#include "platform/base/Assert.h"
#include "platform/packet/ByteCursor.h"

namespace Ip::Helper::DhcpRelay {

std::optional<DhcpHdr> DhcpHdr::of(Platform::Pkt& pkt, size_t dhcpOffset) {
   if (pkt.sub(dhcpOffset, DhcpLayout::fixedHeader).empty())
      return std::nullopt;
   return DhcpHdr(pkt, dhcpOffset);
}

std::span<const uint8_t> DhcpHdr::field(size_t off, size_t len) const {
   const auto bytes = pkt_->sub(base_ + off, len);
   PLATFORM_ASSERT(bytes.size() == len, "DhcpHdr outlived its packet's header");
   return bytes;
}

void DhcpHdr::write(size_t off, std::span<const uint8_t> bytes) {
   const bool written = pkt_->write(base_ + off, bytes);
   PLATFORM_ASSERT(written, "DhcpHdr outlived its packet's header");
}

uint8_t DhcpHdr::read8(size_t off) const {
   return field(off, 1)[0];
}

uint32_t DhcpHdr::read32(size_t off) const {
   Platform::ByteReader reader(field(off, 4));
   return reader.read32().value_or(0);
}

uint16_t DhcpHdr::flags() const {
   Platform::ByteReader reader(field(DhcpLayout::flags, 2));
   return reader.read16().value_or(0);
}

void DhcpHdr::hopsIs(uint8_t hops) {
   write(DhcpLayout::hops, std::array{hops});
}

void DhcpHdr::hopsInc(uint8_t n) {
   const unsigned sum = unsigned{hops()} + n;
   hopsIs(static_cast<uint8_t>(sum > 0xff ? 0xff : sum));
}

void DhcpHdr::giaddrIs(Platform::IpAddr addr) {
   std::array<uint8_t, 4> bytes{};
   Platform::ByteWriter(bytes).write32(addr.value());
   write(DhcpLayout::giaddr, bytes);
}

Platform::EthAddr DhcpHdr::chaddr() const {
   const auto bytes = field(DhcpLayout::chaddr, 6);
   Platform::EthAddr::Bytes out{};
   std::copy(bytes.begin(), bytes.end(), out.begin());
   return Platform::EthAddr(out);
}

}  // namespace Ip::Helper::DhcpRelay
