#include "platform/store/StateStore.h"

#include <algorithm>
#include <cstring>

#include "platform/store/Dir.h"

namespace Platform {

const char* mountModeName(MountMode m) {
   switch (m) {
      case MountMode::read:
         return "r";
      case MountMode::write:
         return "w";
      case MountMode::writeImmediate:
         return "wi";
   }
   return "?";
}

StateStore::StateStore(std::function<void(std::function<void()>)> post) : post_(std::move(post)) {}

StateStore::~StateStore() {
   *alive_ = false;
}

std::string StateStore::normalize(const std::string& path) {
   std::string p = path;
   while (!p.empty() && p.back() == '/')
      p.pop_back();
   return p;
}

void StateStore::publish(const std::string& path, Ptr<Entity> e) {
   published_[normalize(path)] = e;
}

Ptr<Entity> StateStore::published(const std::string& path) const {
   auto it = published_.find(normalize(path));
   return it == published_.end() ? nullptr : it->second;
}

void StateStore::frontEndPending(const std::string& name) {
   pendingFrontEnds_.push_back(name);
}

void StateStore::frontEndReady(const std::string& name) {
   auto it = std::find(pendingFrontEnds_.begin(), pendingFrontEnds_.end(), name);
   if (it == pendingFrontEnds_.end())
      return;
   pendingFrontEnds_.erase(it);
   tryComplete();
}

void StateStore::MountGroup::close(std::function<void(MountStatus)> done) {
   store_.closedGroups_.push_back({std::move(pending_), std::move(done)});
   pending_.clear();
   store_.tryComplete();
}

void StateStore::tryComplete() {
   if (!pendingFrontEnds_.empty() || closedGroups_.empty())
      return;
   std::vector<ClosedGroup> groups = std::move(closedGroups_);
   closedGroups_.clear();
   for (ClosedGroup& g : groups) {
      MountStatus status = mountSuccess_;
      for (const MountGroup::Pending& m : g.mounts) {
         Ptr<Entity> e = published(m.path);
         if (!e && m.mode != MountMode::read) {
            // The agent is the writer of this path: it starts out empty.
            std::string leaf = m.path.substr(m.path.rfind('/') + 1);
            e = m.create(leaf);
            publish(m.path, e);
         }
         if (!e || std::strcmp(e->typeName(), m.type) != 0) {
            status = mountFailure_;
            continue;
         }
         mounted_[m.path] = {e, m.mode};
      }
      std::weak_ptr<bool> alive = alive_;
      post_([alive, status, done = std::move(g.done)] {
         if (!alive.expired())
            done(status);
      });
   }
}

Ptr<Entity> StateStore::lookup(const std::string& path, bool forWrite) const {
   const std::string p = normalize(path);
   if (auto it = local_.find(p); it != local_.end())
      return it->second;
   auto it = mounted_.find(p);
   if (it == mounted_.end())
      return nullptr;
   if (forWrite) {
      PLATFORM_ASSERT(it->second.mode != MountMode::read, "path is mounted read-only");
   }
   return it->second.entity;
}

std::map<std::string, std::string> StateStore::paths() const {
   std::map<std::string, std::string> out;
   for (const auto& [path, e] : published_)
      out[path] = e->typeName();
   return out;
}

}  // namespace Platform
