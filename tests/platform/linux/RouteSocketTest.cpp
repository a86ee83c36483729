#include "platform/linux/RouteSocket.h"

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "tests/support/NetnsFixture.h"

namespace Platform {
namespace {

using TestNet::ip;
using TestNet::output;

IpGenAddr addr(const char* text) {
   return *IpGenAddr::parse(text);
}

// Two namespaces joined by a veth pair: "a" holds va (192.0.2.1, 2001:db8:1::1), "b" holds
// vb (192.0.2.2, 2001:db8:1::2).
class RouteSocketTest : public TestNet::NetnsTest {
 protected:
   void SetUp() override {
      NetnsTest::SetUp();
      if (IsSkipped())
         return;
      a_ = nsAdd("ra");
      b_ = nsAdd("rb");
      ASSERT_EQ(ip("-n " + a_ + " link add va type veth peer name vb netns " + b_), 0);
      for (const auto& [ns, dev, last] : {std::tuple{a_, "va", "1"}, std::tuple{b_, "vb", "2"}}) {
         const std::string in = "-n " + ns + " ";
         ASSERT_EQ(ip(in + "addr add 192.0.2." + last + "/24 dev " + dev), 0);
         ASSERT_EQ(ip(in + "addr add 2001:db8:1::" + last + "/64 dev " + dev + " nodad"), 0);
         ASSERT_EQ(ip(in + "link set " + dev + " up"), 0);
      }
      va_ = TestNet::ifindexOf(a_, "va");
      ASSERT_NE(va_, 0u);
   }

   std::string dhcpRoutes(const std::string& ns, const char* family) {
      return output("ip -n " + ns + " " + family + " route show proto dhcp");
   }

   std::unique_ptr<RouteSocket> open(const std::string& ns) {
      std::string error;
      auto socket = RouteSocket::open(ns, error);
      EXPECT_TRUE(socket) << error;
      return socket;
   }

   std::string a_, b_;
   uint32_t va_ = 0;
};

// Egress is the kernel's choice in the socket's namespace; routes are added, replaced, listed
// and deleted there alone, beside a static route the agent leaves alone.
TEST_F(RouteSocketTest, EgressAndRoutesAreThoseOfTheSocketsNamespace) {
   auto socket = open(a_);
   auto other = open(b_);
   ASSERT_TRUE(socket && other);
   std::string error;
   EXPECT_EQ(socket->egressIntf(addr("192.0.2.2"), error),
             (EgressRoute{va_, addr("192.0.2.1"), IpGenAddr()}))
       << error;
   EXPECT_EQ(socket->egressIntf(addr("2001:db8:1::2"), error),
             (EgressRoute{va_, addr("2001:db8:1::1"), IpGenAddr()}))
       << error;
   // Neither namespace has a default route.
   EXPECT_FALSE(socket->egressIntf(addr("198.51.100.7"), error));
   EXPECT_NE(error.find("unreachable"), std::string::npos) << error;

   const Route v4{addr("10.99.0.0"), 24, addr("192.0.2.2"), va_, 19};
   const Route v6{addr("2001:db8:99::"), 48, addr("2001:db8:1::2"), va_, 19};
   ASSERT_TRUE(socket->routeAdd(v4, error)) << error;
   ASSERT_TRUE(socket->routeAdd(v6, error)) << error;
   ASSERT_EQ(ip("-n " + a_ + " route add 10.97.0.0/24 via 192.0.2.2 proto static"), 0);
   EXPECT_EQ(socket->egressIntf(addr("10.99.0.7"), error),
             (EgressRoute{va_, addr("192.0.2.1"), addr("192.0.2.2")}))
       << error;

   EXPECT_NE(dhcpRoutes(a_, "-4").find("10.99.0.0/24 via 192.0.2.2 dev va metric 19"),
             std::string::npos)
       << dhcpRoutes(a_, "-4");
   EXPECT_NE(dhcpRoutes(a_, "-6").find("2001:db8:99::/48 via 2001:db8:1::2 dev va metric 19"),
             std::string::npos)
       << dhcpRoutes(a_, "-6");
   EXPECT_EQ(socket->routes(16, AF_INET, error), std::vector<Route>{v4}) << error;
   EXPECT_EQ(socket->routes(16, AF_INET6, error), std::vector<Route>{v6}) << error;
   EXPECT_EQ(other->routes(16, AF_INET, error), std::vector<Route>{}) << error;
   EXPECT_EQ(dhcpRoutes(b_, "-4"), "");

   // Same prefix and metric: the new gateway replaces the old one.
   Route moved = v4;
   moved.via = addr("192.0.2.3");
   ASSERT_TRUE(socket->routeAdd(moved, error)) << error;
   EXPECT_EQ(socket->routes(16, AF_INET, error), std::vector<Route>{moved}) << error;

   ASSERT_TRUE(socket->routeDel(moved, error)) << error;
   ASSERT_TRUE(socket->routeDel(v6, error)) << error;
   EXPECT_EQ(dhcpRoutes(a_, "-4") + dhcpRoutes(a_, "-6"), "");
   EXPECT_TRUE(socket->routes(16, AF_INET, error).empty());
   EXPECT_NE(output("ip -n " + a_ + " route show 10.97.0.0/24"), "");

   EXPECT_FALSE(socket->routeDel(moved, error));
   EXPECT_NE(error.find("No such process"), std::string::npos) << error;
   // A gateway the namespace cannot reach is refused with the kernel's reason.
   EXPECT_FALSE(socket->routeAdd(Route{addr("10.98.0.0"), 24, addr("203.0.113.1"), 0, 19}, error));
   EXPECT_FALSE(error.empty());

   // An IPv6 route the kernel expires by itself lists what is left of its time.
   Route expiring = v6;
   expiring.expires = 300;
   ASSERT_TRUE(socket->routeAdd(expiring, error)) << error;
   const std::vector<Route> listed = socket->routes(16, AF_INET6, error);
   ASSERT_EQ(listed.size(), 1u) << error;
   EXPECT_GT(listed[0].expires, 290u);
   EXPECT_LE(listed[0].expires, 300u);
   EXPECT_NE(dhcpRoutes(a_, "-6").find("expires"), std::string::npos) << dhcpRoutes(a_, "-6");
}

}  // namespace
}  // namespace Platform
