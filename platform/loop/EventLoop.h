#pragma once

#include <sys/epoll.h>

#include <array>
#include <csignal>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "platform/linux/Fd.h"

namespace Platform {

class TimerWheel;

// The agent's only thread waits here: sockets, netlink, the timer wheel (through a timerfd)
// and signals (through a signalfd) all arrive as epoll events. Every callback may add,
// modify or remove any descriptor, its own included, and post work; a descriptor removed
// during a batch gets none of that batch's remaining events.
//
// The wheel's clock must be CLOCK_MONOTONIC time, since its deadlines program the timerfd.
class EventLoop {
 public:
   explicit EventLoop(TimerWheel& wheel);
   ~EventLoop();
   EventLoop(const EventLoop&) = delete;
   EventLoop& operator=(const EventLoop&) = delete;

   // The loop does not own registered descriptors; remove one before closing it (a
   // WatchedFd does both). Removing a descriptor that is not registered does nothing, so
   // teardown paths need no bookkeeping.
   void addFd(int fd, uint32_t events, std::function<void(uint32_t)> callback);
   void modifyFd(int fd, uint32_t events);
   void removeFd(int fd);
   // Descriptors registered, the loop's own included: what an owner that forgot to remove
   // its own shows in.
   size_t watchedCount() const { return watchedCount_; }

   // Runs on the next loop turn, after that turn's descriptor events, in posting order.
   void post(std::function<void()> fn);

   // Blocks the signal for the thread and delivers it through the loop instead, so a handler
   // runs as ordinary loop code. The previous mask is restored on destruction.
   void onSignal(int signo, std::function<void()> callback);

   void run();
   void stop() { stopping_ = true; }
   // One turn: waits up to timeoutMs (-1: no limit; 0 when work is posted), dispatches.
   void runOnce(int timeoutMs);

   TimerWheel& wheel() const { return wheel_; }

 private:
   // Heap-allocated so that neither a growing table nor a removal moves a callback while it
   // runs. Epoll events point at the registration, not the fd number: events queued for a
   // removed registration find it inactive even if the fd number is already reused.
   struct Registration {
      std::function<void(uint32_t)> callback;
      bool active = true;
   };

   void doArmTimerFd(double deadline);
   void handleTimerFd();
   void handleSignalFd();
   void doRunPosted();
   void doEpollCtl(int op, int fd, uint32_t events, Registration* registration);

   TimerWheel& wheel_;
   Fd epollFd_;
   Fd timerFd_;
   Fd signalFd_;
   size_t watchedCount_ = 0;
   double timerFdDeadline_;  // what the timerfd is programmed with
   bool stopping_ = false;
   bool dispatching_ = false;
   std::vector<std::unique_ptr<Registration>> registrations_;  // indexed by fd
   // Removed registrations live until the current batch is dispatched: one of them may be
   // running, and events still queued point at them.
   std::vector<std::unique_ptr<Registration>> removed_;
   std::vector<std::function<void()>> posted_;
   std::vector<std::function<void()>> running_;
   std::vector<std::function<void()>> signalHandlers_;  // indexed by signal number
   sigset_t signals_;
   sigset_t blockedBefore_;
   std::array<epoll_event, 64> events_;
};

}  // namespace Platform
