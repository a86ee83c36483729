#include "platform/pam/LinuxRawTxPam.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "platform/linux/NetNs.h"
#include "platform/trace/Trace.h"

namespace Platform {

bool LinuxRawTxPam::doOpen(std::string& error) {
   fd_ = socketIn(netNs(), AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, error);
   return bool(fd_);
}

void LinuxRawTxPam::doClose() {
   fd_.reset();
}

RawTxPam::SendResult LinuxRawTxPam::doSend(uint32_t ifindex, const Pkt& frame) {
   // A SOCK_RAW send takes the frame as it is; the address only names the device and the
   // protocol the kernel files the frame under.
   sockaddr_ll addr{};
   addr.sll_family = AF_PACKET;
   addr.sll_protocol = htons(ethProtocol());
   addr.sll_ifindex = static_cast<int>(ifindex);
   const ssize_t n = ::sendto(fd_.get(), frame.data(), frame.bytes(), 0,
                              reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
   if (n == static_cast<ssize_t>(frame.bytes()))
      return SendResult::sent;
   const int err = n < 0 ? errno : EMSGSIZE;
   const bool full = err == EAGAIN || err == EWOULDBLOCK || err == ENOBUFS;
   TRACE(5, name(), full ? " dropped " : " cannot send ", frame.bytes(), " bytes on ifindex ",
         ifindex, ": ", std::strerror(err));
   return full ? SendResult::dropped : SendResult::failed;
}

}  // namespace Platform
