#include "platform/trace/Trace.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iomanip>
#include <optional>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "platform/addr/EthAddr.h"
#include "platform/addr/IntfId.h"
#include "platform/addr/Ip6Addr.h"
#include "platform/addr/IpAddr.h"
#include "platform/addr/IpGenAddr.h"
#include "platform/trace/TraceRing.h"

namespace TraceTestSubjects {

struct Address {
   std::string toString() const { return "10.0.0.1"; }
};

struct Port {
   int number;
};
std::string toString(const Port& p) {
   return "port " + std::to_string(p.number);
}

enum class Color : uint8_t { Red = 1, Blue = 7 };

struct Counted {
   int* calls;
   std::string toString() const {
      ++*calls;
      return "counted";
   }
};

struct RelaySm {
   void handleReadable(int n) { TRACE(5, "count ", n, " from ", Address{}); }
   static void doPlain() { TRACE_PLAIN(2, "plain ", 7); }
   static void doCounted(int level, int* calls) { TRACE(level, Counted{calls}); }
};

template <int N>
void traceFromSite() {
   TRACE(3, "site ", N);
}

template <int... N>
void traceFromSites(std::integer_sequence<int, N...>) {
   (traceFromSite<N>(), ...);
}

}  // namespace TraceTestSubjects

namespace Platform {
namespace {

using namespace TraceTestSubjects;

constexpr const char* kVariables[] = {"DHCP_RELAY_TRACE", "DHCP_RELAY_TRACE_FILE",
                                      "BLIPJET_DISABLE",  "BLIPJETDIR",
                                      "BLIPJETSIZE",      "BLIPJETLEVEL"};

std::vector<uint8_t> readBytes(const std::string& path) {
   std::vector<uint8_t> bytes(std::filesystem::file_size(path));
   std::ifstream(path, std::ios::binary)
       .read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
   return bytes;
}

std::vector<std::string> readLines(const std::string& path) {
   std::ifstream in(path);
   std::vector<std::string> lines;
   for (std::string line; std::getline(in, line);)
      lines.push_back(line);
   return lines;
}

Ip6Addr ip6(std::string_view text) {
   return Ip6Addr::parse(text).value();
}

std::vector<std::string> linesOf(const TraceRingContents& contents) {
   std::vector<std::string> lines;
   for (const TraceRingRecord& r : contents.records)
      lines.push_back(r.line);
   return lines;
}

bool isSubsequence(const std::vector<std::string>& part, const std::vector<std::string>& whole) {
   auto it = whole.begin();
   for (const std::string& line : part) {
      it = std::find(it, whole.end(), line);
      if (it == whole.end())
         return false;
      ++it;
   }
   return true;
}

// Environment and sinks are process-wide: every test starts with neither.
class TraceTest : public ::testing::Test {
 protected:
   void SetUp() override {
      for (const char* name : kVariables) {
         const char* value = std::getenv(name);
         saved_.emplace_back(name, value ? std::optional<std::string>(value) : std::nullopt);
         ::unsetenv(name);
      }
      char pattern[] = "/tmp/trace-test-XXXXXX";
      ASSERT_NE(::mkdtemp(pattern), nullptr);
      dir_ = pattern;
      Trace::shutdown();
   }

   void TearDown() override {
      Trace::shutdown();
      for (const auto& [name, value] : saved_) {
         if (value) {
            ::setenv(name.c_str(), value->c_str(), 1);
         } else {
            ::unsetenv(name.c_str());
         }
      }
      std::filesystem::remove_all(dir_);
   }

   // Ring in the test's directory, text to a file there so test output stays clean.
   void initRing(const char* size = "1048576") {
      ::setenv("BLIPJETDIR", dir_.c_str(), 1);
      ::setenv("DHCP_RELAY_TRACE_FILE", textPath().c_str(), 1);
      ::setenv("BLIPJETSIZE", size, 1);
      Trace::init("Agent");
      ASSERT_EQ(Trace::ringPath(), dir_ + "/Agent.bj");
   }

   TraceRingContents closeAndDecode() {
      const std::string path = Trace::ringPath();
      Trace::shutdown();
      return decodeTraceRing(readBytes(path));
   }

   std::string textPath() const { return dir_ + "/text.log"; }

   std::string dir_;
   std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

// The ring stores each kind of piece in its own binary form and formats it on reading: what
// it reads back must be the text the capture (and the text sink) formatted.
TEST_F(TraceTest, EveryKindOfPieceReadsBackFromTheRingAsTheTextLine) {
   initRing();
   TraceCapture capture;
   RelaySm().handleReadable(3);
   RelaySm::doPlain();
   const char* null = nullptr;
   std::string text = "str";
   TRACE_PLAIN(9, "lit|", text, "|", std::string_view("view"), "|", std::string(""), "|", true, "|",
               false, "|", -42, "|", uint8_t{200}, "|", int8_t{-5}, "|", UINT64_MAX, "|", INT64_MIN,
               "|", 600.0, "|", -2.5, "|", 0.1, "|", 1e21, "|", 0.25f, "|", 'c', "|", null, "|",
               Color::Blue, "|", Port{67}, "|", Address{}, "|", IpAddr(), "|",
               *IpAddr::parse("255.255.255.255"), "|", *IpAddrWithMask::parse("198.18.0.1/15"), "|",
               IpAddrWithMask(IpAddr(), 32), "|", *EthAddr::parse("02:0a:b0:ff:00:01"), "|",
               *EthAddr::parse("ff:ff:ff:ff:ff:fe"), "|", IntfId("Ethernet7"), "|",
               Platform::TraceArg::ofHex32(0x3903f32a));
   TRACE_PLAIN(0,
               "a\nb\tc\x7f\x01"
               "d\xc3\xa9");
   TRACE_PLAIN(0);
   // IPv6 in RFC 5952 form: the longest zero run shortened, the first of equal ones, never a
   // single group; IpGenAddr as its family's piece, the empty one as its (empty) toString.
   const uint8_t duid[] = {0x00, 0x01, 0x00, 0x01, 0x2a, 0xff, 0x10, 0xab};
   TRACE_PLAIN(8, ip6("2001:db8::1"), "|", ip6("2001:db8:0:0:1:0:0:1"), "|", ip6("1:0:0:2:0:0:0:3"),
               "|", ip6("2001:db8:0:1:1:1:1:1"), "|", Ip6Addr(), "|", ip6("::ffff:10.0.0.1"), "|",
               ip6("FE80::A:B"), "|", *Ip6Prefix::parse("2001:db8::/32"), "|",
               Ip6Prefix(ip6("::1"), 128), "|", IpGenAddr(ip6("2001:db8::2")), "|",
               IpGenAddr(*IpAddr::parse("10.0.0.2")), "|", IpGenAddr(), "|",
               TraceArg::ofHexBytes(duid), "|", TraceArg::ofHexBytes({}), "|",
               TraceArg::ofHexBytes({duid + 5, 1}));
   EXPECT_EQ(
       capture.lines(),
       (std::vector<std::string>{
           "void TraceTestSubjects::RelaySm::handleReadable(int)count 3 from 10.0.0.1", "plain 7",
           "lit|str|view||true|false|-42|200|-5|18446744073709551615|-9223372036854775808|"
           "600|-2.5|0.1|1e+21|0.25|c|(null)|7|port 67|10.0.0.1|0.0.0.0|255.255.255.255|"
           "198.18.0.1/15|0.0.0.0/32|02:0a:b0:ff:00:01|ff:ff:ff:ff:ff:fe|Ethernet7|0x3903f32a",
           "a\\x0ab\\x09c\\x7f\\x01d\xc3\xa9", "",
           "2001:db8::1|2001:db8::1:0:0:1|1:0:0:2::3|2001:db8:0:1:1:1:1:1|::|::ffff:10.0.0.1|"
           "fe80::a:b|2001:db8::/32|::1/128|2001:db8::2|10.0.0.2||00:01:00:01:2a:ff:10:ab|-|ff"}));
   EXPECT_EQ(capture.levels(), (std::vector<int>{5, 2, 9, 0, 0, 8}));

   const TraceRingContents contents = closeAndDecode();
   EXPECT_TRUE(contents.problems.empty());
   EXPECT_EQ(contents.agentName, "Agent");
   EXPECT_EQ(contents.pid, static_cast<uint32_t>(::getpid()));
   ASSERT_EQ(contents.records.size(), 1 + capture.lines().size()) << "configuration line first";
   EXPECT_TRUE(contents.records[0].line.find("ring file " + dir_) != std::string::npos);
   const int64_t now = static_cast<int64_t>(std::time(nullptr)) * 1'000'000'000;
   for (size_t i = 0; i < capture.lines().size(); ++i) {
      const TraceRingRecord& record = contents.records[i + 1];
      EXPECT_EQ(record.line, capture.lines()[i]);
      EXPECT_EQ(record.level, capture.levels()[i]);
      EXPECT_GE(record.realtimeNs, contents.records[i].realtimeNs);
      EXPECT_LT(std::abs(record.realtimeNs - now), 60'000'000'000);
   }
   const std::regex format(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z 2 plain 7)");
   EXPECT_TRUE(std::regex_match(contents.records[2].text(), format)) << contents.records[2].text();
}

TEST_F(TraceTest, PiecesAreConvertedOnlyWhenASinkKeepsTheLine) {
   int calls = 0;
   RelaySm::doCounted(0, &calls);
   EXPECT_EQ(calls, 0) << "no sink before init";

   // Which levels each sink keeps is TextSinkKeepsTheLevelsTheEnvironmentAsksFor's.
   ::setenv("BLIPJETLEVEL", "4", 1);
   initRing();
   RelaySm::doCounted(5, &calls);
   EXPECT_EQ(calls, 0) << "ring keeps 0-4, text 0-1";
   RelaySm::doCounted(4, &calls);
   EXPECT_EQ(calls, 1) << "the ring stores the string";
   {
      TraceCapture capture;
      RelaySm::doCounted(1, &calls);
      EXPECT_EQ(calls, 2) << "converted once for ring, text and capture";
   }
   const std::vector<std::string> ring = linesOf(closeAndDecode());
   EXPECT_EQ(ring.size(), 3u) << "configuration, level 4, level 1";
   EXPECT_EQ(ring.back(), "static void TraceTestSubjects::RelaySm::doCounted(int, int*)counted");
}

// Each line as "<UTC time> <level> <line>"; errno as the caller left it.
TEST_F(TraceTest, TextSinkKeepsTheLevelsTheEnvironmentAsksFor) {
   struct Case {
      const char* value;
      int level;
      bool warns;
   };
   const Case cases[] = {{nullptr, 1, false}, {"off", 1, false}, {"all", 9, false}, {"0", 0, false},
                         {"7", 7, false},     {"10", 1, true},   {"5x", 1, true}};
   const std::regex format(R"((\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d)\.\d{6}Z (\d) kept)");
   ::setenv("BLIPJET_DISABLE", "1", 1);
   ::setenv("DHCP_RELAY_TRACE_FILE", textPath().c_str(), 1);
   for (const Case& c : cases) {
      SCOPED_TRACE(c.value ? c.value : "unset");
      std::filesystem::remove(textPath());
      if (c.value) {
         ::setenv("DHCP_RELAY_TRACE", c.value, 1);
      } else {
         ::unsetenv("DHCP_RELAY_TRACE");
      }
      Trace::init("Agent");
      EXPECT_TRUE(Trace::keeps(c.level));
      EXPECT_FALSE(Trace::keeps(c.level + 1));
      errno = EAGAIN;
      TRACE_PLAIN(c.level, "kept");
      EXPECT_EQ(errno, EAGAIN);
      Trace::shutdown();
      const std::vector<std::string> lines = readLines(textPath());
      ASSERT_FALSE(lines.empty());
      std::smatch m;
      ASSERT_TRUE(std::regex_match(lines.back(), m, format)) << lines.back();
      EXPECT_EQ(std::stoi(m[2]), c.level);
      std::tm parts{};
      std::istringstream(m[1].str()) >> std::get_time(&parts, "%Y-%m-%dT%H:%M:%S");
      EXPECT_LT(std::abs(timegm(&parts) - std::time(nullptr)), 60) << "UTC, now";
      const bool warned = std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
         return line.find("DHCP_RELAY_TRACE=") != std::string::npos;
      });
      EXPECT_EQ(warned, c.warns);
   }
}

TEST_F(TraceTest, RingFileNaming) {
   ::setenv("DHCP_RELAY_TRACE_FILE", textPath().c_str(), 1);

   ::setenv("BLIPJETDIR", dir_.c_str(), 1);
   ::setenv("BLIPJET_DISABLE", "", 1);
   Trace::init("Agent");
   EXPECT_EQ(Trace::ringPath(), "");
   EXPECT_FALSE(std::filesystem::exists(dir_ + "/Agent.bj"));
   ::unsetenv("BLIPJET_DISABLE");

   ::setenv("BLIPJETDIR", (dir_ + "/").c_str(), 1);
   Trace::init("Agent");
   EXPECT_EQ(Trace::ringPath(), dir_ + "/Agent.bj");
   RelaySm::doPlain();
   // A second run keeps the first run's file; the sites it registered there are registered
   // again in the new file, after one the new file met first.
   Trace::init("Agent");
   TRACE_PLAIN(4, "other site first");
   RelaySm::doPlain();
   Trace::shutdown();
   EXPECT_EQ(linesOf(decodeTraceRing(readBytes(dir_ + "/Agent.bj.prev"))).back(), "plain 7");
   const std::vector<std::string> second = linesOf(decodeTraceRing(readBytes(dir_ + "/Agent.bj")));
   EXPECT_EQ(std::vector(second.end() - 2, second.end()),
             (std::vector<std::string>{"other site first", "plain 7"}));

   // Without a directory for it there is no ring: runs must not leave files in /tmp.
   if (!std::filesystem::exists("/var/log/dhcp-relay-agent")) {
      ::unsetenv("BLIPJETDIR");
      Trace::init("Agent");
      EXPECT_EQ(Trace::ringPath(), "");
      Trace::shutdown();
   }
}

TEST_F(TraceTest, WrappedRingKeepsTheNewestRecordsInOrder) {
   initRing("65536");
   constexpr int kRecords = 20000;
   for (int i = 0; i < kRecords; ++i) {
      // Varying sizes make the writer pad the end of the ring at varying offsets.
      TRACE(6, "record ", i, " ", std::string(static_cast<size_t>(i % 97), 'x'));
   }
   const TraceRingContents contents = closeAndDecode();

   EXPECT_TRUE(contents.problems.empty());
   EXPECT_GT(contents.wrapCount, 10u);
   ASSERT_GT(contents.records.size(), 300u);
   const std::regex format(R"(\)record (\d+) (x*)$)");
   int expected = kRecords - static_cast<int>(contents.records.size());
   for (const TraceRingRecord& record : contents.records) {
      std::smatch m;
      ASSERT_TRUE(std::regex_search(record.line, m, format)) << record.line;
      ASSERT_EQ(std::stoi(m[1]), expected);
      EXPECT_EQ(m[2].length(), expected % 97);
      ++expected;
   }
}

// Sites beyond a full table still decode, without their function; a text too long for a
// record is cut, keeping its end.
TEST_F(TraceTest, SitesBeyondAFullTableAndTextBeyondARecordStillDecode) {
   initRing("65536");
   constexpr int kSites = 100;
   TRACE_PLAIN(5, std::string(100000, 'a'), 7);
   traceFromSites(std::make_integer_sequence<int, kSites>{});
   traceFromSites(std::make_integer_sequence<int, kSites>{});
   const TraceRingContents contents = closeAndDecode();

   EXPECT_TRUE(contents.problems.empty());
   EXPECT_GT(contents.sitesDropped, 0u);
   ASSERT_EQ(contents.records.size(), 2u + 2 * kSites);
   int known = 0;
   for (int i = 0; i < 2 * kSites; ++i) {
      const std::string& line = contents.records[2 + static_cast<size_t>(i)].line;
      const int n = i % kSites;
      const std::string pieces = "site " + std::to_string(n);
      if (line == "<unknown call site>" + pieces)
         continue;
      EXPECT_EQ(line, "void TraceTestSubjects::traceFromSite() [with int N = " + std::to_string(n) +
                          "]" + pieces);
      ++known;
   }
   EXPECT_GT(known, 2 * 10);
   EXPECT_LT(known, 2 * kSites);

   const std::string& line = contents.records[1].line;
   ASSERT_GT(line.size(), 4096u);
   EXPECT_LT(line.size(), 100000u);
   EXPECT_EQ(line.substr(line.size() - 4), "...7");
   EXPECT_EQ(line.find_first_not_of('a'), line.size() - 4);
}

// Byte strings share the record's text budget, in the order of the pieces: the first takes what
// it needs, a later one is cut (to nothing, which is not the "-" of an empty one).
TEST_F(TraceTest, ByteStringsAreCutByTheTextBudget) {
   initRing("65536");
   const std::vector<uint8_t> bytes(100000, 0xab);
   const std::string text(100000, 'a');
   const std::span<const uint8_t> three(bytes.data(), 3);
   TRACE_PLAIN(5, TraceArg::ofHexBytes(bytes), 7);
   TRACE_PLAIN(5, TraceArg::ofHexBytes(three), text);
   TRACE_PLAIN(5, text, TraceArg::ofHexBytes(three));
   const TraceRingContents contents = closeAndDecode();

   EXPECT_TRUE(contents.problems.empty());
   ASSERT_EQ(contents.records.size(), 4u);
   const std::string& hexCut = contents.records[1].line;
   ASSERT_GT(hexCut.size(), 3 * 4096u);
   EXPECT_LT(hexCut.size(), 3 * bytes.size());
   EXPECT_EQ(hexCut.substr(hexCut.size() - 10), ":ab:ab...7");
   EXPECT_EQ(hexCut.size() % 3, 0u) << "whole bytes, then \"...7\"";
   const std::string& textCut = contents.records[2].line;
   EXPECT_EQ(textCut.substr(0, 9), "ab:ab:aba");
   EXPECT_EQ(textCut.substr(textCut.size() - 4), "a...");
   const std::string& hexGone = contents.records[3].line;
   EXPECT_EQ(hexGone, std::string(hexGone.size() - 6, 'a') + "......")
       << "the text cut, then the bytes cut to nothing";
}

class TraceRingDamageTest : public TraceTest {
 protected:
   void SetUp() override {
      TraceTest::SetUp();
      initRing("65536");
      // Text, numbers, an IPv6 prefix and a byte string: damage lands in every encoding.
      const uint8_t duid[] = {0x00, 0x03, 0x00, 0x01, 0x02, 0x0a, 0xb0, 0xff, 0x00, 0x01};
      const Ip6Prefix prefix = *Ip6Prefix::parse("2001:db8:1::/48");
      for (int i = 0; i < 3000; ++i)
         TRACE_PLAIN(7, "record ", i, " ", Address{}, prefix, TraceArg::ofHexBytes(duid));
      const std::string path = Trace::ringPath();
      Trace::shutdown();
      bytes_ = readBytes(path);
      std::memcpy(&header_, bytes_.data(), sizeof(header_));
      intact_ = linesOf(decodeTraceRing(bytes_));
      ASSERT_GT(intact_.size(), 100u);
   }

   std::vector<uint8_t> bytes_;
   TraceRingHeader header_;
   std::vector<std::string> intact_;
};

// What survives is whole records in their order, and every kind of damage is reported.
TEST_F(TraceRingDamageTest, DamageIsReportedAndTheWholeRecordsStillRead) {
   const size_t n = intact_.size();
   const uint64_t middle = (header_.tail + (header_.head - header_.tail) / 2) % header_.ringSize;
   auto setU64 = [](std::vector<uint8_t>& b, size_t offset, uint64_t v) {
      std::memcpy(b.data() + offset, &v, sizeof v);
   };
   using Damage = std::function<void(std::vector<uint8_t>&)>;
   const Damage truncate = [&](auto& b) { b.resize(header_.ringOffset + header_.ringSize / 2); };
   const Damage overwrite = [&](auto& b) {
      std::fill_n(b.begin() + ptrdiff_t(header_.ringOffset + middle), 100, 0x5a);
   };
   const Damage tailPastHead = [&](auto& b) {
      setU64(b, offsetof(TraceRingHeader, tail), header_.head + 8);
   };
   const Damage badLayout = [&](auto& b) { setU64(b, offsetof(TraceRingHeader, ringSize), ~0ull); };
   struct Case {
      const char* name;
      Damage damage;
      std::vector<std::string> problems;  // a piece of each problem reported
      size_t atLeast, atMost;             // records read
   } cases[] = {
       {"truncated",
        truncate,
        {"the file is truncated", "past the end of the truncated file"},
        n / 4,
        n - 1},
       {"records overwritten", overwrite, {"damaged records"}, n - 4, n - 1},
       // Inconsistent positions fall back to a scan in time order, which finds them all.
       {"tail past head", tailPastHead, {""}, n, SIZE_MAX},
       {"short file", [](auto& b) { b.resize(100); }, {""}, 0, 0},
       {"bad magic", [](auto& b) { b[0] ^= 1; }, {""}, 0, 0},
       {"bad layout", badLayout, {""}, 0, 0},
   };
   for (const Case& c : cases) {
      SCOPED_TRACE(c.name);
      std::vector<uint8_t> file = bytes_;
      c.damage(file);
      const TraceRingContents contents = decodeTraceRing(file);
      ASSERT_EQ(contents.problems.size(), c.problems.size());
      for (size_t i = 0; i < c.problems.size(); ++i)
         EXPECT_NE(contents.problems[i].find(c.problems[i]), std::string::npos)
             << contents.problems[i];
      EXPECT_GE(contents.records.size(), c.atLeast);
      EXPECT_LE(contents.records.size(), c.atMost);
      const std::vector<std::string> lines = linesOf(contents);
      EXPECT_TRUE(c.atMost > n ? isSubsequence(intact_, lines) : isSubsequence(lines, intact_));
   }

   // Random damage never breaks the decoder. Half the hits land in the header and site
   // table, where one byte matters most.
   std::mt19937 random(7);
   for (int round = 0; round < 300; ++round) {
      std::vector<uint8_t> file = bytes_;
      const int hits = 1 + static_cast<int>(random() % 40);
      for (int i = 0; i < hits; ++i)
         file[random() % (i % 2 ? file.size() : header_.ringOffset)] =
             static_cast<uint8_t>(random());
      if (round % 3 == 0)
         file.resize(random() % file.size());
      for (const TraceRingRecord& record : decodeTraceRing(file).records)
         ASSERT_LE(record.level, kTraceLevelMax);
   }
}

// Each version only adds pieces: files of every earlier one still read, later ones do not.
TEST_F(TraceRingDamageTest, EarlierVersionsReadAndLaterOnesAreRefused) {
   for (const uint32_t version : {1u, 2u, 3u, 4u}) {
      SCOPED_TRACE(version);
      std::vector<uint8_t> file = bytes_;
      std::memcpy(file.data() + offsetof(TraceRingHeader, version), &version, sizeof version);
      const TraceRingContents contents = decodeTraceRing(file);
      if (version <= TraceRingHeader::kVersion) {
         EXPECT_TRUE(contents.problems.empty());
         EXPECT_EQ(linesOf(contents), intact_);
      } else {
         EXPECT_TRUE(contents.records.empty());
         ASSERT_EQ(contents.problems.size(), 1u);
         EXPECT_EQ(contents.problems[0], "trace ring version 4, this reader knows 3");
      }
   }
}

}  // namespace
}  // namespace Platform
