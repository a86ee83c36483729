#include "counters/DhcpRelayCounters.h"

#include "codec/Dhcp6Codec.h"
#include "codec/DhcpHdr.h"
#include "platform/trace/Trace.h"

namespace Ip::Helper::DhcpRelay {

namespace {

// A plain pointer rather than a Ptr: the lookup runs per packet and the entry outlives it.
IntfStatus* intfStatusOf(const Status& status, const Platform::IntfId& intf) {
   if (intf.empty())
      return nullptr;
   const auto& entries = status.intfStatus();
   auto it = entries.find(intf);
   if (it == entries.end()) {
      TRACE(8, "no status entry for ", intf.str());
      return nullptr;
   }
   return it->second.get();
}

}  // namespace

void pktReceived(Status& status, uint8_t op, const Platform::IntfId& intf) {
   switch (op) {
      case bootRequest:
         status.totalRequestsReceivedInc();
         if (IntfStatus* s = intfStatusOf(status, intf))
            s->requestsReceivedInc();
         return;
      case bootReply:
         status.totalRepliesReceivedInc();
         return;
      default:
         TRACE(6, "not counted: op ", op, " on ", intf.str());
   }
}

void pktForwarded(Status& status, uint8_t op, const Platform::IntfId& intf) {
   switch (op) {
      case bootRequest:
         status.totalRequestsForwardedInc();
         return;
      case bootReply:
         status.totalRepliesForwardedInc();
         if (IntfStatus* s = intfStatusOf(status, intf))
            s->repliesForwardedInc();
         return;
      default:
         TRACE(6, "not counted: op ", op, " on ", intf.str());
   }
}

void pktDropped(Status& status, uint8_t op, const Platform::IntfId& intf) {
   switch (op) {
      case bootRequest:
         status.totalRequestsDroppedInc();
         if (IntfStatus* s = intfStatusOf(status, intf))
            s->requestsDroppedInc();
         return;
      case bootReply:
         status.totalRepliesDroppedInc();
         return;
      default:
         TRACE(6, "not counted: op ", op, " on ", intf.str());
   }
}

void pktDropped(Status& status, uint8_t op, const Platform::IntfId& intf, DropReason reason) {
   status.dropsInc(reason);
   TRACE(6, " dropped (", dropReasonName(reason), ") on ", intf);
   pktDropped(status, op, intf);
}

uint8_t dhcp6Direction(uint8_t msgType) {
   switch (msgType) {
      case dhcp6Advertise:
      case dhcp6Reply:
      case dhcp6Reconfigure:
      case dhcp6RelayRepl:
         return bootReply;
      default:
         return bootRequest;
   }
}

void copyDhcpRelayCounters(const Status& from, Status& to) {
   to.countersIs(from);
   to.dropsIs(from);
   to.clientBindingsRefusedIs(from.clientBindingsRefused());
   to.prefixBindingsRefusedIs(from.prefixBindingsRefused());
   to.lastResetAllTimeIs(from.lastResetAllTime());
   to.runControlIs(from.runControl());
   std::vector<Platform::VrfName> healed;
   for (const auto& [vrf, error] : to.vrfSocketError()) {
      if (!from.vrfSocketError().contains(vrf))
         healed.push_back(vrf);
   }
   for (const Platform::VrfName& vrf : healed)
      to.vrfSocketErrorDel(vrf);
   for (const auto& [vrf, error] : from.vrfSocketError())
      to.vrfSocketErrorIs(vrf, error);
   for (const auto& [intf, src] : from.intfStatus()) {
      Ptr<IntfStatus> dst = to.intfStatusIs(intf);
      dst->countersIs(*src);
      dst->lastResetTimeIs(src->lastResetTime());
      dst->smartRelayNoSecondaryIs(src->smartRelayNoSecondary());
      std::vector<Platform::Ip6Prefix> gone;
      for (const auto& [prefix, binding] : dst->prefixBinding()) {
         if (!src->prefixBinding(prefix))
            gone.push_back(prefix);
      }
      for (const Platform::Ip6Prefix& prefix : gone)
         dst->prefixBindingDel(prefix);
      for (const auto& [prefix, binding] : src->prefixBinding())
         dst->prefixBindingIs(prefix)->addrAttrsIs(binding->addrAttrs());
   }
}

}  // namespace Ip::Helper::DhcpRelay
