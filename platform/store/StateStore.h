#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/base/Assert.h"
#include "platform/store/Entity.h"

namespace Platform {

// How the agent may use a mounted path: "r" read only (const access), "w" the
// agent writes it, "wi" the agent writes it and changes are visible at once.
enum class MountMode { read, write, writeImmediate };

const char* mountModeName(MountMode m);

// The process's state store: entities by path. Front ends (configuration file,
// kernel) publish shared entities; the agent mounts the paths it needs in a group
// and gets them once every front end has published its initial state. Local
// entities are process-private: reachable by path inside the agent, never listed
// as published state.
class StateStore {
 public:
   enum MountStatus { mountSuccess_, mountFailure_ };

   // `post` runs a function on a later turn of the event loop: group completion
   // never runs inside the call that closed the group.
   explicit StateStore(std::function<void(std::function<void()>)> post);
   ~StateStore();

   // --- front ends -------------------------------------------------------
   void publish(const std::string& path, Ptr<Entity> e);
   Ptr<Entity> published(const std::string& path) const;
   template <class T>
   Ptr<T> publishedAs(const std::string& path) const {
      return ptrCast<T>(published(path));
   }
   // A front end that has not yet published its initial state holds back every
   // mount group's completion.
   void frontEndPending(const std::string& name);
   void frontEndReady(const std::string& name);

   // --- local entities -----------------------------------------------------
   template <class T, class... Args>
   Ptr<T> localEntityIs(const std::string& name, const std::string& path, Args&&... args) {
      Ptr<T> e = make<T>(name, std::forward<Args>(args)...);
      local_[normalize(path)] = e;
      return e;
   }
   void localEntitiesCreated() { localCreated_ = true; }
   bool localEntitiesCreatedFlag() const { return localCreated_; }

   // --- mounts ---------------------------------------------------------------
   class MountGroup {
    public:
      // Mounting a path the agent writes creates the entity when no front end
      // has published one; a read-only path must have been published.
      template <class T>
      void mount(const std::string& path, MountMode mode) {
         pending_.push_back({normalize(path), T::kTypeName, mode,
                             [](const std::string& name) -> Ptr<Entity> { return make<T>(name); }});
      }
      void close(std::function<void(MountStatus)> done);

    private:
      friend class StateStore;
      struct Pending {
         std::string path;
         const char* type;
         MountMode mode;
         Ptr<Entity> (*create)(const std::string&);
      };
      explicit MountGroup(StateStore& store) : store_(store) {}
      StateStore& store_;
      std::vector<Pending> pending_;
   };
   std::unique_ptr<MountGroup> mountGroup() {
      return std::unique_ptr<MountGroup>(new MountGroup(*this));
   }

   // A mounted or local entity for writing; asserts that the agent may write it.
   template <class T>
   Ptr<T> entity(const std::string& path) const {
      Ptr<Entity> e = lookup(path, true);
      return ptrCast<T>(e);
   }
   // A mounted or local entity for reading.
   template <class T>
   Ptr<const T> entityConst(const std::string& path) const {
      return Ptr<const T>(dynamic_cast<const T*>(lookup(path, false).get()));
   }

   // Every published and mounted path with its type name, for operators.
   std::map<std::string, std::string> paths() const;

 private:
   struct Mounted {
      Ptr<Entity> entity;
      MountMode mode;
   };
   static std::string normalize(const std::string& path);
   Ptr<Entity> lookup(const std::string& path, bool forWrite) const;
   void tryComplete();

   std::function<void(std::function<void()>)> post_;
   std::map<std::string, Ptr<Entity>> published_;
   std::map<std::string, Ptr<Entity>> local_;
   std::map<std::string, Mounted> mounted_;
   std::vector<std::string> pendingFrontEnds_;
   struct ClosedGroup {
      std::vector<MountGroup::Pending> mounts;
      std::function<void(MountStatus)> done;
   };
   std::vector<ClosedGroup> closedGroups_;
   bool localCreated_ = false;
   std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace Platform
