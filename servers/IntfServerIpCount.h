#pragma once

#include "model/IntfServerIpDir.h"
#include "model/VrfIpSrcIntfSrcIp.h"

namespace Ip::Helper::DhcpRelay {

// The only writers of IntfServerIp::serverIp. Every source naming a server (a configured
// address, each host name resolving to it) holds one reference; the entry goes with the last.
void intfServerIpInc(const Ptr<IntfServerIp>& intfServerIp, const VrfIpSrcIntfSrcIp& key);
// Lowering a key that holds no reference stores 4294967295 (the count wraps) rather than
// failing: no user ever sees an error from a removal.
void intfServerIpDec(const Ptr<IntfServerIp>& intfServerIp, const VrfIpSrcIntfSrcIp& key);

}  // namespace Ip::Helper::DhcpRelay
