#pragma once

// Text form of trace lines. The text sink, TraceCapture and the ring reader share it so a line
// read back from a ring file is byte for byte the line the text sink would have written.

#include <cstdint>
#include <string>

#include "platform/trace/Trace.h"

namespace Platform::TraceText {

// Control characters in text become "\xHH": one trace line is one output line, whatever the
// network put in a string.
void appendPiece(std::string& out, const TraceArg& piece);

// "<ISO-8601 UTC time with microseconds> <level> ", e.g. "2024-05-01T12:34:56.123456Z 5 ".
void appendPrefix(std::string& out, int64_t realtimeNs, int level);

}  // namespace Platform::TraceText
