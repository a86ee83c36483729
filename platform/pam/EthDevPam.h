#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/base/Ptr.h"
#include "platform/packet/Pkt.h"
#include "platform/pam/Pam.h"

namespace Platform {

// One captured frame. `frame` starts at the Ethernet header with the VLAN tag the frame
// arrived with removed; `vlanId` is that tag's VLAN id (0 for a priority-tagged frame),
// empty for an untagged frame. `ifindex` is the device's, in its namespace.
struct EthFrame {
   Ptr<Pkt> frame;
   std::optional<uint16_t> vlanId;
   uint32_t ifindex = 0;
};

// The DHCP and DHCPv6 traffic of one kernel Ethernet device, captured below the IP stack
// (packet access object), as a record; frames are also sent whole on the same device. The
// owner opens it with modeIs(modeOpen), and its reactor hears of each captured frame. Only
// IPv4 UDP to or from ports 67 and 68 and IPv6 UDP to or from ports 546 and 547 are
// captured, untagged or with one 802.1Q tag; frames the device sends (this object's
// included) are not. LinuxEthDevPam is the kernel part, EthDevTestPam stands in for it in
// tests; what both share lives here and in ReadablePam.
//
// Reception follows ReadablePam: the handler takes one frame with rxFrame().
class EthDevPam : public ReadablePam<EthFrame> {
 public:
   PLATFORM_ENTITY_TYPE("Platform::EthDevPam")

   class Reactor : public ReactorOf<const EthDevPam> {
    public:
      virtual void handleReadableCount() {}
      virtual void handleActive() {}
   };

   const std::string& device() const { return device_; }
   // "" or "default": the agent's own namespace.
   const std::string& netNs() const { return netNs_; }

   // The oldest captured frame; nullopt when none is queued.
   std::optional<EthFrame> rxFrame() { return doTakeRx(); }

   // Sends a complete frame (destination and source MAC, ethertype or tag, payload) on the
   // device as it is. Failures are returned, counted and traced: a full device queue
   // (EAGAIN, ENOBUFS) as a drop, anything else as a failure.
   bool send(const Pkt& frame);

   uint64_t rxFrames() const { return rxFrames_; }
   uint64_t txFrames() const { return txSent(); }

 protected:
   EthDevPam(std::string device, std::string netNs);

   virtual SendResult doSend(const Pkt& frame) = 0;

   // Appends to the receive queue without announcing; false (counted, traced) when full,
   // and the frame is left with the caller.
   bool doQueueRx(EthFrame&& frame);

 private:
   void doNotifyActive() const override { notify(&Reactor::handleActive); }
   void doNotifyReadable() const override { notify(&Reactor::handleReadableCount); }
   std::string traceName() const override;

   const std::string device_;
   const std::string netNs_;

   uint64_t rxFrames_ = 0;
};

}  // namespace Platform
