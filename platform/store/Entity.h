#pragma once

#include <string>

#include "platform/store/Reactor.h"
#include "platform/store/Watch.h"

namespace Platform {

// A record of the state store: named, typed and watchable. Concrete records give
// their type name (the name the system uses for it, checked when a path is
// mounted) and their own nested Reactor class.
class Entity : public Notifier {
 public:
   explicit Entity(std::string name = {}) : name_(std::move(name)) {}
   const std::string& name() const { return name_; }
   virtual const char* typeName() const = 0;

 protected:
   // The shared shape of generated mutators: change, and notify only on a change.
   template <class T, class H>
   void attrIs(T& field, const T& v, H handler) {
      if (field == v)
         return;
      field = v;
      notify(handler);
   }
   template <class M, class K, class V, class H>
   void mapEntryIs(M& map, const K& key, const V& v, H handler) {
      auto [it, added] = map.try_emplace(key, v);
      if (!added) {
         if (it->second == v)
            return;
         it->second = v;
      }
      notify(handler, key);
   }
   template <class M, class K, class H>
   void mapEntryDel(M& map, const K& key, H handler) {
      // The handler gets the extracted key: `key` may refer to the erased entry's own.
      if (auto node = map.extract(key))
         notify(handler, node.key());
   }
   template <class M, class H>
   void mapEntryDelAll(M& map, H handler) {
      while (!map.empty()) {
         auto key = map.begin()->first;
         map.erase(map.begin());
         notify(handler, key);
      }
   }
   // Create-or-take for collections of records: the new record is built from its
   // key, and only a creation notifies.
   template <class M, class K, class H>
   typename M::mapped_type mapEntryCreate(M& map, const K& key, H handler) {
      auto [it, added] = map.try_emplace(key);
      if (!added)
         return it->second;
      typename M::mapped_type e = it->second = make<typename M::mapped_type::element_type>(key);
      notify(handler, key);
      return e;
   }
   template <class S, class K, class H>
   void setEntryIs(S& set, const K& key, H handler) {
      if (set.insert(key).second)
         notify(handler, key);
   }
   template <class S, class K, class H>
   void setEntryDel(S& set, const K& key, H handler) {
      if (auto node = set.extract(key))
         notify(handler, node.value());
   }
   template <class M, class K>
   static auto mapEntryOr(const M& map, const K& key, typename M::mapped_type fallback) {
      auto it = map.find(key);
      return it == map.end() ? fallback : it->second;
   }

 private:
   std::string name_;
};

}  // namespace Platform

// Declares the type name of a record class; used once in each record.
#define PLATFORM_ENTITY_TYPE(text)                \
   static constexpr const char* kTypeName = text; \
   const char* typeName() const override {        \
      return kTypeName;                           \
   }
