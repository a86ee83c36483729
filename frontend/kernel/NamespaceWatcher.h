#pragma once

#include <functional>
#include <set>
#include <string>

#include "platform/loop/WatchedFd.h"

namespace Platform {
class EventLoop;
}

namespace Frontend {

using Platform::EventLoop;

// Follows the named network namespaces (`ip netns add/del`) live, on the event loop.
//
// `ip netns add` creates an empty file in the directory first and bind-mounts the new
// namespace onto it afterwards; mounting makes no inotify event. So a new file is only a
// candidate: it is reported once the probe says a namespace is mounted on it, checked when
// the file appears and again on every change of the mount table (/proc/self/mountinfo
// signals one with EPOLLPRI). A namespace unmounted without its file being removed is
// reported gone the same way.
//
// When the directory does not exist yet (no namespace was ever added since boot), its
// parent is watched for its creation; when it is removed, every namespace in it is
// reported gone and the parent is watched again. Nothing is polled on a timer.
class NamespaceWatcher {
 public:
   static constexpr const char* kNetNsDir = "/run/netns";

   // Runs inside the watcher's event handling: it must not destroy the watcher.
   using Callback = std::function<void(const std::string& nsName, bool exists)>;
   // Whether a namespace is mounted at the path.
   using Probe = std::function<bool(const std::string& path)>;

   // True when the path is the mount point of a namespace (an nsfs mount).
   static bool isNamespaceMount(const std::string& path);

   NamespaceWatcher(EventLoop& loop, Callback callback, std::string dir = kNetNsDir,
                    Probe probe = isNamespaceMount);
   NamespaceWatcher(const NamespaceWatcher&) = delete;
   NamespaceWatcher& operator=(const NamespaceWatcher&) = delete;

   // Starts watching; the namespaces already there are reported through the callback
   // before this returns. False, with the reason, when inotify or the parent directory
   // is not usable.
   bool start(std::string& error);

   // The agent's own namespace ("" or "default") always exists.
   bool exists(const std::string& nsName) const;
   const std::set<std::string>& namespaces() const { return present_; }
   const std::string& dir() const { return dir_; }

 private:
   void handleInotify();
   void handleMountChange();
   void doWatchDir();
   void doWatchParent();
   void doDirGone();
   void doRescan();
   void doCheck(const std::string& name);
   void doGone(const std::string& name);
   void doReport(const std::string& name, bool exists);

   EventLoop& loop_;
   Callback callback_;
   std::string dir_;
   std::string parent_;
   std::string base_;
   Probe probe_;
   Platform::WatchedFd inotify_;
   Platform::WatchedFd mounts_;
   int dirWd_ = -1;
   int parentWd_ = -1;
   std::set<std::string> present_;  // reported as existing
   std::set<std::string> pending_;  // files without a namespace mounted on them yet
};

}  // namespace Frontend
