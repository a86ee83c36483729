#include "frontend/control/ControlServer.h"

#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <utility>

#include "platform/base/Assert.h"
#include "platform/linux/StreamSend.h"
#include "platform/loop/EventLoop.h"
#include "platform/trace/Trace.h"

namespace Frontend {

namespace {

// Lines taken per wake-up of one connection, so a client streaming requests (or blank
// lines) cannot hold the loop away from relaying.
constexpr int kRequestsPerTurn = 8;
constexpr size_t kReadChunk = 16 * 1024;
constexpr double kAcceptPause = 1.0;

std::string errnoText() {
   return std::strerror(errno);
}

bool socketAddress(const std::string& path, sockaddr_un& addr) {
   addr = {};
   addr.sun_family = AF_UNIX;
   if (path.empty() || path.size() >= sizeof addr.sun_path)
      return false;
   std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
   return true;
}

// parse_error texts start with an "[json.exception...]" tag that means nothing to an
// operator.
std::string parseErrorText(const char* what) {
   std::string text(what);
   if (!text.empty() && text.front() == '[') {
      auto end = text.find("] ");
      if (end != std::string::npos)
         text.erase(0, end + 2);
   }
   return text;
}

bool blank(std::string_view line) {
   return line.find_first_not_of(" \t\r") == std::string_view::npos;
}

}  // namespace

ControlServer::ControlServer(Platform::EventLoop& loop, std::string path, double idleTimeout)
    : loop_(loop),
      path_(std::move(path)),
      idleTimeout_(idleTimeout),
      acceptResume_(loop.wheel(), [this] {
         TRACE(1, "accepting control connections again");
         listener_.eventsIs(EPOLLIN);
      }) {}

ControlServer::~ControlServer() {
   while (!connections_.empty())
      doClose(connections_.begin()->first);
   if (!listener_)
      return;
   listener_.reset();
   struct stat st;
   if (::lstat(path_.c_str(), &st) == 0 && st.st_dev == socketDev_ && st.st_ino == socketIno_)
      ::unlink(path_.c_str());
}

void ControlServer::handlerIs(const std::string& cmd, Handler handler) {
   handlers_[cmd] = std::move(handler);
}

void ControlServer::asyncHandlerIs(const std::string& cmd, AsyncHandler handler) {
   asyncHandlers_[cmd] = std::move(handler);
}

bool ControlServer::start(std::string& error) {
   PLATFORM_ASSERT(!listener_, "control server started twice");
   sockaddr_un addr;
   if (!socketAddress(path_, addr)) {
      error = "control socket path \"" + path_ + "\" is empty or longer than " +
              std::to_string(sizeof addr.sun_path - 1) + " bytes";
      return false;
   }
   if (!doPrepareDirectory(error) || !doClaimPath(error))
      return false;

   Platform::Fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
   if (!fd) {
      error = "cannot create the control socket: " + errnoText();
      return false;
   }
   // bind creates the file with the process umask; the socket must never be reachable
   // by other users, not even between bind and a later chmod.
   mode_t oldMask = ::umask(0177);
   int rc = ::bind(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
   int bindErrno = errno;
   ::umask(oldMask);
   if (rc < 0) {
      error = "cannot bind the control socket " + path_ + ": " + std::strerror(bindErrno);
      return false;
   }
   struct stat st;
   if (::lstat(path_.c_str(), &st) < 0 || ::listen(fd.get(), kListenBacklog) < 0) {
      error = "cannot listen on the control socket " + path_ + ": " + errnoText();
      ::unlink(path_.c_str());
      return false;
   }
   socketDev_ = st.st_dev;
   socketIno_ = st.st_ino;
   listener_ =
       Platform::WatchedFd(loop_, std::move(fd), EPOLLIN, [this](uint32_t) { handleListener(); });
   TRACE(1, "control socket listening on ", path_);
   return true;
}

bool ControlServer::doPrepareDirectory(std::string& error) {
   auto slash = path_.rfind('/');
   if (slash == std::string::npos || slash == 0)
      return true;
   std::string dir = path_.substr(0, slash);
   for (size_t pos = 1; pos <= dir.size(); ++pos) {
      if (pos != dir.size() && dir[pos] != '/')
         continue;
      std::string prefix = dir.substr(0, pos);
      if (::mkdir(prefix.c_str(), 0700) == 0) {
         TRACE(2, "created directory ", prefix);
      } else if (errno != EEXIST) {
         error = "cannot create directory " + prefix + " for the control socket: " + errnoText();
         return false;
      }
   }
   return true;
}

bool ControlServer::doClaimPath(std::string& error) {
   struct stat st;
   if (::lstat(path_.c_str(), &st) < 0) {
      if (errno == ENOENT)
         return true;
      error = "cannot inspect " + path_ + ": " + errnoText();
      return false;
   }
   if (!S_ISSOCK(st.st_mode)) {
      error = path_ + " exists and is not a socket; remove it or choose another --socket";
      return false;
   }
   sockaddr_un addr;
   socketAddress(path_, addr);
   const Platform::Fd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
   if (!probe) {
      error = "cannot create a socket: " + errnoText();
      return false;
   }
   int rc = ::connect(probe.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
   int connectErrno = errno;
   // A full backlog (EAGAIN) still means somebody listens.
   if (rc == 0 || connectErrno == EAGAIN) {
      error = "another dhcp-relay-agent is already running: it answers on " + path_;
      return false;
   }
   if (connectErrno != ECONNREFUSED) {
      error =
          "cannot probe the existing control socket " + path_ + ": " + std::strerror(connectErrno);
      return false;
   }
   if (::unlink(path_.c_str()) < 0 && errno != ENOENT) {
      error = "cannot remove the stale control socket " + path_ + ": " + errnoText();
      return false;
   }
   TRACE(1, "replaced the stale control socket ", path_);
   return true;
}

void ControlServer::handleListener() {
   for (;;) {
      if (waiting_) {  // one already waits for a slot; the rest stay in the backlog
         listener_.eventsIs(0);
         return;
      }
      Platform::Fd fd(::accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
      if (!fd) {
         if (errno == EAGAIN)
            return;
         if (errno == EINTR || errno == ECONNABORTED)
            continue;
         TRACE(0, "cannot accept a control connection: ", errnoText());
         listener_.eventsIs(0);
         acceptResume_.armIn(kAcceptPause);
         return;
      }
      if (connections_.size() >= kMaxConnections && !doEvictIdlest()) {
         // Every slot is busy. The newcomer waits, its request in its socket buffer, and
         // later ones in the listen backlog; they are taken in order as slots free.
         // Refusing them would lock the operator out for as long as a flood of clients
         // lasts.
         TRACE(2, "control connections all busy: the next waits for a slot");
         waiting_ = std::move(fd);
         listener_.eventsIs(0);
         return;
      }
      doAdmit(std::move(fd));
   }
}

void ControlServer::doAdmit(Platform::Fd fd) {
   const int id = fd.get();
   auto c = std::make_unique<Connection>(loop_.wheel(), [this, id] {
      Connection& idle = *connections_.at(id);
      if (idle.awaiting) {  // the client waits for us, not the other way round
         idle.idle.armIn(idleTimeout_);
         return;
      }
      TRACE(2, "control connection ", id, " idle for ", idleTimeout_, " s, closed");
      doClose(id);
   });
   c->lastActive = loop_.wheel().clock().now();
   c->serial = ++nextSerial_;
   c->idle.armIn(idleTimeout_);
   c->socket = Platform::WatchedFd(loop_, std::move(fd), EPOLLIN,
                                   [this, id](uint32_t) { handleConnection(id); });
   c->events = EPOLLIN;
   connections_.emplace(id, std::move(c));
   TRACE(3, "control connection ", id, " opened");
}

// Runs from the loop, never from inside a connection's handling: it may close the
// connection that made room.
void ControlServer::doAdmitWaiting() {
   if (!waiting_ || (connections_.size() >= kMaxConnections && !doEvictIdlest()))
      return;
   doAdmit(std::move(waiting_));
   waiting_ = Platform::Fd();
   listener_.eventsIs(EPOLLIN);
}

// The connection on `fd` if it is still the one that had `serial`: work deferred to a
// later turn must not land on a successor that got the same descriptor number.
ControlServer::Connection* ControlServer::connectionOf(int fd, uint64_t serial) const {
   auto it = connections_.find(fd);
   return it != connections_.end() && it->second->serial == serial ? it->second.get() : nullptr;
}

void ControlServer::handleConnection(int fd) {
   auto it = connections_.find(fd);
   if (it != connections_.end())
      doServe(*it->second);
}

// Each pass either finishes sending the pending reply, answers one complete line, or
// reads more; replies are sent before the next line is read, which keeps a client that
// never reads from growing either buffer without bound.
void ControlServer::doServe(Connection& c) {
   int answered = 0;
   for (;;) {
      if (c.awaiting) {
         // Nothing is read meanwhile: a level-triggered watch would spin on unread input.
         doWatch(c, 0);
         return;
      }
      if (c.outSent < c.out.size()) {
         Io io = doWrite(c);
         if (io == Io::closed)
            return;
         if (io == Io::wait) {
            if (c.writeBlockedSince == 0) {
               c.writeBlockedSince = loop_.wheel().clock().now();
               // A client that stopped reading may make room for one that waits.
               if (waiting_)
                  loop_.post([this] { doAdmitWaiting(); });
            }
            doWatch(c, EPOLLOUT);
            return;
         }
         c.writeBlockedSince = 0;
         c.out.clear();
         c.outSent = 0;
         // Answered: this connection may make room for one that waits.
         if (waiting_ && c.in.empty())
            loop_.post([this] { doAdmitWaiting(); });
      }
      if (c.closeAfterReply) {
         doClose(c.socket.get());
         return;
      }
      auto nl = c.in.find('\n');
      if (nl != std::string::npos && nl <= kMaxControlLine) {
         if (answered == kRequestsPerTurn) {
            // The rest waits for the next turn, so other connections get theirs. Not by
            // waiting to be writable: a client that reads no replies would then hold its
            // slot with nothing marking it as one that does not read.
            const int fd = c.socket.get();
            const uint64_t serial = c.serial;
            doWatch(c, 0);
            loop_.post([this, fd, serial] {
               if (Connection* same = connectionOf(fd, serial))
                  doServe(*same);
            });
            return;
         }
         std::string_view line(c.in.data(), nl);
         if (!blank(line)) {
            std::optional<nlohmann::json> reply = doRequest(line, c.socket.get());
            if (reply)
               c.out = controlLine(*reply);
            else
               c.awaiting = true;
         }
         c.in.erase(0, nl + 1);
         ++answered;
         continue;
      }
      if (nl != std::string::npos || c.in.size() > kMaxControlLine) {
         TRACE(2, "control connection ", c.socket.get(), " sent an over-long line");
         c.out = controlLine(controlReplyError("request line longer than " +
                                               std::to_string(kMaxControlLine) + " bytes"));
         c.in.clear();
         c.closeAfterReply = true;
         continue;
      }
      if (c.peerDone) {
         if (c.in.empty()) {
            doClose(c.socket.get());
            return;
         }
         // A last request without its newline still deserves its reply.
         c.in += '\n';
         continue;
      }
      Io io = doRead(c);
      if (io == Io::closed)
         return;
      if (io == Io::wait) {
         doWatch(c, EPOLLIN);
         return;
      }
   }
}

ControlServer::Io ControlServer::doRead(Connection& c) {
   char chunk[kReadChunk];
   for (;;) {
      ssize_t n = ::recv(c.socket.get(), chunk, sizeof chunk, 0);
      if (n > 0) {
         c.in.append(chunk, static_cast<size_t>(n));
         c.lastActive = c.idle.wheel().clock().now();
         c.idle.armIn(idleTimeout_);
         return Io::progress;
      }
      if (n == 0) {
         c.peerDone = true;
         return Io::progress;
      }
      if (errno == EINTR)
         continue;
      if (errno == EAGAIN)
         return Io::wait;
      TRACE(3, "control connection ", c.socket.get(), " read failed: ", errnoText());
      doClose(c.socket.get());
      return Io::closed;
   }
}

ControlServer::Io ControlServer::doWrite(Connection& c) {
   switch (Platform::sendPending(c.socket.get(), c.out, c.outSent)) {
      case Platform::StreamSend::done:
         return Io::progress;
      case Platform::StreamSend::wait:
         return Io::wait;
      case Platform::StreamSend::failed:
         break;
   }
   // Typically EPIPE: the client left before its reply was complete.
   TRACE(3, "control connection ", c.socket.get(), " write failed: ", errnoText());
   doClose(c.socket.get());
   return Io::closed;
}

void ControlServer::doWatch(Connection& c, uint32_t events) {
   if (c.events == events)
      return;
   c.events = events;
   c.socket.eventsIs(events);
}

// With every slot taken, the connection silent for longest makes room, or else the one
// that has not read its replies for longest (a client pouring in requests without reading
// the answers holds its slot for nothing): an operator's command line always gets in
// unless all the others are in the middle of a request.
bool ControlServer::doEvictIdlest() {
   Connection* idlest = nullptr;
   Connection* deafest = nullptr;
   for (auto& [fd, c] : connections_) {
      // A request still in the socket counts too: a connection admitted a moment ago has
      // not been read yet, and closing it would reset an operator who just asked.
      int unread = 0;
      const bool busy = !c->in.empty() || c->outSent < c->out.size() || c->awaiting ||
                        (::ioctl(fd, FIONREAD, &unread) == 0 && unread > 0);
      if (!busy && (!idlest || c->lastActive < idlest->lastActive))
         idlest = c.get();
      if (c->writeBlockedSince > 0 && !c->awaiting &&
          (!deafest || c->writeBlockedSince < deafest->writeBlockedSince))
         deafest = c.get();
   }
   if (!idlest)
      idlest = deafest;
   if (!idlest)
      return false;
   TRACE(1, "control connection ", idlest->socket.get(), " closed to make room for a new one");
   doClose(idlest->socket.get());
   return true;
}

void ControlServer::doClose(int fd) {
   connections_.erase(fd);
   if (waiting_)
      loop_.post([this] { doAdmitWaiting(); });
   TRACE(3, "control connection ", fd, " closed");
}

std::optional<nlohmann::json> ControlServer::doRequest(std::string_view line, int fd) {
   nlohmann::json request;
   try {
      request = nlohmann::json::parse(line);
   } catch (const nlohmann::json::exception& e) {
      // Not only syntax: a number beyond a double's range is an out_of_range error.
      return controlReplyError("malformed JSON request: " + parseErrorText(e.what()));
   }
   if (!request.is_object())
      return controlReplyError("a request must be a JSON object");
   auto cmd = request.find("cmd");
   if (cmd == request.end() || !cmd->is_string())
      return controlReplyError("a request needs a string \"cmd\"");
   const auto& name = cmd->get_ref<const std::string&>();
   if (auto async = asyncHandlers_.find(name); async != asyncHandlers_.end()) {
      TRACE(4, "control command ", name);
      const uint64_t serial = connections_.at(fd)->serial;
      AsyncHandler handler = async->second;
      handler(request, [this, fd, serial](nlohmann::json reply) {
         Connection* waiting = connectionOf(fd, serial);
         if (!waiting || !waiting->awaiting)
            return;
         Connection& c = *waiting;
         c.awaiting = false;
         c.out = controlLine(reply);
         c.outSent = 0;
         doServe(c);
      });
      return std::nullopt;
   }
   auto it = handlers_.find(name);
   if (it == handlers_.end()) {
      std::set<std::string> names;
      for (const auto& [each, handler] : handlers_)
         names.insert(each);
      for (const auto& [each, handler] : asyncHandlers_)
         names.insert(each);
      std::string known;
      for (const std::string& each : names)
         known += (known.empty() ? "" : ", ") + each;
      return controlReplyError("unknown command \"" + name + "\" (known: " + known + ")");
   }
   TRACE(4, "control command ", name);
   // A copy: the handler may replace itself through handlerIs.
   Handler handler = it->second;
   try {
      return controlReplyOk(handler(request));
   } catch (const ControlError& e) {
      return controlReplyError(e.what());
   } catch (const std::exception& e) {
      // An operator's query must never take the relay down with it.
      TRACE(0, "control command ", name, " failed: ", e.what());
      return controlReplyError(std::string("internal error: ") + e.what());
   }
}

}  // namespace Frontend
