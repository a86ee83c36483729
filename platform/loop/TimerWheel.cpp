#include "platform/loop/TimerWheel.h"

#include <algorithm>
#include <utility>

#include "platform/base/Assert.h"

namespace Platform {

namespace {

constexpr size_t kArity = 4;

size_t parentOf(size_t i) {
   return (i - 1) / kArity;
}

}  // namespace

Timer::Timer(TimerWheel& wheel, std::function<void()> handler)
    : wheel_(wheel), handler_(std::move(handler)) {}

Timer::~Timer() {
   if (firing_)
      wheel_.firing_ = nullptr;
   cancel();
}

void Timer::armAt(double deadline) {
   wheel_.doArm(*this, deadline);
}

void Timer::armIn(double seconds) {
   armAt(wheel_.clock().now() + seconds);
}

void Timer::cancel() {
   if (armed())
      wheel_.doCancel(*this);
}

TimerWheel::TimerWheel(const Clock& monotonic, const Clock& utc) : clock_(monotonic), utc_(utc) {}

TimerWheel::~TimerWheel() {
   PLATFORM_ASSERT(armedCount_ == 0, "timer wheel destroyed while timers are armed");
}

double TimerWheel::nextDeadline() const {
   double next = heap_.empty() ? kNever : heap_.front().deadline;
   if (duePos_ < due_.size())
      next = std::min(next, due_[duePos_]->deadline_);
   return next;
}

void TimerWheel::onNextDeadlineChanged(std::function<void(double)> callback) {
   onNextDeadlineChanged_ = std::move(callback);
   reported_ = nextDeadline();
   if (onNextDeadlineChanged_)
      onNextDeadlineChanged_(reported_);
}

void TimerWheel::runExpired() {
   PLATFORM_ASSERT(!running_, "timer wheel run re-entered from a timer handler");
   const double now = clock_.now();
   running_ = true;
   // Moving the due timers out first fixes the batch: whatever handlers arm lands in the
   // heap and cannot be picked up by this call.
   while (!heap_.empty() && heap_.front().deadline <= now) {
      Timer* timer = heap_.front().timer;
      heapRemove(0);
      timer->where_ = Timer::Where::Due;
      timer->index_ = due_.size();
      due_.push_back(timer);
   }

   struct FinishRun {
      TimerWheel& wheel;
      ~FinishRun() { wheel.doFinishRun(); }
   } finishRun{*this};

   while (duePos_ < due_.size()) {
      Timer* timer = due_[duePos_++];
      timer->where_ = Timer::Where::Idle;
      timer->deadline_ = kNever;
      --armedCount_;
      dueSkipCancelled();
      doFire(*timer);
   }
}

void TimerWheel::doFire(Timer& timer) {
   // The handler runs from a local copy of the std::function so that it may destroy its own
   // Timer and keep using its captures; it goes back only if the Timer survived.
   struct Restore {
      TimerWheel& wheel;
      Timer& timer;
      std::function<void()> handler;
      ~Restore() {
         if (wheel.firing_ == &timer) {
            timer.handler_ = std::move(handler);
            timer.firing_ = false;
         }
         wheel.firing_ = nullptr;
      }
   } restore{*this, timer, std::move(timer.handler_)};
   firing_ = &timer;
   timer.firing_ = true;
   restore.handler();
}

void TimerWheel::doFinishRun() {
   // Only a throwing handler leaves timers in the batch; they go back to the heap so the
   // wheel stays usable after the exception.
   for (size_t i = duePos_; i < due_.size(); ++i) {
      if (Timer* timer = due_[i]) {
         timer->where_ = Timer::Where::Heap;
         heap_.push_back(Entry{timer->deadline_, nextSeq_++, timer});
         timer->index_ = heap_.size() - 1;
         heapSiftUp(heap_.size() - 1);
      }
   }
   due_.clear();
   duePos_ = 0;
   running_ = false;
   doNotify();
}

void TimerWheel::doArm(Timer& timer, double deadline) {
   PLATFORM_ASSERT(deadline == deadline, "timer armed with a NaN deadline");
   if (deadline == kNever) {
      doCancel(timer);
      return;
   }
   const Entry entry{deadline, nextSeq_++, &timer};
   if (timer.where_ == Timer::Where::Heap) {
      const size_t i = timer.index_;
      const bool earlier = before(entry, heap_[i]);
      heap_[i] = entry;
      if (earlier) {
         heapSiftUp(i);
      } else {
         heapSiftDown(i);
      }
   } else {
      doUnlink(timer);
      heap_.push_back(entry);
      timer.index_ = heap_.size() - 1;
      ++armedCount_;
      heapSiftUp(heap_.size() - 1);
   }
   timer.where_ = Timer::Where::Heap;
   timer.deadline_ = deadline;
   doNotify();
}

void TimerWheel::doCancel(Timer& timer) {
   doUnlink(timer);
   doNotify();
}

void TimerWheel::doUnlink(Timer& timer) {
   switch (timer.where_) {
      case Timer::Where::Idle:
         return;
      case Timer::Where::Heap:
         heapRemove(timer.index_);
         break;
      case Timer::Where::Due:
         due_[timer.index_] = nullptr;
         dueSkipCancelled();
         break;
   }
   timer.where_ = Timer::Where::Idle;
   timer.deadline_ = kNever;
   --armedCount_;
}

void TimerWheel::doNotify() {
   if (running_)
      return;
   const double next = nextDeadline();
   if (next == reported_)
      return;
   reported_ = next;
   if (onNextDeadlineChanged_)
      onNextDeadlineChanged_(next);
}

void TimerWheel::dueSkipCancelled() {
   // Keeps due_[duePos_] a live timer so nextDeadline() stays O(1) during a run.
   while (duePos_ < due_.size() && due_[duePos_] == nullptr)
      ++duePos_;
}

void TimerWheel::heapPlace(size_t i, const Entry& e) {
   heap_[i] = e;
   e.timer->index_ = i;
}

void TimerWheel::heapSiftUp(size_t i) {
   const Entry e = heap_[i];
   while (i > 0) {
      const size_t parent = parentOf(i);
      if (!before(e, heap_[parent]))
         break;
      heapPlace(i, heap_[parent]);
      i = parent;
   }
   heapPlace(i, e);
}

void TimerWheel::heapSiftDown(size_t i) {
   const Entry e = heap_[i];
   const size_t n = heap_.size();
   for (;;) {
      const size_t first = i * kArity + 1;
      if (first >= n)
         break;
      size_t best = first;
      for (size_t c = first + 1; c < std::min(first + kArity, n); ++c) {
         if (before(heap_[c], heap_[best]))
            best = c;
      }
      if (!before(heap_[best], e))
         break;
      heapPlace(i, heap_[best]);
      i = best;
   }
   heapPlace(i, e);
}

void TimerWheel::heapRemove(size_t i) {
   const Entry last = heap_.back();
   heap_.pop_back();
   if (i == heap_.size())
      return;
   heapPlace(i, last);
   if (i > 0 && before(last, heap_[parentOf(i)])) {
      heapSiftUp(i);
   } else {
      heapSiftDown(i);
   }
}

}  // namespace Platform
