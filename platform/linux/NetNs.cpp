#include "platform/linux/NetNs.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/base/Assert.h"

namespace Platform {

namespace {

std::string errnoText(const std::string& what) {
   return what + ": " + std::strerror(errno);
}

// A name with a slash, or a dot name, would reach outside /run/netns.
bool validName(const std::string& nsName) {
   return nsName.find('/') == std::string::npos && nsName != "." && nsName != "..";
}

}  // namespace

bool isOwnNetNs(const std::string& nsName) {
   return nsName.empty() || nsName == "default";
}

std::string netNsPath(const std::string& nsName) {
   return "/run/netns/" + nsName;
}

bool netNsExists(const std::string& nsName) {
   if (isOwnNetNs(nsName))
      return true;
   if (!validName(nsName))
      return false;
   int fd = ::open(netNsPath(nsName).c_str(), O_RDONLY | O_CLOEXEC);
   if (fd < 0)
      return false;
   ::close(fd);
   return true;
}

NetNsGuard::NetNsGuard(const std::string& nsName) {
   if (isOwnNetNs(nsName))
      return;
   if (!validName(nsName)) {
      error_ = "invalid network namespace name \"" + nsName + "\"";
      return;
   }
   // setns moves only the calling thread, so the thread's own entry is the one to
   // come back to.
   int original = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
   if (original < 0) {
      error_ = errnoText("cannot open the current network namespace");
      return;
   }
   std::string path = netNsPath(nsName);
   int target = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
   if (target < 0) {
      error_ = errnoText("cannot open network namespace " + path);
      ::close(original);
      return;
   }
   if (::setns(target, CLONE_NEWNET) < 0) {
      error_ = errnoText("cannot enter network namespace " + path);
      ::close(target);
      ::close(original);
      return;
   }
   ::close(target);
   originalFd_ = original;
}

NetNsGuard::~NetNsGuard() {
   if (originalFd_ < 0)
      return;
   int rc = ::setns(originalFd_, CLONE_NEWNET);
   ::close(originalFd_);
   // Carrying on in the wrong namespace would bind every later socket to the wrong VRF.
   PLATFORM_ASSERT(rc == 0, "cannot return to the original network namespace");
}

}  // namespace Platform
