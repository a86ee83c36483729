#pragma once

#include <map>
#include <set>
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

// Collections of a record, each declared in one line in the record's public part; the
// record's Reactor declares the matching handler, handle<Name>(const Key&). Each gives
// name() (the whole collection), name(key), and the mutators nameIs, nameDel and
// nameDelAll, which notify that handler once per key that really changed.
//
// Records created from their key on demand; name(key) is null when absent and nameIs
// returns the record, new or not.
#define PLATFORM_RECORDS(name, Name, Key, Record)                \
   const std::map<Key, Platform::Ptr<Record>>& name() const {    \
      return name##_;                                            \
   }                                                             \
   Platform::Ptr<Record> name(const Key& k) const {              \
      return mapEntryOr(name##_, k, nullptr);                    \
   }                                                             \
   Platform::Ptr<Record> name##Is(const Key& k) {                \
      return mapEntryCreate(name##_, k, &Reactor::handle##Name); \
   }                                                             \
   void name##Del(const Key& k) {                                \
      mapEntryDel(name##_, k, &Reactor::handle##Name);           \
   }                                                             \
   void name##DelAll() {                                         \
      mapEntryDelAll(name##_, &Reactor::handle##Name);           \
   }                                                             \
                                                                 \
 private:                                                        \
   std::map<Key, Platform::Ptr<Record>> name##_;                 \
                                                                 \
 public:

// Values by key; name(key) is `absent` when the key has none.
#define PLATFORM_VALUES(name, Name, Key, Value, absent)  \
   const std::map<Key, Value>& name() const {            \
      return name##_;                                    \
   }                                                     \
   Value name(const Key& k) const {                      \
      return mapEntryOr(name##_, k, absent);             \
   }                                                     \
   void name##Is(const Key& k, const Value& v) {         \
      mapEntryIs(name##_, k, v, &Reactor::handle##Name); \
   }                                                     \
   void name##Del(const Key& k) {                        \
      mapEntryDel(name##_, k, &Reactor::handle##Name);   \
   }                                                     \
   void name##DelAll() {                                 \
      mapEntryDelAll(name##_, &Reactor::handle##Name);   \
   }                                                     \
                                                         \
 private:                                                \
   std::map<Key, Value> name##_;                         \
                                                         \
 public:

// A set of keys; name(key) says whether it holds the key.
#define PLATFORM_SET(name, Name, Key)                  \
   const std::set<Key>& name() const {                 \
      return name##_;                                  \
   }                                                   \
   bool name(const Key& k) const {                     \
      return name##_.contains(k);                      \
   }                                                   \
   void name##Is(const Key& k) {                       \
      setEntryIs(name##_, k, &Reactor::handle##Name);  \
   }                                                   \
   void name##Del(const Key& k) {                      \
      setEntryDel(name##_, k, &Reactor::handle##Name); \
   }                                                   \
   void name##DelAll() {                               \
      while (!name##_.empty())                         \
         name##Del(*name##_.begin());                  \
   }                                                   \
                                                       \
 private:                                              \
   std::set<Key> name##_;                              \
                                                       \
 public:
