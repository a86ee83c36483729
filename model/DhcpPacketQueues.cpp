#include "model/DhcpPacketQueues.h"

namespace Ip::Helper::DhcpRelay {

uint32_t DhcpPacketQueues::enq(PacketLinkQueue& q, const DhcpPacketInfo& info,
                               EntryHandler handler) {
   const uint32_t index = q.enq(info);
   notify(handler, index);
   return index;
}

}  // namespace Ip::Helper::DhcpRelay
