#include "platform/NetNs.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "platform/KernelInterfaces.h"

namespace Platform {
namespace {

ino_t netNsInode(const std::string& path) {
   struct stat st;
   return ::stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

using Texts = std::vector<std::string>;

template <class T>
Texts texts(const std::vector<T>& values) {
   Texts out;
   for (const auto& v : values)
      out.push_back(v.toString());
   return out;
}

ino_t currentNetNs() {
   return netNsInode("/proc/thread-self/ns/net");
}

// Each test gets a namespace of its own, named after the process so that parallel runs
// (ctest -j) and leftovers of a crashed run never collide.
class NetNsTest : public testing::Test {
 protected:
   void SetUp() override {
      static int serial = 0;
      name_ = "relaytest-" + std::to_string(::getpid()) + "-" + std::to_string(++serial);
      if (::geteuid() != 0)
         GTEST_SKIP() << "network namespaces need root";
      ASSERT_EQ(ip("netns add " + name_), 0);
      created_ = true;
   }

   void TearDown() override {
      if (created_)
         ip("netns del " + name_);
   }

   int ip(const std::string& args) {
      return std::system(("ip " + args + " >/dev/null 2>&1").c_str());
   }
   int ipIn(const std::string& args) { return ip("-n " + name_ + " " + args); }

   std::string name_;
   bool created_ = false;
};

TEST_F(NetNsTest, GuardEntersTheNamespaceAndComesBack) {
   const ino_t home = currentNetNs();
   EXPECT_TRUE(netNsExists(name_));
   {
      NetNsGuard guard(name_);
      ASSERT_TRUE(guard.ok()) << guard.error();
      EXPECT_EQ(currentNetNs(), netNsInode(netNsPath(name_)));
      EXPECT_NE(currentNetNs(), home);
   }
   EXPECT_EQ(currentNetNs(), home);

   for (const char* own : {"", "default"}) {
      NetNsGuard guard(own);
      EXPECT_TRUE(guard.ok());
      EXPECT_EQ(currentNetNs(), home);
      EXPECT_TRUE(netNsExists(own));
   }
}

TEST_F(NetNsTest, MissingOrInvalidNamespaceFailsClosed) {
   const ino_t home = currentNetNs();
   for (std::string bad : {name_ + "-missing", std::string(".."), "../" + name_}) {
      EXPECT_FALSE(netNsExists(bad)) << bad;
      NetNsGuard guard(bad);
      EXPECT_FALSE(guard.ok()) << bad;
      EXPECT_FALSE(guard.error().empty());
      EXPECT_EQ(currentNetNs(), home) << bad;
   }
   NetNsGuard guard(name_ + "-missing");
   EXPECT_NE(guard.error().find("/run/netns/" + name_ + "-missing"), std::string::npos)
       << guard.error();

   std::string error;
   EXPECT_TRUE(listKernelInterfaces(name_ + "-missing", error).empty());
   EXPECT_FALSE(error.empty());
}

TEST_F(NetNsTest, ListsOnlyTheDevicesOfTheNamespace) {
   std::string error;
   auto fresh = listKernelInterfaces(name_, error);
   ASSERT_TRUE(error.empty()) << error;
   ASSERT_EQ(fresh.size(), 1u);
   EXPECT_EQ(fresh[0].device, "lo");
   EXPECT_EQ(fresh[0].ifindex, 1u);
   EXPECT_FALSE(fresh[0].up);
   EXPECT_TRUE(fresh[0].ipv4.empty());

   ASSERT_EQ(ipIn("link set lo up"), 0);
   ASSERT_EQ(ipIn("link add v0 address 02:00:00:00:00:01 type veth peer name v1"), 0);
   ASSERT_EQ(ipIn("addr add 192.0.2.1/24 dev v0"), 0);
   // A labelled secondary address is reported under its label, not the device name.
   ASSERT_EQ(ipIn("addr add 192.0.2.9/24 label v0:sec dev v0"), 0);
   ASSERT_EQ(ipIn("addr add 198.51.100.1/30 dev v0"), 0);
   ASSERT_EQ(ipIn("addr add 2001:db8::1/64 dev v0 nodad"), 0);
   ASSERT_EQ(ipIn("link set v0 up"), 0);

   auto devices = listKernelInterfaces(name_, error);
   ASSERT_TRUE(error.empty()) << error;
   ASSERT_EQ(devices.size(), 3u);
   for (size_t i = 1; i < devices.size(); ++i)
      EXPECT_LT(devices[i - 1].ifindex, devices[i].ifindex);

   const KernelInterface& lo = devices[0];
   EXPECT_EQ(lo.device, "lo");
   EXPECT_TRUE(lo.up && lo.running);
   EXPECT_EQ(texts(lo.ipv4), (Texts{"127.0.0.1/8"}));
   EXPECT_EQ(texts(lo.ipv6), (Texts{"::1/128"}));

   const KernelInterface* v0 = nullptr;
   for (const auto& d : devices)
      if (d.device == "v0")
         v0 = &d;
   ASSERT_NE(v0, nullptr);
   ASSERT_TRUE(v0->mac);
   EXPECT_EQ(v0->mac->toString(), "02:00:00:00:00:01");
   EXPECT_TRUE(v0->up);
   // Primary addresses come first, whatever order they were added in.
   EXPECT_EQ(texts(v0->ipv4), (Texts{"192.0.2.1/24", "198.51.100.1/30", "192.0.2.9/24"}));
   // Without a carrier on the pair there is no link-local address yet.
   EXPECT_EQ(texts(v0->ipv6), (Texts{"2001:db8::1/64"}));

   // The agent's own namespace is untouched by all of this.
   auto own = listKernelInterfaces("", error);
   ASSERT_TRUE(error.empty()) << error;
   for (const auto& d : own)
      EXPECT_NE(d.device, "v0");
}

}  // namespace
}  // namespace Platform
