#include "model/VrfIpSrcIntfSrcIp.h"

namespace Ip::Helper::DhcpRelay {

namespace {

std::string sourcesText(const Platform::IntfId& srcIntf, const Platform::IpGenAddr& srcIp) {
   std::string out = " srcIntf=";
   out += srcIntf.str();
   out += " srcIp=";
   out += srcIp.toString();
   return out;
}

}  // namespace

std::string VrfIpSrcIntfSrcIp::toString() const {
   return "vrf=" + vrf.str() + " ip=" + ip.toString() + sourcesText(srcIntf, srcIp);
}

std::string VrfHostnameSrcIntfSrcIp::toString() const {
   return "vrf=" + vrf.str() + " hostname=" + hostname + sourcesText(srcIntf, srcIp);
}

}  // namespace Ip::Helper::DhcpRelay
