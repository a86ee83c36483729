#pragma once

#include <sys/types.h>

#include <nlohmann/json.hpp>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "frontend/control/ControlProtocol.h"
#include "platform/loop/TimerWheel.h"
#include "platform/loop/WatchedFd.h"

namespace Platform {
class EventLoop;
}

namespace Frontend {

// The agent's end of the control socket (protocol in frontend/ControlProtocol.h). It
// runs on the agent's event loop like everything else, so a handler sees the agent's
// state between two events and needs no locking. Whatever a client does - garbage,
// over-long lines, vanishing mid-reply, opening too many connections - costs it its
// connection at most, never the agent.
class ControlServer {
 public:
   // The reply's "data"; throw ControlError for an error reply.
   using Handler = std::function<nlohmann::json(const nlohmann::json& request)>;
   // For a command whose answer takes longer than one event (a reload reads its file on
   // a thread of its own): the handler keeps `reply` and calls it once, later, on the loop,
   // with a whole reply (controlReplyOk or controlReplyError). The connection answers
   // nothing else meanwhile, so replies stay in request order; a reply for a connection
   // that has gone is dropped.
   using Reply = std::function<void(nlohmann::json reply)>;
   using AsyncHandler = std::function<void(const nlohmann::json& request, Reply reply)>;

   // Connections served at once; more wait in the listen backlog (kListenBacklog deep) and
   // are taken in order as slots free.
   static constexpr size_t kMaxConnections = 32;
   static constexpr int kListenBacklog = 256;
   // A connection that sends nothing for this long is closed, so clients that connect
   // and stay silent cannot hold the slots an operator needs.
   static constexpr double kIdleTimeout = 30.0;

   ControlServer(Platform::EventLoop& loop, std::string path, double idleTimeout = kIdleTimeout);
   // Closes every connection and removes the socket file, unless another process has
   // replaced it meanwhile.
   ~ControlServer();
   ControlServer(const ControlServer&) = delete;
   ControlServer& operator=(const ControlServer&) = delete;

   // Creates the socket's directory (0700) if missing, replaces a socket file left by
   // a dead agent and listens. Fails, with a reason for the operator, when another
   // agent answers on the path.
   bool start(std::string& error);

   void handlerIs(const std::string& cmd, Handler handler);
   void asyncHandlerIs(const std::string& cmd, AsyncHandler handler);

   const std::string& path() const { return path_; }
   bool listening() const { return static_cast<bool>(listener_); }
   size_t connectionCount() const { return connections_.size(); }

 private:
   struct Connection {
      Connection(Platform::TimerWheel& wheel, std::function<void()> onIdle)
          : idle(wheel, std::move(onIdle)) {}
      Platform::WatchedFd socket;
      Platform::Timer idle;
      double lastActive = 0;
      double writeBlockedSince = 0;  // the client has not read its replies since; 0: it has
      uint32_t events = 0;
      std::string in;
      std::string out;
      size_t outSent = 0;
      bool peerDone = false;  // the client will send nothing more
      bool closeAfterReply = false;
      bool awaiting = false;  // an asynchronous command's reply is still to come
      uint64_t serial = 0;    // tells this connection from a later one on the same fd
   };
   enum class Io { progress, wait, closed };

   bool doPrepareDirectory(std::string& error);
   bool doClaimPath(std::string& error);
   void handleListener();
   void handleConnection(int fd);
   Connection* connectionOf(int fd, uint64_t serial) const;
   void doAdmit(Platform::Fd fd);
   void doAdmitWaiting();
   void doServe(Connection& c);
   Io doRead(Connection& c);
   Io doWrite(Connection& c);
   void doWatch(Connection& c, uint32_t events);
   void doClose(int fd);
   bool doEvictIdlest();
   // The reply to a line, or nothing when an asynchronous command will give it.
   std::optional<nlohmann::json> doRequest(std::string_view line, int fd);

   Platform::EventLoop& loop_;
   std::string path_;
   double idleTimeout_;
   Platform::WatchedFd listener_;
   // The socket file this server created, so destruction never unlinks a successor's.
   dev_t socketDev_ = 0;
   ino_t socketIno_ = 0;
   std::map<std::string, Handler> handlers_;
   std::map<std::string, AsyncHandler> asyncHandlers_;
   uint64_t nextSerial_ = 0;
   std::map<int, std::unique_ptr<Connection>> connections_;
   // Accepting pauses while the process is out of descriptors; otherwise the pending
   // connection would wake the loop forever.
   Platform::Timer acceptResume_;
   // A connection accepted while every slot was busy; accepting waits until it has one.
   Platform::Fd waiting_;
};

}  // namespace Frontend
