#include "platform/loop/EventLoop.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <memory>
#include <string>
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

   // Turns the loop until done() holds, for at most two seconds of kernel time; waiting on
   // real descriptors and timers, never sleeping.
   bool turnUntil(const std::function<bool()>& done) {
      const double limit = clock_.now() + 2.0;
      while (!done() && clock_.now() < limit)
         loop_->runOnce(50);
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
   const double limit = clock_.now() + 2.0;
   while (!fired && clock_.now() < limit)
      loop.runOnce(50);
   EXPECT_TRUE(fired);
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

}  // namespace
}  // namespace Platform
