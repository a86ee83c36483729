// dhcp-relay-trace: prints the records of a trace ring file, oldest first, as the text trace
// would have printed them. Works on the file of a running or crashed agent; what cannot be read
// is reported on stderr.
//
// Exit status: 0 when the whole file was read, 1 when parts of it could not be, 2 when it could
// not be read at all or the command line is wrong.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/Fd.h"
#include "platform/trace/TraceRing.h"

namespace {

constexpr int kExitClean = 0;
constexpr int kExitDamaged = 1;
constexpr int kExitFailed = 2;

void usage(FILE* to) {
   std::fprintf(to,
                "usage: dhcp-relay-trace [--level N] FILE.bj\n"
                "  Prints the trace records of FILE.bj, oldest first.\n"
                "  --level N  only records of levels 0 to N (0..9)\n"
                "  --version  print the version\n");
}

bool parseLevel(std::string_view text, int& level) {
   const auto [end, err] = std::from_chars(text.data(), text.data() + text.size(), level);
   return err == std::errc() && end == text.data() + text.size() && level >= 0 &&
          level <= Platform::kTraceLevelMax;
}

bool readFile(const char* path, std::vector<uint8_t>& bytes) {
   const Platform::Fd fd(::open(path, O_RDONLY | O_CLOEXEC));
   if (!fd) {
      std::fprintf(stderr, "dhcp-relay-trace: cannot open %s: %s\n", path, std::strerror(errno));
      return false;
   }
   struct stat st;
   if (fstat(fd.get(), &st) == 0 && st.st_size > 0)
      bytes.reserve(static_cast<size_t>(st.st_size));
   uint8_t chunk[1 << 16];
   for (;;) {
      const ssize_t n = ::read(fd.get(), chunk, sizeof(chunk));
      if (n < 0 && errno == EINTR)
         continue;
      if (n < 0) {
         std::fprintf(stderr, "dhcp-relay-trace: cannot read %s: %s\n", path, std::strerror(errno));
         return false;
      }
      if (n == 0)
         break;
      bytes.insert(bytes.end(), chunk, chunk + n);
   }
   return true;
}

}  // namespace

int main(int argc, char** argv) {
   int level = Platform::kTraceLevelMax;
   const char* path = nullptr;
   for (int i = 1; i < argc; ++i) {
      const std::string_view arg(argv[i]);
      if (arg == "-h" || arg == "--help") {
         usage(stdout);
         return kExitClean;
      }
      if (arg == "--version") {
         std::printf("dhcp-relay-trace %s\n", DHCP_RELAY_VERSION);
         return kExitClean;
      }
      if (arg == "--level" || arg.starts_with("--level=")) {
         std::string_view value;
         if (arg == "--level") {
            if (++i == argc) {
               usage(stderr);
               return kExitFailed;
            }
            value = argv[i];
         } else {
            value = arg.substr(std::strlen("--level="));
         }
         if (!parseLevel(value, level)) {
            std::fprintf(stderr, "dhcp-relay-trace: --level wants 0..9\n");
            return kExitFailed;
         }
      } else if (!path && !arg.starts_with("-")) {
         path = argv[i];
      } else {
         usage(stderr);
         return kExitFailed;
      }
   }
   if (!path) {
      usage(stderr);
      return kExitFailed;
   }

   std::vector<uint8_t> bytes;
   if (!readFile(path, bytes))
      return kExitFailed;
   const Platform::TraceRingContents contents = Platform::decodeTraceRing(bytes);
   for (const Platform::TraceRingRecord& record : contents.records) {
      if (record.level > level)
         continue;
      const std::string text = record.text();
      std::fwrite(text.data(), 1, text.size(), stdout);
      std::fputc('\n', stdout);
   }
   std::fflush(stdout);
   for (const std::string& problem : contents.problems) {
      std::fprintf(stderr, "dhcp-relay-trace: %s: %s\n", path, problem.c_str());
   }
   if (contents.records.empty() && !contents.problems.empty())
      return kExitFailed;
   return contents.problems.empty() ? kExitClean : kExitDamaged;
}
