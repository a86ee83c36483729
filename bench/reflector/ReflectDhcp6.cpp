// dhcp-reflector's DHCPv6 server: answers every Relay-Forw of a Solicit on UDP port 547 with a
// Relay-Repl of an Advertise, sent to the relay's source address port 547, as a server
// answers a client behind one relay (RFC 8415 sections 18.3.9 and 19.3), with no lease state.
// The Relay-Repl keeps the Relay-Forw's hop count, link-address and peer-address and echoes
// its Interface-Id; the Advertise keeps the Solicit's transaction id, echoes its Client
// Identifier, names this server and offers an address of the link-address's /64 for its IA_NA.
#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

#include "bench/Dhcp6Wire.h"
#include "bench/reflector/Reflection.h"
#include "platform/addr/EthAddr.h"
#include "platform/addr/Ip6Addr.h"
#include "platform/packet/ByteCursor.h"

namespace Bench {

namespace {

using namespace Ip::Helper::DhcpRelay;  // message types, option codes, Dhcp6Layout
using Platform::ByteWriter;

const Platform::EthAddr kServerMac({0x02, 0x52, 0x46, 0, 0, 0x01});
// Lifetimes of what is offered, in seconds: T1, T2, preferred, valid.
constexpr uint32_t kT1 = 1800, kT2 = 2880, kPreferred = 3600, kValid = 7200;
constexpr size_t kIaidBytes = 4;
// Larger answers are not sent (counted as malformed): no relay in the lab makes requests
// that need them.
constexpr size_t kMaxAnswer = 2048;

bool writeOption(ByteWriter& out, uint16_t code, std::span<const uint8_t> data) {
   return out.write16(code) && out.write16(static_cast<uint16_t>(data.size())) && out.bytes(data);
}

class ReflectDhcp6 final : public Reflection {
 public:
   int family() const override { return AF_INET6; }
   uint16_t port() const override { return kDhcp6ServerPort; }
   std::array<const char*, kOutcomes> outcomeNames() const override {
      return {"advertised", "malformed", "not_solicit", "no_client_id", "send_failed"};
   }

   Outcome answer(const Request& request, Answer& answer) override {
      const auto forw = request.bytes;
      if (forw.size() < Dhcp6Layout::relayHeader)
         return Outcome::malformed;
      if (forw[Dhcp6Layout::msgType] != dhcp6RelayForw)
         return Outcome::otherType;
      const auto relayOptions = forw.subspan(Dhcp6Layout::relayHeader);
      const auto solicit = findDhcp6Option(relayOptions, dhcp6OptRelayMsg);
      if (!solicit || solicit->size() < Dhcp6Layout::clientHeader)
         return Outcome::malformed;
      // A Relay-Forw inside is another relay's: the lab has one.
      if ((*solicit)[Dhcp6Layout::msgType] != dhcp6Solicit)
         return Outcome::otherType;
      const auto options = solicit->subspan(Dhcp6Layout::clientHeader);
      const auto clientId = findDhcp6Option(options, dhcp6OptClientId);
      if (!clientId)
         return Outcome::unanswerable;
      const auto interfaceId = findDhcp6Option(relayOptions, dhcp6OptInterfaceId);
      const auto iaNa = findDhcp6Option(options, dhcp6OptIaNa);
      const bool offer = iaNa && iaNa->size() >= kIaNaHeader;

      constexpr size_t iaNaBytes =
          kIaNaHeader + Dhcp6Layout::optionHeader + kIaAddrBytes;  // with one IA Address
      const size_t advertiseBytes = Dhcp6Layout::clientHeader + Dhcp6Layout::optionHeader +
                                    clientId->size() + Dhcp6Layout::optionHeader +
                                    kDuidLinkLayerBytes +
                                    (offer ? Dhcp6Layout::optionHeader + iaNaBytes : 0);
      ByteWriter out(out_);
      bool ok =
          advertiseBytes <= kMaxAnswer && out.write8(dhcp6RelayRepl) &&
          out.bytes(forw.subspan(Dhcp6Layout::hopCount,
                                 Dhcp6Layout::relayHeader - Dhcp6Layout::hopCount)) &&
          (!interfaceId || writeOption(out, dhcp6OptInterfaceId, *interfaceId)) &&
          out.write16(dhcp6OptRelayMsg) && out.write16(static_cast<uint16_t>(advertiseBytes)) &&
          out.write8(dhcp6Advertise) &&
          out.bytes(solicit->subspan(Dhcp6Layout::transactionId, Dhcp6Layout::clientHeader - 1)) &&
          writeOption(out, dhcp6OptClientId, *clientId) &&
          writeDuidOption(out, kDhcp6OptServerId, kServerMac);
      if (ok && offer) {
         ok = out.write16(dhcp6OptIaNa) && out.write16(iaNaBytes) &&
              out.bytes(iaNa->first(kIaidBytes)) && out.write32(kT1) && out.write32(kT2) &&
              out.write16(dhcp6OptIaAddr) && out.write16(kIaAddrBytes) &&
              out.bytes(offered(forw.subspan(Dhcp6Layout::linkAddress, 16)).bytes()) &&
              out.write32(kPreferred) && out.write32(kValid);
      }
      if (!ok)
         return Outcome::malformed;
      answer.bytes = out.written();
      // Back to the relay's address and port 547 (RFC 8415 section 19.3), whatever its port.
      std::memcpy(&answer.to, &request.from, sizeof(sockaddr_in6));
      reinterpret_cast<sockaddr_in6&>(answer.to).sin6_port = htons(kDhcp6ServerPort);
      answer.toLength = sizeof(sockaddr_in6);
      return Outcome::answered;
   }

 private:
   // Interface identifiers ::1000 to ::ffff of the link-address's /64, in turn.
   Platform::Ip6Addr offered(std::span<const uint8_t> linkAddress) {
      Platform::Ip6Addr::Bytes a{};
      std::copy_n(linkAddress.begin(), 8, a.begin());
      const uint16_t host = static_cast<uint16_t>(0x1000 + next_++ % 0xf000);
      a[14] = static_cast<uint8_t>(host >> 8);
      a[15] = static_cast<uint8_t>(host);
      return Platform::Ip6Addr(a);
   }

   uint32_t next_ = 0;
   uint8_t out_[kMaxAnswer];
};

}  // namespace

std::unique_ptr<Reflection> makeDhcp6Reflection() {
   return std::make_unique<ReflectDhcp6>();
}

}  // namespace Bench
