#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "platform/packet/Pkt.h"
#include "platform/pam/Pam.h"

namespace Platform {

// Sends complete Ethernet frames on any device of one namespace (packet access object),
// as a record: the relay uses it where the IP stack cannot send what it must, such as a
// reply to a client that has no address yet. LinuxRawTxPam is the kernel part, RawTxTestPam
// stands in for it in tests; what both share lives here.
class RawTxPam : public Pam {
 public:
   PLATFORM_ENTITY_TYPE("Platform::RawTxPam")

   class Reactor : public ReactorOf<const RawTxPam> {
    public:
      virtual void handleActive() {}
   };

   // The ethertype the kernel files the frames under (2048: IPv4); 0 lets it read the
   // frame's own.
   uint16_t ethProtocol() const { return ethProtocol_; }
   void ethProtocolIs(uint16_t v) { ethProtocol_ = v; }
   // "" or "default": the agent's own namespace. Changing it while modeOpen reopens the
   // socket there (reactors see active go false and true).
   const std::string& netNs() const { return netNs_; }
   void netNsIs(const std::string& v);

   // Sends a complete frame (destination and source MAC, ethertype or tag, payload) as it
   // is on the device with this kernel index in the namespace. Failures are returned,
   // counted and traced: a full device queue (EAGAIN, ENOBUFS) as a drop, anything else
   // as a failure.
   bool send(uint32_t ifindex, const Pkt& frame);

   uint64_t txFrames() const { return txSent(); }

 protected:
   explicit RawTxPam(std::string name) : Pam(std::move(name)) {}

   virtual SendResult doSend(uint32_t ifindex, const Pkt& frame) = 0;

 private:
   void doNotifyActive() const override { notify(&Reactor::handleActive); }
   std::string tracePlace() const override;

   uint16_t ethProtocol_ = 0;
   std::string netNs_;
};

}  // namespace Platform
