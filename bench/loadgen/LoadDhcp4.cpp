// The DHCPv4 clients: each sends DHCPDISCOVERs as a booting client does (raw Ethernet frames
// from 0.0.0.0:68 to 255.255.255.255:67, broadcast flag set, its own MAC as source and chaddr,
// a random xid); their DHCPOFFERs come back on the same link, found by chaddr and xid.
#include <arpa/inet.h>

#include <cstring>

#include "bench/loadgen/LoadProtocol.h"
#include "codec/Frame.h"
#include "platform/packet/Pkt.h"

namespace Bench {

namespace {

using Platform::Pkt;
using Platform::Ptr;

constexpr size_t kBootp = Codec::kUdp4FrameHeaders;
// BOOTP fixed header offsets (RFC 2131, section 2).
constexpr size_t kOp = 0, kXid = 4, kFlags = 10, kChaddr = 28, kCookie = 236, kOptions = 240;
constexpr uint8_t kMagic[4] = {99, 130, 83, 99};
// RFC 2131 section 2: a BOOTP message is at least 300 bytes on the wire.
constexpr size_t kBootpLen = 300;

// The DISCOVER every client sends, from 0.0.0.0:68 to 255.255.255.255:67; only the source
// MAC, chaddr and the xid change per send.
Ptr<Pkt> buildTemplate() {
   Ptr<Pkt> frame = Pkt::create(kBootpLen, kBootp, 0);
   uint8_t* b = frame->data();
   b[kOp] = 1;  // BOOTREQUEST
   b[1] = 1;    // Ethernet
   b[2] = 6;
   b[kFlags] = 0x80;  // RFC 2131 4.1: the broadcast bit, the client has no address yet
   std::memcpy(&b[kCookie], kMagic, 4);
   const uint8_t opts[] = {53, 1, 1,            // DHCPDISCOVER
                           55, 4, 1, 3, 6, 51,  // mask, router, DNS, lease time
                           255};
   std::memcpy(&b[kOptions], opts, sizeof opts);
   Codec::prependUdp4Frame(*frame,
                           {.dstMac = Platform::EthAddr({0xff, 0xff, 0xff, 0xff, 0xff, 0xff}),
                            .dstIp = Platform::IpAddr::broadcast(),
                            .srcPort = 68,
                            .dstPort = 67});
   return frame;
}

// The client and xid of a DHCPOFFER for one of our clients, from a captured frame; false for
// anything else on the link.
bool parseOffer(std::span<const uint8_t> frame, uint32_t& client, uint32_t& xid) {
   const Codec::FrameLayout at = Codec::locateFrame(frame);
   if (!at || at.ipv6 || at.dstPort != 68 || at.payloadBytes < kOptions)
      return false;
   const uint8_t* b = frame.data() + at.payload;
   if (b[kOp] != 2 || std::memcmp(&b[kCookie], kMagic, 4) != 0)
      return false;
   const auto who = clientOfMac({&b[kChaddr], 6});
   if (!who)
      return false;
   size_t blen = at.payloadBytes;
   int msgType = -1;
   for (size_t i = kOptions; i < blen;) {
      uint8_t code = b[i++];
      if (code == 0)
         continue;
      if (code == 255 || i >= blen || i + 1 + b[i] > blen)
         break;
      if (code == 53 && b[i] == 1)
         msgType = b[i + 1];
      i += 1 + b[i];
   }
   if (msgType != 2)
      return false;
   client = *who;
   uint32_t netXid;
   std::memcpy(&netXid, &b[kXid], 4);
   xid = ntohl(netXid);
   return true;
}

class LoadDhcp4 final : public LoadProtocol {
 public:
   LoadDhcp4() : frame_(buildTemplate()), at_(Codec::locateFrame(frame_->span())) {}

   uint32_t xidMask() const override { return 0xffffffff; }

   // The UDP checksum covers chaddr and xid: the headers are fixed again after each change.
   std::span<const uint8_t> request(uint32_t client, uint32_t xid) override {
      uint8_t* f = frame_->data();
      const Platform::EthAddr mac = clientMac(client);
      std::memcpy(f + Codec::EthLayout::src, mac.bytes().data(), 6);
      std::memcpy(f + kBootp + kChaddr, mac.bytes().data(), 6);
      uint32_t netXid = htonl(xid);
      std::memcpy(f + kBootp + kXid, &netXid, 4);
      Codec::fixUdpFrame(frame_->span(), at_);
      return frame_->span();
   }

   bool reply(std::span<const uint8_t> frame, uint32_t& client, uint32_t& xid) override {
      return parseOffer(frame, client, xid);
   }

 private:
   Ptr<Pkt> frame_;
   Codec::FrameLayout at_;
};

}  // namespace

std::unique_ptr<LoadProtocol> makeDhcp4Load() {
   return std::make_unique<LoadDhcp4>();
}

}  // namespace Bench
