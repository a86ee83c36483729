#pragma once

#include <cstdint>
#include <string_view>

// Building blocks for records whose counters are declared once, as an X-macro list
// of (attribute, Attribute) pairs. A record applies the list to each block so that
// members, accessors, handlers, the visitor, copies and resets stay in step with
// the list. Every change notifies the per-counter handler and then the record's
// generic `handleCounter()`, which is what a machine publishing counters watches.

// In the record's Reactor: one empty handler per counter.
#define MODEL_COUNTER_HANDLER(name, Name) \
   virtual void handle##Name() {}

// Public accessors: the getter, an increment for the packet paths and a setter for
// resets and copies; both notify only on a change.
#define MODEL_COUNTER_ACCESSORS(name, Name)   \
   uint64_t name() const {                    \
      return name##_;                         \
   }                                          \
   void name##Inc() {                         \
      ++name##_;                              \
      counterChanged(&Reactor::handle##Name); \
   }                                          \
   void name##Is(uint64_t v) {                \
      if (name##_ == v)                       \
         return;                              \
      name##_ = v;                            \
      counterChanged(&Reactor::handle##Name); \
   }

#define MODEL_COUNTER_MEMBER(name, Name) uint64_t name##_ = 0;

// In the record's private part: the notification every counter change makes.
#define MODEL_COUNTER_NOTIFIER         \
   template <class H>                  \
   void counterChanged(H handler) {    \
      notify(handler);                 \
      notify(&Reactor::handleCounter); \
   }

// Bodies of the generated bulk operations; `fn` and `src` are their parameters.
#define MODEL_COUNTER_VISIT(name, Name) fn(std::string_view(#name), name##_);
#define MODEL_COUNTER_COPY(name, Name) name##Is(src.name());
#define MODEL_COUNTER_RESET(name, Name) name##Is(0);

// The bulk operations of a record whose counter list is LIST:
// forEachCounter(fn(name, value)) in list order, countersIs(other) copying every
// counter, countersReset() zeroing every counter.
#define MODEL_COUNTER_BULK(LIST, Self) \
   template <class F>                  \
   void forEachCounter(F&& fn) const { \
      LIST(MODEL_COUNTER_VISIT)        \
   }                                   \
   void countersIs(const Self& src) {  \
      LIST(MODEL_COUNTER_COPY)         \
   }                                   \
   void countersReset() {              \
      LIST(MODEL_COUNTER_RESET)        \
   }
