#pragma once

#include <string>

#include "platform/linux/Fd.h"

namespace Ip::Helper::DhcpRelay {

// Checks made once at start, before the agent opens anything, so that an agent that
// could never relay says so and exits instead of running and looking healthy.

// Raises the soft limit on open descriptors to the hard limit: each VRF costs a handful
// of sockets, and service managers start processes with a soft limit of 1,024. Returns
// the soft limit now in force.
unsigned long raiseFileLimit();

// The agent's claim on its network namespace. Two agents in one namespace would both
// bind the DHCP ports (the relay binds them with address reuse) and relay every packet
// twice. The claim is an abstract Unix socket: those names live per network namespace
// and the kernel releases them when the process dies, crashed or not. An invalid Fd and
// a reason when another agent holds it.
Platform::Fd claimNamespace(std::string& error);

// Opens, and closes again, the kinds of socket the relay needs (a UDP socket on the
// DHCP server port, a raw IP socket, a packet socket), to refuse at once when the
// process lacks the privilege for them. Failures other than missing privilege are left
// to the VRF that meets them, which shows them in its status.
bool probeRelayPrivileges(std::string& error);

}  // namespace Ip::Helper::DhcpRelay
