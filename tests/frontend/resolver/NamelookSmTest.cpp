#include "frontend/resolver/NamelookSm.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/loop/WatchedFd.h"
#include "tests/support/NetnsFixture.h"

namespace Frontend {
namespace {

using namespace Platform;
using namespace Namelook;

IpAddr ip(const char* text) {
   return *IpAddr::parse(text);
}

// A DNS server on 127.0.0.1 answering A queries from a table the test changes: NXDOMAIN
// for names not in it, or SERVFAIL / silence for everything when told so.
class DnsResponder {
 public:
   enum class Mode { Answer, ServFail, Silent };

   // On an ephemeral port unless told one.
   explicit DnsResponder(EventLoop& loop, IpAddr address = IpAddr(0x7f000001), uint16_t port = 0) {
      Fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
      sockaddr_in addr{};
      addr.sin_family = AF_INET;
      addr.sin_addr.s_addr = address.toNetwork();
      addr.sin_port = htons(port);
      socklen_t len = sizeof addr;
      if (bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
          getsockname(fd.get(), reinterpret_cast<sockaddr*>(&addr), &len) != 0)
         ADD_FAILURE() << "cannot bind the DNS responder";
      port_ = ntohs(addr.sin_port);
      fd_ = WatchedFd(loop, std::move(fd), EPOLLIN, [this](uint32_t) { handleQuery(); });
   }

   std::string server() const { return "127.0.0.1:" + std::to_string(port_); }
   uint16_t port() const { return port_; }
   // Answered with a TTL of 1 s, which the machine's bounds shorten.
   void answerIs(const std::string& name, std::set<IpAddr> address) {
      answer_[name] = std::move(address);
   }
   void answerDel(const std::string& name) { answer_.erase(name); }
   void modeIs(Mode mode) { mode_ = mode; }
   int queries(const std::string& name) const {
      auto it = queries_.find(name);
      return it == queries_.end() ? 0 : it->second;
   }

 private:
   void handleQuery() {
      std::array<uint8_t, 512> q;
      sockaddr_in peer{};
      socklen_t peerLen = sizeof peer;
      const ssize_t got =
          recvfrom(fd_.get(), q.data(), q.size(), 0, reinterpret_cast<sockaddr*>(&peer), &peerLen);
      const size_t n = got < 0 ? 0 : static_cast<size_t>(got);
      // The question: labels from offset 12, then type and class.
      std::string name;
      size_t pos = 12;
      while (pos < n && q[pos] != 0) {
         for (size_t len = q[pos++]; len > 0 && pos < n; --len)
            name += static_cast<char>(std::tolower(q[pos++]));
         name += '.';
      }
      if (name.empty() || pos + 5 > n)
         return;
      name.pop_back();
      ++queries_[name];
      const auto it = answer_.find(name);
      if (mode_ == Mode::Silent)
         return;
      const uint8_t rcode = mode_ == Mode::ServFail ? 2 : it == answer_.end() ? 3 : 0;
      const size_t count = rcode == 0 ? it->second.size() : 0;
      std::vector<uint8_t> r(q.begin(), q.begin() + static_cast<ptrdiff_t>(pos + 5));
      r[2] = 0x84 | (q[2] & 0x01);  // response, authoritative, recursion desired as asked
      r[3] = 0x80 | rcode;          // recursion available
      r[6] = 0;
      r[7] = static_cast<uint8_t>(count);
      r[8] = r[9] = r[10] = r[11] = 0;
      auto put = [&r](uint64_t v, int bytes) {
         while (bytes--)
            r.push_back(static_cast<uint8_t>(v >> (8 * bytes)));
      };
      // Each answer: a pointer to the question's name, type A, class IN, TTL 1, length 4, the
      // address.
      for (size_t i = 0; i < count; ++i) {
         put(0xc00c000100010000, 8);
         put(0x00010004, 4);
         put(std::next(it->second.begin(), static_cast<ptrdiff_t>(i))->value(), 4);
      }
      sendto(fd_.get(), r.data(), r.size(), 0, reinterpret_cast<sockaddr*>(&peer), peerLen);
   }

   WatchedFd fd_;
   uint16_t port_ = 0;
   Mode mode_ = Mode::Answer;
   std::map<std::string, std::set<IpAddr>> answer_;
   std::map<std::string, int> queries_;
};

// What a reader of the records sees, one line per notification: "<name> +" / "<name> -" for
// a record created or deleted, "+<addr>" / "-<addr>" for an address gained or lost.
class RecordLog : public ResolutionRecordDir::Reactor {
 public:
   explicit RecordLog(const Ptr<const ResolutionRecordDir>& dir) { notifierIs(dir); }
   void handleRecord(const std::string& hostname) override {
      if (Ptr<ResolutionRecord> record = notifier()->record(hostname)) {
         lines.push_back(hostname + " +");
         records_[hostname] = std::make_unique<AddressLog>(*this, record);
      } else {
         lines.push_back(hostname + " -");
         records_.erase(hostname);
      }
   }

   std::vector<std::string> lines;

 private:
   class AddressLog : public ResolutionRecord::Reactor {
    public:
      AddressLog(RecordLog& log, const Ptr<ResolutionRecord>& record) : log_(log) {
         notifierIs(record);
      }
      void handleIpAddress(IpAddr a) override {
         log_.lines.push_back((notifier()->ipAddress().contains(a) ? "+" : "-") + a.toString());
      }

    private:
      RecordLog& log_;
   };

   std::map<std::string, std::unique_ptr<AddressLog>> records_;
};

class NamelookSmTest : public TestNet::LoopTest {
 protected:
   // Small delays so that every refresh, retry and timeout happens within a second.
   NamelookSm::Options options() const {
      return {.dns = {.servers = dns_.server(), .queryTimeout = 0.1, .tries = 1},
              .ttlMin = 0.1,
              .ttlMax = 0.2,
              .retryMin = 0.05,
              .retryMax = 0.2,
              .hostsFileRecheck = 0.2};
   }
   void start(const std::optional<NamelookSm::Options>& o = std::nullopt) {
      sm_ = std::make_unique<NamelookSm>(records_, requests_, loop_, wheel_, o ? *o : options());
      sm_->handleInitialized();
   }

   void turnFor(double seconds) {
      const double limit = clock_.now() + seconds;
      while (clock_.now() < limit)
         loop_.runOnce(20);
   }

   std::set<IpAddr> addresses(const std::string& name) const {
      const Ptr<ResolutionRecord> record = records_->record(name);
      return record ? record->ipAddress() : std::set<IpAddr>{};
   }

   DnsResponder dns_{loop_};
   Ptr<ResolutionRecordDir> records_ = make<ResolutionRecordDir>("records");
   Ptr<ResolutionRequestDir> requests_ = make<ResolutionRequestDir>("requests");
   RecordLog log_{records_};
   std::unique_ptr<NamelookSm> sm_;
};

TEST_F(NamelookSmTest, ARequestFollowsChangedAnswersAddressByAddressUntilItGoes) {
   const std::string name = "dhcp1.example.test";
   dns_.answerIs(name, {ip("10.0.0.1"), ip("10.0.0.2")});
   start();
   requests_->requestIs(name, 1);
   ASSERT_TRUE(turnUntil([&] { return addresses(name).size() == 2; }));
   EXPECT_EQ(log_.lines, (std::vector<std::string>{name + " +", "+10.0.0.1", "+10.0.0.2"}));

   // The same answer again changes nothing; a second user of the name neither.
   log_.lines.clear();
   int queries = dns_.queries(name);
   requests_->requestIs(name, 2);
   ASSERT_TRUE(turnUntil([&] { return dns_.queries(name) >= queries + 2; }));
   EXPECT_TRUE(log_.lines.empty());

   // The new address comes before the old one goes: the name never has none.
   dns_.answerIs(name, {ip("10.0.0.2"), ip("10.0.0.3")});
   ASSERT_TRUE(turnUntil([&] { return !addresses(name).contains(ip("10.0.0.1")); }));
   EXPECT_EQ(log_.lines, (std::vector<std::string>{"+10.0.0.3", "-10.0.0.1"}));

   // Nothing is asked or armed for a name nobody wants: no timer is left on the wheel.
   requests_->requestDel(name);
   EXPECT_EQ(records_->record(name), nullptr);
   queries = dns_.queries(name);
   turnFor(0.5);
   EXPECT_EQ(dns_.queries(name), queries);
   EXPECT_EQ(wheel_.armedCount(), 0u);

   // An answer to a lookup of a name dropped while the lookup was in flight is ignored.
   requests_->requestIs(name, 1);
   requests_->requestDel(name);
   ASSERT_TRUE(turnUntil([&] { return dns_.queries(name) == queries + 1; }));
   turnFor(0.1);
   EXPECT_EQ(records_->record(name), nullptr);
   EXPECT_EQ(wheel_.armedCount(), 0u);
}

// A name that does not exist has no record and is asked again with back-off; a failed
// lookup keeps the addresses last known.
TEST_F(NamelookSmTest, NonexistentNamesLoseTheirRecordFailedLookupsKeepIt) {
   const std::string name = "later.example.test";
   start();
   requests_->requestIs(name, 1);
   ASSERT_TRUE(turnUntil([&] { return dns_.queries(name) >= 3; }));
   EXPECT_EQ(records_->record(name), nullptr);

   dns_.answerIs(name, {ip("10.0.1.1")});
   ASSERT_TRUE(turnUntil([&] { return records_->record(name) != nullptr; }));
   log_.lines.clear();

   dns_.modeIs(DnsResponder::Mode::ServFail);
   int queries = dns_.queries(name);
   ASSERT_TRUE(turnUntil([&] { return dns_.queries(name) >= queries + 3; }));
   // A second query only goes out once the first one has timed out.
   dns_.modeIs(DnsResponder::Mode::Silent);
   queries = dns_.queries(name);
   ASSERT_TRUE(turnUntil([&] { return dns_.queries(name) >= queries + 2; }));
   EXPECT_TRUE(log_.lines.empty());

   dns_.answerIs(name, {ip("10.0.1.2")});
   dns_.modeIs(DnsResponder::Mode::Answer);
   ASSERT_TRUE(turnUntil([&] { return addresses(name) == std::set<IpAddr>{ip("10.0.1.2")}; }));
   // A name that stops existing loses its addresses one by one, then its record.
   dns_.answerDel(name);
   ASSERT_TRUE(turnUntil([&] { return records_->record(name) == nullptr; }));
   EXPECT_EQ(log_.lines,
             (std::vector<std::string>{"+10.0.1.2", "-10.0.1.1", "-10.0.1.2", name + " -"}));
}

// Requests made before start-up are resolved then, and records nobody requests go. Every
// system's hosts file lists localhost, which DNS here would answer otherwise: the hosts file
// answers first, at once, and is rechecked without asking DNS.
TEST_F(NamelookSmTest, StartUpResolvesWhatIsRequestedTheHostsFileFirst) {
   const std::string name = "early.example.test";
   dns_.answerIs(name, {ip("10.0.5.1")});
   dns_.answerIs("localhost", {ip("10.0.4.1")});
   requests_->requestIs(name, 1);
   requests_->requestIs("localhost", 1);
   records_->recordIs("stale.example.test")->ipAddressIs(ip("10.0.5.9"));

   sm_ = std::make_unique<NamelookSm>(records_, requests_, loop_, wheel_, options());
   turnFor(0.1);
   EXPECT_EQ(dns_.queries(name), 0);

   sm_->handleInitialized();
   EXPECT_EQ(addresses("localhost"), std::set<IpAddr>{ip("127.0.0.1")});
   ASSERT_TRUE(turnUntil([&] { return records_->record(name) != nullptr; }));
   turnFor(0.5);
   EXPECT_EQ(dns_.queries("localhost"), 0);
   // The stale record loses its address before it goes.
   EXPECT_EQ(log_.lines, (std::vector<std::string>{"stale.example.test +", "+10.0.5.9", "-10.0.5.9",
                                                   "stale.example.test -", "localhost +",
                                                   "+127.0.0.1", name + " +", "+10.0.5.1"}));
}

TEST_F(NamelookSmTest, AChangedResolverConfigurationIsReadBeforeTheNextLookup) {
   // Two servers on one port, told apart by address: the configuration names one of them.
   DnsResponder other(loop_, ip("127.0.0.2"), dns_.port());
   const std::string name = "moved.example.test";
   dns_.answerIs(name, {ip("10.0.4.1")});
   other.answerIs(name, {ip("10.0.4.2")});
   const std::string conf = testing::TempDir() + "resolv-" + std::to_string(::getpid());
   auto write = [&](const char* server) {
      // Replaced as the tools that manage it do: a new file renamed over the old one.
      std::ofstream(conf + ".new") << "nameserver " << server << "\n";
      ASSERT_EQ(std::rename((conf + ".new").c_str(), conf.c_str()), 0);
   };
   write("127.0.0.1");
   NamelookSm::Options o = options();
   o.dns = {
       .servers = "", .queryTimeout = 0.1, .tries = 1, .resolvConf = conf, .port = dns_.port()};
   start(o);
   requests_->requestIs(name, 1);
   ASSERT_TRUE(turnUntil([&] { return addresses(name) == std::set<IpAddr>{ip("10.0.4.1")}; }));

   write("127.0.0.2");
   ASSERT_TRUE(turnUntil([&] { return addresses(name) == std::set<IpAddr>{ip("10.0.4.2")}; }));
   EXPECT_GT(other.queries(name), 0);
   std::remove(conf.c_str());
}

}  // namespace
}  // namespace Frontend
