#include "relay/EgressRouteCache.h"

#include <gtest/gtest.h>

#include <string>

#include "frontend/kernel/KernelTableFollower.h"
#include "tests/support/NetnsFixture.h"

namespace Ip::Helper::DhcpRelay {
namespace {

using Platform::EgressRoute;
using Platform::IpAddr;
using Platform::IpGenAddr;
using Platform::TestNet::ip;

IpAddr v4(const char* text) {
   return *IpAddr::parse(text);
}

class EgressRouteCacheTest : public Platform::TestNet::NetnsTest {};

// The kernel is asked once per server and generation; a route change in the namespace,
// seen by its follower, makes the next lookup ask again and take the new answer.
TEST_F(EgressRouteCacheTest, AsksTheKernelAgainOnlyAfterARouteChange) {
   const std::string ns = nsAdd("cache");
   const std::string in = "-n " + ns + " ";
   ASSERT_EQ(ip(in + "link add v0 type veth peer name v1"), 0);
   ASSERT_EQ(ip(in + "addr add 192.0.2.1/24 dev v0"), 0);
   ASSERT_EQ(ip(in + "link set v0 up"), 0);
   ASSERT_EQ(ip(in + "link set v1 up"), 0);
   const uint32_t v0 = Platform::TestNet::ifindexOf(ns, "v0");
   auto table = Platform::make<KernelNetInfo::Status>();
   Frontend::KernelTableFollower follower(loop_, ns, table);
   std::string error;
   ASSERT_TRUE(follower.start(error)) << error;
   ASSERT_TRUE(turnUntil([&] { return follower.inSync(); }));
   auto socket = Platform::RouteSocket::open(ns, error);
   ASSERT_TRUE(socket) << error;

   EgressRouteCache cache;
   const IpAddr server = v4("198.51.100.7");
   for (int i = 0; i < 2; ++i) {
      const auto& answer = cache.egressRoute(*socket, table->routeGeneration(), server);
      EXPECT_FALSE(answer.route);
      EXPECT_NE(answer.error.find("unreachable"), std::string::npos) << answer.error;
      EXPECT_EQ(cache.egressRoute(*socket, table->routeGeneration(), v4("192.0.2.9")).route,
                (EgressRoute{v0, IpGenAddr(v4("192.0.2.1")), IpGenAddr()}));
   }
   EXPECT_EQ(socket->requests(), 2u);

   const uint64_t before = table->routeGeneration();
   ASSERT_EQ(ip(in + "route add 198.51.100.0/24 via 192.0.2.2"), 0);
   ASSERT_TRUE(turnUntil([&] { return table->routeGeneration() != before; }));
   EXPECT_EQ(cache.egressRoute(*socket, table->routeGeneration(), server).route,
             (EgressRoute{v0, IpGenAddr(v4("192.0.2.1")), IpGenAddr(v4("192.0.2.2"))}));
   EXPECT_EQ(socket->requests(), 3u);
   EXPECT_EQ(cache.size(), 1u);

   // Nobody following the routes: nothing can be trusted for long, the kernel is asked.
   cache.egressRoute(*socket, std::nullopt, server);
   cache.egressRoute(*socket, std::nullopt, server);
   EXPECT_EQ(socket->requests(), 5u);
}

}  // namespace
}  // namespace Ip::Helper::DhcpRelay
