#include "platform/trace/TraceRing.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <optional>

#include "platform/linux/Fd.h"
#include "platform/trace/TraceText.h"

namespace Platform {

namespace {

constexpr uint16_t kRecordMagic = 0xB17E;
constexpr uint8_t kPadLevel = 0xFF;
constexpr uint32_t kPadSize = 8;
constexpr uint32_t kLargestRecord = 16u << 10;
constexpr uint64_t kPage = 4096;
constexpr uint64_t kLargestSiteTable = 4ull << 20;
constexpr uint8_t kSiteWithSignature = 1;
constexpr size_t kLargestSiteString = UINT16_MAX;

enum Tag : uint8_t {
   kTagSigned = 1,
   kTagUnsigned = 2,
   kTagReal = 3,
   kTagFalse = 4,
   kTagTrue = 5,
   kTagText = 6,
   kTagTextCut = 7,
   // Since version 2.
   kTagIp4 = 8,
   kTagMac = 9,
   kTagIp4WithMask = 10,
   kTagHex32 = 11,
   // Since version 3.
   kTagIp6 = 12,
   kTagIp6WithLen = 13,
   kTagHexBytes = 14,
   kTagHexBytesCut = 15,
};

struct RecordHeader {
   uint16_t magic;
   uint8_t level;
   uint8_t pieceCount;
   uint32_t size;
   uint32_t siteId;
   uint32_t blobSize;
   uint64_t monotonicNs;
};
static_assert(sizeof(RecordHeader) == 24);

// A record takes at most a quarter of the ring, so one record never wipes out the whole trace.
constexpr uint32_t recordLimit(uint64_t ringSize) {
   return static_cast<uint32_t>(std::min<uint64_t>(kLargestRecord, ringSize / 4 / 8 * 8));
}

constexpr size_t kIp6Size = 16;

// A piece's bytes in a record, its text or byte string aside.
constexpr size_t encodedSize(TraceArg::Kind kind) {
   switch (kind) {
      case TraceArg::Kind::Bool:
         return 1;
      case TraceArg::Kind::Text:
      case TraceArg::Kind::HexBytes:
         return 1 + sizeof(uint32_t);
      case TraceArg::Kind::Ip6:
         return 1 + kIp6Size;
      case TraceArg::Kind::Ip6WithLen:
         return 1 + kIp6Size + 1;
      default:
         return 1 + sizeof(uint64_t);
   }
}

constexpr bool isCuttable(TraceArg::Kind kind) {
   return kind == TraceArg::Kind::Text || kind == TraceArg::Kind::HexBytes;
}

// Every piece of fixed size must fit in the smallest file's records, so only text and byte
// strings are ever cut.
static_assert(sizeof(RecordHeader) +
                  Trace::Detail::kMaxPieces * encodedSize(TraceArg::Kind::Ip6WithLen) <=
              recordLimit(TraceRingWriter::kMinFileSize - TraceRingHeader::kSize - kPage));

struct SiteHeader {
   uint32_t entrySize;
   uint32_t line;
   uint16_t functionSize;
   uint16_t fileSize;
   uint8_t flags;
   uint8_t zero[3];
};
static_assert(sizeof(SiteHeader) == 16);

// A new generation per file: sites registered in an earlier file register again.
uint32_t lastGeneration = 0;

constexpr uint64_t alignUp(uint64_t n, uint64_t to) {
   return (n + to - 1) / to * to;
}

int64_t clockNs(clockid_t clock) {
   timespec ts;
   clock_gettime(clock, &ts);
   return int64_t{ts.tv_sec} * 1'000'000'000 + ts.tv_nsec;
}

// Stores to the mapping must reach it in program order for a crash between them to leave a
// readable file; the agent has one thread, so a compiler barrier is enough.
void orderStores() {
   std::atomic_signal_fence(std::memory_order_seq_cst);
}

template <class T>
uint8_t* put(uint8_t* p, const T& value) {
   std::memcpy(p, &value, sizeof(value));
   return p + sizeof(value);
}

// Text and byte strings: as much as the record's budget still allows, tagged `cut` when short.
uint8_t* putCuttable(uint8_t* p, Tag whole, Tag cut, const void* data, size_t size,
                     size_t& budget) {
   const size_t kept = std::min(size, budget);
   budget -= kept;
   p = put(p, kept < size ? cut : whole);
   p = put(p, static_cast<uint32_t>(kept));
   if (kept)  // an empty view may have no data at all
      std::memcpy(p, data, kept);
   return p + kept;
}

std::string errnoText(const char* what, const std::string& path, int err) {
   return std::string(what) + " " + path + ": " + std::strerror(err);
}

}  // namespace

std::unique_ptr<TraceRingWriter> TraceRingWriter::create(const std::string& path, uint64_t fileSize,
                                                         std::string_view agentName,
                                                         std::string& error) {
   fileSize = alignUp(std::clamp(fileSize, kMinFileSize, kMaxFileSize), kPage);
   const std::string previous = path + ".prev";
   if (std::rename(path.c_str(), previous.c_str()) != 0 && errno != ENOENT) {
      error = errnoText("cannot move aside", path, errno);
      return nullptr;
   }
   Fd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0640));
   if (!fd) {
      error = errnoText("cannot create", path, errno);
      return nullptr;
   }
   // Reserve the blocks now: a store into a hole the file system cannot fill kills the agent
   // with SIGBUS.
   const int err = posix_fallocate(fd.get(), 0, static_cast<off_t>(fileSize));
   void* map =
       err ? MAP_FAILED : mmap(nullptr, fileSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
   if (map == MAP_FAILED) {
      error = errnoText(err ? "cannot allocate" : "cannot map", path, err ? err : errno);
      ::unlink(path.c_str());
      return nullptr;
   }
   // The mapping keeps the file open: the writer holds no descriptor.

   auto* bytes = static_cast<uint8_t*>(map);
   auto* header = reinterpret_cast<TraceRingHeader*>(bytes);
   const uint64_t siteTableSize =
       std::clamp(fileSize / 16 / kPage * kPage, kPage, kLargestSiteTable);
   header->version = TraceRingHeader::kVersion;
   header->headerSize = TraceRingHeader::kSize;
   header->fileSize = fileSize;
   header->siteTableOffset = TraceRingHeader::kSize;
   header->siteTableSize = siteTableSize;
   header->ringOffset = TraceRingHeader::kSize + siteTableSize;
   header->ringSize = fileSize - header->ringOffset;
   header->maxRecordSize = recordLimit(header->ringSize);
   header->pid = static_cast<uint32_t>(getpid());
   header->realtimeAtCreationNs = clockNs(CLOCK_REALTIME);
   header->monotonicAtCreationNs = clockNs(CLOCK_MONOTONIC);
   const size_t nameSize = std::min(agentName.size(), sizeof(header->agentName) - 1);
   std::memcpy(header->agentName, agentName.data(), nameSize);
   orderStores();
   std::memcpy(header->magic, TraceRingHeader::kMagic, sizeof(header->magic));
   return std::unique_ptr<TraceRingWriter>(new TraceRingWriter(bytes, fileSize));
}

TraceRingWriter::TraceRingWriter(uint8_t* map, uint64_t mapSize)
    : map_(map),
      mapSize_(mapSize),
      header_(reinterpret_cast<TraceRingHeader*>(map)),
      ring_(map + header_->ringOffset),
      ringSize_(header_->ringSize),
      siteTable_(map + header_->siteTableOffset),
      siteTableSize_(header_->siteTableSize),
      maxRecordSize_(header_->maxRecordSize),
      generation_(++lastGeneration) {}

TraceRingWriter::~TraceRingWriter() {
   munmap(map_, mapSize_);
}

void TraceRingWriter::registerSite(TraceSite& site) {
   site.ringGeneration = generation_;
   const size_t functionSize = std::min(std::strlen(site.function), kLargestSiteString);
   const size_t fileSize = std::min(std::strlen(site.file), kLargestSiteString);
   const uint64_t entrySize = alignUp(sizeof(SiteHeader) + functionSize + fileSize, 8);
   if (siteTableUsed_ + entrySize > siteTableSize_) {
      site.ringId = 0;
      header_->sitesDropped = ++sitesDropped_;
      return;
   }
   const SiteHeader entry{static_cast<uint32_t>(entrySize),
                          static_cast<uint32_t>(site.line),
                          static_cast<uint16_t>(functionSize),
                          static_cast<uint16_t>(fileSize),
                          site.withSignature ? kSiteWithSignature : uint8_t{0},
                          {}};
   uint8_t* p = put(siteTable_ + siteTableUsed_, entry);
   std::memcpy(p, site.function, functionSize);
   std::memcpy(p + functionSize, site.file, fileSize);
   siteTableUsed_ += entrySize;
   site.ringId = ++siteCount_;
   orderStores();
   header_->siteTableUsed = siteTableUsed_;
   header_->siteCount = siteCount_;
}

void TraceRingWriter::makeRoom(uint64_t size) {
   while (head_ + size - tail_ > ringSize_) {
      uint32_t oldSize;
      std::memcpy(&oldSize, ring_ + tailOffset_ + offsetof(RecordHeader, size), sizeof(oldSize));
      if (oldSize < kPadSize || oldSize % 8 != 0 || tailOffset_ + oldSize > ringSize_) {
         // Someone wrote into the file: give up the old records rather than walk garbage.
         tail_ = head_;
         tailOffset_ = headOffset_;
         break;
      }
      tail_ += oldSize;
      tailOffset_ += oldSize;
      if (tailOffset_ == ringSize_)
         tailOffset_ = 0;
   }
   header_->tail = tail_;
   orderStores();
}

uint8_t* TraceRingWriter::reserve(uint32_t size) {
   if (headOffset_ + size > ringSize_) {
      const uint64_t rest = ringSize_ - headOffset_;
      makeRoom(rest);
      uint8_t* pad = ring_ + headOffset_;
      pad = put(pad, kRecordMagic);
      pad = put(pad, kPadLevel);
      pad = put(pad, uint8_t{0});
      put(pad, static_cast<uint32_t>(rest));
      head_ += rest;
      headOffset_ = 0;
      ++wraps_;
      orderStores();
      header_->head = head_;
      header_->wrapCount = wraps_;
   }
   makeRoom(size);
   return ring_ + headOffset_;
}

void TraceRingWriter::append(TraceSite& site, int level, std::span<const TraceArg> pieces) {
   if (site.ringGeneration != generation_)
      registerSite(site);

   // Size the record first so it is written in place, in one piece.
   size_t fixedSize = sizeof(RecordHeader);
   size_t textWanted = 0;
   for (const TraceArg& piece : pieces) {
      fixedSize += encodedSize(piece.kind);
      if (isCuttable(piece.kind))
         textWanted += piece.size;
   }
   size_t textBudget = maxRecordSize_ - fixedSize;
   const size_t used = fixedSize + std::min(textWanted, textBudget);
   const auto size = static_cast<uint32_t>(alignUp(used, 8));

   uint8_t* record = reserve(size);
   const RecordHeader header{kRecordMagic,
                             static_cast<uint8_t>(level),
                             static_cast<uint8_t>(pieces.size()),
                             size,
                             site.ringId,
                             static_cast<uint32_t>(used - sizeof(RecordHeader)),
                             static_cast<uint64_t>(clockNs(CLOCK_MONOTONIC))};
   uint8_t* p = put(record, header);
   for (const TraceArg& piece : pieces) {
      switch (piece.kind) {
         case TraceArg::Kind::Signed:
            p = put(put(p, kTagSigned), piece.signedValue);
            break;
         case TraceArg::Kind::Unsigned:
            p = put(put(p, kTagUnsigned), piece.unsignedValue);
            break;
         case TraceArg::Kind::Real:
            p = put(put(p, kTagReal), piece.realValue);
            break;
         case TraceArg::Kind::Ip4:
            p = put(put(p, kTagIp4), piece.unsignedValue);
            break;
         case TraceArg::Kind::Ip4WithMask:
            p = put(put(p, kTagIp4WithMask), piece.unsignedValue);
            break;
         case TraceArg::Kind::Mac:
            p = put(put(p, kTagMac), piece.unsignedValue);
            break;
         case TraceArg::Kind::Hex32:
            p = put(put(p, kTagHex32), piece.unsignedValue);
            break;
         case TraceArg::Kind::Bool:
            p = put(p, piece.boolValue ? kTagTrue : kTagFalse);
            break;
         case TraceArg::Kind::Ip6:
            p = put(p, kTagIp6);
            std::memcpy(p, piece.bytes, kIp6Size);
            p += kIp6Size;
            break;
         case TraceArg::Kind::Ip6WithLen:
            p = put(p, kTagIp6WithLen);
            std::memcpy(p, piece.bytes, kIp6Size);
            p = put(p + kIp6Size, piece.prefixLen);
            break;
         case TraceArg::Kind::Text:
            p = putCuttable(p, kTagText, kTagTextCut, piece.text, piece.size, textBudget);
            break;
         case TraceArg::Kind::HexBytes:
            p = putCuttable(p, kTagHexBytes, kTagHexBytesCut, piece.bytes, piece.size, textBudget);
            break;
      }
   }
   std::memset(p, 0, static_cast<size_t>(record + size - p));

   head_ += size;
   headOffset_ += size;
   if (headOffset_ == ringSize_) {
      headOffset_ = 0;
      ++wraps_;
   }
   orderStores();
   header_->head = head_;
   header_->wrapCount = wraps_;
}

std::string TraceRingRecord::text() const {
   std::string out;
   out.reserve(40 + line.size());
   TraceText::appendPrefix(out, realtimeNs, level);
   out += line;
   return out;
}

namespace {

constexpr size_t kMostDamageReports = 20;
constexpr std::string_view kUnknownSite = "<unknown call site>";

struct DecodedSite {
   std::string function;
   bool withSignature;
};

class Decoder {
 public:
   Decoder(std::span<const uint8_t> file, TraceRingContents& out) : file_(file), out_(out) {}

   void run() {
      if (!readHeader())
         return;
      readSites();
      const uint64_t inFile = file_.size() > h_.ringOffset ? file_.size() - h_.ringOffset : 0;
      available_ = std::min(h_.ringSize, inFile);
      ring_ = file_.data() + std::min<uint64_t>(h_.ringOffset, file_.size());
      if (h_.tail <= h_.head && h_.head - h_.tail <= h_.ringSize) {
         walk();
      } else {
         problem("the header's read and write positions (" + std::to_string(h_.tail) + ", " +
                 std::to_string(h_.head) +
                 ") are inconsistent: records were recovered by scanning the whole ring and are "
                 "listed in time order");
         scanAll();
      }
      if (damageReports_ > kMostDamageReports) {
         problem(std::to_string(damageReports_ - kMostDamageReports) +
                 " more damaged regions not listed");
      }
   }

 private:
   struct Parsed {
      uint32_t size;
      std::optional<TraceRingRecord> record;  // empty for padding
   };

   void problem(std::string text) { out_.problems.push_back(std::move(text)); }

   bool readHeader() {
      if (file_.size() < sizeof(TraceRingHeader)) {
         problem("the file holds " + std::to_string(file_.size()) +
                 " bytes, too few for a trace header");
         return false;
      }
      std::memcpy(&h_, file_.data(), sizeof(h_));
      if (std::memcmp(h_.magic, TraceRingHeader::kMagic, sizeof(h_.magic)) != 0) {
         problem("not a trace ring file (bad magic)");
         return false;
      }
      // Each version only adds piece tags, so a reader reads every earlier file.
      if (h_.version == 0 || h_.version > TraceRingHeader::kVersion) {
         problem("trace ring version " + std::to_string(h_.version) + ", this reader knows " +
                 std::to_string(TraceRingHeader::kVersion));
         return false;
      }
      out_.agentName.assign(h_.agentName, strnlen(h_.agentName, sizeof(h_.agentName)));
      out_.pid = h_.pid;
      out_.wrapCount = h_.wrapCount;
      out_.sitesDropped = h_.sitesDropped;
      // Each bound is checked before it is added to, so no sum below overflows.
      const bool layoutOk =
          h_.headerSize == TraceRingHeader::kSize && h_.fileSize <= TraceRingWriter::kMaxFileSize &&
          h_.siteTableOffset >= h_.headerSize && h_.siteTableSize <= h_.fileSize &&
          h_.siteTableOffset <= h_.fileSize - h_.siteTableSize &&
          h_.ringOffset >= h_.siteTableOffset + h_.siteTableSize && h_.ringOffset % 8 == 0 &&
          h_.ringSize >= kPadSize && h_.ringSize % 8 == 0 && h_.ringSize <= h_.fileSize &&
          h_.ringOffset <= h_.fileSize - h_.ringSize && h_.maxRecordSize >= sizeof(RecordHeader) &&
          h_.maxRecordSize <= h_.ringSize;
      if (!layoutOk) {
         problem("the header's layout is damaged: nothing can be read");
         return false;
      }
      if (file_.size() < h_.fileSize) {
         problem("the file is truncated: " + std::to_string(file_.size()) + " of " +
                 std::to_string(h_.fileSize) + " bytes");
      }
      return true;
   }

   void readSites() {
      const uint64_t declared = std::min(h_.siteTableUsed, h_.siteTableSize);
      const uint64_t inFile =
          file_.size() > h_.siteTableOffset ? file_.size() - h_.siteTableOffset : 0;
      const uint64_t used = std::min(declared, inFile);
      const uint8_t* table = file_.data() + std::min<uint64_t>(h_.siteTableOffset, file_.size());
      uint64_t offset = 0;
      while (offset + sizeof(SiteHeader) <= used) {
         SiteHeader entry;
         std::memcpy(&entry, table + offset, sizeof(entry));
         const uint64_t needed = sizeof(SiteHeader) + entry.functionSize + entry.fileSize;
         if (entry.entrySize % 8 != 0 || entry.entrySize < needed ||
             entry.entrySize > used - offset) {
            break;
         }
         const auto* text = reinterpret_cast<const char*>(table + offset + sizeof(SiteHeader));
         sites_.push_back(
             {std::string(text, entry.functionSize), (entry.flags & kSiteWithSignature) != 0});
         offset += entry.entrySize;
      }
      if (sites_.size() < h_.siteCount) {
         problem("the call-site table holds " + std::to_string(sites_.size()) + " of " +
                 std::to_string(h_.siteCount) + " sites: lines of the others start with " +
                 std::string(kUnknownSite));
      }
      knownSiteIds_ = std::max<uint64_t>(h_.siteCount, sites_.size());
   }

   // Appends the pieces of the blob to `line`; false when the blob does not hold exactly
   // `count` well-formed pieces.
   static bool decodePieces(const uint8_t* blob, uint32_t size, unsigned count, std::string& line) {
      const uint8_t* p = blob;
      const uint8_t* end = blob + size;
      for (unsigned i = 0; i < count; ++i) {
         if (p == end)
            return false;
         const uint8_t tag = *p++;
         TraceArg piece;
         switch (tag) {
            case kTagSigned:
            case kTagUnsigned:
            case kTagReal:
            case kTagIp4:
            case kTagIp4WithMask:
            case kTagMac:
            case kTagHex32: {
               if (end - p < 8)
                  return false;
               uint64_t raw;
               std::memcpy(&raw, p, sizeof(raw));
               p += sizeof(raw);
               if (tag == kTagSigned) {
                  piece = TraceArg::ofSigned(static_cast<int64_t>(raw));
               } else if (tag == kTagUnsigned) {
                  piece = TraceArg::ofUnsigned(raw);
               } else if (tag == kTagIp4) {
                  if (raw > UINT32_MAX)
                     return false;
                  piece = TraceArg::ofIp4(static_cast<uint32_t>(raw));
               } else if (tag == kTagIp4WithMask) {
                  if ((raw >> 32) > 32)
                     return false;
                  piece = TraceArg::ofIp4WithMask(static_cast<uint32_t>(raw),
                                                  static_cast<uint8_t>(raw >> 32));
               } else if (tag == kTagMac) {
                  if (raw >> 48)
                     return false;
                  piece = TraceArg::ofMac(raw);
               } else if (tag == kTagHex32) {
                  if (raw > UINT32_MAX)
                     return false;
                  piece = TraceArg::ofHex32(static_cast<uint32_t>(raw));
               } else {
                  double d;
                  std::memcpy(&d, &raw, sizeof(d));
                  piece = TraceArg::ofReal(d);
               }
               break;
            }
            case kTagFalse:
            case kTagTrue:
               piece = TraceArg::ofBool(tag == kTagTrue);
               break;
            case kTagIp6:
            case kTagIp6WithLen: {
               const size_t n = kIp6Size + (tag == kTagIp6WithLen ? 1 : 0);
               if (static_cast<size_t>(end - p) < n)
                  return false;
               if (tag == kTagIp6) {
                  piece = TraceArg::ofIp6(p);
               } else {
                  if (p[kIp6Size] > 128)
                     return false;
                  piece = TraceArg::ofIp6WithLen(p, p[kIp6Size]);
               }
               p += n;
               break;
            }
            case kTagText:
            case kTagTextCut:
            case kTagHexBytes:
            case kTagHexBytesCut: {
               uint32_t n;
               if (end - p < static_cast<ptrdiff_t>(sizeof(n)))
                  return false;
               std::memcpy(&n, p, sizeof(n));
               p += sizeof(n);
               if (static_cast<uint64_t>(end - p) < n)
                  return false;
               if (tag == kTagText || tag == kTagTextCut) {
                  piece = TraceArg::ofText({reinterpret_cast<const char*>(p), n});
               } else {
                  piece = TraceArg::ofHexBytes({p, n});
               }
               p += n;
               break;
            }
            default:
               return false;
         }
         const bool cut = tag == kTagTextCut || tag == kTagHexBytesCut;
         // A byte string cut down to nothing shows only the mark, not the "-" of an empty one.
         if (!cut || piece.size != 0)
            TraceText::appendPiece(line, piece);
         if (cut)
            line += "...";
      }
      return p == end;
   }

   // A whole, valid record or padding at `offset` in the ring, or nothing.
   std::optional<Parsed> parseAt(uint64_t offset) const {
      if (offset % 8 != 0 || offset + kPadSize > available_)
         return std::nullopt;
      const uint8_t* at = ring_ + offset;
      RecordHeader r{};
      std::memcpy(&r, at, kPadSize);
      if (r.magic != kRecordMagic)
         return std::nullopt;
      if (r.level == kPadLevel) {
         if (r.size != h_.ringSize - offset)
            return std::nullopt;
         return Parsed{r.size, std::nullopt};
      }
      if (offset + sizeof(RecordHeader) > available_)
         return std::nullopt;
      std::memcpy(&r, at, sizeof(r));
      if (r.level > kTraceLevelMax || r.size < sizeof(RecordHeader) || r.size % 8 != 0 ||
          r.size > h_.maxRecordSize || r.size > available_ - offset ||
          r.blobSize > r.size - sizeof(RecordHeader) ||
          r.size - sizeof(RecordHeader) - r.blobSize >= 8 || r.siteId > knownSiteIds_) {
         return std::nullopt;
      }
      TraceRingRecord record;
      record.level = r.level;
      record.realtimeNs =
          static_cast<int64_t>(static_cast<uint64_t>(h_.realtimeAtCreationNs) + r.monotonicNs -
                               static_cast<uint64_t>(h_.monotonicAtCreationNs));
      if (r.siteId == 0 || r.siteId > sites_.size()) {
         record.line = kUnknownSite;
      } else if (const DecodedSite& site = sites_[r.siteId - 1]; site.withSignature) {
         record.line = site.function;
      }
      if (!decodePieces(at + sizeof(RecordHeader), r.blobSize, r.pieceCount, record.line)) {
         return std::nullopt;
      }
      return Parsed{r.size, std::move(record)};
   }

   void reportDamage(uint64_t from, uint64_t bytes) {
      if (++damageReports_ > kMostDamageReports)
         return;
      problem("damaged records at ring offset " + std::to_string(from % h_.ringSize) + ": " +
              std::to_string(bytes) + " bytes skipped");
   }

   void walk() {
      uint64_t lostToTruncation = 0;
      uint64_t pos = h_.tail;
      while (pos < h_.head) {
         const uint64_t offset = pos % h_.ringSize;
         if (offset >= available_) {
            const uint64_t skip = std::min(h_.ringSize - offset, h_.head - pos);
            lostToTruncation += skip;
            pos += skip;
            continue;
         }
         std::optional<Parsed> parsed = parseAt(offset);
         if (parsed && parsed->size <= h_.head - pos) {
            if (parsed->record)
               out_.records.push_back(std::move(*parsed->record));
            pos += parsed->size;
            continue;
         }
         const uint64_t from = pos;
         do {
            pos += 8;
         } while (pos < h_.head && pos % h_.ringSize < available_ && !parseAt(pos % h_.ringSize));
         if (pos < h_.head && pos % h_.ringSize >= available_) {
            // A record the end of the truncated file cuts through.
            lostToTruncation += pos - from;
         } else {
            reportDamage(from, std::min(pos, h_.head) - from);
         }
      }
      if (lostToTruncation) {
         problem(std::to_string(lostToTruncation) +
                 " bytes of records lie past the end of the truncated file");
      }
   }

   void scanAll() {
      uint64_t offset = 0;
      while (offset < available_) {
         std::optional<Parsed> parsed = parseAt(offset);
         if (!parsed) {
            offset += 8;
            continue;
         }
         if (parsed->record)
            out_.records.push_back(std::move(*parsed->record));
         offset += parsed->size;
      }
      std::stable_sort(out_.records.begin(), out_.records.end(),
                       [](const TraceRingRecord& a, const TraceRingRecord& b) {
                          return a.realtimeNs < b.realtimeNs;
                       });
   }

   std::span<const uint8_t> file_;
   TraceRingContents& out_;
   TraceRingHeader h_{};
   std::vector<DecodedSite> sites_;
   uint64_t knownSiteIds_ = 0;
   const uint8_t* ring_ = nullptr;
   uint64_t available_ = 0;
   size_t damageReports_ = 0;
};

}  // namespace

TraceRingContents decodeTraceRing(std::span<const uint8_t> file) {
   TraceRingContents out;
   Decoder(file, out).run();
   return out;
}

}  // namespace Platform
