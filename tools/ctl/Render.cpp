#include "tools/ctl/Render.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <set>
#include <string_view>
#include <vector>

#include "model/Status.h"
#include "tools/ctl/Table.h"

namespace Ctl {

using nlohmann::json;

namespace {

bool isScalar(const json& v) {
   return !v.is_object() && !v.is_array();
}

// Text a YAML reader would take for something else (a number, a boolean, a comment,
// an alias...) is quoted, so the view reads like the file that produced it.
bool needsQuotes(const std::string& s) {
   static const std::set<std::string> words = {"true", "false", "null", "yes", "no", "~"};
   if (s.empty() || words.contains(s))
      return true;
   if (std::string_view("%*&!@`{}[]|>'\"#?,-").find(s.front()) != std::string_view::npos)
      return true;
   if (s.find(": ") != std::string::npos || s.find(" #") != std::string::npos || s.back() == ':' ||
       s.back() == ' ' || s.front() == ' ')
      return true;
   char* end = nullptr;
   std::strtod(s.c_str(), &end);
   return end == s.c_str() + s.size();
}

std::string scalarText(const json& v) {
   if (v.is_null())
      return "(unset)";
   if (v.is_string()) {
      const auto& s = v.get_ref<const std::string&>();
      return needsQuotes(s) ? json(s).dump(-1, ' ', false, json::error_handler_t::replace) : s;
   }
   return v.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string inlineList(const json& list) {
   std::string text = "[";
   for (const auto& v : list)
      text += (text.size() > 1 ? ", " : "") + scalarText(v);
   return text + "]";
}

bool isInlineList(const json& v) {
   if (!v.is_array())
      return false;
   for (const auto& e : v)
      if (!isScalar(e))
         return false;
   return true;
}

// The configuration file's own layout, so what is shown can be compared with the file.
void yamlBlock(const json& v, size_t indent, std::string& out) {
   const std::string pad(indent, ' ');
   if (v.is_object()) {
      for (const auto& [key, value] : v.items()) {
         // An absent value is left out, as in the file: what is shown stays a valid file.
         if (value.is_null())
            continue;
         out += pad + key + ":";
         if (isScalar(value)) {
            out += " " + scalarText(value) + "\n";
         } else if (isInlineList(value)) {
            out += " " + inlineList(value) + "\n";
         } else if (value.empty()) {
            out += " {}\n";
         } else {
            out += "\n";
            yamlBlock(value, indent + 2, out);
         }
      }
      return;
   }
   for (const auto& item : v) {
      if (isScalar(item) || isInlineList(item)) {
         out += pad + "- " + (isScalar(item) ? scalarText(item) : inlineList(item)) + "\n";
         continue;
      }
      std::string inner;
      yamlBlock(item, indent + 2, inner);
      if (inner.empty())
         inner = pad + "  {}\n";
      inner.replace(indent, 2, "- ");
      out += inner;
   }
}

// "totalRequestsDroppedByOption79" -> "Total requests dropped by option 79".
std::string humanized(const std::string& name) {
   std::vector<std::string> words;
   for (size_t i = 0; i < name.size(); ++i) {
      char c = name[i];
      bool digit = std::isdigit(static_cast<unsigned char>(c));
      bool boundary =
          words.empty() || std::isupper(static_cast<unsigned char>(c)) ||
          digit != static_cast<bool>(std::isdigit(static_cast<unsigned char>(words.back().back())));
      if (boundary)
         words.emplace_back();
      words.back() += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
   }
   std::string text;
   for (auto& w : words) {
      if (w == "vrf" || w == "ip" || w == "mac") {
         for (auto& ch : w)
            ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
      }
      text += (text.empty() ? "" : " ") + w;
   }
   if (!text.empty())
      text[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
   return text;
}

std::string timeText(const json& v) {
   if (!v.is_number())
      return scalarText(v);
   double seconds = v.get<double>();
   if (seconds <= 0)
      return "never";
   std::time_t t = static_cast<std::time_t>(std::floor(seconds));
   std::tm tm{};
   gmtime_r(&t, &tm);
   char buf[64];
   std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S UTC", &tm);
   return buf;
}

#define CTL_COUNTER_NAME(name, Name) #name,
const std::vector<std::string> kGlobalCounters = {DHCP_RELAY_STATUS_COUNTERS(CTL_COUNTER_NAME)};
const std::vector<std::string> kIntfCounters = {DHCP_RELAY_INTF_STATUS_COUNTERS(CTL_COUNTER_NAME)};
#undef CTL_COUNTER_NAME

// JSON objects arrive sorted by name; `order` puts the counters back in the order the
// record declares them, which groups them the way an operator reads them. Counters the
// list does not know follow.
void countersInto(const json& counters, const std::vector<std::string>& order, std::string& out,
                  size_t indent) {
   Table t({"", ""});
   t.rightAlignedIs(1);
   for (const auto& name : order)
      if (counters.contains(name))
         t.rowAdd({humanized(name), scalarText(counters[name])});
   for (const auto& [name, value] : counters.items())
      if (std::find(order.begin(), order.end(), name) == order.end())
         t.rowAdd({humanized(name), scalarText(value)});
   out += t.text(indent);
}

std::string nsText(const json& vrf) {
   std::string ns = vrf.value("namespace", "");
   return ns.empty() || ns == "default" ? "(agent's own)" : ns;
}

}  // namespace

std::string renderConfig(const json& data) {
   static const std::vector<std::string> order = {"vrfs",       "system",   "relay",   "devices",
                                                  "interfaces", "snooping", "bridging"};
   std::string out;
   if (data.contains("file"))
      out += "# " + data["file"].get<std::string>() + "\n";
   std::set<std::string> done = {"file"};
   auto section = [&](const std::string& key) {
      if (!done.insert(key).second || !data.contains(key))
         return;
      if (!out.empty())
         out += "\n";
      yamlBlock(json{{key, data[key]}}, 0, out);
   };
   for (const auto& key : order)
      section(key);
   for (const auto& [key, value] : data.items())
      section(key);
   return out;
}

std::string renderInterfaces(const json& data) {
   std::string out;
   for (const auto& vrf : data.at("vrfs")) {
      if (!out.empty())
         out += "\n";
      out += "VRF " + vrf.at("vrf").get<std::string>() + "  namespace " + nsText(vrf);
      bool active = vrf.value("active", false);
      if (!active)
         out += "  (inactive)";
      out += "\n";
      if (vrf.contains("error"))
         out += "  error: " + vrf["error"].get<std::string>() + "\n";
      for (const auto& m : vrf.value("missing", json::array()))
         out += "  missing: " + m.at("intfId").get<std::string>() + " (device " +
                m.at("device").get<std::string>() + " does not exist)\n";
      const json& intfs = vrf.at("interfaces");
      if (intfs.empty()) {
         if (active && !vrf.contains("error"))
            out += "  no devices\n";
         continue;
      }
      Table t({"Index", "Device", "Interface", "MAC", "Link", "IPv4", "IPv6"});
      t.rightAlignedIs(0);
      for (const auto& i : intfs) {
         bool up = i.value("up", false);
         bool running = i.value("running", false);
         const json& mac = i.at("mac");
         const json& intfId = i.at("intfId");
         Table::Cell v4, v6;
         for (const auto& a : i.at("ipv4"))
            v4.push_back(a.get<std::string>());
         for (const auto& a : i.at("ipv6"))
            v6.push_back(a.get<std::string>());
         t.multiLineRowAdd({{std::to_string(i.at("ifindex").get<uint32_t>())},
                            {i.at("device").get<std::string>()},
                            {intfId.is_null() ? "-" : intfId.get<std::string>()},
                            {mac.is_null() ? "-" : mac.get<std::string>()},
                            {!up       ? "down"
                             : running ? "up"
                                       : "no-carrier"},
                            v4.empty() ? Table::Cell{"-"} : v4,
                            v6.empty() ? Table::Cell{"-"} : v6});
      }
      out += t.text(2);
   }
   if (out.empty())
      out = "No VRFs.\n";
   return out;
}

std::string renderVrfs(const json& data) {
   Table t({"VRF", "Namespace", "State"});
   std::string errors;
   for (const auto& vrf : data) {
      t.rowAdd({vrf.at("vrf").get<std::string>(), nsText(vrf),
                vrf.value("active", false) ? "active" : "inactive"});
      if (vrf.contains("error"))
         errors += "VRF " + vrf.at("vrf").get<std::string>() +
                   " sockets: " + vrf["error"].get<std::string>() + "\n";
   }
   return t.text() + errors;
}

std::string renderRoutes(const json& data) {
   const json& routes = data.at("routes");
   if (routes.empty())
      return "no routes of delegated prefixes\n";
   Table t({"Prefix", "Next hop", "Interface", "VRF", "Valid", "Left"});
   t.rightAlignedIs(4);
   t.rightAlignedIs(5);
   for (const auto& r : routes) {
      const json& left = r.at("remaining");
      t.rowAdd({r.at("prefix").get<std::string>(), r.at("nextHop").get<std::string>(),
                r.at("interface").get<std::string>(), r.at("vrf").get<std::string>(),
                std::to_string(r.at("validLifetime").get<uint64_t>()),
                left.is_null() ? "never" : std::to_string(left.get<uint64_t>()) + "s"});
   }
   return t.text();
}

namespace {

Table dropsTable(const json& data) {
   Table t({"Reason", "Dropped"});
   t.rightAlignedIs(1);
   const json drops = data.value("drops", json::object());
   for (const auto& [reason, count] : drops.items()) {
      if (count.get<uint64_t>() != 0)
         t.rowAdd({reason, scalarText(count)});
   }
   return t;
}

}  // namespace

std::string renderDrops(const json& data) {
   const Table t = dropsTable(data);
   std::string out = t.empty() ? "No message dropped.\n" : t.text();
   if (data.contains("dhcpv6") && data["dhcpv6"].is_object()) {
      const Table t6 = dropsTable(data["dhcpv6"]);
      out += "\nDHCPv6\n" + (t6.empty() ? std::string("No message dropped.\n") : t6.text());
   }
   return out;
}

namespace {

// One family's counters, drops and interfaces.
void relayInto(const json& data, std::string& out) {
   if (data.contains("counters")) {
      out += "\nCounters\n";
      countersInto(data["counters"], kGlobalCounters, out, 2);
   }
   if (const Table drops = dropsTable(data); !drops.empty())
      out += "\nDropped, by reason\n" + drops.text();
   if (!data.contains("interfaces"))
      return;
   for (const auto& [name, intf] : data["interfaces"].items()) {
      out += "\nInterface " + name;
      if (intf.contains("lastResetTime"))
         out += "  (counters cleared " + timeText(intf["lastResetTime"]) + ")";
      out += "\n";
      if (intf.contains("counters"))
         countersInto(intf["counters"], kIntfCounters, out, 2);
      for (const auto& [key, value] : intf.items()) {
         if (key == "counters" || key == "lastResetTime" || key == "prefixBindings")
            continue;
         if (key == "servers") {
            for (const auto& server : value)
               out += "  Server: " + server.get<std::string>() + "\n";
            continue;
         }
         if (key == "warnings") {
            for (const auto& w : value)
               out += "  Warning: " + w.get<std::string>() + "\n";
            continue;
         }
         out += "  " + humanized(key) + ": " +
                (isScalar(value) ? scalarText(value) : value.dump()) + "\n";
      }
      const json bindings = intf.value("prefixBindings", json::array());
      if (bindings.empty())
         continue;
      out += "  Delegated prefixes\n";
      Table t({"Prefix", "Next hop", "VRF", "Preferred", "Valid"});
      t.rightAlignedIs(3);
      t.rightAlignedIs(4);
      for (const auto& b : bindings)
         t.rowAdd({scalarText(b.value("prefix", json())), scalarText(b.value("nextHop", json())),
                   scalarText(b.value("vrf", json())),
                   scalarText(b.value("preferredLifetime", json())),
                   scalarText(b.value("validLifetime", json()))});
      out += t.text(4);
   }
}

}  // namespace

std::string renderStatus(const json& data) {
   std::string out;
   Table summary({"", ""});
   if (data.contains("families")) {
      for (const auto& [family, state] : data["families"].items())
         summary.rowAdd({family == "dhcpv4" ? "DHCPv4 relay" : "DHCPv6 relay",
                         state.get<std::string>() == "idle" ? "idle (no interface relays)"
                                                            : state.get<std::string>()});
   } else if (data.contains("runControl")) {
      summary.rowAdd(
          {"Relay", data["runControl"].get<bool>() ? "running" : "idle (no interface relays)"});
   }
   if (data.contains("agent")) {
      const json& agent = data["agent"];
      summary.rowAdd({"Version", scalarText(agent.value("version", json()))});
      summary.rowAdd({"Process", scalarText(agent.value("pid", json()))});
      summary.rowAdd({"Started", timeText(agent.value("startTime", json()))});
   }
   if (data.contains("config")) {
      const json& config = data["config"];
      summary.rowAdd({"Configuration", scalarText(config.value("file", json())) + ", loaded " +
                                           timeText(config.value("loadedAt", json()))});
   }
   if (data.contains("numSmartRelayedHosts"))
      summary.rowAdd({"Smart-relayed hosts", scalarText(data["numSmartRelayedHosts"])});
   if (data.contains("counterUpdateTime"))
      summary.rowAdd({"Counters updated", timeText(data["counterUpdateTime"])});
   if (data.contains("lastResetAllTime"))
      summary.rowAdd({"Counters cleared", timeText(data["lastResetAllTime"])});
   for (const auto& [key, value] : data.items()) {
      static const std::set<std::string> shown = {"runControl", "numSmartRelayedHosts",
                                                  "counterUpdateTime", "lastResetAllTime"};
      if (isScalar(value) && !shown.contains(key))
         summary.rowAdd({humanized(key), scalarText(value)});
   }
   out += summary.text();
   for (const auto& w : data.value("warnings", json::array()))
      out += "Warning: " + w.get<std::string>() + "\n";
   relayInto(data, out);
   if (data.contains("dhcpv6") && data["dhcpv6"].is_object()) {
      out += "\nDHCPv6\n";
      relayInto(data["dhcpv6"], out);
   }
   return out;
}

std::string renderDuidBindings(const json& data) {
   const std::string limit = scalarText(data.value("limit", json()));
   std::string out;
   for (const auto& vrf : data.at("vrfs")) {
      const json& bindings = vrf.at("bindings");
      out += (out.empty() ? "" : "\n") + std::string("VRF ") + vrf.at("vrf").get<std::string>() +
             "  " + std::to_string(bindings.size()) + " of at most " + limit + " bindings, " +
             scalarText(vrf.value("refused", json())) + " refused\n";
      if (vrf.contains("captures")) {
         for (const auto& [intf, state] : vrf["captures"].items())
            out += "  capture on " + intf + ": " + state.get<std::string>() + "\n";
      }
      if (bindings.empty())
         continue;
      Table t({"Interface", "DUID", "Xid", "MAC", "Held", "Age"});
      t.rightAlignedIs(5);
      for (const auto& b : bindings) {
         const auto text = [&](const char* key) {
            const json& v = b.at(key);
            return v.is_null() ? std::string("-") : v.get<std::string>();
         };
         char xid[16];
         std::snprintf(xid, sizeof xid, "0x%06x", b.at("xid").get<unsigned>());
         char age[32];
         std::snprintf(age, sizeof age, "%.1fs", b.at("age").get<double>());
         t.rowAdd({text("interface"), text("duid"), xid, text("mac"), text("held"), age});
      }
      out += t.text(2);
   }
   return out.empty() ? "No VRF relays DHCPv6.\n" : out;
}

std::string renderReload(const json& data) {
   std::string out = "Configuration reloaded";
   if (data.is_object() && data.contains("file"))
      out += " from " + data["file"].get<std::string>();
   out += ".\n";
   if (data.is_object() && data.contains("warnings"))
      for (const auto& w : data["warnings"])
         out += "warning: " + w.get<std::string>() + "\n";
   return out;
}

std::string renderTrace(const json& data) {
   const int level = data.at("level").get<int>();
   return level < 0 ? "Text trace is off.\n"
                    : "Text trace keeps levels 0-" + std::to_string(level) + ".\n";
}

std::string renderCleared(const json& data) {
   const std::string what = data.value("cleared", "all");
   return what == "all" ? "Relay counters cleared.\n" : "Relay counters of " + what + " cleared.\n";
}

}  // namespace Ctl
