#pragma once

#include "model/VrfWithCountDir.h"
#include "platform/addr/VrfName.h"

namespace Ip::Helper::DhcpRelay {

// The only writers of an active VRF directory (IPv4 or IPv6). A VRF's count is the number of
// server entries naming it plus the number of interfaces with servers in it; the relay has
// sockets in the VRF while it is listed. "default" is never counted: its entry, made when the
// selection starts, always stays.
void activeVrfInc(VrfWithCountDir& activeVrfDir, const Platform::VrfName& vrf);
// A decrement without its increment means the selection lost track of its own counts, so the
// directory can no longer be trusted: it stops the agent.
void activeVrfDec(VrfWithCountDir& activeVrfDir, const Platform::VrfName& vrf);

}  // namespace Ip::Helper::DhcpRelay
