#include "platform/loop/EventLoop.h"

#include <pthread.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <system_error>
#include <utility>

#include "platform/base/Assert.h"
#include "platform/loop/Clock.h"
#include "platform/loop/TimerWheel.h"

namespace Platform {

namespace {

[[noreturn]] void throwErrno(const char* what) {
   throw std::system_error(errno, std::system_category(), what);
}

// Keeps the seconds-to-time_t conversion defined for absurd deadlines; the monotonic clock
// (time since boot) never gets near it.
constexpr double kFarFuture = 1e12;

}  // namespace

EventLoop::EventLoop(TimerWheel& wheel) : wheel_(wheel), timerFdDeadline_(kNever) {
   sigemptyset(&signals_);
   sigemptyset(&blockedBefore_);
   epollFd_.reset(epoll_create1(EPOLL_CLOEXEC));
   if (!epollFd_)
      throwErrno("epoll_create1");
   timerFd_.reset(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
   if (!timerFd_)
      throwErrno("timerfd_create");
   addFd(timerFd_.get(), EPOLLIN, [this](uint32_t) { handleTimerFd(); });
   wheel_.onNextDeadlineChanged([this](double deadline) { doArmTimerFd(deadline); });
}

EventLoop::~EventLoop() {
   wheel_.onNextDeadlineChanged(nullptr);
   if (signalFd_) {
      // Signals that arrived unhandled would take their default action (terminate) the
      // moment they are unblocked: consume them first.
      signalfd_siginfo info;
      while (read(signalFd_.get(), &info, sizeof info) == sizeof info) {
      }
      sigset_t unblock = signals_;
      for (int signo = 1; signo < NSIG; ++signo) {
         if (sigismember(&blockedBefore_, signo) == 1)
            sigdelset(&unblock, signo);
      }
      pthread_sigmask(SIG_UNBLOCK, &unblock, nullptr);
   }
}

void EventLoop::addFd(int fd, uint32_t events, std::function<void(uint32_t)> callback) {
   PLATFORM_ASSERT(fd >= 0, "event loop given a negative descriptor");
   const auto slot = static_cast<size_t>(fd);
   if (slot >= registrations_.size())
      registrations_.resize(slot + 1);
   PLATFORM_ASSERT(!registrations_[slot], "descriptor registered twice with the event loop");
   auto registration = std::make_unique<Registration>();
   registration->callback = std::move(callback);
   doEpollCtl(EPOLL_CTL_ADD, fd, events, registration.get());
   registrations_[slot] = std::move(registration);
   ++watchedCount_;
}

void EventLoop::modifyFd(int fd, uint32_t events) {
   const auto slot = static_cast<size_t>(fd);
   PLATFORM_ASSERT(fd >= 0 && slot < registrations_.size() && registrations_[slot],
                   "modified descriptor is not registered with the event loop");
   doEpollCtl(EPOLL_CTL_MOD, fd, events, registrations_[slot].get());
}

void EventLoop::removeFd(int fd) {
   const auto slot = static_cast<size_t>(fd);
   if (fd < 0 || slot >= registrations_.size() || !registrations_[slot])
      return;
   // Failure means the descriptor was closed already, which took it out of the epoll set.
   epoll_ctl(epollFd_.get(), EPOLL_CTL_DEL, fd, nullptr);
   registrations_[slot]->active = false;
   removed_.push_back(std::move(registrations_[slot]));
   --watchedCount_;
}

void EventLoop::doEpollCtl(int op, int fd, uint32_t events, Registration* registration) {
   epoll_event event{};
   event.events = events;
   event.data.ptr = registration;
   if (epoll_ctl(epollFd_.get(), op, fd, &event) < 0)
      throwErrno("epoll_ctl");
}

void EventLoop::post(std::function<void()> fn) {
   posted_.push_back(std::move(fn));
}

void EventLoop::onSignal(int signo, std::function<void()> callback) {
   PLATFORM_ASSERT(signo > 0 && signo < NSIG, "signal number out of range");
   const auto slot = static_cast<size_t>(signo);
   if (slot >= signalHandlers_.size())
      signalHandlers_.resize(slot + 1);
   signalHandlers_[slot] = std::move(callback);
   if (sigismember(&signals_, signo) == 1)
      return;

   sigset_t one;
   sigemptyset(&one);
   sigaddset(&one, signo);
   sigset_t before;
   if (int err = pthread_sigmask(SIG_BLOCK, &one, &before); err != 0) {
      throw std::system_error(err, std::system_category(), "pthread_sigmask");
   }
   if (sigismember(&before, signo) == 1)
      sigaddset(&blockedBefore_, signo);
   sigaddset(&signals_, signo);
   // Given the descriptor it already has, signalfd changes its mask and returns it.
   const int fd = signalfd(signalFd_.get(), &signals_, SFD_NONBLOCK | SFD_CLOEXEC);
   if (fd < 0)
      throwErrno("signalfd");
   if (!signalFd_) {
      signalFd_.reset(fd);
      addFd(fd, EPOLLIN, [this](uint32_t) { handleSignalFd(); });
   }
}

void EventLoop::run() {
   while (!stopping_)
      runOnce(-1);
   stopping_ = false;
}

void EventLoop::runOnce(int timeoutMs) {
   PLATFORM_ASSERT(!dispatching_, "event loop turn started from inside a callback");
   const int n = epoll_wait(epollFd_.get(), events_.data(), static_cast<int>(events_.size()),
                            posted_.empty() ? timeoutMs : 0);
   if (n < 0 && errno != EINTR)
      throwErrno("epoll_wait");
   dispatching_ = true;
   for (int i = 0; i < n; ++i) {
      auto* registration = static_cast<Registration*>(events_[i].data.ptr);
      if (registration->active)
         registration->callback(events_[i].events);
   }
   dispatching_ = false;
   removed_.clear();
   doRunPosted();
}

void EventLoop::doRunPosted() {
   // Swapping keeps both queues' capacity, and work posted from here waits for the next
   // turn, so a function that re-posts itself cannot starve descriptors.
   running_.swap(posted_);
   for (auto& fn : running_)
      fn();
   running_.clear();
}

void EventLoop::doArmTimerFd(double deadline) {
   if (deadline == timerFdDeadline_)
      return;
   timerFdDeadline_ = deadline;
   itimerspec spec{};
   if (deadline != kNever) {
      // Rounded up, because a timerfd that fires early finds nothing due. A zero value
      // would disarm it, while any past time fires at once, which is what is wanted.
      const double clamped = std::clamp(deadline, 0.0, kFarFuture);
      double whole = std::floor(clamped);
      double nanos = std::ceil((clamped - whole) * 1e9);
      if (nanos >= 1e9) {
         whole += 1;
         nanos = 0;
      }
      spec.it_value.tv_sec = static_cast<time_t>(whole);
      spec.it_value.tv_nsec = static_cast<long>(nanos);
      if (spec.it_value.tv_sec == 0 && spec.it_value.tv_nsec == 0)
         spec.it_value.tv_nsec = 1;
   }
   if (timerfd_settime(timerFd_.get(), TFD_TIMER_ABSTIME, &spec, nullptr) < 0) {
      throwErrno("timerfd_settime");
   }
}

void EventLoop::handleTimerFd() {
   uint64_t expirations;
   // Nothing to read when the timerfd was re-armed after this event was queued; the wheel
   // then simply finds nothing due.
   [[maybe_unused]] const ssize_t got = read(timerFd_.get(), &expirations, sizeof expirations);
   // A fired timerfd is disarmed, so it has to be programmed again even if the wheel's
   // earliest deadline did not move (the clock may read a hair before it).
   timerFdDeadline_ = kNever;
   wheel_.runExpired();
   doArmTimerFd(wheel_.nextDeadline());
}

void EventLoop::handleSignalFd() {
   signalfd_siginfo info;
   while (read(signalFd_.get(), &info, sizeof info) == sizeof info) {
      const auto slot = static_cast<size_t>(info.ssi_signo);
      if (slot >= signalHandlers_.size() || !signalHandlers_[slot])
         continue;
      // A copy, so a handler may replace itself; signals are too rare for the cost to matter.
      auto handler = signalHandlers_[slot];
      handler();
   }
}

}  // namespace Platform
