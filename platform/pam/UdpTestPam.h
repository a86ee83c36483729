#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/pam/UdpPam.h"

namespace Platform {

// A UdpPam without a socket, for tests of what sits above one: datagrams are injected
// and go through the same queue and announcements as received ones, sends are recorded.
// Opening always succeeds once the settings are consistent; sending and multicast
// membership refuse exactly what the real socket refuses before reaching the kernel.
class UdpTestPam final : public UdpPam {
 public:
   struct Sent {
      std::vector<uint8_t> bytes;
      IpGenAddr src, dst;
      uint16_t port = 0;
      uint8_t tos = 0;
      uint32_t ifindex = 0;
   };
   struct McastChange {
      uint32_t ifindex = 0;
      Ip6Addr group;
      bool join = false;
   };

   explicit UdpTestPam(std::string name) : UdpPam(std::move(name)) {}

   // As if the datagram had arrived: false (and nothing announced) when the socket is
   // closed or the queue is full. A payload longer than maxRxPayload counts as truncated.
   bool inject(UdpDatagram datagram);

   const std::vector<Sent>& sent() const { return sent_; }
   void clearSent() { sent_.clear(); }
   // Sends fail (as a kernel error would) while set.
   void sendFailsIs(bool v) { sendFails_ = v; }

   const std::vector<McastChange>& mcastChanges() const { return mcastChanges_; }
   // Current memberships, (ifindex, group); closing drops them as the kernel does.
   const std::set<std::pair<uint32_t, Ip6Addr>>& mcastGroups() const { return mcastGroups_; }

 private:
   bool doOpen(std::string&) override { return true; }
   void doClose() override { mcastGroups_.clear(); }
   SendResult doSend(const UdpTx& tx) override;
   bool doMcastGroup(uint32_t ifindex, const Ip6Addr& group, bool join,
                     std::string& error) override;

   std::vector<Sent> sent_;
   bool sendFails_ = false;
   std::vector<McastChange> mcastChanges_;
   std::set<std::pair<uint32_t, Ip6Addr>> mcastGroups_;
};

}  // namespace Platform
