#include "bench/loadgen/LoadRun.h"

#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>
#include <cstdio>

namespace Bench {

namespace {

uint64_t nowNs() {
   timespec t;
   clock_gettime(CLOCK_MONOTONIC, &t);
   return static_cast<uint64_t>(t.tv_sec) * 1000000000u + static_cast<uint64_t>(t.tv_nsec);
}

}  // namespace

LoadRun::LoadRun(const LoadOptions& o, const LoadLink& link, LoadProtocol& protocol)
    : o_(o), link_(link), protocol_(protocol), clients_(o.clients), ring_(o.clients) {
   uint64_t seed;
   if (getrandom(&seed, sizeof seed, 0) != sizeof seed)
      seed = nowNs();
   rng_.seed(seed);
   // Enough for every answer at 1M exchanges/s; more are counted, not timed.
   latencies_.reserve(static_cast<size_t>(o.duration * 1e6) + 1024);
}

void LoadRun::run() {
   uint64_t start = nowNs();
   uint64_t stopSending = start + static_cast<uint64_t>(o_.duration * 1e9);
   uint64_t stopAll = stopSending + uint64_t{o_.drainMs} * 1000000u;
   for (uint64_t now = start; now < stopAll; now = nowNs()) {
      expire(now);
      if (o_.untilAnswered && f_.answered > 0) {
         stopSending = now;
         break;
      }
      if (now < stopSending) {
         fill(now);
      } else if (inWindow_ == 0 && !timedOut_) {
         break;  // everything answered: nothing late left to wait for
      }
      pollfd pfd{link_.fd(), POLLIN, 0};
      poll(&pfd, 1, 1);
      receive();
   }
   elapsed_ = (stopSending - start) / 1e9;
}

void LoadRun::report() {
   double p50 = 0, p99 = 0, max = 0;
   if (!latencies_.empty()) {
      auto at = [&](double q) {
         size_t k = std::min(latencies_.size() - 1, static_cast<size_t>(q * latencies_.size()));
         std::nth_element(latencies_.begin(), latencies_.begin() + k, latencies_.end());
         return latencies_[k] / 1000.0;
      };
      p50 = at(0.50);
      p99 = at(0.99);
      max = *std::max_element(latencies_.begin(), latencies_.end()) / 1000.0;
   }
   uint64_t lost = f_.sent - f_.answered;
   std::printf(
       "sent=%llu answered=%llu lost=%llu loss_pct=%.3f late=%llu stray=%llu send_failed=%llu "
       "duration_s=%.2f exchanges_per_s=%.0f p50_us=%.1f p99_us=%.1f max_us=%.1f window=%u "
       "clients=%u",
       static_cast<unsigned long long>(f_.sent), static_cast<unsigned long long>(f_.answered),
       static_cast<unsigned long long>(lost), f_.sent ? 100.0 * lost / f_.sent : 0.0,
       static_cast<unsigned long long>(f_.late), static_cast<unsigned long long>(f_.stray),
       static_cast<unsigned long long>(f_.sendFailed), elapsed_, f_.answered / elapsed_, p50, p99,
       max, o_.window, o_.clients);
   protocol_.printFigures(stdout);
   std::printf("\n");
}

void LoadRun::fill(uint64_t now) {
   while (inWindow_ < o_.window && ringSize_ < ring_.size()) {
      Client& c = clients_[next_];
      if (c.pending)
         return;  // every client is busy: the window is wider than the clients
      // Never 0: that marks a client without an expired request.
      uint32_t xid = static_cast<uint32_t>(rng_()) & protocol_.xidMask();
      if (xid == 0)
         xid = 1;
      if (!link_.send(protocol_.request(next_, xid))) {
         ++f_.sendFailed;
         return;  // the device queue is full: try again after the next poll
      }
      c = {now, xid, true};
      ring_[(ringHead_ + ringSize_++) % ring_.size()] = {next_, xid};
      ++inWindow_;
      ++f_.sent;
      next_ = (next_ + 1) % o_.clients;
   }
}

// Frees the window slots of sends that have waited longer than the timeout; a late reply
// for one still counts as answered (loss is counted after the drain).
void LoadRun::expire(uint64_t now) {
   uint64_t timeoutNs = uint64_t{o_.timeoutMs} * 1000000u;
   while (ringSize_ > 0) {
      Sent s = ring_[ringHead_];
      Client& c = clients_[s.client];
      bool open = c.pending && c.xid == s.xid;
      if (open && now - c.sentNs < timeoutNs)
         return;
      if (open) {
         c.pending = false;
         timedOut_ = true;
         --inWindow_;
         expiredXid(s.client) = s.xid;
      }
      ringHead_ = (ringHead_ + 1) % ring_.size();
      --ringSize_;
   }
}

void LoadRun::receive() {
   for (;;) {
      ssize_t n = recv(link_.fd(), rx_, sizeof rx_, MSG_DONTWAIT);
      if (n < 0)
         return;
      uint32_t client, xid;
      if (!protocol_.reply({rx_, static_cast<size_t>(n)}, client, xid))
         continue;
      uint64_t now = nowNs();
      if (client >= o_.clients) {
         ++f_.stray;
         continue;
      }
      Client& c = clients_[client];
      if (c.pending && c.xid == xid) {
         c.pending = false;
         --inWindow_;
         ++f_.answered;
         if (latencies_.size() < latencies_.capacity())
            latencies_.push_back(static_cast<uint32_t>(now - c.sentNs));
      } else if (timedOut_ && expiredXid(client) == xid) {
         expiredXid(client) = 0;
         ++f_.answered;
         ++f_.late;
      } else {
         ++f_.stray;  // a duplicate, or an xid this run never sent
      }
   }
}

// The xid whose timeout freed a client's slot; allocated on the first timeout.
uint32_t& LoadRun::expiredXid(uint32_t client) {
   if (expired_.empty())
      expired_.resize(o_.clients);
   return expired_[client];
}

}  // namespace Bench
