#pragma once

// Frames built by hand, for the tests of the packet sockets: what a client sends before it
// has an address, and what the capture filter must tell apart.

#include <cstdint>
#include <initializer_list>
#include <vector>

namespace Platform::TestFrames {

using Bytes = std::vector<uint8_t>;

constexpr uint16_t kIpv4 = 0x0800;
constexpr uint16_t kIpv6 = 0x86dd;
constexpr uint8_t kUdp = 17;

inline void put16(Bytes& b, uint16_t v) {
   b.push_back(static_cast<uint8_t>(v >> 8));
   b.push_back(static_cast<uint8_t>(v));
}

inline void put32(Bytes& b, uint32_t v) {
   put16(b, static_cast<uint16_t>(v >> 16));
   put16(b, static_cast<uint16_t>(v));
}

inline Bytes operator+(Bytes a, const Bytes& b) {
   a.insert(a.end(), b.begin(), b.end());
   return a;
}

// Broadcast from the far end's MAC; each tag is TPID << 16 | TCI, outermost first.
inline Bytes eth(uint16_t type, std::initializer_list<uint32_t> tags = {}) {
   Bytes b(6, 0xff);
   b.insert(b.end(), {0x02, 0, 0, 0, 0, 0x0b});
   for (uint32_t tag : tags)
      put32(b, tag);
   put16(b, type);
   return b;
}

// A payload that tells frames apart: the marker, then some zeros.
inline Bytes marked(uint32_t marker) {
   Bytes b;
   put32(b, marker);
   b.insert(b.end(), 24, 0);
   return b;
}

// UDP-shaped: two ports, length, no checksum (allowed over IPv4), payload.
inline Bytes transport(uint16_t srcPort, uint16_t dstPort, const Bytes& payload) {
   Bytes b;
   put16(b, srcPort);
   put16(b, dstPort);
   put16(b, static_cast<uint16_t>(8 + payload.size()));
   put16(b, 0);
   return b + payload;
}

// 0.0.0.0 -> 255.255.255.255 with `optionWords` words of IP options (NOPs), checksummed.
inline Bytes ipv4(uint8_t proto, uint16_t srcPort, uint16_t dstPort, const Bytes& payload,
                  uint8_t optionWords = 0, uint16_t fragment = 0) {
   const Bytes t = transport(srcPort, dstPort, payload);
   Bytes b{static_cast<uint8_t>(0x45 + optionWords), 0};
   put16(b, static_cast<uint16_t>(20 + 4 * optionWords + t.size()));
   put16(b, 1);
   put16(b, fragment);
   b.insert(b.end(), {64, proto, 0, 0, 0, 0, 0, 0, 255, 255, 255, 255});
   b.insert(b.end(), 4 * optionWords, 1);
   uint32_t sum = 0;
   for (size_t i = 0; i < b.size(); i += 2)
      sum += uint32_t{b[i]} << 8 | b[i + 1];
   sum = ~((sum & 0xffff) + (sum >> 16)) & 0xffff;
   b[10] = static_cast<uint8_t>(sum >> 8);
   b[11] = static_cast<uint8_t>(sum);
   return b + t;
}
inline Bytes ipv4(uint8_t proto, uint16_t srcPort, uint16_t dstPort, uint32_t marker,
                  uint8_t optionWords = 0, uint16_t fragment = 0) {
   return ipv4(proto, srcPort, dstPort, marked(marker), optionWords, fragment);
}

// fe80::b -> ff02::1:2, the transport directly after the fixed header.
inline Bytes ipv6(uint8_t nextHeader, uint16_t srcPort, uint16_t dstPort, uint32_t marker) {
   const Bytes t = transport(srcPort, dstPort, marked(marker));
   Bytes b{0x60, 0, 0, 0};
   put16(b, static_cast<uint16_t>(t.size()));
   b.insert(b.end(), {nextHeader, 1, 0xfe, 0x80});
   b.insert(b.end(), 13, 0);
   b.insert(b.end(), {0x0b, 0xff, 0x02});
   b.insert(b.end(), 11, 0);
   b.insert(b.end(), {1, 0, 2});
   return b + t;
}

}  // namespace Platform::TestFrames
