#include "frontend/kernel/NamespaceWatcher.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "platform/linux/NetNs.h"
#include "platform/loop/EventLoop.h"
#include "platform/trace/Trace.h"

namespace Frontend {

using Platform::EventLoop;
using Platform::isOwnNetNs;

namespace {

constexpr uint32_t kDirEvents = IN_CREATE | IN_DELETE | IN_MOVED_TO | IN_MOVED_FROM |
                                IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
constexpr uint32_t kParentEvents = IN_CREATE | IN_MOVED_TO | IN_ONLYDIR;
// The watched directory itself went away: removed, renamed, or its file system unmounted.
constexpr uint32_t kDirGoneEvents = IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_UNMOUNT;

std::string errnoText(const std::string& what, int err) {
   return what + ": " + std::strerror(err);
}

}  // namespace

bool NamespaceWatcher::isNamespaceMount(const std::string& path) {
   // statfs follows the mount: the empty file `ip netns add` creates first is on the
   // directory's own file system, the namespace mounted onto it later is on nsfs.
   struct statfs fs;
   return ::statfs(path.c_str(), &fs) == 0 && fs.f_type == NSFS_MAGIC;
}

NamespaceWatcher::NamespaceWatcher(EventLoop& loop, Callback callback, std::string dir, Probe probe)
    : loop_(loop), callback_(std::move(callback)), dir_(std::move(dir)), probe_(std::move(probe)) {
   while (dir_.size() > 1 && dir_.back() == '/')
      dir_.pop_back();
   const auto slash = dir_.rfind('/');
   parent_ = slash == std::string::npos ? "." : slash == 0 ? "/" : dir_.substr(0, slash);
   base_ = slash == std::string::npos ? dir_ : dir_.substr(slash + 1);
}

bool NamespaceWatcher::start(std::string& error) {
   if (inotify_)
      return true;
   Platform::Fd inotify(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
   if (!inotify) {
      error = errnoText("cannot create an inotify instance", errno);
      return false;
   }
   // A mount-table change is reported as a priority event (proc(5), /proc/pid/mounts).
   Platform::Fd mounts(::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
   if (!mounts) {
      error = errnoText("cannot open /proc/self/mountinfo", errno);
      return false;
   }
   inotify_ = Platform::WatchedFd(loop_, std::move(inotify), EPOLLIN,
                                  [this](uint32_t) { handleInotify(); });
   mounts_ = Platform::WatchedFd(loop_, std::move(mounts), EPOLLPRI,
                                 [this](uint32_t) { handleMountChange(); });

   dirWd_ = ::inotify_add_watch(inotify_.get(), dir_.c_str(), kDirEvents);
   if (dirWd_ >= 0) {
      doRescan();
      return true;
   }
   if (errno != ENOENT) {
      error = errnoText("cannot watch " + dir_, errno);
      return false;
   }
   parentWd_ = ::inotify_add_watch(inotify_.get(), parent_.c_str(), kParentEvents);
   if (parentWd_ < 0) {
      error = errnoText("cannot watch " + parent_ + " for " + dir_, errno);
      return false;
   }
   // The directory may have been created between the two watches.
   doWatchDir();
   return true;
}

bool NamespaceWatcher::exists(const std::string& nsName) const {
   return isOwnNetNs(nsName) || present_.count(nsName) > 0;
}

void NamespaceWatcher::handleInotify() {
   alignas(inotify_event) char buf[4096];
   for (;;) {
      const ssize_t n = ::read(inotify_.get(), buf, sizeof buf);
      if (n < 0 && errno == EINTR)
         continue;
      if (n <= 0)
         return;
      for (ssize_t off = 0; off < n;) {
         const auto* ev = reinterpret_cast<const inotify_event*>(buf + off);
         off += static_cast<ssize_t>(sizeof(inotify_event) + ev->len);
         const std::string name = ev->len ? ev->name : "";
         if (ev->mask & IN_Q_OVERFLOW) {
            TRACE(1, " inotify queue overflow on ", dir_, ": reading it again");
            if (dirWd_ >= 0)
               doRescan();
            else
               doWatchDir();
         } else if (dirWd_ >= 0 && ev->wd == dirWd_) {
            if (ev->mask & kDirGoneEvents)
               doDirGone();
            else if (ev->mask & IN_ISDIR)
               continue;
            else if (ev->mask & (IN_CREATE | IN_MOVED_TO))
               doCheck(name);
            else if (ev->mask & (IN_DELETE | IN_MOVED_FROM))
               doGone(name);
         } else if (parentWd_ >= 0 && ev->wd == parentWd_) {
            if (ev->mask & (IN_IGNORED | IN_UNMOUNT)) {
               TRACE(0, " ", parent_, " is gone: namespaces in ", dir_, " are no longer followed");
               parentWd_ = -1;
            } else if ((ev->mask & IN_ISDIR) && name == base_) {
               doWatchDir();
            }
         }
      }
   }
}

void NamespaceWatcher::handleMountChange() {
   if (dirWd_ < 0)
      return;
   std::vector<std::string> names(present_.begin(), present_.end());
   names.insert(names.end(), pending_.begin(), pending_.end());
   for (const std::string& name : names)
      doCheck(name);
}

void NamespaceWatcher::doWatchDir() {
   const int wd = ::inotify_add_watch(inotify_.get(), dir_.c_str(), kDirEvents);
   if (wd < 0) {
      if (errno != ENOENT)
         TRACE(0, " cannot watch ", dir_, ": ", std::strerror(errno));
      return;
   }
   dirWd_ = wd;
   if (parentWd_ >= 0) {
      ::inotify_rm_watch(inotify_.get(), parentWd_);
      parentWd_ = -1;
   }
   TRACE(2, " watching ", dir_);
   // Namespaces may have been added before the watch took hold.
   doRescan();
}

void NamespaceWatcher::doDirGone() {
   // IN_DELETE_SELF removes the watch by itself; a renamed directory keeps it.
   ::inotify_rm_watch(inotify_.get(), dirWd_);
   dirWd_ = -1;
   pending_.clear();
   const std::set<std::string> gone = std::move(present_);
   present_.clear();
   TRACE(1, " ", dir_, " is gone");
   for (const std::string& name : gone)
      doReport(name, false);
   parentWd_ = ::inotify_add_watch(inotify_.get(), parent_.c_str(), kParentEvents);
   if (parentWd_ < 0) {
      TRACE(0, " cannot watch ", parent_, " for ", dir_, ": ", std::strerror(errno));
      return;
   }
   doWatchDir();
}

void NamespaceWatcher::doRescan() {
   std::set<std::string> listed;
   if (DIR* d = ::opendir(dir_.c_str())) {
      while (const dirent* e = ::readdir(d)) {
         if (e->d_type != DT_DIR)
            listed.insert(e->d_name);
      }
      ::closedir(d);
   }
   std::vector<std::string> known(present_.begin(), present_.end());
   known.insert(known.end(), pending_.begin(), pending_.end());
   for (const std::string& name : known) {
      if (!listed.count(name))
         doGone(name);
   }
   for (const std::string& name : listed)
      doCheck(name);
}

void NamespaceWatcher::doCheck(const std::string& name) {
   if (probe_(dir_ + "/" + name)) {
      pending_.erase(name);
      if (present_.insert(name).second)
         doReport(name, true);
      return;
   }
   pending_.insert(name);
   if (present_.erase(name))
      doReport(name, false);
}

void NamespaceWatcher::doGone(const std::string& name) {
   pending_.erase(name);
   if (present_.erase(name))
      doReport(name, false);
}

void NamespaceWatcher::doReport(const std::string& name, bool exists) {
   TRACE(2, " network namespace ", name, exists ? " exists" : " is gone");
   callback_(name, exists);
}

}  // namespace Frontend
