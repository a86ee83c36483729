#pragma once

// What dhcp-reflector's loop needs of a protocol: the port it serves and the answer to one
// request datagram. The loop (ReflectorLoop.cpp) owns the socket, the counts and stopping,
// the same for both.

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace Bench {

// What became of a request, counted per kind.
enum class Outcome : uint8_t { answered, malformed, otherType, unanswerable, sendFailed, count };
constexpr size_t kOutcomes = static_cast<size_t>(Outcome::count);

struct Request {
   std::span<const uint8_t> bytes;
   sockaddr_storage from{};
   in_addr to{};  // IPv4: the address it was sent to (IP_PKTINFO)
};

struct Answer {
   std::span<const uint8_t> bytes;  // valid until the next request
   sockaddr_storage to{};
   socklen_t toLength = 0;
};

class Reflection {
 public:
   virtual ~Reflection() = default;

   virtual int family() const = 0;
   virtual uint16_t port() const = 0;
   // How the closing line names each outcome's count.
   virtual std::array<const char*, kOutcomes> outcomeNames() const = 0;
   // `answer` is filled in when the outcome is `answered`.
   virtual Outcome answer(const Request& request, Answer& answer) = 0;
};

std::unique_ptr<Reflection> makeDhcp4Reflection();
std::unique_ptr<Reflection> makeDhcp6Reflection();

// Serves until SIGINT/SIGTERM or `maxSeconds`, then prints the counts; the exit status.
int runReflector(Reflection& reflection, int maxSeconds);

}  // namespace Bench
