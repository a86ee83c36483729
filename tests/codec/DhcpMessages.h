#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "platform/packet/Pkt.h"

namespace Codec::Test {

using Bytes = std::vector<uint8_t>;

// A BOOTREQUEST from 02:00:00:00:00:01 with the magic cookie and `options` written
// verbatim after it; `file` and `sname` content goes at the start of those fields.
inline Bytes dhcpMessage(const Bytes& options, const Bytes& file = {}, const Bytes& sname = {}) {
   Bytes msg(240, 0);
   const Bytes fixed = {1, 1, 6, 0, 0x11, 0x22, 0x33, 0x44};
   std::copy(fixed.begin(), fixed.end(), msg.begin());
   msg[28] = 0x02;
   msg[33] = 0x01;
   std::copy(sname.begin(), sname.end(), msg.begin() + 44);
   std::copy(file.begin(), file.end(), msg.begin() + 108);
   const Bytes cookie = {99, 130, 83, 99};
   std::copy(cookie.begin(), cookie.end(), msg.begin() + 236);
   msg.insert(msg.end(), options.begin(), options.end());
   return msg;
}

// `msg` with one byte changed: a damaged cookie or field next to an otherwise good message.
inline Bytes withByte(Bytes msg, size_t at, uint8_t value) {
   msg.at(at) = value;
   return msg;
}

inline Bytes bytesOf(const Platform::Pkt& pkt) {
   return Bytes(pkt.span().begin(), pkt.span().end());
}

inline Bytes concat(std::initializer_list<Bytes> parts) {
   Bytes out;
   for (const Bytes& p : parts)
      out.insert(out.end(), p.begin(), p.end());
   return out;
}

}  // namespace Codec::Test
