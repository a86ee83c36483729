#pragma once

#include <cstddef>
#include <cstdint>

namespace Platform {

// What the packet sockets must know of an Ethernet frame: the shortest frame a device
// takes, and where an 802.1Q tag the kernel left in the data sits. Everything above the
// link layer is the codec's (codec/Frame.h), which builds on these.
inline constexpr size_t kEthHeaderBytes = 14;  // both MAC addresses and the ethertype
inline constexpr size_t kEthTypeOffset = 12;
inline constexpr uint16_t kEthTypeVlan = 0x8100;
inline constexpr size_t kVlanTagBytes = 4;  // TPID and TCI, in front of the wrapped type

}  // namespace Platform
