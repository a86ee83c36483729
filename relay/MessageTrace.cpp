#include "relay/MessageTrace.h"

#include <cstdio>

namespace Ip::Helper::DhcpRelay {

void MessageTrace::arrivedIs(const Platform::IntfId& intf, const Platform::VrfName& vrf,
                             Platform::IpAddr src) {
   known_ = false;
   intf_ = intf;
   vrf_ = vrf;
   src_ = src;
}

void MessageTrace::messageIs(std::string_view type, const Platform::EthAddr& client, uint32_t xid) {
   type_ = type;
   client_ = client;
   xid_ = xid;
   known_ = true;
}

std::string MessageTrace::toString() const {
   std::string out;
   if (known_) {
      char xid[16];
      std::snprintf(xid, sizeof xid, "0x%08x", xid_);
      out.append(type_.empty() ? "BOOTP" : type_).append(" ").append(client_.toString());
      out.append(" xid ").append(xid);
   } else {
      out = "message";
   }
   if (!src_.isZero())
      out.append(" from ").append(src_.toString());
   if (!intf_.empty())
      out.append(" on ").append(intf_.str());
   return out.append(" vrf ").append(vrf_.str());
}

}  // namespace Ip::Helper::DhcpRelay
