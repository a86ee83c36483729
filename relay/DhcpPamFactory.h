#pragma once

#include <memory>
#include <string>

#include "platform/linux/RouteSocket.h"
#include "platform/pam/EthDevPam.h"
#include "platform/pam/RawTxPam.h"
#include "platform/pam/UdpPam.h"

namespace Platform {
class EventLoop;
}

namespace Ip::Helper::DhcpRelay {

// Where the per-VRF socket machines get their sockets: the agent passes the Linux one,
// unit tests pass doubles, so the machines run without root or namespaces.
class DhcpPamFactory {
 public:
   virtual ~DhcpPamFactory() = default;
   virtual Platform::Ptr<Platform::UdpPam> udpPam(const std::string& name) = 0;
   virtual Platform::Ptr<Platform::RawTxPam> rawTxPam(const std::string& name) = 0;
   // A capture of the DHCP frames a device of the namespace receives.
   virtual Platform::Ptr<Platform::EthDevPam> ethDevPam(const std::string& device,
                                                        const std::string& nsName) = 0;
   // Null, with the reason in `error`, when the namespace cannot be reached.
   virtual std::unique_ptr<Platform::RouteSocket> routeSocket(const std::string& nsName,
                                                              std::string& error) = 0;
};

class LinuxDhcpPamFactory final : public DhcpPamFactory {
 public:
   explicit LinuxDhcpPamFactory(Platform::EventLoop& loop) : loop_(loop) {}
   Platform::Ptr<Platform::UdpPam> udpPam(const std::string& name) override;
   Platform::Ptr<Platform::RawTxPam> rawTxPam(const std::string& name) override;
   Platform::Ptr<Platform::EthDevPam> ethDevPam(const std::string& device,
                                                const std::string& nsName) override;
   std::unique_ptr<Platform::RouteSocket> routeSocket(const std::string& nsName,
                                                      std::string& error) override;

 private:
   Platform::EventLoop& loop_;
};

}  // namespace Ip::Helper::DhcpRelay
