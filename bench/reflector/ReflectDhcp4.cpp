// dhcp-reflector's DHCPv4 server: answers every relayed DHCPDISCOVER on UDP port 67 with a
// DHCPOFFER sent back to giaddr:67, with no lease state.
#include <arpa/inet.h>

#include <cstring>

#include "bench/reflector/Reflection.h"

namespace Bench {

namespace {

// BOOTP fixed header (RFC 2131, section 2) and the options' magic cookie.
constexpr size_t kOp = 0, kYiaddr = 16, kGiaddr = 24, kCookie = 236, kOptions = 240;
constexpr uint8_t kMagic[4] = {99, 130, 83, 99};
constexpr uint8_t kOptPad = 0, kOptEnd = 255, kOptMsgType = 53, kOptServerId = 54, kOptLease = 51,
                  kOptMask = 1, kOptRouter = 3, kOptAgentInfo = 82;
constexpr uint8_t kDiscover = 1, kOffer = 2;
constexpr size_t kMaxPkt = 1500;
// RFC 2131 section 2: a BOOTP message is at least 300 bytes on the wire.
constexpr size_t kMinBootp = 300;

// The message type and the relay agent information option (RFC 3046: a server
// echoes option 82 unchanged) of a request; false if the options are malformed.
bool scanOptions(const uint8_t* p, size_t len, int& msgType, const uint8_t*& agentInfo) {
   msgType = -1;
   agentInfo = nullptr;
   size_t i = kOptions;
   while (i < len) {
      uint8_t code = p[i++];
      if (code == kOptPad)
         continue;
      if (code == kOptEnd)
         return true;
      if (i >= len || i + 1 + p[i] > len)
         return false;
      uint8_t olen = p[i];
      if (code == kOptMsgType && olen == 1)
         msgType = p[i + 1];
      if (code == kOptAgentInfo)
         agentInfo = &p[i - 1];
      i += 1 + olen;
   }
   return false;
}

// Rewrites the request in `pkt` into the offer; returns its length.
size_t buildOffer(uint8_t* pkt, const uint8_t* agentInfo, uint32_t serverId, uint32_t yiaddr) {
   // The echoed option 82 may sit where the new options go: keep a copy first.
   uint8_t info[2 + 255];
   size_t infoLen = 0;
   if (agentInfo) {
      infoLen = 2 + agentInfo[1];
      std::memcpy(info, agentInfo, infoLen);
   }
   pkt[kOp] = 2;  // BOOTREPLY
   std::memcpy(&pkt[kYiaddr], &yiaddr, 4);
   uint32_t giaddr;
   std::memcpy(&giaddr, &pkt[kGiaddr], 4);
   size_t i = kOptions;
   auto put4 = [&](uint8_t code, uint32_t netValue) {
      pkt[i++] = code;
      pkt[i++] = 4;
      std::memcpy(&pkt[i], &netValue, 4);
      i += 4;
   };
   pkt[i++] = kOptMsgType;
   pkt[i++] = 1;
   pkt[i++] = kOffer;
   put4(kOptServerId, serverId);
   put4(kOptLease, htonl(3600));
   put4(kOptMask, htonl(0xffffff00));
   put4(kOptRouter, giaddr);
   std::memcpy(&pkt[i], info, infoLen);
   i += infoLen;
   pkt[i++] = kOptEnd;
   if (i < kMinBootp) {
      std::memset(&pkt[i], 0, kMinBootp - i);
      i = kMinBootp;
   }
   return i;
}

class ReflectDhcp4 final : public Reflection {
 public:
   int family() const override { return AF_INET; }
   uint16_t port() const override { return 67; }
   std::array<const char*, kOutcomes> outcomeNames() const override {
      return {"offered", "malformed", "not_discover", "no_giaddr", "send_failed"};
   }

   Outcome answer(const Request& request, Answer& answer) override {
      // The offer is written over a copy of the request, with room for the options it adds.
      const size_t len = request.bytes.size();
      if (len > kMaxPkt)
         return Outcome::malformed;
      std::memcpy(pkt_, request.bytes.data(), len);
      int msgType;
      const uint8_t* agentInfo;
      if (len < kOptions || pkt_[kOp] != 1 || std::memcmp(&pkt_[kCookie], kMagic, 4) != 0 ||
          !scanOptions(pkt_, len, msgType, agentInfo))
         return Outcome::malformed;
      if (msgType != kDiscover)
         return Outcome::otherType;
      uint32_t giaddr;
      std::memcpy(&giaddr, &pkt_[kGiaddr], 4);
      if (giaddr == 0)
         return Outcome::unanswerable;
      // Addresses .10 to .249 of giaddr's /24, in turn.
      uint32_t yiaddr = htonl((ntohl(giaddr) & 0xffffff00) | (10 + next_++ % 240));
      answer.bytes = {pkt_, buildOffer(pkt_, agentInfo, request.to.s_addr, yiaddr)};
      auto& to = reinterpret_cast<sockaddr_in&>(answer.to);
      to.sin_family = AF_INET;
      to.sin_port = htons(67);
      to.sin_addr.s_addr = giaddr;
      answer.toLength = sizeof to;
      return Outcome::answered;
   }

 private:
   uint32_t next_ = 0;
   uint8_t pkt_[kMaxPkt + 300];
};

}  // namespace

std::unique_ptr<Reflection> makeDhcp4Reflection() {
   return std::make_unique<ReflectDhcp4>();
}

}  // namespace Bench
