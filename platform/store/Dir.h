#pragma once

#include <map>
#include <string>

#include "platform/store/Entity.h"

namespace Platform {

// A directory of named entities of any type ("ip6/multicastGroups/application",
// "routing6/vrf/input"): entries are created on demand by whoever writes them.
class Dir : public Entity {
 public:
   PLATFORM_ENTITY_TYPE("Tac::Dir")
   using Entity::Entity;

   class Reactor : public ReactorOf<const Dir> {
    public:
      virtual void handleEntry(const std::string& /*name*/) {}
   };

   // Creates the entry, or takes the existing one; null when an entry of another
   // type already holds the name.
   template <class T, class... Args>
   Ptr<T> entryIs(const std::string& name, Args&&... args) {
      auto it = entries_.find(name);
      if (it != entries_.end())
         return ptrCast<T>(it->second);
      Ptr<T> e = make<T>(name, std::forward<Args>(args)...);
      entries_.emplace(name, e);
      notify(&Reactor::handleEntry, name);
      return e;
   }
   Ptr<Entity> entry(const std::string& name) const {
      auto it = entries_.find(name);
      return it == entries_.end() ? nullptr : it->second;
   }
   void entryDel(const std::string& name) {
      // The handler gets the extracted name: `name` may refer to the erased entry's own.
      if (auto node = entries_.extract(name))
         notify(&Reactor::handleEntry, node.key());
   }
   const std::map<std::string, Ptr<Entity>>& entries() const { return entries_; }

 private:
   std::map<std::string, Ptr<Entity>> entries_;
};

}  // namespace Platform
