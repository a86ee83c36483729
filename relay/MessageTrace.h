#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "model/DropReason.h"
#include "platform/addr/EthAddr.h"
#include "platform/addr/IntfId.h"
#include "platform/addr/IpAddr.h"
#include "platform/addr/VrfName.h"
#include "platform/trace/Trace.h"

namespace Ip::Helper::DhcpRelay {

// One line per message and per thing done with it, which an operator turns on at run time
// (level 5) to follow a client:
//   "DHCPDISCOVER 02:00:00:00:0c:01 xid 0x3903f326 on Ethernet1 vrf default: relayed to
//    192.0.2.10 vrf red"
//   "DHCPOFFER 02:00:00:00:0c:01 xid 0x3903f326 from 192.0.2.10 vrf red: dropped
//    (giaddrNotOwn)"
// What the line says of the message is copied only while some sink keeps the level, and the
// line is formatted only then, so the packet paths pay one compare when nobody follows.
class MessageTrace {
 public:
   static constexpr int kLevel = 5;

   static bool on() { return Platform::Trace::keeps(kLevel); }

   // Where a message arrived; the start of each message's handling (when on()).
   void arrivedIs(const Platform::IntfId& intf, const Platform::VrfName& vrf, Platform::IpAddr src);
   // What it is, once its header is known to be whole. `type` is a static name.
   void messageIs(std::string_view type, const Platform::EthAddr& client, uint32_t xid);

   template <class... What>
   void line(const What&... what) const {
      TRACE_PLAIN(kLevel, *this, ": ", what...);
   }
   void dropped(DropReason reason) const { line("dropped (", dropReasonName(reason), ")"); }

   std::string toString() const;

 private:
   std::string_view type_;
   Platform::EthAddr client_;
   uint32_t xid_ = 0;
   bool known_ = false;
   Platform::IntfId intf_;
   Platform::VrfName vrf_;
   Platform::IpAddr src_;
};

}  // namespace Ip::Helper::DhcpRelay
