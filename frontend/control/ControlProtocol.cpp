#include "frontend/control/ControlProtocol.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace Frontend {

nlohmann::json controlReplyOk(nlohmann::json data) {
   return {{"ok", true}, {"data", std::move(data)}};
}

nlohmann::json controlReplyError(const std::string& message) {
   return {{"ok", false}, {"error", message}};
}

std::string controlLine(const nlohmann::json& message) {
   std::string line = message.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
   line += '\n';
   return line;
}

const std::string& requestString(const nlohmann::json& request, const char* key) {
   auto it = request.find(key);
   if (it == request.end() || !it->is_string())
      throw ControlError(std::string("request needs a string \"") + key + "\"");
   return it->get_ref<const std::string&>();
}

bool ControlClient::connect(const std::string& path, std::string& error) {
   sockaddr_un addr{};
   addr.sun_family = AF_UNIX;
   if (path.size() >= sizeof addr.sun_path) {
      error = std::strerror(ENAMETOOLONG);
      return false;
   }
   std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
   Platform::Fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
   if (!fd) {
      error = std::strerror(errno);
      return false;
   }
   timeval limit{timeoutSeconds_, 0};
   ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
   ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
   if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) < 0) {
      error = std::strerror(errno);
      return false;
   }
   fd_ = std::move(fd);
   return true;
}

std::optional<nlohmann::json> ControlClient::request(const nlohmann::json& request,
                                                     std::string& error) {
   auto failed = [&](const std::string& what) -> std::optional<nlohmann::json> {
      error = what;
      return std::nullopt;
   };
   if (!fd_)
      return failed("not connected");
   std::string line = controlLine(request);
   for (size_t sent = 0; sent < line.size();) {
      ssize_t n = ::send(fd_.get(), line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
      if (n < 0) {
         if (errno == EINTR)
            continue;
         if (errno == EAGAIN)
            return failed("the agent does not accept the request");
         return failed(std::strerror(errno));
      }
      sent += static_cast<size_t>(n);
   }
   for (;;) {
      auto nl = pending_.find('\n');
      if (nl != std::string::npos) {
         std::string reply = pending_.substr(0, nl);
         pending_.erase(0, nl + 1);
         auto parsed = nlohmann::json::parse(reply, nullptr, false);
         if (parsed.is_discarded() || !parsed.is_object())
            return failed("the agent sent a reply that is not a JSON object");
         return parsed;
      }
      char chunk[16384];
      ssize_t n = ::recv(fd_.get(), chunk, sizeof chunk, 0);
      if (n < 0) {
         if (errno == EINTR)
            continue;
         if (errno == EAGAIN)
            return failed("no reply within " + std::to_string(timeoutSeconds_) + " seconds");
         return failed(std::strerror(errno));
      }
      if (n == 0)
         return failed("the agent closed the connection without replying");
      pending_.append(chunk, static_cast<size_t>(n));
   }
}

}  // namespace Frontend
