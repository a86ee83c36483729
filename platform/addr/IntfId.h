#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace Platform {

// The switch's name for an interface ("Ethernet1/1", "Vlan10", "Port-Channel5").
// Stored inline rather than in a std::string: interface ids ride along with every
// packet and key the per-interface tables, so copying one must never allocate.
class IntfId {
 public:
   static constexpr size_t maxLength = 64;

   IntfId() = default;
   // For names the code itself knows to be valid; text from outside goes through parse.
   explicit IntfId(std::string_view name);

   // Letters, digits and "/.-_", 1 to maxLength bytes.
   static std::optional<IntfId> parse(std::string_view text);
   static IntfId vlan(uint16_t vlanId);

   std::string_view str() const { return {name_.data(), len_}; }
   bool empty() const { return len_ == 0; }
   // Only the canonical "Vlan<1..4094>" form names a VLAN interface.
   std::optional<uint16_t> vlanId() const;
   std::string toString() const { return std::string(str()); }

   bool operator==(const IntfId& o) const { return str() == o.str(); }
   std::strong_ordering operator<=>(const IntfId& o) const { return str() <=> o.str(); }

 private:
   static bool valid(std::string_view text);

   std::array<char, maxLength> name_{};
   uint8_t len_ = 0;
};

}  // namespace Platform

template <>
struct std::hash<Platform::IntfId> {
   size_t operator()(const Platform::IntfId& i) const noexcept {
      return std::hash<std::string_view>{}(i.str());
   }
};
