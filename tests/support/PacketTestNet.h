#pragma once

// Two network namespaces of the test's own joined by a veth pair, and a plain AF_PACKET
// socket to play the far end, for tests of the agent's packet sockets.

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/loop/WatchedFd.h"
#include "tests/support/NetnsFixture.h"

namespace Platform::PacketTest {

using Bytes = std::vector<uint8_t>;

using TestNet::ifindexOf;
using TestNet::ip;

// The far end: bound to one device, it keeps every frame the device receives (not the ones
// it sends) and sends frames as they are.
class PeerSocket {
 public:
   PeerSocket(EventLoop& loop, const std::string& ns, const std::string& device) {
      std::string error;
      Fd fd =
          socketIn(ns, AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, htons(ETH_P_ALL), error);
      sockaddr_ll addr{};
      addr.sll_family = AF_PACKET;
      addr.sll_protocol = htons(ETH_P_ALL);
      addr.sll_ifindex = static_cast<int>(ifindexOf(ns, device));
      if (fd && ::bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0)
         socket_ = WatchedFd(loop, std::move(fd), EPOLLIN, [this](uint32_t) { handleReadable(); });
   }
   PeerSocket(const PeerSocket&) = delete;
   PeerSocket& operator=(const PeerSocket&) = delete;

   bool ok() const { return bool(socket_); }
   bool send(std::span<const uint8_t> frame) {
      return ::send(socket_.get(), frame.data(), frame.size(), 0) ==
             static_cast<ssize_t>(frame.size());
   }
   bool received(const Bytes& frame) const {
      return std::find(frames_.begin(), frames_.end(), frame) != frames_.end();
   }
   const std::vector<Bytes>& frames() const { return frames_; }

 private:
   void handleReadable() {
      uint8_t buf[4096];
      sockaddr_ll from{};
      socklen_t len = sizeof from;
      ssize_t n;
      while ((n = ::recvfrom(socket_.get(), buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from),
                             &len)) >= 0) {
         if (from.sll_pkttype != PACKET_OUTGOING)
            frames_.emplace_back(buf, buf + n);
         len = sizeof from;
      }
   }

   WatchedFd socket_;
   std::vector<Bytes> frames_;
};

// Namespaces A and B joined by veth a0 (in A) and b0 (in B), both up. Everything the test
// creates lives inside them and goes with them.
class VethTest : public TestNet::NetnsTest {
 protected:
   void SetUp() override {
      NetnsTest::SetUp();
      if (IsSkipped())
         return;
      nsA_ = nsAdd("a");
      nsB_ = nsAdd("b");
      ASSERT_EQ(ip("-n " + nsA_ + " link add a0 address 02:00:00:00:00:0a type veth peer name b0" +
                   " address 02:00:00:00:00:0b netns " + nsB_),
                0);
      ASSERT_EQ(ip("-n " + nsA_ + " link set a0 up"), 0);
      ASSERT_EQ(ip("-n " + nsB_ + " link set b0 up"), 0);
      ifindexA_ = ifindexOf(nsA_, "a0");
      ASSERT_NE(ifindexA_, 0u);
   }

   std::string nsA_;
   std::string nsB_;
   uint32_t ifindexA_ = 0;
};

}  // namespace Platform::PacketTest
