#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/base/Ptr.h"

namespace Platform {

class ReactorBase;

// The reactors attached to one record. Notification walks the reactors that were
// attached when it started; a handler may attach new reactors (they see the next
// change, not this one), detach any reactor including itself, or destroy the
// record's owner: detached slots are emptied in place and compacted once the
// outermost walk has finished.
class ReactorList {
 public:
   void add(ReactorBase* r);
   void remove(ReactorBase* r);
   bool empty() const;

   template <class F>
   void forEach(F&& f) {
      const size_t n = items_.size();
      ++depth_;
      for (size_t i = 0; i < n; ++i) {
         if (ReactorBase* r = items_[i])
            f(r);
      }
      if (--depth_ == 0 && holes_)
         compact();
   }

 private:
   void compact();

   std::vector<ReactorBase*> items_;
   uint32_t depth_ = 0;
   bool holes_ = false;
};

class WatchBase;

class ReactorBase {
 public:
   ReactorBase() = default;
   ReactorBase(const ReactorBase&) = delete;
   ReactorBase& operator=(const ReactorBase&) = delete;
   virtual ~ReactorBase() = default;

 private:
   friend class Notifier;
   friend class WatchBase;
   // Set by a Watch, which takes its handlers as callbacks rather than as overrides.
   WatchBase* watch_ = nullptr;
};

// Base of every record that reactors can watch. `notify` calls one handler of the
// record's own Reactor type on each attached reactor, synchronously, before the
// mutator that changed the record returns.
class Notifier : public RefCounted {
 public:
   ReactorList& reactors() const { return reactors_; }

 protected:
   template <class R, class... P, class... A>
   void notify(void (R::*handler)(P...), A&&... args) const {
      if (reactors_.empty())
         return;
      // A handler may drop the last other reference to this record.
      Ptr<const Notifier> self(this);
      reactors_.forEach([&](ReactorBase* r) {
         if (r->watch_)
            dispatch(*r->watch_, handler, args...);
         else
            (static_cast<R*>(r)->*handler)(args...);
      });
   }

 private:
   // Defined with Watch (platform/store/Watch.h), which every record header includes.
   template <class R, class... P, class... A>
   static void dispatch(WatchBase& watch, void (R::*handler)(P...), A&... args);

   mutable ReactorList reactors_;
};

// A reactor watching one record of type T (T is the record type, possibly const).
// It holds a counted reference to the record and detaches in its destructor, so a
// record never notifies a dead reactor. Only T::Reactor derives from it.
template <class T>
class ReactorOf : public ReactorBase {
 public:
   const Ptr<T>& notifier() const { return notifier_; }

   // Re-targets the reactor; attaching runs onNotifierAttached so that a reactor
   // can replay the record's current state.
   void notifierIs(const Ptr<T>& n) {
      if (n == notifier_)
         return;
      if (notifier_)
         notifier_->reactors().remove(this);
      notifier_ = n;
      if (notifier_) {
         notifier_->reactors().add(this);
         onNotifierAttached();
      }
   }

 protected:
   ReactorOf() = default;
   ~ReactorOf() override {
      if (notifier_)
         notifier_->reactors().remove(this);
   }
   virtual void onNotifierAttached() {}

 private:
   Ptr<T> notifier_;
};

}  // namespace Platform
