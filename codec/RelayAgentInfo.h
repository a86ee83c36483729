#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/addr/IpAddr.h"

namespace Codec {

// Sub-options of the relay agent information option (82) that this system writes and
// reads back.
namespace RelayAgentSubOption {
constexpr uint8_t circuitId = 1;          // RFC 3046 section 3.1
constexpr uint8_t remoteId = 2;           // RFC 3046 section 3.2
constexpr uint8_t linkSelection = 5;      // RFC 3527: the client's subnet
constexpr uint8_t serverIdOverride = 11;  // RFC 5107: the relay's address the client sees
constexpr uint8_t virtualSubnet = 151;    // RFC 6607: the client-side VRF
}  // namespace RelayAgentSubOption

// RFC 6607 section 3.1 VSS types: 0 carries an NVT ASCII VPN name, 255 names the global
// (default) VPN and carries nothing.
constexpr uint8_t vssTypeNvtAscii = 0;
constexpr uint8_t vssTypeGlobal = 255;

// What goes into option 82. Empty strings and 0.0.0.0 mean "leave the sub-option out":
// an empty circuit-id or remote-id identifies nothing, 0.0.0.0 is no link and no
// server, and without a VRF name the request did not cross VRFs.
struct RelayAgentInfoValues {
   std::string_view circuitId;
   std::string_view remoteId;
   std::string_view vrfName;
   Platform::IpAddr serverIdOverride;
   Platform::IpAddr linkSelection;
};

// Code, length and value of the option: 2 + 255 bytes at most (RFC 2132 section 2).
constexpr size_t maxRelayAgentInfoBytes = 2 + 255;
using RelayAgentInfoBuffer = std::array<uint8_t, maxRelayAgentInfoBytes>;

// Writes the whole option (code 82, length, sub-options in ascending code order:
// 1, 2, 5, 11, 151) and returns its size: 0 when no value is set, since an option
// without sub-options tells the server nothing; nullopt when a value or the whole
// option would not fit its length byte, or the VRF name is longer than a VRF name may be
// (the reply could not be read back).
std::optional<size_t> encodeRelayAgentInfo(const RelayAgentInfoValues& values,
                                           RelayAgentInfoBuffer& out);

// The sub-options this relay writes on its own account, besides circuit-id and remote-id:
// a first-hop agent's option 82 that travels on (kept) gets these added, and they are
// taken out again on the way back.
constexpr bool isRelayOwnSubOption(uint8_t code) {
   return code == RelayAgentSubOption::linkSelection ||
          code == RelayAgentSubOption::serverIdOverride ||
          code == RelayAgentSubOption::virtualSubnet;
}

// Writes a whole option 82 made of the sub-options of `value` (an existing option's value)
// that are not the relay's own, in their order and bytes, followed by the link selection,
// server identifier override and VRF name of `own` (its circuit-id and remote-id are not
// used). Returns the size: 0 when nothing is left; nullopt when `value` cannot be walked
// or the result would not fit one option.
std::optional<size_t> rewriteRelayAgentInfo(std::span<const uint8_t> value,
                                            const RelayAgentInfoValues& own,
                                            RelayAgentInfoBuffer& out);

// Reads the value of an option 82 into the outputs, which are cleared first (a reused
// string keeps its capacity, so a caller holding them across packets allocates
// nothing). Unknown sub-options are skipped. False, with the outputs partly filled, when
// the sub-options cannot be walked, a known sub-option appears twice, an address is not
// 4 bytes, or the VRF sub-option has another VSS type than 0 or 255 or a name longer than
// a VRF name may be.
bool decodeRelayAgentInfo(std::span<const uint8_t> value, std::string& circuitId,
                          std::string& remoteId, std::string& vrfName,
                          Platform::IpAddr& serverIdOverride, Platform::IpAddr& linkSelection);

}  // namespace Codec
