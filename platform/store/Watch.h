#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>

#include "platform/store/Reactor.h"

namespace Platform {

// The type-erased part of Watch: callbacks keyed by the handler they stand for.
class WatchBase {
 public:
   WatchBase(const WatchBase&) = delete;
   WatchBase& operator=(const WatchBase&) = delete;

 protected:
   explicit WatchBase(ReactorBase& self) { self.watch_ = this; }
   ~WatchBase() = default;

   // A handler's identity: the bytes of its member-function pointer. Every handler of one
   // record type has a distinct pointer of one size, so equal bytes mean the same handler.
   // Two words, compared as such: notifications of counters run per packet.
   struct Key {
      uint64_t word[2];
      bool operator==(const Key& o) const { return word[0] == o.word[0] && word[1] == o.word[1]; }
   };
   template <class R, class... P>
   static Key keyOf(void (R::*handler)(P...)) {
      static_assert(sizeof(handler) == sizeof(Key));
      Key key;
      std::memcpy(&key, &handler, sizeof(Key));
      return key;
   }

   struct Entry {
      Key key;
      std::shared_ptr<void> callback;  // a std::function<void(P...)> of the handler's P
   };
   std::vector<Entry> entries_;

   void entryIs(const Key& key, std::shared_ptr<void> callback) {
      for (Entry& e : entries_) {
         if (e.key == key) {
            e.callback = std::move(callback);
            return;
         }
      }
      entries_.push_back({key, std::move(callback)});
   }

 private:
   friend class Notifier;
   template <class R, class... P, class... A>
   void call(void (R::*handler)(P...), A&... args) {
      const Key key = keyOf(handler);
      for (const Entry& e : entries_) {
         if (e.key != key)
            continue;
         // Held for the call: the callback may destroy this watch, and with it the entry.
         const std::shared_ptr<void> callback = e.callback;
         (*static_cast<std::function<void(P...)>*>(callback.get()))(args...);
         return;
      }
   }
};

// A reactor that takes a callback per handler instead of a class of its own per owner:
//
//    Watch<const Config> config_;
//    config_.on(&Config::Reactor::handleDscpV4, [this] { handleDscp(); });
//    config_.notifierIs(config);
//
// One callback per handler (a second `on` replaces the first); handlers without one do
// nothing, as the record's Reactor defaults do. The rules of
// every reactor hold: it holds the record, detaches in its destructor, and a callback may
// attach, detach or destroy any reactor, this one included.
template <class T>
class Watch final : public ReactorOf<T>, private WatchBase {
 public:
   Watch() : WatchBase(static_cast<ReactorBase&>(*this)) {}

   template <class R, class... P, class F>
   Watch& on(void (R::*handler)(P...), F&& callback) {
      static_assert(std::is_base_of_v<R, typename std::remove_const_t<T>::Reactor>,
                    "a handler of the watched record's Reactor");
      entryIs(keyOf(handler),
              std::make_shared<std::function<void(P...)>>(std::forward<F>(callback)));
      return *this;
   }
   // Runs when the watch is attached to a record: where an owner replays current state.
   Watch& onAttached(std::function<void()> callback) {
      attached_ = std::move(callback);
      return *this;
   }

 private:
   void onNotifierAttached() override {
      if (attached_)
         attached_();
   }

   std::function<void()> attached_;
};

template <class R, class... P, class... A>
void Notifier::dispatch(WatchBase& watch, void (R::*handler)(P...), A&... args) {
   watch.call(handler, args...);
}

}  // namespace Platform
