#include "model/DhcpPacketInfo.h"

namespace Ip::Helper::DhcpRelay {

std::string DhcpPacketInfo::toString() const {
   std::string out = "Value('Ip::Helper::DhcpRelay::DhcpPacketInfo', ** {'packet': ";
   out += packet ? packet->toString() : "None";
   out += ", 'intfId': ";
   out += intfId.str();
   out += ", 'fromSnooping': ";
   out += fromSnooping ? "True" : "False";
   out += ", 'rcvdDhcpLen': ";
   out += std::to_string(rcvdDhcpLen);
   out += ", 'srcIp6Addr': ";
   out += srcIp6Addr.toString();
   out += "})";
   return out;
}

}  // namespace Ip::Helper::DhcpRelay
