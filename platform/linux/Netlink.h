#pragma once

#include <libmnl/libmnl.h>
#include <linux/netlink.h>
#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "platform/addr/IpGenAddr.h"
#include "platform/linux/Fd.h"

namespace Platform {

// The kernel never builds a netlink datagram larger than this (dump buffers are capped
// at 32 KiB), so a receive into a buffer of this size is never truncated.
inline constexpr size_t kNetlinkBufferSize = 32768;

// A NETLINK_ROUTE socket created inside one network namespace. It belongs to that
// namespace for its whole life: later requests and notifications concern that namespace's
// devices and routes, whichever namespace the thread is in.
class NetlinkSocket {
 public:
   // groups: RTMGRP_* bits to receive notifications of. "" and "default" are the
   // agent's own namespace.
   static std::unique_ptr<NetlinkSocket> open(const std::string& nsName, uint32_t groups,
                                              bool nonBlocking, std::string& error);

   int fd() const { return fd_.get(); }
   // The port the kernel gave the socket; its answers are addressed to it.
   uint32_t portId() const { return portId_; }
   uint32_t nextSeq() { return ++seq_; }

   bool send(const nlmsghdr* nlh, std::string& error);
   // One datagram: its size; 0 when it did not come from the kernel (dropped: any
   // local process may send to a netlink port); -errno on failure, where -EAGAIN is
   // "nothing to read", -EMSGSIZE a truncated datagram and -ENOBUFS "the kernel
   // dropped messages for this socket".
   ssize_t receive(std::span<uint8_t> buffer);

   // SO_RCVBUFFORCE, which only CAP_NET_ADMIN may use; else SO_RCVBUF, which the
   // kernel caps at net.core.rmem_max.
   void receiveBufferIs(int bytes);
   bool netlinkOptionIs(int option, int value, std::string& error);

 private:
   NetlinkSocket(Fd fd, uint32_t portId) : fd_(std::move(fd)), portId_(portId) {}

   Fd fd_;
   uint32_t portId_;
   uint32_t seq_ = 0;
};

// Calls f(const nlmsghdr*) for each whole message of a received datagram.
template <class F>
void forEachNetlinkMessage(std::span<const uint8_t> data, F&& f) {
   int remaining = static_cast<int>(data.size());
   auto* nlh = reinterpret_cast<const nlmsghdr*>(data.data());
   while (mnl_nlmsg_ok(nlh, remaining)) {
      f(nlh);
      nlh = mnl_nlmsg_next(nlh, &remaining);
   }
}

// The family header (ifinfomsg, ifaddrmsg, rtmsg, ...) of a message, or null when the
// message is too short to hold one.
template <class T>
const T* netlinkHeader(const nlmsghdr* nlh) {
   if (mnl_nlmsg_get_payload_len(nlh) < sizeof(T))
      return nullptr;
   return static_cast<const T*>(mnl_nlmsg_get_payload(nlh));
}

// The attributes that follow a family header of `headerSize` bytes, indexed by type;
// types of N and above are left out. Malformed trailing bytes end the walk.
template <size_t N>
std::array<const nlattr*, N> netlinkAttrs(const nlmsghdr* nlh, size_t headerSize) {
   std::array<const nlattr*, N> table{};
   auto* attr = static_cast<const nlattr*>(mnl_nlmsg_get_payload_offset(nlh, headerSize));
   const auto* tail = static_cast<const char*>(mnl_nlmsg_get_payload_tail(nlh));
   while (mnl_attr_ok(attr, static_cast<int>(tail - reinterpret_cast<const char*>(attr)))) {
      const uint16_t type = mnl_attr_get_type(attr);
      if (type < N)
         table[type] = attr;
      attr = mnl_attr_next(attr);
   }
   return table;
}

// Typed reads that refuse an attribute of the wrong size.
std::optional<uint32_t> netlinkU32(const nlattr* attr);
// An address of `family` (AF_INET or AF_INET6).
std::optional<IpGenAddr> netlinkAddr(const nlattr* attr, int family);
// A NUL-terminated string attribute.
std::optional<std::string_view> netlinkString(const nlattr* attr);

// NLMSG_ERROR: the errno it carries (0 for an acknowledgement; EPROTO when malformed),
// and its text, with the kernel's own explanation when it gave one (extended ack).
int netlinkErrno(const nlmsghdr* nlh);
std::string netlinkErrorText(const nlmsghdr* nlh);

}  // namespace Platform
