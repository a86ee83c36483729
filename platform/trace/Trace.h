#pragma once

// The agent's trace. Every line goes to up to two sinks at once:
//  - a binary ring file, memory-mapped so it survives a crash of the agent; it stores the call
//    site's id and the raw pieces, never text, and `dhcp-relay-trace` turns it back into lines;
//  - a text trace with levels, on stderr or in a file.
// Levels: 0 errors, 1 warnings and configuration, 2-4 state changes, 5-7 per-packet summaries,
// 8-9 per-packet detail.
//
//   TRACE(5, "relayed ", size, " bytes to ", serverAddress);
// writes "void Ip::Helper::DhcpRelay::...::doRelay()relayed 300 bytes to 10.0.0.1" to the ring, a
// capture and the text sink at levels 2-9; at levels 0-1 the text sink, read by operators, writes
// "[relay4] relayed 300 bytes to 10.0.0.1" (the source file's directory). TRACE_PLAIN leaves the
// signature out. Pieces: strings, bool, integers (int8_t/uint8_t as numbers, char as a
// character), floating point (shortest form that reads back the same), enums (as their number)
// and any type with `std::string toString() const` or a `toString(value)` found by lookup.
// Control characters in text print as "\xHH", so one line stays one line.
//
// A line no sink keeps costs one load and one compare: pieces are not even converted. The agent
// is single-threaded, so the facility keeps process-wide state without locks; tracing from
// another thread is a bug.
//
// Environment, read by Trace::init():
//   DHCP_RELAY_TRACE       text level: "0".."9" keeps levels up to N; unset or "off" keeps 0-1
//                          (errors and warnings); "all" is 9.
//   DHCP_RELAY_TRACE_FILE  text goes to this file (appended) instead of stderr.
//   BLIPJET_DISABLE        set to anything: no ring file.
//   BLIPJETDIR             directory of the ring file, named "<agent>.bj". When unset the file is
//                          in /var/log/dhcp-relay-agent if that directory is writable, else
//                          there is none. A file already at the path is renamed "<name>.prev",
//                          so the trace of a crashed run is still there after a restart.
//   BLIPJETSIZE            ring file size in bytes (default 16 MiB; 64 KiB to 4 GiB).
//   BLIPJETLEVEL           ring level, 0..9 (default 9: the ring keeps everything).

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "platform/trace/TraceArg.h"

namespace Platform {

constexpr int kTraceLevelMax = 9;

// A TRACE call site, one function-local static each, constant-initialised so that reaching it
// costs no guard. The ring registers it in its file once, so records carry only the id; the
// generation tells which ring file the id belongs to.
struct TraceSite {
   const char* function;
   const char* file;
   int line;
   bool withSignature;
   uint32_t ringGeneration = 0;
   uint32_t ringId = 0;
};

class TraceCapture;

namespace Trace {

namespace Detail {
// Highest level any sink keeps; -1 when none does. Written only by the facility.
inline int keptLevel = -1;
}  // namespace Detail

inline bool keeps(int level) {
   return level <= Detail::keptLevel;
}

// Reads the environment and opens the sinks; a second call starts over. Until it is called only
// a TraceCapture sees lines.
void init(const std::string& agentName);
void shutdown();

// The text sink's level (-1: off), changed at run time by an operator without a restart.
// Without an open text sink (before init) the change is ignored.
int textLevel();
void textLevelIs(int level);

// Path of the ring file, empty when there is none.
const std::string& ringPath();

// The out-of-line part of TRACE, reached only when some sink keeps the level.
void emit(TraceSite& site, int level, std::initializer_list<TraceArg> pieces);

namespace Detail {

// Types that know their trace piece (addresses) or hold their text (names) are passed
// without building a string.
template <class T>
concept HasTraceArg = requires(const T& v) {
   { v.traceArg() } -> std::same_as<TraceArg>;
};
template <class T>
concept HasStrView = requires(const T& v) {
   { v.str() } -> std::convertible_to<std::string_view>;
};
template <class T>
concept HasMemberToString = requires(const T& v) {
   { v.toString() } -> std::convertible_to<std::string>;
};
template <class T>
concept HasFreeToString = requires(const T& v) {
   { toString(v) } -> std::convertible_to<std::string>;
};

// Types that render themselves become their string here; the temporary lives until emit()
// returns because both calls are in the same full expression.
template <class T>
decltype(auto) piece(const T& v) {
   if constexpr (HasTraceArg<T>) {
      return v.traceArg();
   } else if constexpr (HasStrView<T>) {
      return std::string_view(v.str());
   } else if constexpr (HasMemberToString<T>) {
      return std::string(v.toString());
   } else if constexpr (HasFreeToString<T>) {
      return std::string(toString(v));
   } else {
      return (v);
   }
}

template <class T>
TraceArg arg(const T& v) {
   if constexpr (std::is_same_v<T, TraceArg>) {
      return v;
   } else if constexpr (std::is_same_v<T, bool>) {
      return TraceArg::ofBool(v);
   } else if constexpr (std::is_same_v<T, char>) {
      return TraceArg::ofText({&v, 1});
   } else if constexpr (std::is_integral_v<T> && std::is_signed_v<T>) {
      return TraceArg::ofSigned(v);
   } else if constexpr (std::is_integral_v<T>) {
      return TraceArg::ofUnsigned(v);
   } else if constexpr (std::is_enum_v<T>) {
      return arg(static_cast<std::underlying_type_t<T>>(v));
   } else if constexpr (std::is_floating_point_v<T>) {
      return TraceArg::ofReal(static_cast<double>(v));
   } else if constexpr (std::is_array_v<T>) {
      return TraceArg::ofText(std::string_view(v));
   } else if constexpr (std::is_same_v<T, const char*> || std::is_same_v<T, char*>) {
      return TraceArg::ofText(v ? std::string_view(v) : std::string_view("(null)"));
   } else if constexpr (std::is_convertible_v<const T&, std::string_view>) {
      return TraceArg::ofText(std::string_view(v));
   } else {
      static_assert(sizeof(T) == 0, "TRACE piece: give the type a `std::string toString() const`");
   }
}

constexpr size_t kMaxPieces = 255;

template <class... Pieces>
void write(TraceSite& site, int level, const Pieces&... pieces) {
   static_assert(sizeof...(Pieces) <= kMaxPieces, "too many TRACE pieces");
   emit(site, level, {arg(piece(pieces))...});
}

}  // namespace Detail
}  // namespace Trace

// Test hook: while alive, every line at every level is also formatted (without timestamp and
// level) into lines(). Works without Trace::init(). Captures nest; the newest one sees the lines.
class TraceCapture {
 public:
   TraceCapture();
   ~TraceCapture();
   TraceCapture(const TraceCapture&) = delete;
   TraceCapture& operator=(const TraceCapture&) = delete;

   const std::vector<std::string>& lines() const { return lines_; }
   const std::vector<int>& levels() const { return levels_; }
   // True when some line holds `text`.
   bool contains(std::string_view text) const;
   void clear();

 private:
   friend void Trace::emit(TraceSite&, int, std::initializer_list<TraceArg>);

   std::vector<std::string> lines_;
   std::vector<int> levels_;
   TraceCapture* previous_;
};

}  // namespace Platform

#define PLATFORM_TRACE_AT(level, withSignature, ...)                                              \
   do {                                                                                           \
      const int platformTraceLevel_ = (level);                                                    \
      if (::Platform::Trace::keeps(platformTraceLevel_)) [[unlikely]] {                           \
         static constinit ::Platform::TraceSite platformTraceSite_{__PRETTY_FUNCTION__, __FILE__, \
                                                                   __LINE__, withSignature};      \
         ::Platform::Trace::Detail::write(platformTraceSite_,                                     \
                                          platformTraceLevel_ __VA_OPT__(, ) __VA_ARGS__);        \
      }                                                                                           \
   } while (0)

#define TRACE(level, ...) PLATFORM_TRACE_AT(level, true __VA_OPT__(, ) __VA_ARGS__)
#define TRACE_PLAIN(level, ...) PLATFORM_TRACE_AT(level, false __VA_OPT__(, ) __VA_ARGS__)
