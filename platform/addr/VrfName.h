#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace Platform {

// A name with a length limit. Constructing an over-long name is a programming error
// and throws; text from outside goes through parse, which refuses it instead.
template <class Derived, size_t MaxLength>
class BoundedName {
 public:
   static constexpr size_t maxLength = MaxLength;

   BoundedName() = default;
   explicit BoundedName(std::string name) : name_(std::move(name)) {
      if (name_.size() > maxLength)
         throw std::range_error(Derived::tooLongText);
   }

   static std::optional<Derived> parse(std::string_view text) {
      if (text.size() > maxLength)
         return std::nullopt;
      return Derived(std::string(text));
   }

   const std::string& str() const { return name_; }
   bool empty() const { return name_.empty(); }
   std::string toString() const { return name_; }

   auto operator<=>(const BoundedName&) const = default;

 private:
   std::string name_;
};

class VrfName : public BoundedName<VrfName, 100> {
 public:
   static constexpr const char* tooLongText = "VrfName::bytes > VrfName::maxLength not allowed";

   using BoundedName::BoundedName;

   static VrfName defaultVrf() { return VrfName("default"); }
   bool isDefault() const { return str() == "default"; }
};

class NamespaceName : public BoundedName<NamespaceName, 150> {
 public:
   static constexpr const char* tooLongText = "NamespaceName::bytes > 150 not allowed";

   using BoundedName::BoundedName;
};

}  // namespace Platform

template <>
struct std::hash<Platform::VrfName> {
   size_t operator()(const Platform::VrfName& n) const noexcept {
      return std::hash<std::string>{}(n.str());
   }
};

template <>
struct std::hash<Platform::NamespaceName> {
   size_t operator()(const Platform::NamespaceName& n) const noexcept {
      return std::hash<std::string>{}(n.str());
   }
};
