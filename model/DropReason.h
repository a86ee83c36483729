#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Ip::Helper::DhcpRelay {

// The relay families a drop reason belongs to, as a mask.
inline constexpr uint8_t kDropV4 = 1;
inline constexpr uint8_t kDropV6 = 2;

// Why the relay dropped a message (or one copy of it). Declared once: the enum, the names
// that `dhcp-relay-ctl show counters --drops` prints and the counters in Status all come
// from this list, so a new reason cannot be counted without being shown. The second field
// says which family's relay can drop for the reason, so that each family shows only its own.
#define DHCP_RELAY_DROP_REASONS(X)                                                              \
   /* on arrival, before the message is read */                                                 \
   X(unknownIfindex, both) /* the arrival device is not in the namespace's table */             \
   X(unknownDevice, both)  /* a request from a device that is no system interface */            \
   X(notIpv4, v4)          /* an IPv6 datagram on the IPv4 socket */                            \
   X(ownEcho, v4)          /* our own broadcast heard again on the link that sent it */         \
   X(tooShort, both)       /* shorter than the fixed DHCP header */                             \
   X(hopLimit, both)       /* hops already at the limit */                                      \
   X(noVrfSocket, both)    /* the VRF a message needs has no socket machine */                  \
   X(unknownOp, v4)        /* neither BOOTREQUEST nor BOOTREPLY */                              \
   /* client requests */                                                                        \
   X(notConfigured, both)         /* the interface does not relay */                            \
   X(noIpStatus, v4)              /* the interface has no IP status yet */                      \
   X(noAddress, v4)               /* the interface has no IPv4 address to relay from */         \
   X(smartRelayNoSubnet, v4)      /* a REQUEST for an address in none of the subnets */         \
   X(alreadyRelayed, v4)          /* giaddr is one of our addresses: a loop */                  \
   X(option82Untrusted, v4)       /* option 82 from a first hop the interface does not trust */ \
   X(option82EditFailed, v4)      /* option 82 could not be added, merged or removed */         \
   X(noServerSocket, both)        /* the server's VRF has no socket machine */                  \
   X(srcIntfNeedsInfoOption, v4)  /* a source interface needs link selection */                 \
   X(srcIntfInactive, both)       /* the source interface is down, addressless or elsewhere */  \
   X(crossVrfNeedsInfoOption, v4) /* a server in another VRF needs option 82 */                 \
   X(noEgressRoute, both)         /* no route to the server in its VRF */                       \
   X(noEgressAddress, both)       /* the route's device has no address */                       \
   X(serverIdRewriteFailed, v4)   /* option 54 could not be rewritten */                        \
   X(relayedCrossVrf, v4)         /* another agent's request cannot cross VRFs */               \
   X(sendFailed, both)            /* the kernel refused the send */                             \
   X(noClientBinding, v4)         /* a unicast renewal from a client we keep no binding for */  \
   /* server replies */                                                                         \
   X(zeroGiaddr, v4)         /* a reply without giaddr */                                       \
   X(unknownGiaddr, v4)      /* giaddr is no relay interface's address */                       \
   X(option82Malformed, v4)  /* the reply's option 82 cannot be read */                         \
   X(noServerIdOverride, v4) /* a cross-VRF reply without the override address */               \
   X(unknownOverride, v4)    /* the override address is no relay interface's */                 \
   X(giaddrNotOwn, v4)       /* giaddr is not an address of ours where the reply came */        \
   X(unknownServer, v4)      /* the reply's source is no server of the client interface */      \
   X(noKernelDevice, both)   /* the client interface has no kernel device */                    \
   X(frameBuildFailed, v4)   /* the frame to the client could not be built */                   \
   /* DHCPv6 */                                                                                 \
   X(tooLong, both)            /* longer than the socket's receive limit */                     \
   X(serverMessage, v6)        /* an Advertise, Reply or Reconfigure sent to the relay */       \
   X(noGlobalAddress, v6)      /* the client interface has no global address */                 \
   X(relayForwBuildFailed, v6) /* no room to wrap the message or add an option */               \
   X(malformed, v6)            /* an option runs past the end of the message */                 \
   X(noRelayMessage, v6)       /* a Relay-Repl without a Relay Message */                       \
   X(noInterfaceId, v6)        /* a Relay-Repl without an Interface-Id */                       \
   X(badInterfaceId, v6)       /* an Interface-Id that names no interface and VRF */            \
   X(unknownInterface, v6)     /* the Interface-Id's interface does not relay */                \
   X(intfChangedVrf, v6)       /* the interface left the VRF the Interface-Id names */          \
   X(zeroLinkAddress, v6)      /* a reply for a client with link-address :: */                  \
   X(noLinkLocal, v6)          /* the client interface has no link-local address */             \
   X(ccapEditFailed, v6)       /* the CCAP cores could not be written into the reply */         \
   /* the client's MAC for option 79 */                                                         \
   X(noClientId, v6)               /* a Solicit or Request without a Client Identifier */       \
   X(badDuid, v6)                  /* a DUID the client's MAC cannot be learned by */           \
   X(clientMacPending, v6)         /* the message again while the first waits for the MAC */    \
   X(noClientLinkLayerAddress, v6) /* no captured frame showed the client's MAC in time */      \
   X(duidMacBindingLimit, v6)      /* the VRF holds as many DUID-to-MAC bindings as it may */

#define DHCP_RELAY_DROP_ENUM(name, families) name,
enum class DropReason : uint8_t { DHCP_RELAY_DROP_REASONS(DHCP_RELAY_DROP_ENUM) };
#undef DHCP_RELAY_DROP_ENUM

#define DHCP_RELAY_DROP_COUNT(name, families) +1
inline constexpr size_t kDropReasonCount = 0 DHCP_RELAY_DROP_REASONS(DHCP_RELAY_DROP_COUNT);
#undef DHCP_RELAY_DROP_COUNT

inline constexpr std::string_view dropReasonName(DropReason reason) {
#define DHCP_RELAY_DROP_NAME(name, families) #name,
   constexpr std::array<std::string_view, kDropReasonCount> kNames = {
       DHCP_RELAY_DROP_REASONS(DHCP_RELAY_DROP_NAME)};
#undef DHCP_RELAY_DROP_NAME
   return kNames[static_cast<size_t>(reason)];
}

inline constexpr uint8_t dropReasonFamilies(DropReason reason) {
   constexpr uint8_t v4 = kDropV4, v6 = kDropV6, both = kDropV4 | kDropV6;
#define DHCP_RELAY_DROP_FAMILIES(name, families) families,
   constexpr std::array<uint8_t, kDropReasonCount> kFamilies = {
       DHCP_RELAY_DROP_REASONS(DHCP_RELAY_DROP_FAMILIES)};
#undef DHCP_RELAY_DROP_FAMILIES
   return kFamilies[static_cast<size_t>(reason)];
}

}  // namespace Ip::Helper::DhcpRelay
