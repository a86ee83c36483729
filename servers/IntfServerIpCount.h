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

// The reference a host-name entry holds on one address it resolves to: the server is the
// address in the entry's VRF, from the entry's source interface and address.
void hostnameServerRef(const Ptr<IntfServerIp>& intfServerIp, const VrfHostnameSrcIntfSrcIp& key,
                       Platform::IpAddr ip, bool held);

}  // namespace Ip::Helper::DhcpRelay
