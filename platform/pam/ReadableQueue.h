#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>

namespace Platform {

// The receive queue of a packet access object, and how its contents are announced.
//
// Every item that reaches the queue is announced once: the owner's readableCount grows by
// one and its reactors hear handleReadableCount, and the handler takes ONE item, the oldest.
// A handler that takes nothing ends the announcements of that wake-up, so a consumer that
// ignores its socket cannot spin the event loop; the items left unannounced are announced
// with the next wake-up, and pop() takes them at any time. The ring is fixed, so queueing
// allocates nothing; while it is full its owner stops reading the socket and lets the
// kernel's buffer hold what follows.
template <class T, size_t N>
class ReadableQueue {
 public:
   static constexpr size_t kCapacity = N;

   size_t size() const { return queued_; }
   size_t room() const { return N - queued_; }

   // Appends without announcing; false, with the item untouched, when the ring is full.
   bool push(T&& item) {
      if (queued_ == N)
         return false;
      items_[(head_ + queued_) % N] = std::move(item);
      ++queued_;
      return true;
   }

   // The oldest item, announced or not.
   std::optional<T> pop() {
      if (queued_ == 0)
         return std::nullopt;
      std::optional<T> out(std::move(items_[head_]));
      // Leaves the slot empty: a pooled buffer must not stay referenced by the ring.
      items_[head_] = T();
      head_ = (head_ + 1) % N;
      --queued_;
      if (announced_ > 0)
         --announced_;
      ++taken_;
      return out;
   }

   // Runs `announceOne` once per unannounced item, oldest first, as described above. The
   // owner must hold a reference to itself across the call: a handler may release it, or
   // clear the queue (which ends the announcements).
   template <class F>
   void announce(F&& announceOne) {
      while (announced_ < queued_) {
         ++announced_;
         const uint64_t taken = taken_;
         announceOne();
         if (taken_ == taken)
            break;
      }
   }

   void clear() {
      for (; queued_ > 0; --queued_) {
         items_[head_] = T();
         head_ = (head_ + 1) % N;
      }
      head_ = 0;
      announced_ = 0;
   }

 private:
   std::array<T, N> items_{};
   size_t head_ = 0;
   size_t queued_ = 0;
   size_t announced_ = 0;  // queued items already announced (the oldest ones)
   uint64_t taken_ = 0;
};

}  // namespace Platform
