#pragma once

#include <string>

#include "platform/linux/Fd.h"

namespace Platform {

// The names "" and "default" both mean the agent's own namespace: the default VRF
// has no entry under /run/netns.
bool isOwnNetNs(const std::string& nsName);

// Where `ip netns` keeps a named namespace.
std::string netNsPath(const std::string& nsName);

// True for the agent's own namespace, and for a named one that can be opened.
bool netNsExists(const std::string& nsName);

// Moves the calling thread into a named network namespace for its lifetime, so that
// sockets and netlink queries opened meanwhile belong to that namespace, and moves it
// back on destruction. Fails closed: when the namespace cannot be entered, ok() is
// false, the thread stays where it was, and the caller must not open the sockets it
// meant for the other namespace (they would silently serve the wrong VRF).
class NetNsGuard {
 public:
   explicit NetNsGuard(const std::string& nsName);
   ~NetNsGuard();
   NetNsGuard(const NetNsGuard&) = delete;
   NetNsGuard& operator=(const NetNsGuard&) = delete;

   bool ok() const { return error_.empty(); }
   const std::string& error() const { return error_; }

 private:
   Fd original_;  // held only while the thread is in another namespace
   std::string error_;
};

// socket(2) inside a network namespace, which the socket then belongs to for good: binding,
// options and every later use may happen from anywhere. Empty, with the reason in `error`,
// when the namespace cannot be entered or the socket not created; nothing stays open then.
Fd socketIn(const std::string& nsName, int domain, int type, int protocol, std::string& error);

}  // namespace Platform
