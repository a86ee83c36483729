#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "platform/loop/Clock.h"

namespace Platform {

class TimerWheel;

// One pending action of the agent (a lease end, a retransmission, a hold-down). The handler
// is fixed at construction so that arming, which happens per packet, never allocates.
// Destroying a Timer cancels it; it is pinned because the wheel points at it.
class Timer {
 public:
   Timer(TimerWheel& wheel, std::function<void()> handler);
   ~Timer();
   Timer(const Timer&) = delete;
   Timer& operator=(const Timer&) = delete;

   // Arming an armed timer moves it; kNever cancels it.
   void armAt(double deadline);
   void armIn(double seconds);
   void cancel();

   bool armed() const { return where_ != Where::Idle; }
   double deadline() const { return deadline_; }
   TimerWheel& wheel() const { return wheel_; }

 private:
   friend class TimerWheel;
   // Due: taken out of the heap by a running TimerWheel::runExpired, not fired yet.
   enum class Where : uint8_t { Idle, Heap, Due };

   TimerWheel& wheel_;
   std::function<void()> handler_;
   double deadline_ = kNever;
   size_t index_ = 0;  // position in the wheel's heap or in its due batch
   Where where_ = Where::Idle;
   // Lets an idle Timer be destroyed without touching its wheel, which may already be gone.
   bool firing_ = false;
};

// All timers of the agent, one per client and more, on one monotonic clock. An indexed 4-ary
// heap: each Timer knows its slot, so arming, moving and cancelling cost O(log n) without a
// search, and nothing is allocated once the heap has grown to its working size.
//
// Equal deadlines fire in arming order, so behaviour never depends on heap layout.
class TimerWheel {
 public:
   TimerWheel(const Clock& monotonic, const Clock& utc);
   ~TimerWheel();
   TimerWheel(const TimerWheel&) = delete;
   TimerWheel& operator=(const TimerWheel&) = delete;

   const Clock& clock() const { return clock_; }
   // Beside the monotonic clock so that code holding the wheel can turn a wall-clock time
   // (a lease end received from a server) into a deadline.
   const Clock& utcClock() const { return utc_; }

   double nextDeadline() const;
   size_t armedCount() const { return armedCount_; }

   // Fires, in deadline order, every timer due at the clock reading taken on entry.
   // Handlers may arm, cancel or destroy any timer, their own included, and create new ones.
   // A timer armed while this runs, even to a deadline already past, waits for the next
   // call: a handler that re-arms itself to "now" cannot spin the loop forever.
   void runExpired();

   // Called with the new earliest deadline whenever it changes, and once on installation;
   // during runExpired the changes are folded into one call at its end. The event loop
   // re-arms its timerfd here.
   void onNextDeadlineChanged(std::function<void(double)> callback);

 private:
   friend class Timer;

   struct Entry {
      double deadline;
      uint64_t seq;
      Timer* timer;
   };

   void doArm(Timer& timer, double deadline);
   void doCancel(Timer& timer);
   void doUnlink(Timer& timer);
   void doFire(Timer& timer);
   void doFinishRun();
   void doNotify();

   static bool before(const Entry& a, const Entry& b) {
      return a.deadline < b.deadline || (a.deadline == b.deadline && a.seq < b.seq);
   }
   void heapPlace(size_t i, const Entry& e);
   void heapSiftUp(size_t i);
   void heapSiftDown(size_t i);
   void heapRemove(size_t i);
   void dueSkipCancelled();

   const Clock& clock_;
   const Clock& utc_;
   std::vector<Entry> heap_;
   // The batch runExpired is firing; cancelled entries become null so indices stay valid.
   std::vector<Timer*> due_;
   size_t duePos_ = 0;
   bool running_ = false;
   Timer* firing_ = nullptr;  // cleared if the firing timer is destroyed by its own handler
   uint64_t nextSeq_ = 0;
   size_t armedCount_ = 0;
   double reported_ = kNever;
   std::function<void(double)> onNextDeadlineChanged_;
};

}  // namespace Platform
