#include "servers/ActiveVrfCount.h"

#include "platform/base/Assert.h"
#include "platform/trace/Trace.h"

namespace Ip::Helper::DhcpRelay {

void activeVrfInc(VrfWithCountDir& activeVrfDir, const Platform::VrfName& vrf) {
   TRACE(4, " for ", vrf);
   if (vrf.isDefault())
      return;
   const Ptr<VrfWithCount> entry = activeVrfDir.vrfCountIs(vrf);
   entry->countInc();
   TRACE(3, " Adding ", vrf, " to activeVrfDir: Reference count = ", entry->count());
}

void activeVrfDec(VrfWithCountDir& activeVrfDir, const Platform::VrfName& vrf) {
   TRACE(4, " for ", vrf);
   if (vrf.isDefault())
      return;
   const Ptr<VrfWithCount> entry = activeVrfDir.vrfCount(vrf);
   if (!entry) {
      TRACE(0, " Fail to remove ", vrf, " from activeVrfDir: ");
      PLATFORM_ASSERT(entry, "activeVrfDir vrfCount");
   }
   entry->countDec();
   TRACE(3, " Removing ", vrf, " from activeVrfDir: Reference count = ", entry->count());
   if (entry->count() == 0)
      activeVrfDir.vrfCountDel(vrf);
}

}  // namespace Ip::Helper::DhcpRelay
