#include "platform/addr/IntfId.h"

#include <algorithm>
#include <charconv>

#include "platform/base/Assert.h"

namespace Platform {

namespace {

constexpr std::string_view vlanPrefix = "Vlan";
constexpr uint16_t vlanIdMax = 4094;

bool validChar(char c) {
   return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '/' ||
          c == '.' || c == '-' || c == '_';
}

}  // namespace

bool IntfId::valid(std::string_view text) {
   return !text.empty() && text.size() <= maxLength &&
          std::all_of(text.begin(), text.end(), validChar);
}

IntfId::IntfId(std::string_view name) {
   PLATFORM_ASSERT(valid(name), "IntfId built from an invalid interface name");
   std::copy(name.begin(), name.end(), name_.begin());
   len_ = static_cast<uint8_t>(name.size());
}

std::optional<IntfId> IntfId::parse(std::string_view text) {
   if (!valid(text))
      return std::nullopt;
   return IntfId(text);
}

IntfId IntfId::vlan(uint16_t vlanId) {
   PLATFORM_ASSERT(vlanId >= 1 && vlanId <= vlanIdMax, "VLAN id outside 1..4094");
   char buf[sizeof("Vlan4094")];
   const auto out = std::copy(vlanPrefix.begin(), vlanPrefix.end(), buf);
   const auto end = std::to_chars(out, buf + sizeof(buf), vlanId).ptr;
   return IntfId(std::string_view(buf, static_cast<size_t>(end - buf)));
}

std::optional<uint16_t> IntfId::vlanId() const {
   const std::string_view name = str();
   if (!name.starts_with(vlanPrefix))
      return std::nullopt;
   const std::string_view digits = name.substr(vlanPrefix.size());
   // "Vlan010" is a different interface name from "Vlan10", so it is not VLAN 10.
   if (digits.empty() || digits.size() > 4 || digits[0] == '0')
      return std::nullopt;
   uint16_t id = 0;
   const char* last = digits.data() + digits.size();
   const auto [end, ec] = std::from_chars(digits.data(), last, id);
   if (ec != std::errc() || end != last || id > vlanIdMax)
      return std::nullopt;
   return id;
}

}  // namespace Platform
