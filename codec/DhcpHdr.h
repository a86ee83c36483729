#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "platform/addr/EthAddr.h"
#include "platform/addr/IpAddr.h"
#include "platform/packet/Pkt.h"

namespace Ip::Helper::DhcpRelay {

// The BOOTP op field (RFC 951); any other value is dropped by the receive path.
enum BootpOption : uint8_t { bootRequest = 1, bootReply = 2 };

// Where the fields of the BOOTP/DHCP message are (RFC 2131 section 2, figure 1), counted
// from the start of the message.
namespace DhcpLayout {
constexpr size_t op = 0;
constexpr size_t hops = 3;
constexpr size_t xid = 4;
constexpr size_t flags = 10;
constexpr size_t ciaddr = 12;
constexpr size_t yiaddr = 16;
constexpr size_t giaddr = 24;
constexpr size_t chaddr = 28;
constexpr size_t sname = 44;
constexpr size_t snameLength = 64;
constexpr size_t file = 108;
constexpr size_t fileLength = 128;
constexpr size_t fixedHeader = 236;
// RFC 2131 section 3: the options field starts with 99.130.83.99.
constexpr size_t cookie = fixedHeader;
constexpr uint32_t cookieValue = 0x63825363;
constexpr size_t options = cookie + 4;
constexpr uint16_t broadcastFlag = 0x8000;
}  // namespace DhcpLayout

// A view of the fixed header of the DHCP message that starts `dhcpOffset` bytes into a
// packet's data: 0 for a UDP payload, 42 for a whole Ethernet/IPv4/UDP frame. It exists
// only for a packet that holds the whole 236-byte header, so its accessors cannot fail
// on network input; the fields are read and written through the byte cursor in network
// order, never by casting the buffer.
//
// The view keeps a pointer to the packet, which must outlive it. Shrinking the packet
// below the header while a view is held is a programming error and asserts.
class DhcpHdr {
 public:
   static std::optional<DhcpHdr> of(Platform::Pkt& pkt, size_t dhcpOffset = 0);

   uint8_t bootpOp() const { return read8(DhcpLayout::op); }
   uint8_t hops() const { return read8(DhcpLayout::hops); }
   void hopsIs(uint8_t hops);
   // Saturates at 255 instead of wrapping: a wrapped count would let a relay loop
   // restart at 0 and never hit the hop limit.
   void hopsInc(uint8_t n = 1);
   uint16_t flags() const;
   uint32_t xid() const { return read32(DhcpLayout::xid); }
   Platform::IpAddr ciaddr() const { return Platform::IpAddr(read32(DhcpLayout::ciaddr)); }
   Platform::IpAddr yiaddr() const { return Platform::IpAddr(read32(DhcpLayout::yiaddr)); }
   Platform::IpAddr giaddr() const { return Platform::IpAddr(read32(DhcpLayout::giaddr)); }
   void giaddrIs(Platform::IpAddr addr);
   // The first 6 bytes of chaddr: the client's Ethernet address whatever htype/hlen say,
   // because the relay only serves Ethernet clients.
   Platform::EthAddr chaddr() const;

 private:
   DhcpHdr(Platform::Pkt& pkt, size_t base) : pkt_(&pkt), base_(base) {}

   std::span<const uint8_t> field(size_t off, size_t len) const;
   void write(size_t off, std::span<const uint8_t> bytes);
   uint8_t read8(size_t off) const;
   uint32_t read32(size_t off) const;

   Platform::Pkt* pkt_;
   size_t base_;
};

}  // namespace Ip::Helper::DhcpRelay
