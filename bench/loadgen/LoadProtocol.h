#pragma once

// What a dhcp-loadgen run needs of a protocol: the request frame a simulated client sends,
// and the replies to its clients told apart from whatever else the client link carries.
// The run (LoadRun) keeps the window, the timing and the figures, the same for both.

#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <span>

#include "platform/addr/EthAddr.h"

namespace Bench {

// The client link: one packet socket that sends whole frames and captures the link's frames
// of one EtherType, never its own.
class LoadLink {
 public:
   LoadLink(int fd, int ifindex, uint16_t etherType)
       : fd_(fd), ifindex_(ifindex), etherType_(etherType) {}

   int fd() const { return fd_; }
   // False when the device queue is full, or the frame did not go whole.
   bool send(std::span<const uint8_t> frame) const;

 private:
   int fd_;
   int ifindex_;
   uint16_t etherType_;
};

class LoadProtocol {
 public:
   virtual ~LoadProtocol() = default;

   // The bits a transaction id has.
   virtual uint32_t xidMask() const = 0;
   // Client `client`'s request with `xid`, as a whole frame; valid until the next call.
   virtual std::span<const uint8_t> request(uint32_t client, uint32_t xid) = 0;
   // True, with its client and xid, for a reply to one of the simulated clients; false for
   // anything else on the link, after any answer the clients' own stacks would give.
   virtual bool reply(std::span<const uint8_t> frame, uint32_t& client, uint32_t& xid) = 0;
   // Figures of its own for the report line, each " key=value".
   virtual void printFigures(std::FILE*) const {}
};

std::unique_ptr<LoadProtocol> makeDhcp4Load();
std::unique_ptr<LoadProtocol> makeDhcp6Load(const LoadLink& link);

// Every simulated client has a MAC of its own in both protocols: locally administered,
// unicast, the last three bytes its number.
constexpr uint32_t kMaxClients = 1u << 24;
Platform::EthAddr clientMac(uint32_t client);
// The client whose MAC `mac` is; nullopt for any other address or a span not 6 bytes long.
std::optional<uint32_t> clientOfMac(std::span<const uint8_t> mac);

}  // namespace Bench
