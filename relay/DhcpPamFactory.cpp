#include "relay/DhcpPamFactory.h"

#include "codec/CaptureFilter.h"
#include "platform/pam/LinuxEthDevPam.h"
#include "platform/pam/LinuxRawTxPam.h"
#include "platform/pam/LinuxUdpPam.h"

namespace Ip::Helper::DhcpRelay {

Platform::Ptr<Platform::UdpPam> LinuxDhcpPamFactory::udpPam(const std::string& name) {
   return Platform::make<Platform::LinuxUdpPam>(name, loop_);
}

Platform::Ptr<Platform::RawTxPam> LinuxDhcpPamFactory::rawTxPam(const std::string& name) {
   return Platform::make<Platform::LinuxRawTxPam>(name);
}

Platform::Ptr<Platform::EthDevPam> LinuxDhcpPamFactory::ethDevPam(const std::string& device,
                                                                  const std::string& nsName) {
   return Platform::make<Platform::LinuxEthDevPam>(loop_, device, nsName,
                                                   Codec::dhcpCaptureFilter());
}

std::unique_ptr<Platform::RouteSocket> LinuxDhcpPamFactory::routeSocket(const std::string& nsName,
                                                                        std::string& error) {
   return Platform::RouteSocket::open(nsName, error);
}

}  // namespace Ip::Helper::DhcpRelay
