// dhcp-loadgen: the client end of bench/relay_load.sh. On one client link it plays
// many DHCP clients at once, each sending DHCPDISCOVERs as a booting client does
// (raw Ethernet frames from 0.0.0.0:68 to 255.255.255.255:67, broadcast flag set,
// its own MAC, a random xid), keeps a bounded window of them outstanding and
// matches the DHCPOFFERs that come back on the same link by chaddr and xid.
//
//   dhcp-loadgen --dev DEV [--duration S] [--window N] [--clients N]
//                [--timeout-ms T] [--drain-ms D] [--until-answered 1]
//
// Sends for S seconds, waits D ms for late offers, then prints one line of figures
// (key=value) that the script parses. With --until-answered it stops at the first
// offer instead, which is how bench/startup_scale.sh sees the relay at work; its exit
// status is then 0 only if an offer came.
#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "codec/Frame.h"
#include "platform/linux/Fd.h"

namespace {

using Platform::Pkt;
using Platform::Ptr;

constexpr size_t kBootp = Codec::kUdp4FrameHeaders;
// BOOTP fixed header offsets (RFC 2131, section 2).
constexpr size_t kOp = 0, kXid = 4, kFlags = 10, kChaddr = 28, kCookie = 236, kOptions = 240;
constexpr uint8_t kMagic[4] = {99, 130, 83, 99};
// RFC 2131 section 2: a BOOTP message is at least 300 bytes on the wire.
constexpr size_t kBootpLen = 300;
// Locally administered, unicast; the last three bytes number the simulated client.
constexpr uint8_t kMacPrefix[3] = {0x02, 0x4c, 0x47};
constexpr uint32_t kMaxClients = 1u << 24;

struct Options {
   std::string dev;
   double duration = 5;
   uint32_t window = 64;
   uint32_t clients = 65536;
   uint32_t timeoutMs = 1000;
   uint32_t drainMs = 1000;
   bool untilAnswered = false;
};

uint64_t nowNs() {
   timespec t;
   clock_gettime(CLOCK_MONOTONIC, &t);
   return static_cast<uint64_t>(t.tv_sec) * 1000000000u + static_cast<uint64_t>(t.tv_nsec);
}

// The DISCOVER every client sends, from 0.0.0.0:68 to 255.255.255.255:67; only the source
// MAC, chaddr and the xid change per send.
Ptr<Pkt> buildTemplate() {
   Ptr<Pkt> frame = Pkt::create(kBootpLen, kBootp, 0);
   uint8_t* b = frame->data();
   b[kOp] = 1;  // BOOTREQUEST
   b[1] = 1;    // Ethernet
   b[2] = 6;
   b[kFlags] = 0x80;  // RFC 2131 4.1: the broadcast bit, the client has no address yet
   std::memcpy(&b[kCookie], kMagic, 4);
   const uint8_t opts[] = {53, 1, 1,            // DHCPDISCOVER
                           55, 4, 1, 3, 6, 51,  // mask, router, DNS, lease time
                           255};
   std::memcpy(&b[kOptions], opts, sizeof opts);
   Codec::prependUdp4Frame(*frame,
                           {.dstMac = Platform::EthAddr({0xff, 0xff, 0xff, 0xff, 0xff, 0xff}),
                            .dstIp = Platform::IpAddr::broadcast(),
                            .srcPort = 68,
                            .dstPort = 67});
   return frame;
}

// The UDP checksum covers chaddr and xid: the headers are fixed again after each change.
void setClient(Pkt& frame, const Codec::FrameLayout& at, uint32_t client, uint32_t xid) {
   uint8_t* f = frame.data();
   uint8_t mac[6] = {kMacPrefix[0],
                     kMacPrefix[1],
                     kMacPrefix[2],
                     static_cast<uint8_t>(client >> 16),
                     static_cast<uint8_t>(client >> 8),
                     static_cast<uint8_t>(client)};
   std::memcpy(f + Codec::EthLayout::src, mac, 6);
   std::memcpy(f + kBootp + kChaddr, mac, 6);
   uint32_t netXid = htonl(xid);
   std::memcpy(f + kBootp + kXid, &netXid, 4);
   Codec::fixUdpFrame(frame.span(), at);
}

// The client index and xid of a DHCPOFFER for one of our clients, from a captured
// frame; false for anything else on the link.
bool parseOffer(std::span<const uint8_t> frame, uint32_t& client, uint32_t& xid) {
   const Codec::FrameLayout at = Codec::locateFrame(frame);
   if (!at || at.ipv6 || at.dstPort != 68 || at.payloadBytes < kOptions)
      return false;
   const uint8_t* b = frame.data() + at.payload;
   if (b[kOp] != 2 || std::memcmp(&b[kCookie], kMagic, 4) != 0)
      return false;
   if (std::memcmp(&b[kChaddr], kMacPrefix, 3) != 0)
      return false;
   size_t blen = at.payloadBytes;
   int msgType = -1;
   for (size_t i = kOptions; i < blen;) {
      uint8_t code = b[i++];
      if (code == 0)
         continue;
      if (code == 255 || i >= blen || i + 1 + b[i] > blen)
         break;
      if (code == 53 && b[i] == 1)
         msgType = b[i + 1];
      i += 1 + b[i];
   }
   if (msgType != 2)
      return false;
   client = (b[kChaddr + 3] << 16) | (b[kChaddr + 4] << 8) | b[kChaddr + 5];
   uint32_t netXid;
   std::memcpy(&netXid, &b[kXid], 4);
   xid = ntohl(netXid);
   return true;
}

struct Client {
   uint64_t sentNs = 0;
   uint32_t xid = 0;
   bool pending = false;
};

// One send, in send order: the oldest leads the expiry of the window.
struct Sent {
   uint32_t client;
   uint32_t xid;
};

struct Figures {
   uint64_t sent = 0;
   uint64_t answered = 0;
   uint64_t late = 0;  // answered after its timeout freed the window slot
   uint64_t stray = 0;
   uint64_t sendFailed = 0;
};

class Load {
 public:
   Load(const Options& o, int fd, int ifindex)
       : o_(o),
         fd_(fd),
         ifindex_(ifindex),
         clients_(o.clients),
         ring_(o.clients),
         frame_(buildTemplate()),
         frameLayout_(Codec::locateFrame(frame_->span())) {
      uint64_t seed;
      if (getrandom(&seed, sizeof seed, 0) != sizeof seed)
         seed = nowNs();
      rng_.seed(seed);
      // Enough for every answer at 1M exchanges/s; more are counted, not timed.
      latencies_.reserve(static_cast<size_t>(o.duration * 1e6) + 1024);
   }

   void run() {
      uint64_t start = nowNs();
      uint64_t stopSending = start + static_cast<uint64_t>(o_.duration * 1e9);
      uint64_t stopAll = stopSending + uint64_t{o_.drainMs} * 1000000u;
      for (uint64_t now = start; now < stopAll; now = nowNs()) {
         expire(now);
         if (o_.untilAnswered && f_.answered > 0) {
            stopSending = now;
            break;
         }
         if (now < stopSending) {
            fill(now);
         } else if (inWindow_ == 0 && !timedOut_) {
            break;  // everything answered: nothing late left to wait for
         }
         pollfd pfd{fd_, POLLIN, 0};
         poll(&pfd, 1, 1);
         receive();
      }
      elapsed_ = (stopSending - start) / 1e9;
   }

   bool answered() const { return f_.answered > 0; }

   void report() {
      double p50 = 0, p99 = 0, max = 0;
      if (!latencies_.empty()) {
         auto at = [&](double q) {
            size_t k = std::min(latencies_.size() - 1, static_cast<size_t>(q * latencies_.size()));
            std::nth_element(latencies_.begin(), latencies_.begin() + k, latencies_.end());
            return latencies_[k] / 1000.0;
         };
         p50 = at(0.50);
         p99 = at(0.99);
         max = *std::max_element(latencies_.begin(), latencies_.end()) / 1000.0;
      }
      uint64_t lost = f_.sent - f_.answered;
      std::printf(
          "sent=%llu answered=%llu lost=%llu loss_pct=%.3f late=%llu stray=%llu send_failed=%llu "
          "duration_s=%.2f exchanges_per_s=%.0f p50_us=%.1f p99_us=%.1f max_us=%.1f window=%u "
          "clients=%u\n",
          static_cast<unsigned long long>(f_.sent), static_cast<unsigned long long>(f_.answered),
          static_cast<unsigned long long>(lost), f_.sent ? 100.0 * lost / f_.sent : 0.0,
          static_cast<unsigned long long>(f_.late), static_cast<unsigned long long>(f_.stray),
          static_cast<unsigned long long>(f_.sendFailed), elapsed_, f_.answered / elapsed_, p50,
          p99, max, o_.window, o_.clients);
   }

 private:
   void fill(uint64_t now) {
      while (inWindow_ < o_.window && ringSize_ < ring_.size()) {
         Client& c = clients_[next_];
         if (c.pending)
            return;  // every client is busy: the window is wider than the clients
         uint32_t xid = static_cast<uint32_t>(rng_());
         setClient(*frame_, frameLayout_, next_, xid);
         sockaddr_ll to{};
         to.sll_family = AF_PACKET;
         to.sll_protocol = htons(ETH_P_IP);
         to.sll_ifindex = ifindex_;
         to.sll_halen = 6;
         std::memset(to.sll_addr, 0xff, 6);
         if (sendto(fd_, frame_->data(), frame_->bytes(), 0, reinterpret_cast<sockaddr*>(&to),
                    sizeof to) < 0) {
            ++f_.sendFailed;
            return;  // the device queue is full: try again after the next poll
         }
         c = {now, xid, true};
         ring_[(ringHead_ + ringSize_++) % ring_.size()] = {next_, xid};
         ++inWindow_;
         ++f_.sent;
         next_ = (next_ + 1) % o_.clients;
      }
   }

   // Frees the window slots of sends that have waited longer than the timeout; a
   // late offer for one still counts as answered (loss is counted after the drain).
   void expire(uint64_t now) {
      uint64_t timeoutNs = uint64_t{o_.timeoutMs} * 1000000u;
      while (ringSize_ > 0) {
         Sent s = ring_[ringHead_];
         Client& c = clients_[s.client];
         bool open = c.pending && c.xid == s.xid;
         if (open && now - c.sentNs < timeoutNs)
            return;
         if (open) {
            c.pending = false;
            timedOut_ = true;
            --inWindow_;
            expiredXid(s.client) = s.xid;
         }
         ringHead_ = (ringHead_ + 1) % ring_.size();
         --ringSize_;
      }
   }

   void receive() {
      for (;;) {
         ssize_t n = recv(fd_, rx_, sizeof rx_, MSG_DONTWAIT);
         if (n < 0)
            return;
         uint32_t client, xid;
         if (!parseOffer({rx_, static_cast<size_t>(n)}, client, xid))
            continue;
         uint64_t now = nowNs();
         if (client >= o_.clients) {
            ++f_.stray;
            continue;
         }
         Client& c = clients_[client];
         if (c.pending && c.xid == xid) {
            c.pending = false;
            --inWindow_;
            ++f_.answered;
            if (latencies_.size() < latencies_.capacity())
               latencies_.push_back(static_cast<uint32_t>(now - c.sentNs));
         } else if (timedOut_ && expiredXid(client) == xid) {
            expiredXid(client) = 0;
            ++f_.answered;
            ++f_.late;
         } else {
            ++f_.stray;  // a duplicate, or an xid this run never sent
         }
      }
   }

   // The xid whose timeout freed a client's slot; allocated on the first timeout.
   uint32_t& expiredXid(uint32_t client) {
      if (expired_.empty())
         expired_.resize(o_.clients);
      return expired_[client];
   }

   const Options& o_;
   int fd_;
   int ifindex_;
   std::vector<Client> clients_;
   std::vector<Sent> ring_;
   std::vector<uint32_t> expired_;
   std::vector<uint32_t> latencies_;  // ns; below the timeout (at most 4 s)
   size_t ringHead_ = 0, ringSize_ = 0;
   uint32_t inWindow_ = 0;
   uint32_t next_ = 0;
   bool timedOut_ = false;
   std::mt19937_64 rng_;
   Figures f_;
   double elapsed_ = 0;
   Ptr<Pkt> frame_;
   Codec::FrameLayout frameLayout_;
   alignas(8) uint8_t rx_[2048];
};

int usage(const char* argv0) {
   std::fprintf(stderr,
                "usage: %s --dev DEV [--duration S] [--window N] [--clients N] "
                "[--timeout-ms T] [--drain-ms D] [--until-answered 1]\n",
                argv0);
   return 2;
}

}  // namespace

int main(int argc, char** argv) {
   Options o;
   for (int i = 1; i < argc; ++i) {
      std::string_view arg = argv[i];
      if (i + 1 >= argc)
         return usage(argv[0]);
      const char* v = argv[++i];
      if (arg == "--dev") {
         o.dev = v;
      } else if (arg == "--duration") {
         o.duration = std::atof(v);
      } else if (arg == "--window") {
         o.window = static_cast<uint32_t>(std::atoi(v));
      } else if (arg == "--clients") {
         o.clients = static_cast<uint32_t>(std::atoi(v));
      } else if (arg == "--timeout-ms") {
         o.timeoutMs = static_cast<uint32_t>(std::atoi(v));
      } else if (arg == "--drain-ms") {
         o.drainMs = static_cast<uint32_t>(std::atoi(v));
      } else if (arg == "--until-answered") {
         o.untilAnswered = std::atoi(v) != 0;
      } else {
         return usage(argv[0]);
      }
   }
   if (o.dev.empty() || o.duration <= 0 || o.duration > 600 || o.window == 0 ||
       o.clients < o.window || o.clients > kMaxClients || o.drainMs > 60000 || o.timeoutMs == 0 ||
       o.timeoutMs > 4000) {
      return usage(argv[0]);
   }
   int ifindex = static_cast<int>(if_nametoindex(o.dev.c_str()));
   if (ifindex == 0) {
      std::perror(o.dev.c_str());
      return 1;
   }
   // One packet socket sends the DISCOVERs and captures the OFFERs; it must not see
   // its own frames again (PACKET_IGNORE_OUTGOING, Linux 4.20).
   const Platform::Fd fd(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_IP)));
   if (!fd) {
      std::perror("socket(AF_PACKET)");
      return 1;
   }
   int one = 1;
   if (setsockopt(fd.get(), SOL_PACKET, PACKET_IGNORE_OUTGOING, &one, sizeof one) < 0) {
      std::perror("PACKET_IGNORE_OUTGOING");
      return 1;
   }
   int buf = 8 << 20;
   setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUFFORCE, &buf, sizeof buf);
   setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUFFORCE, &buf, sizeof buf);
   sockaddr_ll at{};
   at.sll_family = AF_PACKET;
   at.sll_protocol = htons(ETH_P_IP);
   at.sll_ifindex = ifindex;
   if (bind(fd.get(), reinterpret_cast<sockaddr*>(&at), sizeof at) < 0) {
      std::perror("bind");
      return 1;
   }
   bool answered = false;
   {
      Load load(o, fd.get(), ifindex);
      load.run();
      load.report();
      answered = load.answered();
   }
   return o.untilAnswered && !answered ? 1 : 0;
}
