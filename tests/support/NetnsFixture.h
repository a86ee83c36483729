#pragma once

// What the kernel tests share: quiet `ip` commands, names that never collide, network
// namespaces that are removed whatever the test's outcome, and an event loop turned until
// the kernel has done something, never slept on.

#include <gtest/gtest.h>
#include <net/if.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "platform/linux/NetNs.h"
#include "platform/loop/Clock.h"
#include "platform/loop/EventLoop.h"
#include "platform/loop/TimerWheel.h"

namespace Platform::TestNet {

inline int shell(const std::string& command) {
   return std::system((command + " >/dev/null 2>&1").c_str());
}

inline int ip(const std::string& args) {
   return shell("ip " + args);
}

inline std::string output(const std::string& command) {
   std::string out;
   if (FILE* p = ::popen(command.c_str(), "r")) {
      char chunk[4096];
      while (size_t n = std::fread(chunk, 1, sizeof(chunk), p))
         out.append(chunk, n);
      ::pclose(p);
   }
   return out;
}

// Named after the process and a serial, so that parallel runs (ctest -j) and the leftovers
// of a crashed run never collide.
inline std::string uniquePrefix() {
   static int serial = 0;
   return "t" + std::to_string(::getpid()) + "-" + std::to_string(++serial) + "-";
}

// What a leak of sockets or namespace handles shows in.
inline size_t openFdCount() {
   auto it = std::filesystem::directory_iterator("/proc/self/fd");
   return static_cast<size_t>(std::distance(it, std::filesystem::directory_iterator()));
}

inline uint32_t ifindexOf(const std::string& ns, const std::string& device) {
   NetNsGuard guard(ns);
   return guard.ok() ? ::if_nametoindex(device.c_str()) : 0;
}

// Every namespace made by nsAdd or named by nsOwn is deleted in TearDown, whatever the
// test's outcome; a derived TearDown first lets go of what it holds in them.
class LoopTest : public testing::Test {
 protected:
   void TearDown() override {
      for (const std::string& ns : namespaces_)
         ip("netns del " + ns);
   }

   // Turns the loop until done() holds, for at most five seconds.
   bool turnUntil(const std::function<bool()>& done, int stepMs = 20) {
      const double limit = clock_.now() + 5.0;
      while (!done() && clock_.now() < limit)
         loop_.runOnce(stepMs);
      return done();
   }

   // A new namespace with its loopback up.
   std::string nsAdd(const std::string& tag) {
      const std::string ns = nsOwn(prefix_ + tag);
      EXPECT_EQ(ip("netns add " + ns), 0) << ns;
      EXPECT_EQ(ip("-n " + ns + " link set lo up"), 0) << ns;
      return ns;
   }
   // A name the test creates itself later.
   std::string nsOwn(const std::string& ns) { return namespaces_.emplace_back(ns); }

   std::string prefix_ = uniquePrefix();
   std::vector<std::string> namespaces_;
   MonotonicClock clock_;
   UtcClock utc_;
   TimerWheel wheel_{clock_, utc_};
   EventLoop loop_{wheel_};
};

// For tests that are all about namespaces: skipped unless root.
class NetnsTest : public LoopTest {
 protected:
   void SetUp() override {
      if (::geteuid() != 0)
         GTEST_SKIP() << "network namespaces need root";
   }
};

}  // namespace Platform::TestNet
