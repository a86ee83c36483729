#include "platform/trace/Trace.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>
#include <utility>

#include "platform/base/Assert.h"
#include "platform/linux/Fd.h"
#include "platform/trace/TraceRing.h"
#include "platform/trace/TraceText.h"

namespace Platform {

namespace {

constexpr int kDefaultTextLevel = 1;
constexpr int kOperatorLevel = 1;
// Operators look for the agent's files under /var/log. Without that directory (or the right
// to write there) and without BLIPJETDIR there is no ring: a 16 MiB file per run left in
// /tmp by every test and every hand-started agent would fill it.
constexpr std::string_view kRingDir = "/var/log/dhcp-relay-agent";

struct State {
   std::unique_ptr<TraceRingWriter> ring;
   int ringLevel = -1;
   std::string ringPath;
   int textFd = -1;  // stderr or textFile
   Fd textFile;
   int textLevel = -1;
   std::string textTarget;
   TraceCapture* capture = nullptr;
   // Reused for every line so formatting stops allocating once they have grown.
   std::string line;
   std::string taggedLine;
   std::string textLine;

   // A TRACE from a destructor running after this one must find no sink.
   ~State() { Trace::Detail::keptLevel = -1; }
};

// Built on first use, so usable by TRACEs in other objects' static constructors.
State& state() {
   static State instance;
   return instance;
}

void updateKeptLevel() {
   int kept = std::max(state().ring ? state().ringLevel : -1, state().textLevel);
   if (state().capture)
      kept = kTraceLevelMax;
   Trace::Detail::keptLevel = kept;
}

const char* environment(const char* name) {
   const char* value = std::getenv(name);
   return value && *value ? value : nullptr;
}

template <class T>
std::optional<T> parseNumber(std::string_view text) {
   T value;
   const auto [end, err] = std::from_chars(text.data(), text.data() + text.size(), value);
   if (err != std::errc() || end != text.data() + text.size())
      return std::nullopt;
   return value;
}

std::optional<int> parseLevel(std::string_view text) {
   const auto level = parseNumber<int>(text);
   if (!level || *level < 0 || *level > kTraceLevelMax)
      return std::nullopt;
   return level;
}

// Empty when there is nowhere to put the ring. The previous run's file is renamed
// "<name>.prev" when the ring is created, so a crashed run's trace survives one restart.
std::string ringFilePath(const std::string& agentName) {
   std::string dir;
   if (const char* configured = environment("BLIPJETDIR"))
      dir = configured;
   else if (::access(std::string(kRingDir).c_str(), W_OK | X_OK) == 0)
      dir = kRingDir;
   else
      return {};
   while (dir.size() > 1 && dir.back() == '/')
      dir.pop_back();
   return dir + "/" + agentName + ".bj";
}

// The file a text line at an operator's level names instead of the C++ signature: the
// directory of the source file ("relay4", "config", "kernel").
std::string_view subsystemOf(const char* file) {
   const std::string_view path(file);
   const size_t slash = path.rfind('/');
   if (slash == std::string_view::npos || slash == 0)
      return "agent";
   const size_t start = path.rfind('/', slash - 1);
   return path.substr(start == std::string_view::npos ? 0 : start + 1,
                      slash - (start == std::string_view::npos ? 0 : start + 1));
}

int64_t realtimeNs() {
   timespec ts;
   clock_gettime(CLOCK_REALTIME, &ts);
   return int64_t{ts.tv_sec} * 1'000'000'000 + ts.tv_nsec;
}

void writeText(int level, std::string_view line) {
   std::string& out = state().textLine;
   out.clear();
   TraceText::appendPrefix(out, realtimeNs(), level);
   out += line;
   out += '\n';
   // One write per line keeps lines whole when other processes share the file.
   const char* p = out.data();
   size_t left = out.size();
   while (left > 0) {
      const ssize_t n = ::write(state().textFd, p, left);
      if (n < 0 && errno == EINTR)
         continue;
      if (n <= 0)
         return;
      p += n;
      left -= static_cast<size_t>(n);
   }
}

void openTextSink(std::vector<std::string>& warnings) {
   state().textLevel = kDefaultTextLevel;
   if (const char* value = environment("DHCP_RELAY_TRACE")) {
      const std::string_view text(value);
      if (text == "all") {
         state().textLevel = kTraceLevelMax;
      } else if (const auto level = parseLevel(text)) {
         state().textLevel = *level;
      } else if (text != "off") {
         warnings.push_back("DHCP_RELAY_TRACE=" + std::string(text) +
                            " is not 0..9, off or all: text trace keeps levels 0-1");
      }
   }
   state().textFd = STDERR_FILENO;
   state().textTarget = "stderr";
   if (const char* path = environment("DHCP_RELAY_TRACE_FILE")) {
      Fd file(::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
      if (file) {
         state().textFd = file.get();
         state().textFile = std::move(file);
         state().textTarget = path;
      } else {
         warnings.push_back("cannot open DHCP_RELAY_TRACE_FILE " + std::string(path) + ": " +
                            std::strerror(errno) + "; text trace goes to stderr");
      }
   }
}

void openRing(const std::string& agentName, std::vector<std::string>& warnings) {
   if (std::getenv("BLIPJET_DISABLE"))
      return;
   uint64_t size = TraceRingWriter::kDefaultFileSize;
   if (const char* value = environment("BLIPJETSIZE")) {
      const auto parsed = parseNumber<uint64_t>(value);
      if (parsed && *parsed >= TraceRingWriter::kMinFileSize &&
          *parsed <= TraceRingWriter::kMaxFileSize) {
         size = *parsed;
      } else {
         warnings.push_back("BLIPJETSIZE=" + std::string(value) + " is not a size in bytes from " +
                            std::to_string(TraceRingWriter::kMinFileSize) + " to " +
                            std::to_string(TraceRingWriter::kMaxFileSize) + ": using " +
                            std::to_string(size));
      }
   }
   state().ringLevel = kTraceLevelMax;
   if (const char* value = environment("BLIPJETLEVEL")) {
      if (const auto level = parseLevel(value)) {
         state().ringLevel = *level;
      } else {
         warnings.push_back("BLIPJETLEVEL=" + std::string(value) +
                            " is not 0..9: the ring keeps every level");
      }
   }
   const std::string path = ringFilePath(agentName);
   if (path.empty())
      return;
   std::string error;
   state().ring = TraceRingWriter::create(path, size, agentName, error);
   if (state().ring) {
      state().ringPath = path;
   } else {
      warnings.push_back("no trace ring file: " + error);
   }
}

}  // namespace

void Trace::init(const std::string& agentName) {
   shutdown();
   // Problems are traced once both sinks are open, so they reach them.
   std::vector<std::string> warnings;
   openTextSink(warnings);
   openRing(agentName, warnings);
   updateKeptLevel();
   for (const std::string& warning : warnings)
      TRACE(1, warning);
   if (state().ring) {
      TRACE(1, "text trace to ", state().textTarget, " keeps levels 0-", state().textLevel,
            "; ring file ", state().ringPath, " keeps levels 0-", state().ringLevel);
   } else {
      TRACE(1, "text trace to ", state().textTarget, " keeps levels 0-", state().textLevel,
            "; no ring file (set BLIPJETDIR or create ", kRingDir, " for one)");
   }
}

void Trace::shutdown() {
   state().ring.reset();
   state().ringLevel = -1;
   state().ringPath.clear();
   state().textFd = -1;
   state().textFile.reset();
   state().textLevel = -1;
   updateKeptLevel();
}

int Trace::textLevel() {
   return state().textLevel;
}

void Trace::textLevelIs(int level) {
   PLATFORM_ASSERT(level >= -1 && level <= kTraceLevelMax, "text trace level outside -1..9");
   if (state().textFd < 0)
      return;
   state().textLevel = level;
   updateKeptLevel();
}

const std::string& Trace::ringPath() {
   return state().ringPath;
}

void Trace::emit(TraceSite& site, int level, std::initializer_list<TraceArg> pieces) {
   PLATFORM_ASSERT(level >= 0 && level <= kTraceLevelMax, "trace level outside 0..9");
   // Callers trace a failure and then look at errno again.
   const int savedErrno = errno;
   if (state().ring && level <= state().ringLevel) {
      state().ring->append(site, level, {pieces.begin(), pieces.size()});
   }
   const bool toText = level <= state().textLevel;
   if (toText || state().capture) {
      std::string& line = state().line;
      line.clear();
      size_t textStart = 0;
      if (site.withSignature) {
         line += site.function;
         textStart = line.size();
      }
      for (const TraceArg& piece : pieces)
         TraceText::appendPiece(line, piece);
      if (toText) {
         // Errors and warnings are read by operators: a short tag says where they come from.
         // The detail levels, the ring and captures keep the signature for developers.
         if (site.withSignature && level <= kOperatorLevel) {
            std::string& tagged = state().taggedLine;
            tagged.assign("[").append(subsystemOf(site.file)).append("] ");
            std::string_view text = std::string_view(line).substr(textStart);
            while (!text.empty() && text.front() == ' ')
               text.remove_prefix(1);
            tagged.append(text);
            writeText(level, tagged);
         } else {
            writeText(level, line);
         }
      }
      if (state().capture) {
         state().capture->lines_.push_back(line);
         state().capture->levels_.push_back(level);
      }
   }
   errno = savedErrno;
}

TraceCapture::TraceCapture() : previous_(state().capture) {
   state().capture = this;
   updateKeptLevel();
}

TraceCapture::~TraceCapture() {
   PLATFORM_ASSERT(state().capture == this, "trace captures must end in reverse order of start");
   state().capture = previous_;
   updateKeptLevel();
}

bool TraceCapture::contains(std::string_view text) const {
   return std::any_of(lines_.begin(), lines_.end(), [text](const std::string& line) {
      return line.find(text) != std::string::npos;
   });
}

void TraceCapture::clear() {
   lines_.clear();
   levels_.clear();
}

}  // namespace Platform
