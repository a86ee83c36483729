// The DHCPv6 clients: each sends Solicits as a host that has just come up does (RFC 8415
// section 18.2.1): from its link-local address, made from its MAC as EUI-64 (RFC 4291
// appendix A), port 546, to All_DHCP_Relay_Agents_and_Servers (ff02::1:2) port 547 with hop
// limit 1, carrying its DUID-LL as Client Identifier, Elapsed Time, an IA_NA and an Option
// Request. Advertises come back to its link-local address and are found by transaction id
// and Client Identifier. The relay learns that address's MAC by neighbour discovery (RFC
// 4861), which the clients have no stack of their own to answer: they answer it here.
#include <algorithm>

#include "bench/Dhcp6Wire.h"
#include "bench/loadgen/LoadProtocol.h"
#include "codec/Frame.h"
#include "platform/addr/Ip6Addr.h"
#include "platform/packet/Pkt.h"

namespace Bench {

namespace {

using namespace Ip::Helper::DhcpRelay;  // message types, option codes, Dhcp6Layout
using Platform::ByteReader;
using Platform::ByteWriter;
using Platform::EthAddr;
using Platform::Ip6Addr;
using Platform::Pkt;
using Platform::Ptr;

constexpr size_t kSolicitBytes = Dhcp6Layout::clientHeader + Dhcp6Layout::optionHeader +
                                 kDuidLinkLayerBytes +                      // Client Id
                                 Dhcp6Layout::optionHeader + 2 +            // Elapsed Time
                                 Dhcp6Layout::optionHeader + kIaNaHeader +  // IA_NA
                                 Dhcp6Layout::optionHeader + 4;             // Option Request

// Neighbour discovery (RFC 4861 sections 4.3 and 4.4): type, code, checksum, 4 bytes of flags
// (reserved in a solicitation), the target address, then options.
constexpr uint8_t kNeighborSolicit = 135, kNeighborAdvert = 136;
constexpr size_t kNdFlags = 4;
constexpr uint32_t kAdvertSolicited = 0x40000000, kAdvertOverride = 0x20000000;
constexpr uint8_t kOptTargetLinkLayer = 2;
constexpr size_t kNeighborAdvertBytes = Codec::Icmp6Layout::header + 4 + 16 + 8;
// What neighbour discovery takes as proof that a message never left the link (section 7.1.1).
constexpr uint8_t kNdHopLimit = 255;

Ip6Addr ip6Of(std::span<const uint8_t> bytes) {
   Ip6Addr::Bytes b{};
   std::copy_n(bytes.begin(), std::min(bytes.size(), b.size()), b.begin());
   return Ip6Addr(b);
}

Ip6Addr linkLocalOf(const EthAddr& mac) {
   const auto& m = mac.bytes();
   return Ip6Addr({0xfe, 0x80, 0, 0, 0, 0, 0, 0, static_cast<uint8_t>(m[0] ^ 0x02), m[1], m[2],
                   0xff, 0xfe, m[3], m[4], m[5]});
}

// The client whose link-local address `address` is.
std::optional<uint32_t> clientOfLinkLocal(const Ip6Addr& address) {
   const auto& a = address.bytes();
   const uint8_t mac[6] = {static_cast<uint8_t>(a[8] ^ 0x02), a[9], a[10], a[13], a[14], a[15]};
   const auto client = clientOfMac(mac);
   if (!client || linkLocalOf(clientMac(*client)) != address)
      return std::nullopt;
   return client;
}

class LoadDhcp6 final : public LoadProtocol {
 public:
   explicit LoadDhcp6(const LoadLink& link)
       : link_(link),
         solicit_(Pkt::create(kSolicitBytes, Codec::kUdp6FrameHeaders, 0)),
         advert_(Pkt::create(kNeighborAdvertBytes, Codec::kIcmp6FrameHeaders, 0)) {
      // The Solicit every client sends; its MAC, addresses, DUID, IAID and transaction id
      // change per send.
      ByteWriter out(solicit_->span());
      out.write8(dhcp6Solicit);
      out.write8(0);  // transaction id
      out.write16(0);
      duidMac_ = out.offset() + Dhcp6Layout::optionHeader + 4;
      writeDuidOption(out, dhcp6OptClientId, EthAddr());
      out.write16(kDhcp6OptElapsedTime);
      out.write16(2);
      out.write16(0);
      out.write16(dhcp6OptIaNa);
      out.write16(kIaNaHeader);
      iaid_ = out.offset();
      out.write32(0);  // IAID
      out.write32(0);  // T1 and T2: the server's choice
      out.write32(0);
      out.write16(kDhcp6OptOptionRequest);
      out.write16(4);
      out.write16(kDhcp6OptDnsServers);
      out.write16(kDhcp6OptDomainList);
      Codec::prependUdp6Frame(
          *solicit_, {.dstMac = EthAddr({0x33, 0x33, 0, 1, 0, 2}),  // RFC 2464 section 7
                      .dstIp = Ip6Addr({0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 2}),
                      .srcPort = kDhcp6ClientPort,
                      .dstPort = kDhcp6ServerPort,
                      .hopLimit = 1});
      at_ = Codec::locateFrame(solicit_->span());
   }

   uint32_t xidMask() const override { return 0xffffff; }

   // The UDP checksum covers every field that changes: the headers are fixed after each send.
   std::span<const uint8_t> request(uint32_t client, uint32_t xid) override {
      const auto frame = solicit_->span();
      const EthAddr mac = clientMac(client);
      ByteWriter(frame.subspan(Codec::EthLayout::src)).bytes(mac.bytes());
      ByteWriter(frame.subspan(at_.l3 + Codec::Ipv6Layout::src)).bytes(linkLocalOf(mac).bytes());
      const auto message = frame.subspan(at_.payload);
      ByteWriter xidOut(message.subspan(Dhcp6Layout::transactionId));
      xidOut.write8(static_cast<uint8_t>(xid >> 16));
      xidOut.write16(static_cast<uint16_t>(xid));
      ByteWriter(message.subspan(duidMac_)).bytes(mac.bytes());
      ByteWriter(message.subspan(iaid_)).write32(client);
      Codec::fixUdpFrame(frame, at_);
      return frame;
   }

   bool reply(std::span<const uint8_t> frame, uint32_t& client, uint32_t& xid) override {
      if (const auto icmp = Codec::locateIcmp6(frame)) {
         answerSolicitation(frame, *icmp);
         return false;
      }
      const Codec::FrameLayout at = Codec::locateFrame(frame);
      if (!at || !at.ipv6 || at.dstPort != kDhcp6ClientPort)
         return false;
      const auto message = frame.subspan(at.payload, at.payloadBytes);
      ByteReader in(message);
      const auto type = in.read8();
      const auto xidHigh = in.read8();
      const auto xidLow = in.read16();
      if (type != dhcp6Advertise || !xidLow)
         return false;
      const auto clientId =
          findDhcp6Option(message.subspan(Dhcp6Layout::clientHeader), dhcp6OptClientId);
      const auto mac = clientId ? duidMac(*clientId) : std::nullopt;
      const auto who = mac ? clientOfMac(*mac) : std::nullopt;
      // Only an Advertise sent to the client's own address reaches it.
      if (!who ||
          ip6Of(frame.subspan(at.l3 + Codec::Ipv6Layout::dst)) != linkLocalOf(clientMac(*who)))
         return false;
      client = *who;
      xid = uint32_t{*xidHigh} << 16 | *xidLow;
      return true;
   }

   void printFigures(std::FILE* out) const override {
      std::fprintf(out, " neighbor_advertisements=%llu",
                   static_cast<unsigned long long>(advertisements_));
   }

 private:
   // A solicitation for a client's address is answered from that client, as its own stack
   // would (RFC 4861 section 7.2.4). Duplicate address probes (from ::) go unanswered: the
   // addresses are the clients' own.
   void answerSolicitation(std::span<const uint8_t> frame, const Codec::Icmp6Location& icmp) {
      ByteReader in(frame.subspan(icmp.message, icmp.bytes));
      const auto type = in.read8();
      const auto code = in.read8();
      const auto target = in.skip(2 + kNdFlags) ? in.bytes(16) : std::nullopt;
      const Ip6Addr source = ip6Of(frame.subspan(icmp.l3 + Codec::Ipv6Layout::src));
      if (type != kNeighborSolicit || code != 0 || !target || source.isZero() ||
          frame[icmp.l3 + Codec::Ipv6Layout::hopLimit] != kNdHopLimit)
         return;
      const Ip6Addr address = ip6Of(*target);
      const auto client = clientOfLinkLocal(address);
      if (!client)
         return;
      const EthAddr mac = clientMac(*client);
      advert_->reset(kNeighborAdvertBytes, Codec::kIcmp6FrameHeaders);
      ByteWriter out(advert_->span());
      out.write8(kNeighborAdvert);
      out.write8(0);
      out.write16(0);  // checksum: the frame builder's
      out.write32(kAdvertSolicited | kAdvertOverride);
      out.bytes(address.bytes());
      out.write8(kOptTargetLinkLayer);
      out.write8(1);  // in units of 8 bytes
      out.bytes(mac.bytes());
      EthAddr::Bytes requester{};
      std::copy_n(frame.begin() + Codec::EthLayout::src, requester.size(), requester.begin());
      if (Codec::prependIcmp6Frame(
              *advert_,
              {.dstMac = EthAddr(requester), .srcMac = mac, .srcIp = address, .dstIp = source}) &&
          link_.send(advert_->span()))
         ++advertisements_;
   }

   const LoadLink& link_;
   Ptr<Pkt> solicit_;
   Ptr<Pkt> advert_;
   Codec::FrameLayout at_;
   size_t duidMac_ = 0;  // offsets in the message
   size_t iaid_ = 0;
   uint64_t advertisements_ = 0;
};

}  // namespace

std::unique_ptr<LoadProtocol> makeDhcp6Load(const LoadLink& link) {
   return std::make_unique<LoadDhcp6>(link);
}

}  // namespace Bench
