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
#include "platform/addr/IpAddr.h"
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

TEST_F(TraceTest, LineIsSignatureThenPiecesWithoutSeparator) {
   TraceCapture capture;
   RelaySm().handleReadable(3);
   RelaySm::doPlain();
   EXPECT_EQ(capture.lines(),
             (std::vector<std::string>{
                 "void TraceTestSubjects::RelaySm::handleReadable(int)count 3 from 10.0.0.1",
                 "plain 7"}));
   EXPECT_EQ(capture.levels(), (std::vector<int>{5, 2}));
}

TEST_F(TraceTest, PiecesOfEveryKind) {
   TraceCapture capture;
   const char* null = nullptr;
   std::string text = "str";
   TRACE_PLAIN(9, "lit|", text, "|", std::string_view("view"), "|", true, "|", false, "|", -42, "|",
               uint8_t{200}, "|", int8_t{-5}, "|", UINT64_MAX, "|", INT64_MIN, "|", 600.0, "|", 0.5,
               "|", 0.1, "|", 1e21, "|", 0.25f, "|", 'c', "|", null, "|", Color::Blue, "|",
               Port{67}, "|", Address{}, "|", *IpAddr::parse("192.0.2.255"), "|",
               *IpAddrWithMask::parse("198.18.0.1/15"), "|", *EthAddr::parse("02:0a:b0:ff:00:01"),
               "|", IntfId("Ethernet7"));
   TRACE_PLAIN(0,
               "a\nb\tc\x7f"
               "d\xc3\xa9");
   TRACE_PLAIN(0);
   EXPECT_EQ(capture.lines(),
             (std::vector<std::string>{
                 "lit|str|view|true|false|-42|200|-5|18446744073709551615|-9223372036854775808|"
                 "600|0.5|0.1|1e+21|0.25|c|(null)|7|port 67|10.0.0.1|192.0.2.255|198.18.0.1/15|"
                 "02:0a:b0:ff:00:01|Ethernet7",
                 "a\\x0ab\\x09c\\x7fd\xc3\xa9", ""}));
}

TEST_F(TraceTest, CaptureWorksWithoutInitAndNests) {
   EXPECT_FALSE(Trace::keeps(0));
   {
      TraceCapture outer;
      EXPECT_TRUE(Trace::keeps(kTraceLevelMax));
      TRACE_PLAIN(9, "one");
      {
         TraceCapture inner;
         TRACE_PLAIN(9, "two");
         EXPECT_EQ(inner.lines(), std::vector<std::string>{"two"});
      }
      TRACE_PLAIN(9, "three");
      EXPECT_EQ(outer.lines(), (std::vector<std::string>{"one", "three"}));
      EXPECT_TRUE(outer.contains("hre") && !outer.contains("two"));
      outer.clear();
      EXPECT_TRUE(outer.lines().empty() && outer.levels().empty());
   }
   EXPECT_FALSE(Trace::keeps(0));
}

TEST_F(TraceTest, PiecesAreConvertedOnlyWhenASinkKeepsTheLine) {
   int calls = 0;
   RelaySm::doCounted(0, &calls);
   EXPECT_EQ(calls, 0) << "no sink before init";

   ::setenv("BLIPJET_DISABLE", "", 1);
   ::setenv("DHCP_RELAY_TRACE_FILE", textPath().c_str(), 1);
   Trace::init("Agent");
   RelaySm::doCounted(2, &calls);
   EXPECT_EQ(calls, 0) << "text keeps 0-1 by default";
   RelaySm::doCounted(1, &calls);
   EXPECT_EQ(calls, 1);

   calls = 0;
   ::unsetenv("BLIPJET_DISABLE");
   ::setenv("BLIPJETLEVEL", "4", 1);
   initRing();
   RelaySm::doCounted(5, &calls);
   EXPECT_EQ(calls, 0) << "ring keeps 0-4";
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

TEST_F(TraceTest, TextSinkWritesTimestampLevelAndLine) {
   ::setenv("BLIPJET_DISABLE", "1", 1);
   ::setenv("DHCP_RELAY_TRACE", "5", 1);
   ::setenv("DHCP_RELAY_TRACE_FILE", textPath().c_str(), 1);
   Trace::init("Agent");
   errno = EAGAIN;
   RelaySm().handleReadable(4);
   EXPECT_EQ(errno, EAGAIN);
   TRACE_PLAIN(6, "too detailed");
   TRACE_PLAIN(0, "error");
   Trace::shutdown();

   const std::vector<std::string> lines = readLines(textPath());
   ASSERT_EQ(lines.size(), 3u) << "configuration, level 5, level 0";
   const std::regex format(R"((\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d)\.\d{6}Z (\d) (.*))");
   std::smatch m;
   ASSERT_TRUE(std::regex_match(lines[1], m, format)) << lines[1];
   EXPECT_EQ(m[2], "5");
   EXPECT_EQ(m[3], "void TraceTestSubjects::RelaySm::handleReadable(int)count 4 from 10.0.0.1");
   std::tm parts{};
   std::istringstream(m[1].str()) >> std::get_time(&parts, "%Y-%m-%dT%H:%M:%S");
   EXPECT_LT(std::abs(timegm(&parts) - std::time(nullptr)), 60) << "UTC, now";
   ASSERT_TRUE(std::regex_match(lines[2], m, format)) << lines[2];
   EXPECT_EQ(m[2], "0");
   EXPECT_EQ(m[3], "error");
}

TEST_F(TraceTest, TextLevelFromEnvironment) {
   struct Case {
      const char* value;
      int level;
      bool warns;
   };
   const Case cases[] = {{nullptr, 1, false}, {"off", 1, false}, {"all", 9, false}, {"0", 0, false},
                         {"7", 7, false},     {"10", 1, true},   {"5x", 1, true}};
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
      Trace::shutdown();
      const std::vector<std::string> lines = readLines(textPath());
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
   TRACE_PLAIN(3, "first run");
   Trace::init("Agent");
   Trace::shutdown();
   EXPECT_TRUE(std::filesystem::exists(dir_ + "/Agent.bj"));
   EXPECT_TRUE(linesOf(decodeTraceRing(readBytes(dir_ + "/Agent.bj.prev"))).back() == "first run")
       << "a second run keeps the first run's file";

   ::unsetenv("BLIPJETDIR");
   Trace::init("Agent");
   const std::string path = Trace::ringPath();
   Trace::shutdown();
   const std::string name = "/Agent-" + std::to_string(::getpid()) + ".bj";
   EXPECT_TRUE(path == "/var/log/dhcp-relay" + name || path == "/tmp" + name) << path;
   EXPECT_TRUE(std::filesystem::exists(path));
   std::filesystem::remove(path);
}

TEST_F(TraceTest, RingReadsBackAsTheTextLines) {
   initRing();
   TraceCapture capture;
   RelaySm().handleReadable(-1);
   RelaySm::doPlain();
   TRACE(9, "every kind ", true, uint8_t{1}, -2.5, "\x01", Port{547}, std::string(""), 'z',
         IpAddr(), *IpAddr::parse("255.255.255.255"), *EthAddr::parse("ff:ff:ff:ff:ff:fe"),
         IpAddrWithMask(IpAddr(), 32));
   TRACE_PLAIN(0);
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

TEST_F(TraceTest, SitesBeyondAFullTableStillDecode) {
   initRing("65536");
   constexpr int kSites = 100;
   traceFromSites(std::make_integer_sequence<int, kSites>{});
   traceFromSites(std::make_integer_sequence<int, kSites>{});
   const TraceRingContents contents = closeAndDecode();

   EXPECT_TRUE(contents.problems.empty());
   EXPECT_GT(contents.sitesDropped, 0u);
   ASSERT_EQ(contents.records.size(), 1u + 2 * kSites);
   int known = 0;
   for (int i = 0; i < 2 * kSites; ++i) {
      const std::string& line = contents.records[1 + static_cast<size_t>(i)].line;
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
}

TEST_F(TraceTest, SitesRegisterAgainInANewFile) {
   initRing();
   RelaySm::doPlain();
   Trace::shutdown();
   std::filesystem::create_directory(dir_ + "/second");
   ::setenv("BLIPJETDIR", (dir_ + "/second").c_str(), 1);
   Trace::init("Agent");
   TRACE_PLAIN(4, "other site first");
   RelaySm::doPlain();
   RelaySm().handleReadable(1);
   const std::vector<std::string> lines = linesOf(closeAndDecode());
   ASSERT_EQ(lines.size(), 4u);
   EXPECT_EQ(lines[2], "plain 7");
   EXPECT_EQ(lines[3], "void TraceTestSubjects::RelaySm::handleReadable(int)count 1 from 10.0.0.1");
}

TEST_F(TraceTest, TextTooLongForARecordIsCut) {
   initRing();
   TRACE_PLAIN(5, std::string(100000, 'a'), 7);
   const TraceRingContents contents = closeAndDecode();
   EXPECT_TRUE(contents.problems.empty());
   const std::string& line = contents.records.back().line;
   ASSERT_GT(line.size(), 4096u);
   EXPECT_LT(line.size(), 100000u);
   EXPECT_EQ(line.substr(line.size() - 4), "...7");
   EXPECT_EQ(line.find_first_not_of('a'), line.size() - 4);
}

class TraceRingDamageTest : public TraceTest {
 protected:
   void SetUp() override {
      TraceTest::SetUp();
      initRing("65536");
      for (int i = 0; i < 3000; ++i)
         TRACE_PLAIN(7, "record ", i, " ", Address{});
      const std::string path = Trace::ringPath();
      Trace::shutdown();
      bytes_ = readBytes(path);
      std::memcpy(&header_, bytes_.data(), sizeof(header_));
      intact_ = linesOf(decodeTraceRing(bytes_));
      ASSERT_GT(intact_.size(), 100u);
   }

   template <class T>
   void setHeaderField(size_t offset, T value) {
      std::memcpy(bytes_.data() + offset, &value, sizeof(value));
   }

   std::vector<uint8_t> bytes_;
   TraceRingHeader header_;
   std::vector<std::string> intact_;
};

TEST_F(TraceRingDamageTest, TruncatedFileYieldsTheWholeRecords) {
   bytes_.resize(header_.ringOffset + header_.ringSize / 2);
   const TraceRingContents contents = decodeTraceRing(bytes_);
   ASSERT_EQ(contents.problems.size(), 2u);
   EXPECT_TRUE(contents.problems[0].starts_with("the file is truncated"));
   EXPECT_TRUE(contents.problems[1].ends_with("past the end of the truncated file"));
   EXPECT_GT(contents.records.size(), intact_.size() / 4);
   EXPECT_LT(contents.records.size(), intact_.size());
   EXPECT_TRUE(isSubsequence(linesOf(contents), intact_));
}

TEST_F(TraceRingDamageTest, DamagedRecordsAreSkippedAndReported) {
   const uint64_t middle = (header_.tail + (header_.head - header_.tail) / 2) % header_.ringSize;
   std::fill_n(bytes_.begin() + static_cast<ptrdiff_t>(header_.ringOffset + middle), 100, 0x5a);
   const TraceRingContents contents = decodeTraceRing(bytes_);
   ASSERT_EQ(contents.problems.size(), 1u);
   EXPECT_TRUE(contents.problems[0].starts_with("damaged records")) << contents.problems[0];
   EXPECT_GE(contents.records.size(), intact_.size() - 4);
   EXPECT_LT(contents.records.size(), intact_.size());
   EXPECT_TRUE(isSubsequence(linesOf(contents), intact_));
}

TEST_F(TraceRingDamageTest, InconsistentPositionsFallBackToAScanInTimeOrder) {
   setHeaderField(offsetof(TraceRingHeader, tail), header_.head + 8);
   const TraceRingContents contents = decodeTraceRing(bytes_);
   ASSERT_EQ(contents.problems.size(), 1u);
   EXPECT_GE(contents.records.size(), intact_.size());
   EXPECT_TRUE(isSubsequence(intact_, linesOf(contents)));
}

TEST_F(TraceRingDamageTest, UnreadableHeaderYieldsNothing) {
   std::vector<uint8_t> shortFile(bytes_.begin(), bytes_.begin() + 100);
   std::vector<uint8_t> badMagic = bytes_;
   badMagic[0] ^= 1;
   std::vector<uint8_t> badLayout = bytes_;
   std::memset(badLayout.data() + offsetof(TraceRingHeader, ringSize), 0xff, sizeof(uint64_t));
   for (const auto* file : {&shortFile, &badMagic, &badLayout}) {
      const TraceRingContents contents = decodeTraceRing(*file);
      EXPECT_TRUE(contents.records.empty());
      EXPECT_EQ(contents.problems.size(), 1u);
   }
}

TEST_F(TraceRingDamageTest, RandomDamageNeverBreaksTheDecoder) {
   std::mt19937 random(7);
   for (int round = 0; round < 300; ++round) {
      std::vector<uint8_t> file = bytes_;
      const int hits = 1 + static_cast<int>(random() % 40);
      for (int i = 0; i < hits; ++i) {
         // Half the hits land in the header and site table, where one byte matters most.
         const size_t limit = i % 2 ? file.size() : header_.ringOffset;
         file[random() % limit] = static_cast<uint8_t>(random());
      }
      if (round % 3 == 0)
         file.resize(random() % file.size());
      for (const TraceRingRecord& record : decodeTraceRing(file).records) {
         ASSERT_LE(record.level, kTraceLevelMax);
      }
   }
}

}  // namespace
}  // namespace Platform
