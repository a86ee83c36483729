#include "frontend/metrics/HttpExchange.h"

#include <algorithm>

namespace Frontend {

namespace {

constexpr std::string_view kMetricsPath = "/metrics";
constexpr std::string_view kMetricsType = "text/plain; version=0.0.4; charset=utf-8";

std::string response(std::string_view status, std::string_view type, std::string_view body,
                     bool withBody = true, std::string_view extra = {}) {
   std::string out = "HTTP/1.1 ";
   out.append(status).append("\r\nContent-Type: ").append(type);
   out.append("\r\nContent-Length: ").append(std::to_string(body.size()));
   out.append("\r\nConnection: close\r\n").append(extra).append("\r\n");
   if (withBody)
      out.append(body);
   return out;
}

std::string plain(std::string_view status, std::string_view extra = {}) {
   return response(status, "text/plain; charset=utf-8", std::string(status) + "\n", true, extra);
}

// Where the head ends (just past its blank line), or npos. Lines end in CRLF, or in a bare
// LF as lenient servers accept.
size_t headEnd(std::string_view in) {
   for (size_t nl = in.find('\n'); nl != std::string_view::npos; nl = in.find('\n', nl + 1)) {
      if (nl + 1 < in.size() && in[nl + 1] == '\n')
         return nl + 2;
      if (nl + 2 < in.size() && in[nl + 1] == '\r' && in[nl + 2] == '\n')
         return nl + 3;
   }
   return std::string_view::npos;
}

std::string_view lineAt(std::string_view head, size_t& pos) {
   const size_t nl = head.find('\n', pos);
   std::string_view line = head.substr(pos, nl - pos);
   pos = nl + 1;
   if (line.ends_with('\r'))
      line.remove_suffix(1);
   return line;
}

bool isToken(std::string_view s) {
   return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) {
      return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
             std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
   });
}

bool isTarget(std::string_view s) {
   return s.starts_with('/') &&
          std::all_of(s.begin(), s.end(), [](char c) { return c > ' ' && c < 0x7f; });
}

// Header lines are not interpreted, only checked to be header lines: "name: value".
bool headerLinesOk(std::string_view head, size_t pos) {
   for (std::string_view line = lineAt(head, pos); !line.empty(); line = lineAt(head, pos)) {
      const size_t colon = line.find(':');
      if (colon == std::string_view::npos || !isToken(line.substr(0, colon)))
         return false;
   }
   return true;
}

}  // namespace

std::optional<std::string> httpAnswer(std::string_view received,
                                      const std::function<std::string()>& metrics) {
   const size_t end = headEnd(received.substr(0, kMaxRequestHead));
   if (end == std::string_view::npos) {
      if (received.size() < kMaxRequestHead)
         return std::nullopt;
      return plain("431 Request Header Fields Too Large");
   }
   const std::string_view head = received.substr(0, end);
   size_t pos = 0;
   const std::string_view line = lineAt(head, pos);
   const size_t sp1 = line.find(' ');
   const size_t sp2 = line.find(' ', sp1 + 1);
   if (sp1 == std::string_view::npos || sp2 == std::string_view::npos)
      return plain("400 Bad Request");
   const std::string_view method = line.substr(0, sp1);
   const std::string_view target = line.substr(sp1 + 1, sp2 - sp1 - 1);
   const std::string_view version = line.substr(sp2 + 1);
   const bool versionOk = version.size() == 8 && version.starts_with("HTTP/1.") &&
                          version[7] >= '0' && version[7] <= '9';
   if (!isToken(method) || !isTarget(target) || !versionOk || !headerLinesOk(head, pos))
      return plain("400 Bad Request");
   if (method != "GET" && method != "HEAD")
      return plain("405 Method Not Allowed", "Allow: GET, HEAD\r\n");
   if (target.substr(0, target.find('?')) != kMetricsPath)
      return plain("404 Not Found");
   return response("200 OK", kMetricsType, metrics(), method == "GET");
}

}  // namespace Frontend
