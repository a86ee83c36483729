#include "platform/addr/IpGenAddr.h"

#include "platform/base/Assert.h"

namespace Platform {

std::optional<IpGenAddr> IpGenAddr::parse(std::string_view text) {
   if (text.empty())
      return IpGenAddr();
   // A colon can only appear in the IPv6 form, so one parser decides.
   if (text.find(':') != std::string_view::npos) {
      if (const auto a = Ip6Addr::parse(text))
         return IpGenAddr(*a);
   } else if (const auto a = IpAddr::parse(text)) {
      return IpGenAddr(*a);
   }
   return std::nullopt;
}

IpAddr IpGenAddr::v4() const {
   PLATFORM_ASSERT(isV4(), "IpGenAddr::v4 on an address that is not IPv4");
   return std::get<IpAddr>(addr_);
}

Ip6Addr IpGenAddr::v6() const {
   PLATFORM_ASSERT(isV6(), "IpGenAddr::v6 on an address that is not IPv6");
   return std::get<Ip6Addr>(addr_);
}

std::string IpGenAddr::toString() const {
   if (isV4())
      return v4().toString();
   if (isV6())
      return v6().toString();
   return "";
}

}  // namespace Platform
