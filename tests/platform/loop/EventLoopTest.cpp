#include "platform/loop/EventLoop.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "platform/linux/Fd.h"
#include "platform/loop/Clock.h"
#include "platform/loop/TimerWheel.h"

namespace Platform {
namespace {

// Readable from the start: an eventfd with a non-zero counter.
int readyFd() {
   return eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK);
}

bool signalBlocked(int signo) {
   sigset_t mask;
   pthread_sigmask(SIG_BLOCK, nullptr, &mask);
   return sigismember(&mask, signo) == 1;
}

class EventLoopTest : public testing::Test {
 protected:
   int ownedFd(int fd) { return fds_.emplace_back(fd).get(); }

   // Turns the loop (the test's own unless told) until done() holds, for at most two seconds
   // of kernel time; waiting on real descriptors and timers, never sleeping.
   bool turnUntil(const std::function<bool()>& done, EventLoop* loop = nullptr) {
      const double limit = clock_.now() + 2.0;
      while (!done() && clock_.now() < limit)
         (loop ? loop : loop_.get())->runOnce(50);
      return done();
   }

   MonotonicClock clock_;
   UtcClock utc_;
   TimerWheel wheel_{clock_, utc_};
   std::unique_ptr<EventLoop> loop_ = std::make_unique<EventLoop>(wheel_);
   std::vector<Fd> fds_;
};

TEST_F(EventLoopTest, PostedWorkRunsOnTheNextTurnInPostingOrder) {
   std::vector<std::string> log;
   loop_->post([&] {
      log.push_back("a");
      loop_->post([&] { log.push_back("c"); });
   });
   loop_->post([&] { log.push_back("b"); });

   // Pending work must not let the turn block on the long timeout.
   const double start = clock_.now();
   loop_->runOnce(5000);
   EXPECT_LT(clock_.now() - start, 1.0);
   EXPECT_EQ(log, (std::vector<std::string>{"a", "b"}));
   loop_->runOnce(0);
   EXPECT_EQ(log, (std::vector<std::string>{"a", "b", "c"}));

   loop_->post([&] { loop_->stop(); });
   loop_->run();
   loop_->post([&] { loop_->stop(); });
   loop_->run();  // a stopped loop can run again
}

TEST_F(EventLoopTest, DeliversRequestedEventsUntilRemovedEvenByTheCallback) {
   const int fd = ownedFd(readyFd());
   std::vector<uint32_t> seen;
   loop_->addFd(fd, EPOLLIN, [&](uint32_t events) { seen.push_back(events); });
   loop_->runOnce(0);
   loop_->modifyFd(fd, EPOLLOUT);
   loop_->runOnce(0);
   loop_->removeFd(fd);
   loop_->removeFd(fd);  // removing twice is harmless
   loop_->runOnce(0);
   EXPECT_EQ(seen, (std::vector<uint32_t>{EPOLLIN, EPOLLOUT}));

   // A callback may remove its own descriptor; its captures live until it returns.
   const std::string payload(64, 'p');  // too big for std::function's inline buffer
   std::string captured;
   loop_->addFd(fd, EPOLLIN, [&, fd, payload](uint32_t events) {
      seen.push_back(events);
      loop_->removeFd(fd);
      captured = payload;
   });
   loop_->runOnce(0);
   loop_->runOnce(0);  // still readable, but no longer registered
   EXPECT_EQ(seen.size(), 3u);
   EXPECT_EQ(captured, payload);
}

// Both descriptors are ready in the same batch; whichever callback runs first removes the
// other and puts a fresh, never-ready registration on the same fd number. The other's
// queued event must reach neither its old nor the new callback.
TEST_F(EventLoopTest, RemovedDescriptorGetsNoEventFromTheCurrentBatch) {
   const int fds[2] = {ownedFd(readyFd()), ownedFd(readyFd())};
   const int idle = ownedFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
   int calls = 0;
   int newCalls = 0;
   for (int i = 0; i < 2; ++i) {
      loop_->addFd(fds[i], EPOLLIN, [&, self = fds[i], other = fds[1 - i]](uint32_t) {
         ++calls;
         eventfd_t value;
         eventfd_read(self, &value);
         loop_->removeFd(other);
         ASSERT_EQ(dup2(idle, other), other);
         loop_->addFd(other, EPOLLIN, [&](uint32_t) { ++newCalls; });
      });
   }
   loop_->runOnce(0);
   loop_->runOnce(0);
   EXPECT_EQ(calls, 1);
   EXPECT_EQ(newCalls, 0);
}

TEST_F(EventLoopTest, WheelTimersFireThroughTheTimerfdNeverEarly) {
   std::vector<std::string> log;
   double firedAt = 0;
   Timer late(wheel_, [&] { log.push_back("late"); });
   Timer soon(wheel_, [&] {
      firedAt = clock_.now();
      log.push_back("soon");
   });
   late.armIn(30);
   soon.armIn(0.02);  // earlier than what the timerfd holds: it must be re-programmed
   const double deadline = soon.deadline();
   ASSERT_TRUE(turnUntil([&] { return !log.empty(); }));
   EXPECT_EQ(log, (std::vector<std::string>{"soon"}));
   EXPECT_GE(firedAt, deadline);

   // A handler re-arming its own timer keeps the timerfd going.
   int ticks = 0;
   Timer periodic(wheel_, [&] {
      if (++ticks < 3)
         periodic.armIn(0.005);
   });
   periodic.armIn(0.005);
   EXPECT_TRUE(turnUntil([&] { return ticks == 3; }));

   // Deadlines already past fire at once, including 0, which a timerfd reads as "disarm".
   Timer past(wheel_, [&] { log.push_back("past"); });
   past.armAt(0);
   EXPECT_TRUE(turnUntil([&] { return log.size() == 2; }));
   EXPECT_EQ(log.back(), "past");
}

TEST_F(EventLoopTest, TimersArmedBeforeTheLoopExistsFire) {
   loop_.reset();
   bool fired = false;
   Timer timer(wheel_, [&] { fired = true; });
   timer.armIn(0.01);
   loop_ = std::make_unique<EventLoop>(wheel_);
   EXPECT_TRUE(turnUntil([&] { return fired; }));
}

// The wheel's clock may read a hair before the instant the timerfd fired at; here a manual
// clock lags the kernel's on purpose. The wake-up finds nothing due, and the timerfd must
// be programmed again or the timer would never fire.
TEST_F(EventLoopTest, WakeUpWithNothingDueKeepsTheTimerfdArmed) {
   ManualClock lagging(clock_.now());
   TimerWheel wheel(lagging, utc_);
   EventLoop loop(wheel);
   bool fired = false;
   Timer timer(wheel, [&] { fired = true; });
   timer.armAt(lagging.now() + 0.01);
   const double kernelPast = timer.deadline() + 0.02;
   while (clock_.now() < kernelPast)
      loop.runOnce(10);
   EXPECT_FALSE(fired);

   lagging.set(timer.deadline());
   EXPECT_TRUE(turnUntil([&] { return fired; }, &loop));
}

TEST_F(EventLoopTest, SignalsArriveAsLoopCallbacksAndTheMaskIsRestored) {
   ASSERT_FALSE(signalBlocked(SIGHUP));
   int hangups = 0;
   loop_->onSignal(SIGHUP, [&] { ++hangups; });
   loop_->onSignal(SIGTERM, [&] { loop_->stop(); });
   EXPECT_TRUE(signalBlocked(SIGHUP));

   raise(SIGHUP);
   EXPECT_TRUE(turnUntil([&] { return hangups == 1; }));
   raise(SIGTERM);
   loop_->run();  // returns only through the SIGTERM handler

   // Pending when the loop goes away: consumed rather than left to kill the process.
   raise(SIGHUP);
   loop_.reset();
   EXPECT_FALSE(signalBlocked(SIGHUP));
   EXPECT_FALSE(signalBlocked(SIGTERM));
   sigset_t pending;
   sigpending(&pending);
   EXPECT_EQ(sigismember(&pending, SIGHUP), 0);
   EXPECT_EQ(hangups, 1);
}

class TimerWheelTest : public testing::Test {
 protected:
   // Each timer logs its label when it fires.
   Timer& make(int label) {
      timers_.push_back(
          std::make_unique<Timer>(wheel_, [this, label] { fired_.push_back(label); }));
      return *timers_.back();
   }

   ManualClock clock_{100.0};
   ManualClock utc_{1.7e9};
   TimerWheel wheel_{clock_, utc_};
   std::vector<int> fired_;
   std::vector<std::unique_ptr<Timer>> timers_;
};

// Order, ties, moves and cancelling are the reference model's (below); what it leaves out is
// here: relative and never deadlines, and a fired timer's state.
TEST_F(TimerWheelTest, ArmInIsRelativeNeverDisarmsAndAFiredTimerIsUnarmed) {
   Timer& relative = make(1);
   relative.armIn(2.5);
   EXPECT_EQ(relative.deadline(), 102.5);
   Timer& never = make(2);
   never.armAt(101);
   never.armAt(kNever);
   Timer& neverIn = make(3);
   neverIn.armIn(kNever);
   Timer& cancelled = make(4);
   cancelled.armAt(101);
   cancelled.cancel();
   cancelled.cancel();
   for (Timer* t : {&never, &neverIn, &cancelled}) {
      EXPECT_FALSE(t->armed());
      EXPECT_EQ(t->deadline(), kNever);
   }
   make(5).armAt(110);

   wheel_.runExpired();
   EXPECT_TRUE(fired_.empty()) << "nothing is due before its deadline";
   clock_.set(102.5);  // a deadline equal to now is due
   wheel_.runExpired();
   EXPECT_EQ(fired_, std::vector<int>{1});
   EXPECT_FALSE(relative.armed());
   EXPECT_EQ(relative.deadline(), kNever);
   EXPECT_EQ(wheel_.armedCount(), 1u);
   EXPECT_EQ(wheel_.nextDeadline(), 110);
}

TEST_F(TimerWheelTest, ReportsOnlyChangesOfTheEarliestDeadline) {
   std::vector<double> reports;
   Timer& a = make(1);
   a.armAt(200);
   wheel_.onNextDeadlineChanged([&](double d) { reports.push_back(d); });
   EXPECT_EQ(reports, (std::vector<double>{200})) << "installing reports the current value";

   Timer& b = make(2);
   b.armAt(300);  // not the earliest: no report
   b.armAt(150);
   a.armAt(400);  // not the earliest either
   b.cancel();
   a.cancel();
   EXPECT_EQ(reports, (std::vector<double>{200, 150, 400, kNever}));

   // Changes made while timers fire reach the callback once, at the end.
   reports.clear();
   a.armAt(101);
   Timer self(wheel_, [&] {
      b.armAt(103);
      b.armAt(102);
      a.armAt(104);
   });
   self.armAt(100);
   wheel_.runExpired();
   EXPECT_EQ(reports, (std::vector<double>{101, 100, 102}));
   wheel_.onNextDeadlineChanged(nullptr);
}

TEST_F(TimerWheelTest, HandlerDestroysItselfAndCancelsMovesOrDestroysOthersOfItsBatch) {
   Timer& cancelled = make(2);
   Timer& moved = make(3);
   auto destroyed = std::make_unique<Timer>(wheel_, [&] { fired_.push_back(4); });
   // A capture big enough to live outside std::function's inline buffer: it must survive
   // the Timer that held the handler for as long as the handler runs.
   const std::string payload(64, 'x');
   std::unique_ptr<Timer> first;
   first = std::make_unique<Timer>(wheel_, [&, payload] {
      first.reset();
      fired_.push_back(payload == std::string(64, 'x') ? 1 : -1);
      cancelled.cancel();
      moved.armAt(200);
      destroyed.reset();
   });
   double seenNext = 0;
   Timer last(wheel_, [&] {
      fired_.push_back(5);
      seenNext = wheel_.nextDeadline();
   });
   first->armAt(99);
   moved.armAt(100);
   destroyed->armAt(100);
   last.armAt(100);
   cancelled.armAt(100);  // due after `last`, cancelled before it fires

   wheel_.runExpired();
   EXPECT_EQ(fired_, (std::vector<int>{1, 5}));
   EXPECT_EQ(seenNext, 200) << "what is left of the batch is gone";
   EXPECT_EQ(wheel_.nextDeadline(), 200);
   EXPECT_EQ(wheel_.armedCount(), 1u);
   clock_.set(200);
   wheel_.runExpired();
   EXPECT_EQ(fired_, (std::vector<int>{1, 5, 3}));
}

TEST_F(TimerWheelTest, TimersArmedWhileFiringWaitForTheNextRun) {
   int ticks = 0;
   Timer periodic(wheel_, [&] {
      EXPECT_FALSE(periodic.armed()) << "a firing timer is no longer armed";
      ++ticks;
      periodic.armIn(0);  // already due: must not spin this run
   });
   std::unique_ptr<Timer> spawned;
   Timer spawner(wheel_, [&] {
      spawned = std::make_unique<Timer>(wheel_, [&] { fired_.push_back(9); });
      spawned->armAt(50);
   });
   periodic.armAt(100);
   spawner.armAt(100);

   wheel_.runExpired();
   EXPECT_EQ(ticks, 1);
   EXPECT_TRUE(fired_.empty());
   EXPECT_EQ(wheel_.nextDeadline(), 50);

   wheel_.runExpired();
   EXPECT_EQ(ticks, 2);
   EXPECT_EQ(fired_, (std::vector<int>{9}));
}

TEST_F(TimerWheelTest, ThrowingHandlerLeavesTheWheelUsable) {
   bool shouldThrow = true;
   Timer thrower(wheel_, [&] {
      fired_.push_back(1);
      if (shouldThrow)
         throw std::runtime_error("handler failed");
   });
   thrower.armAt(100);
   make(2).armAt(100);
   make(3).armAt(300);

   EXPECT_THROW(wheel_.runExpired(), std::runtime_error);
   EXPECT_EQ(wheel_.armedCount(), 2u);
   EXPECT_EQ(wheel_.nextDeadline(), 100);
   shouldThrow = false;
   thrower.armAt(100);
   wheel_.runExpired();
   EXPECT_EQ(fired_, (std::vector<int>{1, 2, 1}));
}

TEST_F(TimerWheelTest, IdleTimerMayOutliveItsWheel) {
   auto wheel = std::make_unique<TimerWheel>(clock_, utc_);
   Timer timer(*wheel, [] {});
   timer.armAt(200);
   timer.cancel();
   wheel.reset();
}

// Random arm/move/cancel traffic against a plain model: deadline order, arming order on
// ties (with few distinct deadlines, ties are common), nextDeadline() and armedCount() after
// every step.
TEST_F(TimerWheelTest, MatchesAReferenceModelUnderRandomTraffic) {
   constexpr int kTimers = 500;
   struct Expected {
      double deadline = kNever;
      uint64_t seq = 0;
   };
   std::vector<Expected> model(kTimers);
   for (int i = 0; i < kTimers; ++i)
      make(i);
   std::mt19937 rng(12345);
   uint64_t seq = 0;

   for (int round = 0; round < 20; ++round) {
      for (int op = 0; op < 2000; ++op) {
         const int i = static_cast<int>(rng() % kTimers);
         if (rng() % 4 == 0) {
            timers_[i]->cancel();
            model[i].deadline = kNever;
         } else {
            const double d = clock_.now() + static_cast<double>(rng() % 8);
            timers_[i]->armAt(d);
            model[i] = {d, seq++};
         }
         double earliest = kNever;
         size_t armed = 0;
         for (const Expected& e : model) {
            earliest = std::min(earliest, e.deadline);
            armed += e.deadline != kNever;
         }
         ASSERT_EQ(wheel_.nextDeadline(), earliest);
         ASSERT_EQ(wheel_.armedCount(), armed);
      }
      clock_.advance(3);
      std::vector<int> due;
      for (int i = 0; i < kTimers; ++i) {
         if (model[i].deadline <= clock_.now())
            due.push_back(i);
      }
      std::sort(due.begin(), due.end(), [&](int a, int b) {
         return std::tie(model[a].deadline, model[a].seq) <
                std::tie(model[b].deadline, model[b].seq);
      });
      for (int i : due)
         model[i].deadline = kNever;
      fired_.clear();
      wheel_.runExpired();
      ASSERT_EQ(fired_, due) << "round " << round;
   }
}

}  // namespace
}  // namespace Platform
