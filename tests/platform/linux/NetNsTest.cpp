#include "platform/linux/NetNs.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "tests/support/NetnsFixture.h"

namespace Platform {
namespace {

ino_t netNsInode(const std::string& path) {
   struct stat st;
   return ::stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

ino_t currentNetNs() {
   return netNsInode("/proc/thread-self/ns/net");
}

class NetNsTest : public TestNet::NetnsTest {
 protected:
   void SetUp() override {
      NetnsTest::SetUp();
      if (!IsSkipped())
         name_ = nsAdd("ns");
   }
   std::string name_;
};

// The guard enters the namespace and comes back; the agent's own namespace, under either name,
// is entered without moving. A missing or invalid name fails closed, staying home.
TEST_F(NetNsTest, GuardEntersTheNamespaceAndComesBackOrFailsClosed) {
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
      EXPECT_TRUE(guard.ok() && netNsExists(own));
      EXPECT_EQ(currentNetNs(), home);
   }
   for (std::string bad : {name_ + "-missing", std::string(".."), "../" + name_}) {
      EXPECT_FALSE(netNsExists(bad)) << bad;
      NetNsGuard guard(bad);
      EXPECT_FALSE(guard.ok() || guard.error().empty()) << bad;
      EXPECT_EQ(currentNetNs(), home) << bad;
      if (bad == name_ + "-missing") {
         EXPECT_NE(guard.error().find("/run/netns/" + bad), std::string::npos) << guard.error();
      }
   }
}

}  // namespace
}  // namespace Platform
