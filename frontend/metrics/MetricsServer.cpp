#include "frontend/metrics/MetricsServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <optional>
#include <utility>

#include "frontend/metrics/HttpExchange.h"
#include "platform/linux/SockAddr.h"
#include "platform/linux/StreamSend.h"
#include "platform/loop/EventLoop.h"
#include "platform/trace/Trace.h"

namespace Frontend {

namespace {

constexpr double kAcceptPause = 1.0;
constexpr int kBacklog = 16;

}  // namespace

MetricsServer::MetricsServer(Platform::EventLoop& loop, Render render, double deadline)
    : loop_(loop),
      render_(std::move(render)),
      deadline_(deadline),
      acceptResume_(loop.wheel(), [this] {
         TRACE(1, "accepting metrics connections again");
         listener_.eventsIs(EPOLLIN);
      }) {}

bool MetricsServer::listenIs(const Platform::IpGenAddr& address, uint16_t port) {
   if (listener_ && address == address_ && port == port_)
      return true;
   connections_.clear();
   listener_.reset();
   acceptResume_.cancel();
   if (port_ != 0 && port == 0)
      TRACE(1, "metrics endpoint ", Platform::endpointText(address_, port_), " closed");
   address_ = address;
   port_ = port;
   error_.clear();
   if (port == 0)
      return true;
   if (!doListen(error_)) {
      TRACE(0, "metrics endpoint not served: ", error_);
      return false;
   }
   TRACE(1, "metrics endpoint listening on ", Platform::endpointText(address, port));
   return true;
}

bool MetricsServer::doListen(std::string& error) {
   const std::string where = Platform::endpointText(address_, port_);
   sockaddr_in6 addr;
   const socklen_t length = Platform::toSockaddr(address_.isV6(), address_, port_, 0, addr);
   Platform::Fd fd(::socket(addr.sin6_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
   if (!fd) {
      error = "cannot create a socket for " + where + ": " + std::strerror(errno);
      return false;
   }
   const int on = 1;
   // A restarted agent rebinds while the last run's connections linger in TIME_WAIT; "::"
   // means IPv6 alone, as the file says, not IPv4 too.
   ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
   if (address_.isV6())
      ::setsockopt(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
   if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&addr), length) < 0 ||
       ::listen(fd.get(), kBacklog) < 0) {
      error = "cannot listen on " + where + ": " + std::strerror(errno);
      return false;
   }
   listener_ =
       Platform::WatchedFd(loop_, std::move(fd), EPOLLIN, [this](uint32_t) { handleListener(); });
   return true;
}

void MetricsServer::handleListener() {
   for (;;) {
      Platform::Fd fd(::accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
      if (!fd) {
         if (errno == EAGAIN)
            return;
         if (errno == EINTR || errno == ECONNABORTED)
            continue;
         TRACE(0, "cannot accept a metrics connection: ", std::strerror(errno));
         listener_.eventsIs(0);
         acceptResume_.armIn(kAcceptPause);
         return;
      }
      if (connections_.size() >= kMaxConnections)
         doCloseOldest();
      const int id = fd.get();
      auto c = std::make_unique<Connection>(loop_.wheel(), [this, id] {
         TRACE(3, "metrics connection ", id, " past its deadline, closed");
         doClose(id);
      });
      c->serial = ++accepted_;
      c->deadline.armIn(deadline_);
      c->socket = Platform::WatchedFd(loop_, std::move(fd), EPOLLIN,
                                      [this, id](uint32_t) { handleConnection(id); });
      connections_.emplace(id, std::move(c));
   }
}

// Reads until the head is answered, then writes the answer out and closes.
void MetricsServer::handleConnection(int fd) {
   auto it = connections_.find(fd);
   if (it == connections_.end())
      return;
   Connection& c = *it->second;
   if (c.draining) {
      doDrain(c);
      return;
   }
   if (c.out.empty() && !doRead(c))
      return;
   if (!c.out.empty())
      doWrite(c);
}

// False when the connection is gone or has nothing to answer yet.
bool MetricsServer::doRead(Connection& c) {
   char chunk[4096];
   for (;;) {
      const ssize_t n = ::recv(c.socket.get(), chunk, sizeof chunk, 0);
      if (n > 0) {
         c.in.append(chunk, static_cast<size_t>(n));
         std::optional<std::string> answer;
         try {
            answer = httpAnswer(c.in, render_);
         } catch (const std::exception& e) {
            // A scrape must never take the relay down with it.
            TRACE(0, "metrics request failed: ", e.what());
            answer =
                "HTTP/1.1 500 Internal Server Error\r\nContent-Length: 0\r\n"
                "Connection: close\r\n\r\n";
         }
         if (answer) {
            c.out = std::move(*answer);
            c.in.clear();
            return true;
         }
         continue;
      }
      if (n < 0 && errno == EINTR)
         continue;
      if (n < 0 && errno == EAGAIN)
         return false;
      // The client left (or failed) before its request was complete.
      doClose(c.socket.get());
      return false;
   }
}

void MetricsServer::doWrite(Connection& c) {
   switch (Platform::sendPending(c.socket.get(), c.out, c.outSent)) {
      case Platform::StreamSend::done:
         break;
      case Platform::StreamSend::wait:
         c.socket.eventsIs(EPOLLOUT);
         return;
      case Platform::StreamSend::failed:
         doClose(c.socket.get());
         return;
   }
   // Closing with unread bytes (the rest of an over-long head) would reset the connection,
   // and the client could lose the answer with it: the answer is sent, then what the client
   // still sends is read and dropped until it closes, or its deadline comes.
   ::shutdown(c.socket.get(), SHUT_WR);
   c.draining = true;
   c.socket.eventsIs(EPOLLIN);
   doDrain(c);
}

void MetricsServer::doDrain(Connection& c) {
   char chunk[4096];
   // Bounded per wake-up, so a client streaming without end cannot hold the loop.
   for (int reads = 0; reads < 16; ++reads) {
      const ssize_t n = ::recv(c.socket.get(), chunk, sizeof chunk, 0);
      if (n > 0 || (n < 0 && errno == EINTR))
         continue;
      if (n < 0 && errno == EAGAIN)
         return;
      doClose(c.socket.get());
      return;
   }
}

void MetricsServer::doCloseOldest() {
   auto oldest = connections_.begin();
   for (auto it = connections_.begin(); it != connections_.end(); ++it) {
      if (it->second->serial < oldest->second->serial)
         oldest = it;
   }
   TRACE(2, "metrics connection ", oldest->first, " closed to make room for a new one");
   doClose(oldest->first);
}

void MetricsServer::doClose(int fd) {
   connections_.erase(fd);
}

}  // namespace Frontend
