#include "platform/linux/Netlink.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "platform/linux/NetNs.h"

namespace Platform {

namespace {

std::string errnoText(const std::string& what, int err) {
   return what + ": " + std::strerror(err);
}

std::string nsText(const std::string& nsName) {
   return isOwnNetNs(nsName) ? std::string("the default namespace") : "namespace " + nsName;
}

}  // namespace

std::unique_ptr<NetlinkSocket> NetlinkSocket::open(const std::string& nsName, uint32_t groups,
                                                   bool nonBlocking, std::string& error) {
   error.clear();
   Fd fd = socketIn(nsName, AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | (nonBlocking ? SOCK_NONBLOCK : 0),
                    NETLINK_ROUTE, error);
   if (!fd)
      return nullptr;
   // Port 0 lets the kernel pick a free one, read back below.
   sockaddr_nl local{};
   local.nl_family = AF_NETLINK;
   local.nl_groups = groups;
   socklen_t len = sizeof local;
   if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&local), sizeof local) < 0 ||
       ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&local), &len) < 0) {
      error = errnoText("cannot bind a netlink socket in " + nsText(nsName), errno);
      return nullptr;
   }
   return std::unique_ptr<NetlinkSocket>(new NetlinkSocket(std::move(fd), local.nl_pid));
}

bool NetlinkSocket::send(const nlmsghdr* nlh, std::string& error) {
   sockaddr_nl kernel{};
   kernel.nl_family = AF_NETLINK;
   if (::sendto(fd(), nlh, nlh->nlmsg_len, 0, reinterpret_cast<const sockaddr*>(&kernel),
                sizeof kernel) < 0) {
      error = errnoText("cannot send a netlink request", errno);
      return false;
   }
   return true;
}

ssize_t NetlinkSocket::receive(std::span<uint8_t> buffer) {
   sockaddr_nl from{};
   iovec iov{buffer.data(), buffer.size()};
   msghdr msg{};
   msg.msg_name = &from;
   msg.msg_namelen = sizeof(from);
   msg.msg_iov = &iov;
   msg.msg_iovlen = 1;
   ssize_t n = ::recvmsg(fd(), &msg, 0);
   if (n < 0)
      return -errno;
   if (msg.msg_flags & MSG_TRUNC)
      return -EMSGSIZE;
   if (msg.msg_namelen != sizeof(from) || from.nl_pid != 0)
      return 0;
   return n;
}

void NetlinkSocket::receiveBufferIs(int bytes) {
   if (::setsockopt(fd(), SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof(bytes)) < 0)
      ::setsockopt(fd(), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes));
}

bool NetlinkSocket::netlinkOptionIs(int option, int value, std::string& error) {
   if (::setsockopt(fd(), SOL_NETLINK, option, &value, sizeof(value)) < 0) {
      error = errnoText("cannot set netlink socket option " + std::to_string(option), errno);
      return false;
   }
   return true;
}

std::optional<uint32_t> netlinkU32(const nlattr* attr) {
   if (!attr || mnl_attr_get_payload_len(attr) != sizeof(uint32_t))
      return std::nullopt;
   return mnl_attr_get_u32(attr);
}

std::optional<IpGenAddr> netlinkAddr(const nlattr* attr, int family) {
   if (!attr)
      return std::nullopt;
   const void* payload = mnl_attr_get_payload(attr);
   const uint16_t len = mnl_attr_get_payload_len(attr);
   if (family == AF_INET && len == 4) {
      uint32_t networkOrder;
      std::memcpy(&networkOrder, payload, 4);
      return IpGenAddr(IpAddr::fromNetwork(networkOrder));
   }
   if (family == AF_INET6 && len == 16) {
      Ip6Addr::Bytes bytes;
      std::memcpy(bytes.data(), payload, 16);
      return IpGenAddr(Ip6Addr(bytes));
   }
   return std::nullopt;
}

std::optional<std::string_view> netlinkString(const nlattr* attr) {
   if (!attr || mnl_attr_validate(attr, MNL_TYPE_NUL_STRING) < 0)
      return std::nullopt;
   return std::string_view(mnl_attr_get_str(attr));
}

int netlinkErrno(const nlmsghdr* nlh) {
   const auto* err = netlinkHeader<nlmsgerr>(nlh);
   if (!err)
      return EPROTO;
   return std::abs(err->error);
}

std::string netlinkErrorText(const nlmsghdr* nlh) {
   const auto* err = netlinkHeader<nlmsgerr>(nlh);
   if (!err)
      return "malformed netlink error message";
   std::string text = std::strerror(std::abs(err->error));
   if (!(nlh->nlmsg_flags & NLM_F_ACK_TLVS))
      return text;
   // The attributes follow the echoed request, which a capped ack leaves out.
   size_t offset = sizeof(nlmsgerr);
   if (!(nlh->nlmsg_flags & NLM_F_CAPPED) && err->msg.nlmsg_len >= sizeof(nlmsghdr))
      offset += err->msg.nlmsg_len - sizeof(nlmsghdr);
   if (MNL_ALIGN(offset) >= mnl_nlmsg_get_payload_len(nlh))
      return text;
   auto attrs = netlinkAttrs<NLMSGERR_ATTR_MSG + 1>(nlh, offset);
   if (auto msg = netlinkString(attrs[NLMSGERR_ATTR_MSG]); msg && !msg->empty())
      text += " (" + std::string(*msg) + ")";
   return text;
}

}  // namespace Platform
