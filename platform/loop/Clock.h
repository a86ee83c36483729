#pragma once

#include <limits>

namespace Platform {

// Times are seconds as double everywhere; +infinity is the deadline that never comes, so
// "unarmed" needs no separate flag and min() over deadlines just works.
inline constexpr double kNever = std::numeric_limits<double>::infinity();

class Clock {
 public:
   virtual ~Clock() = default;
   virtual double now() const = 0;
};

// Deadlines live on this one: it does not jump when an operator or NTP sets the date.
class MonotonicClock final : public Clock {
 public:
   double now() const override;
};

// Wall-clock time, for values exchanged with the outside world (lease ends, logs).
class UtcClock final : public Clock {
 public:
   double now() const override;
};

// Time moves only when a test says so, which keeps timer tests exact and free of sleeps.
class ManualClock final : public Clock {
 public:
   explicit ManualClock(double start = 0.0) : now_(start) {}
   double now() const override { return now_; }
   void set(double t) { now_ = t; }
   void advance(double dt) { now_ += dt; }

 private:
   double now_;
};

}  // namespace Platform
