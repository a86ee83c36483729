#include "servers/IntfServerIpCount.h"

#include "platform/base/Assert.h"
#include "platform/trace/Trace.h"

namespace Ip::Helper::DhcpRelay {

void intfServerIpInc(const Ptr<IntfServerIp>& intfServerIp, const VrfIpSrcIntfSrcIp& key) {
   PLATFORM_ASSERT(intfServerIp, "intfServerIp");
   const uint32_t count = intfServerIp->serverIp(key) + 1;
   intfServerIp->serverIpIs(key, count);
   TRACE(3, " Adding ", key, " to ", intfServerIp->name(), " serverIp: Reference count = ", count);
}

void intfServerIpDec(const Ptr<IntfServerIp>& intfServerIp, const VrfIpSrcIntfSrcIp& key) {
   PLATFORM_ASSERT(intfServerIp, "intfServerIp");
   // An absent key reads 0, so the unsigned subtraction gives 4294967295.
   const uint32_t count = intfServerIp->serverIp(key) - 1;
   TRACE(3, " Removing ", key, " from ", intfServerIp->name(),
         " serverIp: Reference count = ", count);
   if (count == 0) {
      TRACE(3, " Deleting ", key, " serverIp ", intfServerIp->name());
      intfServerIp->serverIpDel(key);
   } else {
      intfServerIp->serverIpIs(key, count);
   }
}

void hostnameServerRef(const Ptr<IntfServerIp>& intfServerIp, const VrfHostnameSrcIntfSrcIp& key,
                       Platform::IpAddr ip, bool held) {
   const VrfIpSrcIntfSrcIp server{key.vrf, ip, key.srcIntf, key.srcIp};
   if (held)
      intfServerIpInc(intfServerIp, server);
   else
      intfServerIpDec(intfServerIp, server);
}

}  // namespace Ip::Helper::DhcpRelay
