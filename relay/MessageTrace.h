#pragma once

#include <cstdint>
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
//    192.0.2.10 vrf red giaddr 192.0.2.1"
//   "DHCPOFFER 02:00:00:00:0c:01 xid 0x3903f326 from 192.0.2.10 on Ethernet2 vrf red:
//    dropped (giaddrNotOwn)"
// The ring keeps every level, so these lines are written on every message: their facts are
// raw trace pieces (no text is formatted, nothing allocated), copied from the message only
// while some sink keeps the level.
class MessageTrace {
 public:
   static constexpr int kLevel = 5;

   static bool on() { return Platform::Trace::keeps(kLevel); }

   // Where a message arrived; the start of each message's handling (when on()). `vrf` must
   // outlive the message's handling; `src` is shown when it is not zero (replies).
   void arrivedIs(const Platform::IntfId& intf, const Platform::VrfName& vrf,
                  Platform::IpAddr src) {
      known_ = false;
      intf_ = intf;
      vrf_ = &vrf;
      src_ = src;
   }
   // What it is, once its header is known to be whole. `type` is a static name.
   void messageIs(std::string_view type, const Platform::EthAddr& client, uint32_t xid) {
      type_ = type;
      client_ = client;
      xid_ = xid;
      known_ = true;
   }

   template <class... What>
   void line(const What&... what) const {
      if (!on() || !vrf_)
         return;
      const std::string_view intf = intf_.empty() ? std::string_view("-") : intf_.str();
      const std::string_view type = type_.empty() ? std::string_view("BOOTP") : type_;
      if (!known_)
         TRACE_PLAIN(kLevel, "message on ", intf, " vrf ", *vrf_, ": ", what...);
      else if (src_.isZero())
         TRACE_PLAIN(kLevel, type, " ", client_, " xid ", Platform::TraceArg::ofHex32(xid_), " on ",
                     intf, " vrf ", *vrf_, ": ", what...);
      else
         TRACE_PLAIN(kLevel, type, " ", client_, " xid ", Platform::TraceArg::ofHex32(xid_),
                     " from ", src_, " on ", intf, " vrf ", *vrf_, ": ", what...);
   }
   void dropped(DropReason reason) const { line("dropped (", dropReasonName(reason), ")"); }
   // The message's type as messageIs was given it: read once per message, by whoever
   // needs it while on().
   std::string_view type() const { return type_; }

 private:
   std::string_view type_;
   Platform::EthAddr client_;
   uint32_t xid_ = 0;
   bool known_ = false;
   Platform::IntfId intf_;
   const Platform::VrfName* vrf_ = nullptr;
   Platform::IpAddr src_;
};

}  // namespace Ip::Helper::DhcpRelay
