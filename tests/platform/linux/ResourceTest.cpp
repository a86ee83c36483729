#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <sys/eventfd.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "codec/CaptureFilter.h"
#include "frontend/control/ControlServer.h"
#include "frontend/kernel/NamespaceWatcher.h"
#include "platform/linux/Fd.h"
#include "platform/linux/NetNs.h"
#include "platform/linux/Netlink.h"
#include "platform/linux/RouteSocket.h"
#include "platform/loop/WatchedFd.h"
#include "platform/pam/LinuxEthDevPam.h"
#include "platform/pam/LinuxRawTxPam.h"
#include "platform/pam/LinuxUdpPam.h"
#include "platform/trace/TraceRing.h"
#include "tests/support/NetnsFixture.h"

namespace Platform {
namespace {

// Every object that owns descriptors, created and then simply dropped: while it lives it
// holds exactly what it needs (a descriptor left over from opening shows here), and once
// its last owner lets go nothing is left open or watched by the loop.
class ResourceTest : public TestNet::NetnsTest {
 protected:
   void SetUp() override {
      NetnsTest::SetUp();
      if (IsSkipped())
         return;
      ns_ = nsAdd("res");
      dir_ = std::filesystem::temp_directory_path() / (prefix_ + "res");
      std::filesystem::create_directory(dir_);
   }
   void TearDown() override {
      std::filesystem::remove_all(dir_);
      NetnsTest::TearDown();
   }

   template <class T>
   static std::shared_ptr<void> hold(T value) {
      return std::make_shared<T>(std::move(value));
   }

   // Packet access objects asked to open, in the test's namespace unless told otherwise.
   std::shared_ptr<void> udp(const char* bindAddr, const std::string& ns = {}) {
      auto pam = make<LinuxUdpPam>("UdpSocket", loop_);
      pam->netNsIs(ns.empty() ? ns_ : ns);
      pam->rxAddrIs(*IpAddr::parse(bindAddr));
      return opened(pam);
   }
   std::shared_ptr<void> rawTx(const std::string& ns) {
      auto pam = make<LinuxRawTxPam>("RawTx");
      pam->netNsIs(ns);
      return opened(pam);
   }
   std::shared_ptr<void> capture(const std::string& device, const std::string& ns) {
      return opened(make<LinuxEthDevPam>(loop_, device, ns, Codec::dhcpCaptureFilter()));
   }
   template <class T>
   static std::shared_ptr<void> opened(Ptr<T> pam) {
      pam->modeIs(Pam::modeOpen);
      return hold(pam);
   }

   std::string ns_;
   std::filesystem::path dir_;
};

TEST_F(ResourceTest, DroppedOwnersLeaveNoDescriptorOpenOrWatched) {
   std::string error;
   const std::string missing = ns_ + "-missing";
   struct Case {
      const char* name;
      int fds;      // held while alive
      int watched;  // registered with the test's loop while alive
      std::function<std::shared_ptr<void>()> make;
   };
   const std::vector<Case> cases = {
       // Moved over others, which they close and take out of the loop.
       {"an Fd and a WatchedFd, each moved over another", 2, 1,
        [&] {
           Fd fd(eventfd(0, EFD_CLOEXEC));
           fd = Fd(eventfd(0, EFD_CLOEXEC));
           WatchedFd watched(loop_, Fd(eventfd(0, EFD_CLOEXEC)), EPOLLIN, [](uint32_t) {});
           watched = WatchedFd(loop_, Fd(eventfd(0, EFD_CLOEXEC)), EPOLLIN, [](uint32_t) {});
           return hold(std::pair(std::move(fd), std::move(watched)));
        }},
       {"an event loop with a signal", 3, 0,
        [&] {
           // A wheel of its own: a loop takes over its wheel's deadline changes.
           struct Own {
              Own(const Clock& clock, const Clock& utc) : wheel(clock, utc) {}
              TimerWheel wheel;
              EventLoop loop{wheel};
           };
           auto own = std::make_shared<Own>(clock_, utc_);
           own->loop.onSignal(SIGUSR2, [] {});
           return std::shared_ptr<void>(own);
        }},
       {"a namespace guard", 1, 0, [&] { return std::make_shared<NetNsGuard>(ns_); }},
       {"a netlink socket", 1, 0,
        [&] { return hold(NetlinkSocket::open(ns_, RTMGRP_LINK, true, error)); }},
       {"a route socket", 1, 0, [&] { return hold(RouteSocket::open(ns_, error)); }},
       {"an open UDP socket", 1, 1, [&] { return udp("0.0.0.0"); }},
       {"a UDP socket whose bind failed", 0, 0, [&] { return udp("192.0.2.77"); }},
       {"an open raw transmit socket", 1, 0, [&] { return rawTx(ns_); }},
       {"an open capture socket", 1, 1, [&] { return capture("lo", ns_); }},
       {"a capture socket on a missing device", 0, 0, [&] { return capture("missing0", ns_); }},
       // Failing closed: "lo" of the agent's own namespace would open.
       {"a UDP socket in a missing namespace", 0, 0, [&] { return udp("0.0.0.0", missing); }},
       {"a raw transmit socket in a missing namespace", 0, 0, [&] { return rawTx(missing); }},
       {"a route socket in a missing namespace", 0, 0,
        [&] { return hold(RouteSocket::open(missing, error)); }},
       {"a capture socket in a missing namespace", 0, 0, [&] { return capture("lo", missing); }},
       {"a trace ring", 0, 0,
        [&] {
           return hold(TraceRingWriter::create((dir_ / "ring.bj").string(),
                                               TraceRingWriter::kMinFileSize, "test", error));
        }},
       {"a namespace watcher", 2, 2,
        [&] {
           auto watcher = std::make_shared<Frontend::NamespaceWatcher>(
               loop_, [](const std::string&, bool) {}, dir_);
           EXPECT_TRUE(watcher->start(error)) << error;
           return std::shared_ptr<void>(watcher);
        }},
       // Listener, the connection it accepted and the client's end.
       {"a control server with a client", 3, 2,
        [&] {
           struct Both {
              Both(EventLoop& loop, std::string path) : server(loop, std::move(path)) {}
              Frontend::ControlServer server;
              Frontend::ControlClient client;
           };
           auto both = std::make_shared<Both>(loop_, (dir_ / "ctl.sock").string());
           EXPECT_TRUE(both->server.start(error)) << error;
           EXPECT_TRUE(both->client.connect(both->server.path(), error)) << error;
           EXPECT_TRUE(turnUntil([&] { return both->server.connectionCount() == 1; }));
           return std::shared_ptr<void>(both);
        }},
   };
   auto held = [&] {
      return std::pair(static_cast<int>(TestNet::openFdCount()),
                       static_cast<int>(loop_.watchedCount()));
   };
   for (const Case& c : cases) {
      SCOPED_TRACE(c.name);
      const auto [fds, watched] = held();
      {
         const std::shared_ptr<void> object = c.make();
         EXPECT_EQ(held(), std::pair(fds + c.fds, watched + c.watched));
      }
      EXPECT_EQ(held(), std::pair(fds, watched));
   }
}

ino_t netNsInode(const std::string& path) {
   struct stat st;
   return ::stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

ino_t currentNetNs() {
   return netNsInode("/proc/thread-self/ns/net");
}

// The guard enters the namespace and comes back; the agent's own namespace, under either name,
// is entered without moving. A missing or invalid name fails closed, staying home.
TEST_F(ResourceTest, NamespaceGuardEntersTheNamespaceAndComesBackOrFailsClosed) {
   const ino_t home = currentNetNs();
   EXPECT_TRUE(netNsExists(ns_));
   {
      NetNsGuard guard(ns_);
      ASSERT_TRUE(guard.ok()) << guard.error();
      EXPECT_EQ(currentNetNs(), netNsInode(netNsPath(ns_)));
      EXPECT_NE(currentNetNs(), home);
   }
   EXPECT_EQ(currentNetNs(), home);
   for (const char* own : {"", "default"}) {
      NetNsGuard guard(own);
      EXPECT_TRUE(guard.ok() && netNsExists(own));
      EXPECT_EQ(currentNetNs(), home);
   }
   for (std::string bad : {ns_ + "-missing", std::string(".."), "../" + ns_}) {
      EXPECT_FALSE(netNsExists(bad)) << bad;
      NetNsGuard guard(bad);
      EXPECT_FALSE(guard.ok() || guard.error().empty()) << bad;
      EXPECT_EQ(currentNetNs(), home) << bad;
      if (bad == ns_ + "-missing") {
         EXPECT_NE(guard.error().find("/run/netns/" + bad), std::string::npos) << guard.error();
      }
   }
}

}  // namespace
}  // namespace Platform
