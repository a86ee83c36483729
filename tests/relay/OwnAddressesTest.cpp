#include "relay/OwnAddresses.h"

#include <gtest/gtest.h>

namespace Ip::Helper::DhcpRelay {
namespace {

using Platform::IpAddrWithMask;
using Platform::IpGenAddr;

IpGenAddr a(const char* text) {
   return *IpGenAddr::parse(text);
}
IpAddrWithMask n(const char* text) {
   return *IpAddrWithMask::parse(text);
}

// Follows devices as they come, change and go; an address on two devices stays until both
// let it go.
TEST(OwnAddressesTest, FollowsTheKernelTable) {
   auto table = Platform::make<KernelNetInfo::Status>("status");
   table->interfaceByIndexIs(1)->ipv4Is({n("10.0.0.1/24")});
   OwnAddresses own(table);
   EXPECT_TRUE(own.contains(a("10.0.0.1")));

   auto eth2 = table->interfaceByIndexIs(2);
   eth2->ipv4Is({n("10.0.0.1/24"), n("10.0.2.1/24")});
   eth2->ipv6Is(*Platform::Ip6Prefix::parse("2001:db8::1/64"));
   EXPECT_TRUE(own.contains(a("10.0.2.1")));
   EXPECT_TRUE(own.contains(a("2001:db8::1")));
   eth2->ipv4Is({n("10.0.0.1/24")});
   EXPECT_FALSE(own.contains(a("10.0.2.1")));
   table->interfaceByIndexDel(1);
   EXPECT_TRUE(own.contains(a("10.0.0.1")));
   table->interfaceByIndexDel(2);
   EXPECT_EQ(own.size(), 0u);
}

}  // namespace
}  // namespace Ip::Helper::DhcpRelay
