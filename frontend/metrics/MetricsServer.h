#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "platform/addr/IpGenAddr.h"
#include "platform/loop/TimerWheel.h"
#include "platform/loop/WatchedFd.h"

namespace Platform {
class EventLoop;
}

namespace Frontend {

// The metrics endpoint: a TCP listener in the agent's own namespace, on the agent's event
// loop like the control socket, answering each connection's one request (HttpExchange) and
// closing it. Nothing blocks: sockets are non-blocking, a connection holds at most one
// request head and one response, and whatever a client does - garbage, a head that never
// ends, reading nothing, opening connection after connection - costs it its connection.
class MetricsServer {
 public:
   // The metrics text, rendered when a request asks for it.
   using Render = std::function<std::string()>;

   static constexpr size_t kMaxConnections = 16;
   // From accept to the last byte of the response, however the client trickles: a scrape
   // takes milliseconds, and a slow client must not hold a slot for longer.
   static constexpr double kDeadline = 5.0;

   MetricsServer(Platform::EventLoop& loop, Render render, double deadline = kDeadline);
   MetricsServer(const MetricsServer&) = delete;
   MetricsServer& operator=(const MetricsServer&) = delete;

   // Listens on address:port, or nowhere when port is 0. Asking again for the endpoint
   // already listening keeps its socket and connections; anything else closes them first.
   // A failure leaves nothing listening and is kept as error() (empty while all is well).
   bool listenIs(const Platform::IpGenAddr& address, uint16_t port);
   const std::string& error() const { return error_; }
   bool listening() const { return static_cast<bool>(listener_); }
   size_t connectionCount() const { return connections_.size(); }

 private:
   struct Connection {
      Connection(Platform::TimerWheel& wheel, std::function<void()> onDeadline)
          : deadline(wheel, std::move(onDeadline)) {}
      Platform::WatchedFd socket;
      Platform::Timer deadline;
      uint64_t serial = 0;  // accept order: the oldest makes room when all slots are taken
      std::string in;
      std::string out;
      size_t outSent = 0;
      bool draining = false;  // answered; reading what the client still sends, until it closes
   };

   bool doListen(std::string& error);
   void handleListener();
   void handleConnection(int fd);
   bool doRead(Connection& c);
   void doWrite(Connection& c);
   void doDrain(Connection& c);
   void doCloseOldest();
   void doClose(int fd);

   Platform::EventLoop& loop_;
   Render render_;
   double deadline_;
   Platform::IpGenAddr address_;
   uint16_t port_ = 0;
   std::string error_;
   Platform::WatchedFd listener_;
   std::map<int, std::unique_ptr<Connection>> connections_;
   uint64_t accepted_ = 0;
   // Accepting pauses while the process is out of descriptors; otherwise the pending
   // connection would wake the loop forever.
   Platform::Timer acceptResume_;
};

}  // namespace Frontend
