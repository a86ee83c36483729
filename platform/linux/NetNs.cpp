#include "platform/linux/NetNs.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/base/Assert.h"

namespace Platform {

namespace {

std::string errnoText(const std::string& what, int err = errno) {
   return what + ": " + std::strerror(err);
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
   return bool(Fd(::open(netNsPath(nsName).c_str(), O_RDONLY | O_CLOEXEC)));
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
   Fd original(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
   if (!original) {
      error_ = errnoText("cannot open the current network namespace");
      return;
   }
   const std::string path = netNsPath(nsName);
   const Fd target(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
   if (!target) {
      error_ = errnoText("cannot open network namespace " + path);
      return;
   }
   if (::setns(target.get(), CLONE_NEWNET) < 0) {
      error_ = errnoText("cannot enter network namespace " + path);
      return;
   }
   original_ = std::move(original);
}

NetNsGuard::~NetNsGuard() {
   if (!original_)
      return;
   const int rc = ::setns(original_.get(), CLONE_NEWNET);
   // Carrying on in the wrong namespace would bind every later socket to the wrong VRF.
   PLATFORM_ASSERT(rc == 0, "cannot return to the original network namespace");
}

Fd socketIn(const std::string& nsName, int domain, int type, int protocol, std::string& error) {
   const NetNsGuard guard(nsName);
   if (!guard.ok()) {
      error = guard.error();
      return Fd();
   }
   Fd fd(::socket(domain, type, protocol));
   if (!fd) {
      const int err = errno;
      error = errnoText(
          "cannot open a socket in " +
              (isOwnNetNs(nsName) ? std::string("the default namespace") : "namespace " + nsName),
          err);
   }
   return fd;
}

}  // namespace Platform
