#pragma once

// Binary ring file of the trace: the writer the agent maps, and the decoder `dhcp-relay-trace`
// and the tests share.
//
// Layout (host byte order: the file is read on the kind of host that wrote it):
//
//   [0, 4096)    header, TraceRingHeader.
//   site table   append-only call-site entries, each 8-byte aligned:
//                  u32 entry size, u32 line, u16 function size, u16 file size,
//                  u8 flags (1: the line starts with the function signature), 3 zero bytes,
//                  function bytes, file bytes, zero padding.
//                Site ids count entries from 1. Id 0 is a site that found the table full: its
//                records still decode, without the signature.
//   ring         records, 8-byte aligned, never split across the end of the ring:
//                  u16 magic 0xB17E, u8 level, u8 piece count, u32 record size,
//                  u32 site id, u32 blob size, u64 CLOCK_MONOTONIC ns, blob, zero padding.
//                A record with level 0xFF pads the rest of the ring; only its first 8 bytes count.
//                Blob, per piece: a tag byte, then
//                  1 signed, 2 unsigned, 3 double: 8 bytes;  4 false, 5 true: nothing;
//                  6 text, 7 text cut short to fit the record: u32 size, bytes;
//                  since version 2: 8 IPv4 address (low 32 bits), 9 MAC address (low 48 bits),
//                  10 IPv4 address with mask length (length in bits 32-39), 11 hex number:
//                  8 bytes;
//                  since version 3: 12 IPv6 address: 16 bytes; 13 IPv6 prefix: 16 bytes, u8
//                  length; 14 byte string, 15 byte string cut short: u32 size, bytes.
//                A reader reads every earlier version: each one only adds tags.
//
// head and tail in the header are byte positions counted from the file's creation (the offset in
// the ring is position % ringSize); the records are those in [tail, head). The writer moves tail
// past the records it is about to overwrite before overwriting them, and moves head only once a
// record is complete, so the file of an agent that crashed holds only whole records there.

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "platform/trace/Trace.h"

namespace Platform {

struct TraceRingHeader {
   static constexpr char kMagic[8] = {'B', 'L', 'I', 'P', 'J', 'E', 'T', '\0'};
   static constexpr uint32_t kVersion = 3;
   static constexpr uint32_t kSize = 4096;

   char magic[8];
   uint32_t version;
   uint32_t headerSize;
   uint64_t fileSize;
   uint64_t siteTableOffset;
   uint64_t siteTableSize;
   uint64_t ringOffset;
   uint64_t ringSize;
   uint32_t maxRecordSize;
   uint32_t pid;
   // Records carry monotonic time; this pair turns it into wall-clock time.
   int64_t realtimeAtCreationNs;
   int64_t monotonicAtCreationNs;
   char agentName[64];

   // Moved by the agent as it writes.
   uint64_t siteTableUsed;
   uint32_t siteCount;
   uint32_t sitesDropped;
   uint64_t head;
   uint64_t tail;
   uint64_t wrapCount;
};
static_assert(std::is_trivially_copyable_v<TraceRingHeader>);
static_assert(sizeof(TraceRingHeader) <= TraceRingHeader::kSize);

class TraceRingWriter {
 public:
   static constexpr uint64_t kDefaultFileSize = 16ull << 20;
   static constexpr uint64_t kMinFileSize = 64ull << 10;
   static constexpr uint64_t kMaxFileSize = 4ull << 30;

   // Creates the file at `path`, sized `fileSize` (rounded up to whole pages). An existing file
   // is moved to "<path>.prev" rather than overwritten: it may be the trace of a run that just
   // crashed, and a process that still maps it would die of SIGBUS if it were truncated. Returns
   // null and says why in `error` on failure.
   static std::unique_ptr<TraceRingWriter> create(const std::string& path, uint64_t fileSize,
                                                  std::string_view agentName, std::string& error);
   ~TraceRingWriter();
   TraceRingWriter(const TraceRingWriter&) = delete;
   TraceRingWriter& operator=(const TraceRingWriter&) = delete;

   // Writes in place in the mapping: no heap allocation, no formatting.
   void append(TraceSite& site, int level, std::span<const TraceArg> pieces);

 private:
   TraceRingWriter(uint8_t* map, uint64_t mapSize);
   void registerSite(TraceSite& site);
   uint8_t* reserve(uint32_t size);
   void makeRoom(uint64_t size);

   uint8_t* map_;
   uint64_t mapSize_;
   TraceRingHeader* header_;
   uint8_t* ring_;
   uint64_t ringSize_;
   uint8_t* siteTable_;
   uint64_t siteTableSize_;
   uint32_t maxRecordSize_;
   uint32_t generation_;
   // The writer's own copies: it never trusts what the mapping holds to know where to write.
   uint64_t siteTableUsed_ = 0;
   uint32_t siteCount_ = 0;
   uint32_t sitesDropped_ = 0;
   uint64_t head_ = 0;
   uint64_t tail_ = 0;
   uint64_t headOffset_ = 0;
   uint64_t tailOffset_ = 0;
   uint64_t wraps_ = 0;
};

struct TraceRingRecord {
   int64_t realtimeNs;
   int level;
   std::string line;

   // The line as the text sink prints it (timestamp, level, line), without the newline.
   std::string text() const;
};

struct TraceRingContents {
   std::string agentName;
   uint32_t pid = 0;
   uint64_t wrapCount = 0;
   uint32_t sitesDropped = 0;
   std::vector<TraceRingRecord> records;  // oldest first
   // What could not be read, and why. Empty for a file an agent wrote and closed normally.
   std::vector<std::string> problems;
};

// Never trusts the file: a truncated or damaged file yields the records that are still whole.
TraceRingContents decodeTraceRing(std::span<const uint8_t> file);

}  // namespace Platform
