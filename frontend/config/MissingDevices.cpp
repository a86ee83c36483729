#include "frontend/config/MissingDevices.h"

#include <net/if.h>

#include <map>
#include <set>
#include <unordered_set>

#include "platform/linux/NetNs.h"

namespace Frontend {

namespace {

std::string quoted(const std::string& s) {
   return "\"" + s + "\"";
}

}  // namespace

std::vector<std::string> missingDeviceWarnings(const ParsedConfig& parsed,
                                               const std::string& file) {
   const ConfigDocument& doc = parsed.document;
   // Interfaces by the namespace they live in, so each namespace is entered once.
   struct Wanted {
      Platform::IntfId intf;
      std::string device;
   };
   std::map<Platform::VrfName, std::vector<Wanted>> byVrf;
   for (const auto& [intf, cfg] : doc.interfaces)
      byVrf[cfg.vrf].push_back({intf, doc.deviceOf(intf)});
   std::vector<std::string> out;
   size_t more = 0;
   auto warn = [&](const Platform::IntfId& intf, const std::string& what) {
      if (out.size() == kMaxReportedErrors) {
         ++more;
         return;
      }
      const auto place = parsed.devicePlaces.find(intf);
      if (place == parsed.devicePlaces.end())
         out.push_back(file + ": " + intf.toString() + ": " + what);
      else
         out.push_back(file + ":" + std::to_string(place->second.line) + ": " +
                       place->second.field + ": " + what);
   };
   for (const auto& [vrf, wanted] : byVrf) {
      std::string ns = "default";
      if (!vrf.isDefault()) {
         const auto it = doc.vrfs.find(vrf);
         ns = it != doc.vrfs.end() ? it->second.str() : vrf.str();
      }
      const std::string where = "VRF " + vrf.str() + " (namespace " + ns + ")";
      const Platform::NetNsGuard inside(ns);
      if (!inside.ok()) {
         warn(wanted.front().intf, "the namespace of " + where +
                                       " does not exist yet: its interfaces relay nothing "
                                       "until it does");
         continue;
      }
      // One dump of the namespace's devices rather than a query per interface: a switch
      // has thousands.
      std::unordered_set<std::string> present;
      if (struct if_nameindex* all = ::if_nameindex()) {
         for (const struct if_nameindex* i = all; i->if_index != 0; ++i)
            present.insert(i->if_name);
         ::if_freenameindex(all);
      }
      for (const Wanted& w : wanted) {
         if (!present.contains(w.device))
            warn(w.intf, "device " + quoted(w.device) + " does not exist in " + where +
                             ": the interface relays nothing until it appears");
      }
   }
   if (more)
      out.push_back(file + ": " + std::to_string(more) + " more warnings not shown");
   return out;
}

}  // namespace Frontend
