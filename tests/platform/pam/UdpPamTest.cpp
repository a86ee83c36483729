#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <tuple>
#include <vector>

#include "codec/Frame.h"
#include "platform/packet/ByteCursor.h"
#include "platform/packet/PktPool.h"
#include "platform/pam/LinuxUdpPam.h"
#include "platform/pam/UdpTestPam.h"
#include "tests/support/PacketTestNet.h"

namespace Platform {
namespace {

using PacketTest::Bytes;

IpGenAddr v4(const char* text) {
   return *IpAddr::parse(text);
}

Ip6Addr v6(const char* text) {
   return *Ip6Addr::parse(text);
}

// Datagram `seq` of a test: its number in the first two bytes.
Bytes numbered(size_t seq, size_t size = 40) {
   Bytes b(size, 0xab);
   b[0] = static_cast<uint8_t>(seq >> 8);
   b[1] = static_cast<uint8_t>(seq);
   return b;
}

size_t seqOf(const UdpDatagram& d) {
   return size_t{*d.pkt->at(0)} << 8 | *d.pkt->at(1);
}

Bytes bytesOf(const Pkt& pkt) {
   return {pkt.span().begin(), pkt.span().end()};
}

// Watches a socket the way the relay does: one datagram per notification, unless told to
// leave them queued.
class Consumer : public UdpPam::Reactor {
 public:
   explicit Consumer(const Ptr<UdpPam>& pam) : pam_(pam.get()) { notifierIs(pam); }

   void handleReadableCount() override {
      ++notifications;
      if (onNotify)
         onNotify();
      if (taking && pam_)
         if (auto d = pam_->rxPkt())
            got.push_back(std::move(*d));
   }
   void handleActive() override { activeSeen.push_back(notifier()->active()); }

   UdpPam* pam_;
   bool taking = true;
   std::function<void()> onNotify;
   size_t notifications = 0;
   std::vector<UdpDatagram> got;
   std::vector<bool> activeSeen;
};

// ---- The double, and through it what both objects share.

class UdpTestPamTest : public testing::Test {
 protected:
   static UdpDatagram datagram(size_t seq, size_t size = 40) {
      return {Pkt::copyOf(numbered(seq, size)), v4("10.0.0.9"), 68, IpAddr::broadcast(), 7};
   }

   Ptr<UdpTestPam> pam_ = make<UdpTestPam>("UdpSocket-red");
   Consumer consumer_{pam_};
};

TEST_F(UdpTestPamTest, InjectedDatagramsGoThroughTheQueueLikeReceivedOnes) {
   EXPECT_FALSE(pam_->inject(datagram(0))) << "a closed socket receives nothing";
   pam_->modeIs(UdpPam::modeOpen);
   consumer_.taking = false;
   for (size_t i = 0; i < UdpPam::kRxQueueCapacity; ++i)
      ASSERT_TRUE(pam_->inject(datagram(i)));
   EXPECT_FALSE(pam_->inject(datagram(999)));
   EXPECT_EQ(pam_->rxDropped(), 1u);
   EXPECT_EQ(pam_->readableCount(), UdpPam::kRxQueueCapacity);
   EXPECT_EQ(seqOf(*pam_->rxPkt()), 0u);
   pam_->maxRxPayloadIs(39);
   EXPECT_FALSE(pam_->inject(datagram(1, 40)));
   EXPECT_EQ(pam_->rxTruncated(), 1u);

   // A handler may drop the last reference to the socket while it is being announced.
   UdpTestPam* const raw = pam_.get();
   consumer_.onNotify = [&] {
      consumer_.notifierIs(nullptr);
      consumer_.pam_ = nullptr;
      pam_.reset();
   };
   raw->maxRxPayloadIs(1500);
   raw->inject(datagram(1));
   EXPECT_EQ(consumer_.notifications, UdpPam::kRxQueueCapacity + 1);
}

// What the double records is what the relay's tests read; here, that it refuses a send the
// kernel would refuse: on a closed socket, to or from an address of the other family.
TEST_F(UdpTestPamTest, RefusesWhatTheKernelWould) {
   const Ptr<Pkt> payload = Pkt::copyOf(numbered(3));
   pam_->txDstAddrIs(IpAddr::broadcast());
   pam_->txSrcAddrIs(v4("10.1.1.1"));
   EXPECT_FALSE(pam_->send(*payload));
   pam_->modeIs(UdpPam::modeOpen);
   ASSERT_TRUE(pam_->send(*payload));
   pam_->txDstAddrIs(v6("2001:db8::1"));
   EXPECT_FALSE(pam_->send(*payload));
   pam_->txDstAddrIs(v4("192.0.2.10"));
   pam_->txSrcAddrIs(v6("2001:db8::2"));
   EXPECT_FALSE(pam_->send(*payload));
   EXPECT_EQ(pam_->sent().size(), 1u);
   EXPECT_EQ(pam_->txFailed(), 3u);
}

TEST_F(UdpTestPamTest, SettingsThatPlaceTheSocketReopenIt) {
   pam_->netNsIs("red");
   pam_->modeIs(UdpPam::modeOpen);
   consumer_.taking = false;
   ASSERT_TRUE(pam_->inject(datagram(1)));
   pam_->rxPortIs(1067);
   EXPECT_EQ(consumer_.activeSeen, (std::vector<bool>{true, false, true}));
   EXPECT_FALSE(pam_->rxPkt()) << "what the old socket had queued went with it";

   // Live settings, and the own namespace under its other name, leave the socket alone.
   pam_->netNsIs("");
   consumer_.activeSeen.clear();
   pam_->txTosIs(32);
   pam_->maxRxPayloadIs(9000);
   pam_->netNsIs("default");
   EXPECT_TRUE(consumer_.activeSeen.empty());

   // A bind address of the other family cannot open; fixing the family opens it.
   pam_->rxAddrIs(v6("2001:db8::1"));
   EXPECT_FALSE(pam_->active());
   EXPECT_EQ(pam_->error(), "receive address 2001:db8::1 is not IPv4");
   pam_->ipv6Is(true);
   EXPECT_TRUE(pam_->active());
   EXPECT_TRUE(pam_->error().empty());
}

// ---- The kernel socket, between the namespaces of PacketTest::VethTest.

class LinuxUdpPamTest : public PacketTest::VethTest {
 protected:
   void TearDown() override {
      consumers_.clear();
      pams_.clear();
      VethTest::TearDown();
   }

   void sh(const std::string& ipArgs) { ASSERT_EQ(PacketTest::ip(ipArgs), 0) << ipArgs; }

   Ptr<LinuxUdpPam> pam(bool ipv6, uint16_t port, const std::string& ns = {}) {
      auto p = make<LinuxUdpPam>("UdpSocket", loop_);
      p->netNsIs(ns.empty() ? nsA_ : ns);
      p->ipv6Is(ipv6);
      p->rxPortIs(port);
      p->modeIs(UdpPam::modeOpen);
      EXPECT_TRUE(p->active()) << p->error();
      pams_.push_back(p);
      consumers_.push_back(std::make_unique<Consumer>(p));
      return p;
   }
   Consumer& consumer(size_t i) { return *consumers_.at(i); }

   // Loopback traffic from a second socket in namespace A, to port 6767.
   Ptr<LinuxUdpPam> loopbackSender() {
      sh("-n " + nsA_ + " link set lo up");
      auto tx = pam(false, 6768);
      tx->txDstAddrIs(v4("127.0.0.1"));
      tx->txPortIs(6767);
      return tx;
   }

   void turns(int n) {
      for (int i = 0; i < n; ++i)
         loop_.runOnce(0);
   }

   std::vector<std::unique_ptr<Consumer>> consumers_;
   std::vector<Ptr<LinuxUdpPam>> pams_;
};

// Each send as the far end's devices saw it, the kernel's word and not the agent's.
TEST_F(LinuxUdpPamTest, SendsFromTheChosenAddressWithTheChosenTosAndDevice) {
   sh("-n " + nsA_ + " link add a1 type veth peer name b1 netns " + nsB_);
   for (const auto& [ns, dev, addr] : {std::tuple{nsA_, "a0", "10.77.0.1/24"},
                                       {nsA_, "a0", "10.77.0.2/24"},
                                       {nsB_, "b0", "10.77.0.9/24"},
                                       {nsA_, "a1", "10.78.0.1/24"},
                                       {nsB_, "b1", "10.78.0.9/24"}}) {
      sh("-n " + ns + " addr add " + addr + " dev " + dev);
      sh("-n " + ns + " link set " + dev + " up");
   }
   pam(false, 6700, nsB_);  // so that the far end has no port unreachable to answer
   PacketTest::PeerSocket b0(loop_, nsB_, "b0"), b1(loop_, nsB_, "b1");
   ASSERT_TRUE(b0.ok() && b1.ok());
   auto seen = [](const PacketTest::PeerSocket& peer) {
      std::string out;
      for (const Bytes& f : peer.frames()) {
         const Codec::FrameLayout at = Codec::locateFrame(f);
         if (!at || at.dstPort != 6700)
            continue;
         auto addr = [&](size_t off) {
            return IpAddr(*ByteReader(std::span(f).subspan(at.l3 + off, 4)).read32()).toString();
         };
         out += addr(Codec::Ipv4Layout::src) + ":" + std::to_string(at.srcPort) + " > " +
                addr(Codec::Ipv4Layout::dst) + " tos " +
                std::to_string(f[at.l3 + Codec::Ipv4Layout::tos]) + "; ";
      }
      return out;
   };
   auto sock = pam(false, 6767);
   sock->txPortIs(6700);
   const struct {
      const char *src, *dst;
      uint8_t tos;
      bool viaA1;
      const char *b0, *b1;  // what each far device has seen by then; b0 null: refused
   } cases[] = {
       {"10.77.0.2", "10.77.0.9", 46 << 2, false, "10.77.0.2:6767 > 10.77.0.9 tos 184; ", ""},
       // The kernel's choice of source, and TOS back to zero, on the open socket.
       {"", "10.77.0.9", 0, false, "10.77.0.1:6767 > 10.77.0.9 tos 0; ", ""},
       // A limited broadcast leaves by the device asked for, from that device's address.
       {"", "255.255.255.255", 0, true, "", "10.78.0.1:6767 > 255.255.255.255 tos 0; "},
       // The kernel refuses a source the namespace does not own.
       {"10.77.0.50", "10.77.0.9", 0, false, nullptr, ""},
   };
   std::string b0Seen, b1Seen;
   for (const auto& c : cases) {
      SCOPED_TRACE(c.dst);
      sock->txSrcAddrIs(*IpGenAddr::parse(c.src));
      sock->txDstAddrIs(v4(c.dst));
      sock->txTosIs(c.tos);
      sock->txIfindexIs(c.viaA1 ? PacketTest::ifindexOf(nsA_, "a1") : 0);
      EXPECT_EQ(sock->send(*Pkt::copyOf(numbered(1, 120))), c.b0 != nullptr);
      if (!c.b0)
         continue;
      b0Seen += c.b0;
      b1Seen += c.b1;
      EXPECT_TRUE(turnUntil([&] { return seen(b0) == b0Seen && seen(b1) == b1Seen; }))
          << seen(b0) << "| " << seen(b1);
   }
   EXPECT_EQ(sock->txFailed(), 1u);
}

TEST_F(LinuxUdpPamTest, Ipv6LinkLocalAndMulticast) {
   sh("-n " + nsA_ + " addr add fe80::1/64 dev a0 nodad");
   // The kernel's own pick for fe80::2 (longest match), so fe80::1 must be asked for.
   sh("-n " + nsA_ + " addr add fe80::3/64 dev a0 nodad");
   sh("-n " + nsB_ + " addr add fe80::2/64 dev b0 nodad");
   auto relay = pam(true, 547);
   auto client = pam(true, 546, nsB_);
   client->txPortIs(547);
   client->txIfindexIs(PacketTest::ifindexOf(nsB_, "b0"));
   const Consumer& c = consumer(0);
   auto sendTo = [&](const char* dst, size_t seq) {
      client->txDstAddrIs(v6(dst));
      ASSERT_TRUE(client->send(*Pkt::copyOf(numbered(seq))));
   };

   sendTo("fe80::1", 1);
   ASSERT_TRUE(turnUntil([&] { return c.got.size() == 1; }));
   EXPECT_EQ(c.got[0].src.toString() + " " + std::to_string(c.got[0].srcPort), "fe80::2 546");
   EXPECT_EQ(c.got[0].dst.toString(), "fe80::1");
   EXPECT_EQ(c.got[0].ifindex, ifindexA_);

   // To the group: delivered only between join and leave. A unicast datagram follows each
   // on the same link, so its arrival shows the group one had its chance.
   const Ip6Addr group = v6("ff02::1:2");
   auto groupThenUnicast = [&](size_t seq, size_t expect) {
      sendTo("ff02::1:2", seq);
      sendTo("fe80::1", seq + 1);
      ASSERT_TRUE(turnUntil([&] { return seqOf(c.got.back()) == seq + 1; }));
      EXPECT_EQ(c.got.size(), expect);
   };
   groupThenUnicast(10, 2);
   // Only an IPv6 socket joins, and only a group.
   std::string error;
   EXPECT_FALSE(pam(false, 67)->mcastGroupIs(ifindexA_, group, true, error));
   EXPECT_FALSE(relay->mcastGroupIs(ifindexA_, v6("fe80::1"), true, error));
   ASSERT_TRUE(relay->mcastGroupIs(ifindexA_, group, true, error)) << error;
   groupThenUnicast(20, 4);
   EXPECT_EQ(c.got[2].dst.toString(), "ff02::1:2");
   EXPECT_EQ(c.got[2].ifindex, ifindexA_);
   ASSERT_TRUE(relay->mcastGroupIs(ifindexA_, group, false, error)) << error;
   groupThenUnicast(30, 5);

   // The reply goes to a link-local address out of the device named, from the source named.
   relay->txDstAddrIs(v6("fe80::2"));
   relay->txPortIs(546);
   relay->txIfindexIs(ifindexA_);
   relay->txSrcAddrIs(v6("fe80::1"));
   ASSERT_TRUE(relay->send(*Pkt::copyOf(numbered(40))));
   ASSERT_TRUE(turnUntil([&] { return !consumer(1).got.empty(); }));
   EXPECT_EQ(consumer(1).got[0].src.toString(), "fe80::1");
   EXPECT_EQ(seqOf(consumer(1).got[0]), 40u);
}

TEST_F(LinuxUdpPamTest, ABurstIsAnnouncedOneDatagramAtATime) {
   auto tx = loopbackSender();
   auto sock = pam(false, 6767);
   Consumer& c = consumer(1);
   auto burst = [&](size_t first, size_t n) {
      for (size_t i = first; i < first + n; ++i)
         ASSERT_TRUE(tx->send(*Pkt::copyOf(numbered(i))));
   };
   burst(0, 50);
   ASSERT_TRUE(turnUntil([&] { return c.got.size() == 50; }));
   turns(3);
   EXPECT_EQ(c.notifications, 50u);
   EXPECT_EQ(sock->readableCount(), 50u);
   for (size_t i = 0; i < 50; ++i)
      EXPECT_EQ(seqOf(c.got[i]), i);

   // Once the consumer lets go of its packets, the next burst reuses them.
   c.got.clear();
   const uint64_t created = sock->pktPool().created();
   burst(50, 50);
   ASSERT_TRUE(turnUntil([&] { return c.got.size() == 50; }));
   EXPECT_EQ(sock->pktPool().created(), created);

   // A datagram longer than the maximum is dropped, never announced; the limit applies to
   // the open socket from the next datagram on.
   c.got.clear();
   sock->maxRxPayloadIs(200);
   tx->send(*Pkt::copyOf(numbered(100, 201)));
   tx->send(*Pkt::copyOf(numbered(101, 200)));
   ASSERT_TRUE(turnUntil([&] { return !c.got.empty(); }));
   turns(3);
   ASSERT_EQ(c.got.size(), 1u);
   EXPECT_EQ(bytesOf(*c.got[0].pkt), numbered(101, 200));
   EXPECT_EQ(sock->rxTruncated(), 1u);
   EXPECT_EQ(sock->readableCount(), 101u);
   sock->maxRxPayloadIs(2000);
   tx->send(*Pkt::copyOf(numbered(102, 1800)));
   ASSERT_TRUE(turnUntil([&] { return c.got.size() == 2; }));
   EXPECT_EQ(bytesOf(*c.got[1].pkt), numbered(102, 1800));

   // A consumer that takes nothing does not spin the loop. Sent more than the queue holds,
   // reading stops while it is full.
   c.got.clear();
   c.taking = false;
   const size_t notified = c.notifications;
   const size_t total = UdpPam::kRxQueueCapacity + 36;
   burst(0, total);
   ASSERT_TRUE(turnUntil([&] { return c.notifications > notified; }));
   turns(100);
   EXPECT_LE(c.notifications, notified + 4);
   const double before = clock_.now();
   loop_.runOnce(50);
   EXPECT_GE(clock_.now() - before, 0.045) << "an idle turn waits out its timeout";

   // Nothing is lost or reordered; taking makes room and reading resumes.
   std::vector<size_t> seqs;
   while (auto d = sock->rxPkt())
      seqs.push_back(seqOf(*d));
   EXPECT_EQ(seqs.size(), UdpPam::kRxQueueCapacity);
   c.taking = true;
   ASSERT_TRUE(turnUntil([&] { return seqs.size() + c.got.size() == total; }));
   for (const auto& d : c.got)
      seqs.push_back(seqOf(d));
   for (size_t i = 0; i < total; ++i)
      EXPECT_EQ(seqs[i], i);
}

// Answers each datagram from its handler with a `done`, as the relay does; datagram 3 goes
// where there is no route.
struct Echo : UdpPam::Reactor, UdpPam::SendDone {
   explicit Echo(const Ptr<LinuxUdpPam>& pam) : pam_(pam) { notifierIs(pam); }
   void handleReadableCount() override {
      auto d = pam_->rxPkt();
      if (!d)
         return;
      pam_->txDstAddrIs(seqOf(*d) == 3 ? v4("203.0.113.1") : v4("127.0.0.1"));
      pam_->txPortIs(6768);
      queued.push_back(pam_->send(*d->pkt, this, static_cast<uint32_t>(seqOf(*d))));
      outcomes.push_back(done.size());  // what had been heard while the batch was open
   }
   void handleSendDone(uint32_t cookie, bool sent) override { done.emplace_back(cookie, sent); }
   Ptr<LinuxUdpPam> pam_;
   std::vector<bool> queued;
   std::vector<size_t> outcomes;
   std::vector<std::pair<uint32_t, bool>> done;
};

TEST_F(LinuxUdpPamTest, SendsMadeWhileAnnouncingLeaveTogetherAfterwards) {
   auto tx = loopbackSender();
   Consumer& back = consumer(0);
   auto sock = pam(false, 6767);
   consumers_.pop_back();  // the echo takes the datagrams
   Echo echo(sock);
   for (size_t i = 0; i < 6; ++i)
      ASSERT_TRUE(tx->send(*Pkt::copyOf(numbered(i))));
   ASSERT_TRUE(turnUntil([&] { return back.got.size() == 5; }));
   turns(3);
   // Queued, each one heard of only once the announcements were over, in order; the one
   // without a route failed alone.
   EXPECT_EQ(echo.queued, std::vector<bool>(6, true));
   EXPECT_EQ(echo.outcomes, std::vector<size_t>(6, 0));
   const std::vector<std::pair<uint32_t, bool>> done{{0, true},  {1, true}, {2, true},
                                                     {3, false}, {4, true}, {5, true}};
   EXPECT_EQ(echo.done, done);
   std::vector<size_t> seqs;
   for (const auto& d : back.got)
      seqs.push_back(seqOf(d));
   EXPECT_EQ(seqs, (std::vector<size_t>{0, 1, 2, 4, 5}));
   EXPECT_EQ(sock->txDatagrams(), 5u);
}

// Without SO_REUSEADDR a bind fails on a taken port: that shows where the socket is.
TEST_F(LinuxUdpPamTest, OpensInItsNamespaceOnly) {
   sockaddr_in any{};
   any.sin_family = AF_INET;
   auto bindsIn = [&](const std::string& ns) {
      std::string error;
      const Fd fd = socketIn(ns, AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0, error);
      socklen_t len = sizeof any;
      const bool ok = ::bind(fd.get(), reinterpret_cast<sockaddr*>(&any), len) == 0;
      ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&any), &len);
      return ok;
   };
   ASSERT_TRUE(bindsIn(""));  // a port free in the agent's own namespace
   const uint16_t port = ntohs(any.sin_port);

   auto sock = make<LinuxUdpPam>("UdpSocket-missing", loop_);
   sock->netNsIs(nsA_ + "-missing");
   sock->rxPortIs(port);
   sock->modeIs(UdpPam::modeOpen);
   EXPECT_FALSE(sock->active());
   EXPECT_NE(sock->error().find("/run/netns/" + nsA_ + "-missing"), std::string::npos)
       << sock->error();

   sock->netNsIs(nsA_);
   ASSERT_TRUE(sock->active()) << sock->error();
   EXPECT_FALSE(bindsIn(nsA_));
   EXPECT_TRUE(bindsIn(""));
   sock->modeIs(UdpPam::modeClosed);
   EXPECT_TRUE(bindsIn(nsA_));

   sock->rxAddrIs(v4("192.0.2.77"));
   sock->modeIs(UdpPam::modeOpen);
   EXPECT_EQ(sock->error(),
             "bind 192.0.2.77 port " + std::to_string(port) + ": " + std::strerror(EADDRNOTAVAIL));
}

}  // namespace
}  // namespace Platform
