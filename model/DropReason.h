#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Ip::Helper::DhcpRelay {

// Why the relay dropped a message (or one copy of it). Declared once: the enum, the names
// that `dhcp-relay-ctl show counters --drops` prints and the counters in Status all come
// from this list, so a new reason cannot be counted without being shown.
#define DHCP_RELAY_DROP_REASONS(X)                                                          \
   /* on arrival, before the message is read */                                             \
   X(unknownIfindex) /* the arrival device is not in the namespace's table */               \
   X(unknownDevice)  /* a request from a device that is no system interface */              \
   X(notIpv4)        /* an IPv6 datagram on the IPv4 socket */                              \
   X(ownEcho)        /* our own broadcast heard again on the link that sent it */           \
   X(tooShort)       /* shorter than the fixed DHCP header */                               \
   X(hopLimit)       /* hops already at the limit */                                        \
   X(noVrfSocket)    /* the VRF a message needs has no socket machine */                    \
   X(unknownOp)      /* neither BOOTREQUEST nor BOOTREPLY */                                \
   /* client requests */                                                                    \
   X(notConfigured)           /* the interface does not relay */                            \
   X(noIpStatus)              /* the interface has no IP status yet */                      \
   X(noAddress)               /* the interface has no IPv4 address to relay from */         \
   X(smartRelayNoSubnet)      /* a REQUEST for an address in none of the subnets */         \
   X(alreadyRelayed)          /* giaddr is one of our addresses: a loop */                  \
   X(option82Untrusted)       /* option 82 from a first hop the interface does not trust */ \
   X(option82EditFailed)      /* option 82 could not be added, merged or removed */         \
   X(noServerSocket)          /* the server's VRF has no socket machine */                  \
   X(srcIntfNeedsInfoOption)  /* a source interface needs link selection */                 \
   X(srcIntfInactive)         /* the source interface is down, addressless or elsewhere */  \
   X(crossVrfNeedsInfoOption) /* a server in another VRF needs option 82 */                 \
   X(noEgressRoute)           /* no route to the server in its VRF */                       \
   X(noEgressAddress)         /* the route's device has no address */                       \
   X(serverIdRewriteFailed)   /* option 54 could not be rewritten */                        \
   X(relayedCrossVrf)         /* another agent's request cannot cross VRFs */               \
   X(sendFailed)              /* the kernel refused the send */                             \
   X(noClientBinding)         /* a unicast renewal from a client we keep no binding for */  \
   /* server replies */                                                                     \
   X(zeroGiaddr)         /* a reply without giaddr */                                       \
   X(unknownGiaddr)      /* giaddr is no relay interface's address */                       \
   X(option82Malformed)  /* the reply's option 82 cannot be read */                         \
   X(noServerIdOverride) /* a cross-VRF reply without the override address */               \
   X(unknownOverride)    /* the override address is no relay interface's */                 \
   X(giaddrNotOwn)       /* giaddr is not an address of ours where the reply came */        \
   X(unknownServer)      /* the reply's source is no server of the client interface */      \
   X(noKernelDevice)     /* the client interface has no kernel device */                    \
   X(frameBuildFailed)   /* the frame to the client could not be built */

#define DHCP_RELAY_DROP_ENUM(name) name,
enum class DropReason : uint8_t { DHCP_RELAY_DROP_REASONS(DHCP_RELAY_DROP_ENUM) };
#undef DHCP_RELAY_DROP_ENUM

#define DHCP_RELAY_DROP_COUNT(name) +1
inline constexpr size_t kDropReasonCount = 0 DHCP_RELAY_DROP_REASONS(DHCP_RELAY_DROP_COUNT);
#undef DHCP_RELAY_DROP_COUNT

inline constexpr std::string_view dropReasonName(DropReason reason) {
#define DHCP_RELAY_DROP_NAME(name) #name,
   constexpr std::array<std::string_view, kDropReasonCount> kNames = {
       DHCP_RELAY_DROP_REASONS(DHCP_RELAY_DROP_NAME)};
#undef DHCP_RELAY_DROP_NAME
   return kNames[static_cast<size_t>(reason)];
}

}  // namespace Ip::Helper::DhcpRelay
