#include "platform/KernelInterfaces.h"

#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <map>

#include "platform/NetNs.h"

namespace Platform {

namespace {

uint8_t prefixLen(const uint8_t* mask, size_t bytes) {
   uint8_t len = 0;
   for (size_t i = 0; i < bytes; ++i)
      len += static_cast<uint8_t>(std::popcount(mask[i]));
   return len;
}

// IPv4 entries carry the address label ("eth0:1"), not the device name; device names
// cannot contain ':', so the part before it names the device.
std::string deviceOf(const char* name) {
   std::string device(name);
   auto colon = device.find(':');
   if (colon != std::string::npos)
      device.resize(colon);
   return device;
}

}  // namespace

std::vector<KernelInterface> listKernelInterfaces(const std::string& nsName, std::string& error) {
   error.clear();
   ifaddrs* list = nullptr;
   {
      NetNsGuard guard(nsName);
      if (!guard.ok()) {
         error = guard.error();
         return {};
      }
      // The netlink socket getifaddrs opens belongs to the namespace entered above.
      if (::getifaddrs(&list) < 0) {
         error = std::string("cannot list network devices: ") + std::strerror(errno);
         return {};
      }
   }

   std::map<std::string, KernelInterface> byName;
   // Every device has exactly one AF_PACKET entry, which gives its index and flags;
   // address entries may come first, so devices are collected before addresses.
   for (ifaddrs* a = list; a; a = a->ifa_next) {
      if (!a->ifa_addr || a->ifa_addr->sa_family != AF_PACKET)
         continue;
      auto* ll = reinterpret_cast<const sockaddr_ll*>(a->ifa_addr);
      KernelInterface& k = byName[a->ifa_name];
      k.ifindex = static_cast<uint32_t>(ll->sll_ifindex);
      k.device = a->ifa_name;
      k.up = a->ifa_flags & IFF_UP;
      k.running = a->ifa_flags & IFF_RUNNING;
      if (ll->sll_halen == 6) {
         EthAddr::Bytes b;
         std::memcpy(b.data(), ll->sll_addr, b.size());
         k.mac = EthAddr(b);
      }
   }
   for (ifaddrs* a = list; a; a = a->ifa_next) {
      if (!a->ifa_addr)
         continue;
      int family = a->ifa_addr->sa_family;
      if (family != AF_INET && family != AF_INET6)
         continue;
      auto it = byName.find(deviceOf(a->ifa_name));
      if (it == byName.end())
         continue;  // the device went away between the dumps
      KernelInterface& k = it->second;
      if (family == AF_INET) {
         auto* sin = reinterpret_cast<const sockaddr_in*>(a->ifa_addr);
         auto* mask = reinterpret_cast<const sockaddr_in*>(a->ifa_netmask);
         uint8_t len =
             mask ? prefixLen(reinterpret_cast<const uint8_t*>(&mask->sin_addr), 4) : uint8_t{32};
         k.ipv4.emplace_back(IpAddr::fromNetwork(sin->sin_addr.s_addr), len);
      } else {
         auto* sin6 = reinterpret_cast<const sockaddr_in6*>(a->ifa_addr);
         auto* mask = reinterpret_cast<const sockaddr_in6*>(a->ifa_netmask);
         uint8_t len = mask ? prefixLen(mask->sin6_addr.s6_addr, 16) : uint8_t{128};
         Ip6Addr::Bytes b;
         std::memcpy(b.data(), sin6->sin6_addr.s6_addr, b.size());
         k.ipv6.emplace_back(Ip6Addr(b), len);
      }
   }
   ::freeifaddrs(list);

   std::vector<KernelInterface> result;
   result.reserve(byName.size());
   for (auto& [name, k] : byName)
      result.push_back(std::move(k));
   std::sort(result.begin(), result.end(), [](const KernelInterface& a, const KernelInterface& b) {
      return a.ifindex < b.ifindex;
   });
   return result;
}

}  // namespace Platform
