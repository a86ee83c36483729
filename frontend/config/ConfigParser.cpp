#include "frontend/config/ConfigParser.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <initializer_list>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "codec/Dhcp6Codec.h"
#include "frontend/config/YamlTree.h"
#include "platform/linux/Fd.h"

namespace Frontend {

namespace {

using Platform::EthAddr;
using Platform::IntfId;
using Platform::Ip6Addr;
using Platform::IpAddr;
using Platform::IpGenAddr;
using Platform::NamespaceName;
using Platform::VrfName;

constexpr size_t kHostnameMax = 253;
constexpr size_t kHostnameLabelMax = 63;
// The circuit-id travels as one DHCP sub-option, whose length is a single byte.
constexpr size_t kCircuitIdMax = 255;
// IFNAMSIZ less the terminating NUL.
constexpr size_t kDeviceNameMax = 15;
constexpr int64_t kVlanMin = 1;
constexpr int64_t kVlanMax = 4094;
constexpr int64_t kDscpMax = 63;
constexpr int64_t kCircuitIdTypeMax = 255;

const std::string_view kFormatPortVlan = "%p:%v";
const std::string_view kFormatHostPort = "%h:%p";

// A node under validation and where its problems are reported. Its path
// ("interfaces.Ethernet1.servers[0]") is spelled out only for a report: a file of a
// hundred thousand servers has a few hundred thousand nodes and, mostly, no problems.
struct Value {
   // The root.
   Value(const Yaml::Node* node, int line) : node(node), line(line) {}
   // Under `key` of the map `parent`.
   Value(const Yaml::Node* node, int line, const Value& parent, std::string_view key)
       : node(node), line(line), parent(&parent), key(key) {}
   // At `index` of the list `parent`.
   Value(const Yaml::Node* node, int line, const Value& parent, size_t index)
       : node(node), line(line), parent(&parent), index(index), item(true) {}

   const Yaml::Node* node;
   int line;
   const Value* parent = nullptr;
   std::string_view key;
   size_t index = 0;
   bool item = false;

   std::string path() const {
      if (!parent)
         return std::string(key);
      std::string out = parent->path();
      if (item)
         return out + "[" + std::to_string(index) + "]";
      return out.empty() ? std::string(key) : out + "." + std::string(key);
   }
};

// A call through to a callable that outlives the call. Handler tables are built for
// every map of the file, and std::function would allocate for each handler.
template <class Signature>
class FunctionRef;
template <class R, class... Args>
class FunctionRef<R(Args...)> {
 public:
   template <class F>
   FunctionRef(const F& f)  // NOLINT: converts like std::function does
       : object_(&f), call_([](const void* o, Args... args) -> R {
            return (*static_cast<const F*>(o))(std::forward<Args>(args)...);
         }) {}
   R operator()(Args... args) const { return call_(object_, std::forward<Args>(args)...); }

 private:
   const void* object_;
   R (*call_)(const void*, Args...);
};

// YAML readers mark an empty value with the position of the token after it, often on a
// later line, so problems with an empty value are reported on its key's line.
int lineOf(const Yaml::Node& node, int fallback) {
   if (node.kind == Yaml::Kind::null || node.line < 0)
      return fallback;
   return node.line + 1;
}

std::string quoted(std::string_view text) {
   std::string out = "\"";
   for (const char c : text) {
      if (c == '"' || c == '\\') {
         out += '\\';
         out += c;
      } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
         static constexpr char hex[] = "0123456789abcdef";
         out += "\\x";
         out += hex[(c >> 4) & 0xf];
         out += hex[c & 0xf];
      } else {
         out += c;
      }
   }
   return out + "\"";
}

constexpr std::string_view kCoreTagPrefix = "tag:yaml.org,2002:";

// A scalar is a boolean or a number only when written without quotes, or tagged as
// one (`!!int 5`); "5" in quotes is a string.
bool isScalarOf(const Yaml::Node& node, std::string_view coreType) {
   if (node.kind != Yaml::Kind::scalar)
      return false;
   const std::string& tag = node.tag;
   return tag == "?" ||
          (tag.starts_with(kCoreTagPrefix) && tag.substr(kCoreTagPrefix.size()) == coreType);
}

std::string describe(const Yaml::Node& node) {
   switch (node.kind) {
      case Yaml::Kind::map:
         return "a map";
      case Yaml::Kind::sequence:
         return "a list";
      case Yaml::Kind::scalar:
         if (node.tag == "?")
            return quoted(node.text);
         if (node.tag == "!")
            return "a quoted string " + quoted(node.text);
         return quoted(node.text) + " tagged " + node.tag;
      default:
         return "nothing";
   }
}

bool validHostname(std::string_view name) {
   if (name.ends_with('.'))
      name.remove_suffix(1);
   if (name.empty())
      return false;
   size_t start = 0;
   while (start <= name.size()) {
      size_t end = name.find('.', start);
      if (end == std::string_view::npos)
         end = name.size();
      const std::string_view label = name.substr(start, end - start);
      if (label.empty() || label.size() > kHostnameLabelMax || label.front() == '-' ||
          label.back() == '-')
         return false;
      for (const char c : label) {
         const bool ok =
             (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-';
         if (!ok)
            return false;
      }
      start = end + 1;
   }
   return true;
}

// The kernel's own rule for device names.
bool validDeviceName(std::string_view name) {
   if (name.empty() || name.size() > kDeviceNameMax || name == "." || name == "..")
      return false;
   return std::none_of(name.begin(), name.end(), [](char c) {
      return c == '/' || c == ':' || c == ' ' || (c >= '\t' && c <= '\r');
   });
}

class Parser {
 public:
   explicit Parser(std::string file) : file_(std::move(file)) {}

   ParsedConfig run(const std::string& text) {
      const Yaml::Stream stream(text);
      if (const auto& e = stream.error()) {
         error(e->line + 1, "(syntax)", e->what);
         return result();
      }
      const std::vector<const Yaml::Node*>& documents = stream.documents();
      if (documents.empty() || documents[0]->kind == Yaml::Kind::null) {
         error(1, "(root)",
               "the file holds no configuration (empty, or only comments); a truncated file "
               "must not stop all relaying");
         return result();
      }
      if (documents.size() > 1)
         error(lineOf(*documents[1], 1), "(root)", "only one YAML document is allowed");
      root(Value(documents[0], lineOf(*documents[0], 1)));
      checkVrfReferences();
      ParsedConfig out = result();
      if (out.ok() && !relaysAnything(out.document))
         out.warnings.push_back(file_ +
                                ": no interface has servers and snooping is off: the agent "
                                "will relay nothing");
      if (out.ok())
         warnNotYetDone(out);
      return out;
   }

   void error(int line, const std::string& field, const std::string& what) {
      // A hostile file can hold millions of mistakes; only the first are worth reading.
      if (errors_.size() >= kKeptErrors) {
         ++errorsNotKept_;
         return;
      }
      errors_.push_back({line, file_ + ":" + std::to_string(line) + ": " +
                                   (field.empty() ? "(root)" : field) + ": " + what});
   }

 private:
   using Member = std::pair<std::string_view, FunctionRef<void(const Value&)>>;

   struct Error {
      int line;
      std::string text;
   };
   struct VrfReference {
      VrfName vrf;
      int line;
      std::string path;
   };

   static constexpr size_t kKeptErrors = 1000;

   // Settings this version reads but does not act on yet: taken, so a file written for a
   // later version still loads, but never silently.
   void warnNotYetDone(ParsedConfig& out) const {
      if (out.document.snooping.enabled)
         out.warnings.push_back(file_ + ": snooping.enabled: this version does not snoop yet");
   }

   static bool relaysAnything(const ConfigDocument& doc) {
      if (doc.snooping.enabled)
         return true;
      return std::any_of(doc.interfaces.begin(), doc.interfaces.end(), [](const auto& entry) {
         return !entry.second.servers.empty() || !entry.second.serversV6.empty();
      });
   }

   ParsedConfig result() {
      std::stable_sort(errors_.begin(), errors_.end(),
                       [](const Error& a, const Error& b) { return a.line < b.line; });
      ParsedConfig out;
      const size_t shown = std::min(errors_.size(), kMaxReportedErrors);
      for (size_t i = 0; i < shown; ++i)
         out.errors.push_back(std::move(errors_[i].text));
      if (const size_t more = errors_.size() - shown + errorsNotKept_)
         out.errors.push_back(file_ + ": " + std::to_string(more) + " more error" +
                              (more == 1 ? "" : "s") + " not shown");
      if (out.errors.empty()) {
         out.document = std::move(doc_);
         out.devicePlaces = std::move(devicePlaces_);
      }
      return out;
   }

   size_t errorCount() const { return errors_.size(); }

   // --- structure ----------------------------------------------------------------

   // An empty value stands for an empty map or list, so that a section whose entries
   // are all commented out stays valid.
   bool isCollection(const Value& v, Yaml::Kind kind, const char* expected) {
      if (v.node->kind == Yaml::Kind::null)
         return false;
      if (v.node->kind == kind)
         return true;
      error(v.line, v.path(), std::string("expected ") + expected + ", got " + describe(*v.node));
      return false;
   }

   // Calls f(keyText, keyLine, member) for each well-formed key of a map, in file order.
   template <class F>
   void forEachKey(const Value& map, F&& f) {
      if (!isCollection(map, Yaml::Kind::map, "a map"))
         return;
      const std::vector<const Yaml::Node*>& pairs = map.node->children;
      const std::vector<int> firstLines = repeatedKeys(map);
      for (size_t i = 0; i + 1 < pairs.size(); i += 2) {
         const Yaml::Node& key = *pairs[i];
         const int keyLine = lineOf(key, map.line);
         const Value member(pairs[i + 1], lineOf(*pairs[i + 1], keyLine), map, key.text);
         if (key.kind != Yaml::Kind::scalar) {
            error(keyLine, map.path(), "a key must be a string, got " + describe(key));
            continue;
         }
         if (!firstLines.empty() && firstLines[i / 2] != 0) {
            error(keyLine, member.path(),
                  "duplicate key (first at line " + std::to_string(firstLines[i / 2]) + ")");
            continue;
         }
         f(key.text, keyLine, member);
      }
   }

   // The tree keeps every pair of a map, repeated keys included. For each pair, the line
   // of the first pair with its key when it repeats one, else 0; empty when no key repeats.
   static std::vector<int> repeatedKeys(const Value& map) {
      const std::vector<const Yaml::Node*>& pairs = map.node->children;
      const auto keyOf = [&](size_t pair) -> const Yaml::Node& { return *pairs[2 * pair]; };
      std::vector<size_t> order;
      for (size_t k = 0; k < pairs.size() / 2; ++k) {
         if (keyOf(k).kind == Yaml::Kind::scalar)
            order.push_back(k);
      }
      // Stable: of equal keys, the first in the file leads.
      std::stable_sort(order.begin(), order.end(),
                       [&](size_t a, size_t b) { return keyOf(a).text < keyOf(b).text; });
      std::vector<int> firstLines;
      for (size_t j = 1, lead = 0; j < order.size(); ++j) {
         if (keyOf(order[j]).text != keyOf(order[lead]).text) {
            lead = j;
            continue;
         }
         firstLines.resize(pairs.size() / 2);
         firstLines[order[j]] = lineOf(keyOf(order[lead]), map.line);
      }
      return firstLines;
   }

   // A map with a fixed set of keys, each read by its own handler.
   void members(const Value& map, std::initializer_list<Member> handlers) {
      forEachKey(map, [&](const std::string& key, int keyLine, const Value& member) {
         const auto it = std::find_if(handlers.begin(), handlers.end(),
                                      [&](const Member& h) { return h.first == key; });
         if (it != handlers.end()) {
            it->second(member);
            return;
         }
         std::string allowed;
         for (const Member& h : handlers)
            allowed += (allowed.empty() ? "" : ", ") + std::string(h.first);
         error(keyLine, member.path(), "unknown key; allowed: " + allowed);
      });
   }

   template <class F>
   void elements(const Value& seq, F&& f) {
      if (!isCollection(seq, Yaml::Kind::sequence, "a list"))
         return;
      size_t index = 0;
      for (const Yaml::Node* node : seq.node->children)
         f(Value(node, lineOf(*node, seq.line), seq, index++));
   }

   // --- scalars ------------------------------------------------------------------

   std::optional<std::string> string(const Value& v) {
      if (v.node->kind == Yaml::Kind::scalar)
         return v.node->text;
      error(v.line, v.path(), "expected a string, got " + describe(*v.node));
      return std::nullopt;
   }

   std::optional<bool> boolean(const Value& v) {
      if (isScalarOf(*v.node, "bool")) {
         const std::string& s = v.node->text;
         if (s == "true" || s == "True" || s == "TRUE")
            return true;
         if (s == "false" || s == "False" || s == "FALSE")
            return false;
      }
      error(v.line, v.path(), "expected true or false, got " + describe(*v.node));
      return std::nullopt;
   }

   std::optional<int64_t> integerIn(const Value& v, int64_t min, int64_t max, const char* what) {
      if (isScalarOf(*v.node, "int")) {
         const std::string& s = v.node->text;
         const char* first = s.data();
         const char* last = s.data() + s.size();
         const bool digits = !s.empty() && std::all_of(first + (s[0] == '-'), last, [](char c) {
            return c >= '0' && c <= '9';
         }) && s != "-";
         if (digits) {
            int64_t n = 0;
            const auto [end, ec] = std::from_chars(first, last, n);
            if (ec == std::errc() && end == last && n >= min && n <= max)
               return n;
            error(v.line, v.path(),
                  std::string(what) + " outside " + std::to_string(min) + ".." +
                      std::to_string(max) + ": " + s);
            return std::nullopt;
         }
      }
      error(v.line, v.path(), "expected an integer, got " + describe(*v.node));
      return std::nullopt;
   }

   void setBool(const Value& v, bool& out) {
      if (const auto b = boolean(v))
         out = *b;
   }

   std::optional<uint16_t> vlan(const Value& v) {
      if (const auto n = integerIn(v, kVlanMin, kVlanMax, "VLAN id"))
         return static_cast<uint16_t>(*n);
      return std::nullopt;
   }

   void vlanSet(const Value& v, std::set<uint16_t>& out) {
      elements(v, [&](const Value& e) {
         const auto id = vlan(e);
         if (id && !out.insert(*id).second)
            error(e.line, e.path(), "duplicate VLAN " + std::to_string(*id));
      });
   }

   void dscp(const Value& v, uint8_t& out) {
      if (const auto n = integerIn(v, 0, kDscpMax, "DSCP"))
         out = static_cast<uint8_t>(*n);
   }

   // `at` is where a problem is reported.
   std::optional<IntfId> intfName(int line, const Value& at, const std::string& text) {
      if (const auto id = IntfId::parse(text))
         return id;
      if (text.size() > IntfId::maxLength) {
         error(line, at.path(),
               "interface name longer than " + std::to_string(IntfId::maxLength) + " bytes");
      } else {
         error(line, at.path(),
               "not an interface name (letters, digits and \"/.-_\"): " + quoted(text));
      }
      return std::nullopt;
   }

   std::optional<IntfId> intfName(const Value& v) {
      const auto s = string(v);
      return s ? intfName(v.line, v, *s) : std::nullopt;
   }

   std::optional<VrfName> vrfName(int line, const Value& at, const std::string& text) {
      if (text.empty()) {
         error(line, at.path(), "VRF name is empty");
         return std::nullopt;
      }
      if (text.find(Ip::Helper::DhcpRelay::kInterfaceIdSeparator) != std::string::npos) {
         error(line, at.path(),
               std::string("VRF name holds \"") + Ip::Helper::DhcpRelay::kInterfaceIdSeparator +
                   "\", which separates interface and VRF in the DHCPv6 Interface-Id: " +
                   quoted(text));
         return std::nullopt;
      }
      if (const auto name = VrfName::parse(text))
         return name;
      error(line, at.path(),
            "VRF name longer than " + std::to_string(VrfName::maxLength) + " bytes");
      return std::nullopt;
   }

   // A VRF that an interface or server uses; checked against `vrfs:` at the end.
   std::optional<VrfName> vrfReference(const Value& v) {
      const auto s = string(v);
      if (!s)
         return std::nullopt;
      auto name = vrfName(v.line, v, *s);
      if (name)
         vrfReferences_.push_back({*name, v.line, v.path()});
      return name;
   }

   std::optional<std::string> hostname(const Value& v) {
      auto s = string(v);
      if (!s)
         return std::nullopt;
      if (s->size() > kHostnameMax + (s->ends_with('.') ? 1 : 0)) {
         error(v.line, v.path(),
               "host name longer than " + std::to_string(kHostnameMax) + " bytes");
         return std::nullopt;
      }
      if (!validHostname(*s)) {
         error(v.line, v.path(), "not a host name: " + quoted(*s));
         return std::nullopt;
      }
      return s;
   }

   std::optional<IpGenAddr> address(const Value& v, bool v6) {
      const auto s = string(v);
      if (!s)
         return std::nullopt;
      if (v6) {
         if (const auto a = Ip6Addr::parse(*s))
            return IpGenAddr(*a);
         error(v.line, v.path(), "not an IPv6 address: " + quoted(*s));
      } else {
         if (const auto a = IpAddr::parse(*s))
            return IpGenAddr(*a);
         error(v.line, v.path(), "not an IPv4 address: " + quoted(*s));
      }
      return std::nullopt;
   }

   // --- sections -----------------------------------------------------------------

   void root(const Value& v) {
      members(v, {{"vrfs", [&](const Value& m) { vrfs(m); }},
                  {"system", [&](const Value& m) { system(m); }},
                  {"relay", [&](const Value& m) { relay(m); }},
                  {"devices", [&](const Value& m) { devices(m); }},
                  {"interfaces", [&](const Value& m) { interfaces(m); }},
                  {"snooping", [&](const Value& m) { snooping(m); }},
                  {"bridging", [&](const Value& m) { bridging(m); }},
                  {"metrics", [&](const Value& m) { metrics(m); }}});
   }

   void vrfs(const Value& v) {
      std::map<std::string, std::string> vrfOfNamespace;
      forEachKey(v, [&](const std::string& key, int keyLine, const Value& m) {
         auto vrf = vrfName(keyLine, m, key);
         if (!vrf)
            return;
         if (vrf->isDefault()) {
            error(keyLine, m.path(),
                  "the default VRF is the agent's own namespace and takes no entry");
            return;
         }
         declaredVrfs_.insert(*vrf);
         const auto ns = string(m);
         if (!ns)
            return;
         if (ns->empty()) {
            error(m.line, m.path(), "namespace name is empty");
         } else if (ns->size() > NamespaceName::maxLength) {
            error(m.line, m.path(),
                  "namespace name longer than " + std::to_string(NamespaceName::maxLength) +
                      " bytes");
         } else if (*ns == "." || *ns == ".." || ns->find('/') != std::string::npos) {
            // Namespaces are named by files under /run/netns.
            error(m.line, m.path(), "not a namespace name: " + quoted(*ns));
         } else if (*ns == "default") {
            // The platform reads this name as the agent's own namespace.
            error(m.line, m.path(), "namespace \"default\" is the default VRF's own");
         } else if (const auto [other, added] = vrfOfNamespace.emplace(*ns, key); !added) {
            error(m.line, m.path(),
                  "namespace " + quoted(*ns) + " already holds VRF " + quoted(other->second));
         } else {
            doc_.vrfs.emplace(*vrf, *NamespaceName::parse(*ns));
         }
      });
   }

   void system(const Value& v) {
      members(v, {{"hostname",
                   [&](const Value& m) {
                      if (auto h = hostname(m))
                         doc_.system.hostname = std::move(*h);
                   }},
                  {"bridge-mac", [&](const Value& m) { bridgeMac(m); }}});
   }

   void bridgeMac(const Value& v) {
      if (const auto mac = unicastMac(v))
         doc_.system.bridgeMac = mac;
   }

   std::optional<EthAddr> unicastMac(const Value& v) {
      const auto s = string(v);
      if (!s)
         return std::nullopt;
      const auto mac = EthAddr::parse(*s);
      if (!mac) {
         error(v.line, v.path(), "not a MAC address: " + quoted(*s));
      } else if (mac->isZero() || (mac->bytes()[0] & 1)) {
         error(v.line, v.path(), "not a unicast MAC address: " + quoted(*s));
      } else {
         return mac;
      }
      return std::nullopt;
   }

   void relay(const Value& v) {
      RelayDoc& r = doc_.relay;
      members(v, {{"smart-relay", [&](const Value& m) { setBool(m, r.smartRelay); }},
                  {"dscp-v4", [&](const Value& m) { dscp(m, r.dscpV4); }},
                  {"dscp-v6", [&](const Value& m) { dscp(m, r.dscpV6); }},
                  {"always-on", [&](const Value& m) { setBool(m, r.alwaysOn); }},
                  {"client-link-layer-address",
                   [&](const Value& m) { setBool(m, r.clientLinkLayerAddress); }},
                  {"remote-id", [&](const Value& m) { remoteId(m); }}});
   }

   void remoteId(const Value& v) {
      RelayDoc& r = doc_.relay;
      members(v, {{"enterprise-number",
                   [&](const Value& m) {
                      if (const auto n = integerIn(m, 0, UINT32_MAX, "enterprise number"))
                         r.remoteIdEnterprise = static_cast<uint32_t>(*n);
                   }},
                  {"mac", [&](const Value& m) { r.remoteIdMac = unicastMac(m); }}});
   }

   void devices(const Value& v) {
      std::map<std::string, std::string> intfOfDevice;
      forEachKey(v, [&](const std::string& key, int keyLine, const Value& m) {
         const auto intf = intfName(keyLine, m, key);
         const auto device = string(m);
         if (!intf || !device)
            return;
         if (!validDeviceName(*device)) {
            error(m.line, m.path(),
                  "not a kernel device name (1 to 15 bytes, no \"/\", \":\" or space): " +
                      quoted(*device));
         } else if (const auto [other, added] = intfOfDevice.emplace(*device, key); !added) {
            error(m.line, m.path(),
                  "device " + quoted(*device) + " is already the device of " + other->second);
         } else {
            doc_.devices.emplace(*intf, *device);
            devicePlaces_[*intf] = {m.line, m.path()};
         }
      });
   }

   void interfaces(const Value& v) {
      forEachKey(v, [&](const std::string& key, int keyLine, const Value& m) {
         const auto intf = intfName(keyLine, m, key);
         InterfaceDoc doc = interface(m);
         if (intf) {
            doc_.interfaces.emplace(*intf, std::move(doc));
            devicePlaces_.emplace(*intf, DevicePlace{keyLine, m.path()});
         }
      });
   }

   struct PendingServer {
      ServerDoc server;
      bool vrfGiven = false;
      bool valid = false;
      int line = 0;
   };
   struct ServerList {
      std::string path;  // for reports, spelled out once per list
      std::vector<PendingServer> servers;
   };

   InterfaceDoc interface(const Value& v) {
      InterfaceDoc doc;
      ServerList servers;
      ServerList serversV6;
      members(v,
              {{"vrf",
                [&](const Value& m) {
                   if (const auto vrf = vrfReference(m))
                      doc.vrf = *vrf;
                }},
               {"servers", [&](const Value& m) { servers = serverList(m, false); }},
               {"servers-v6", [&](const Value& m) { serversV6 = serverList(m, true); }},
               {"ccap-cores", [&](const Value& m) { ccapCores(m, doc.ccapCores); }},
               {"smart-relay", [&](const Value& m) { setBool(m, doc.smartRelay); }},
               {"information-option", [&](const Value& m) { setBool(m, doc.informationOption); }},
               {"information-option-policy",
                [&](const Value& m) { infoOptionPolicy(m, doc.informationOptionPolicy); }},
               {"circuit-id", [&](const Value& m) { circuitId(m, doc.circuitId); }},
               {"route-install", [&](const Value& m) { setBool(m, doc.routeInstall); }}});
      if (!doc.informationOption)
         checkNeedsInfoOption(servers, doc.vrf);
      // Servers inherit the interface's VRF, which may be written after them.
      doc.servers = resolveServers(std::move(servers), doc.vrf);
      doc.serversV6 = resolveServers(std::move(serversV6), doc.vrf);
      return doc;
   }

   void infoOptionPolicy(const Value& v, Ip::Helper::DhcpRelay::InfoOptionPolicy& out) {
      using Ip::Helper::DhcpRelay::InfoOptionPolicy;
      const auto text = string(v);
      if (!text)
         return;
      if (*text == "drop")
         out = InfoOptionPolicy::drop;
      else if (*text == "keep")
         out = InfoOptionPolicy::keep;
      else if (*text == "replace")
         out = InfoOptionPolicy::replace;
      else
         error(v.line, v.path(), "expected drop, keep or replace, got " + quoted(*text));
   }

   ServerList serverList(const Value& v, bool v6) {
      ServerList out{v.path(), {}};
      elements(v, [&](const Value& e) {
         const size_t errorsBefore = errorCount();
         out.servers.push_back(server(e, v6));
         out.servers.back().valid = errorCount() == errorsBefore;
      });
      return out;
   }

   PendingServer server(const Value& v, bool v6) {
      PendingServer p;
      p.line = v.line;
      ServerDoc& s = p.server;
      bool hasAddress = false, hasHostname = false, hasSourceIntf = false, hasSourceAddr = false;
      const auto onAddress = [&](const Value& m) {
         hasAddress = true;
         if (const auto a = address(m, v6))
            s.address = *a;
      };
      const auto onHostname = [&](const Value& m) {
         hasHostname = true;
         if (auto h = hostname(m))
            s.hostname = std::move(*h);
      };
      const auto onVrf = [&](const Value& m) {
         p.vrfGiven = true;
         if (const auto name = vrfReference(m))
            s.vrf = *name;
      };
      const auto onSourceIntf = [&](const Value& m) {
         hasSourceIntf = true;
         if (const auto intf = intfName(m))
            s.sourceInterface = *intf;
      };
      const auto onSourceAddr = [&](const Value& m) {
         hasSourceAddr = true;
         if (const auto a = address(m, v6))
            s.sourceAddress = *a;
      };
      // DHCPv6 servers are addresses only: the relay resolves names for DHCPv4 alone.
      if (v6) {
         members(v, {{"address", onAddress},
                     {"vrf", onVrf},
                     {"source-interface", onSourceIntf},
                     {"source-address", onSourceAddr}});
      } else {
         members(v, {{"address", onAddress},
                     {"hostname", onHostname},
                     {"vrf", onVrf},
                     {"source-interface", onSourceIntf},
                     {"source-address", onSourceAddr}});
      }
      if (v.node->kind != Yaml::Kind::map && v.node->kind != Yaml::Kind::null)
         return p;
      if (v6 && !hasAddress)
         error(v.line, v.path(), "needs address");
      if (!v6 && hasAddress == hasHostname)
         error(v.line, v.path(), "needs exactly one of address and hostname");
      if (hasSourceIntf && hasSourceAddr)
         error(v.line, v.path(), "source-interface and source-address exclude each other");
      return p;
   }

   // Two kinds of DHCPv4 copy find their way back only through the agent's own option 82,
   // so without it the agent would take the file and then drop every such request.
   void checkNeedsInfoOption(const ServerList& list, const VrfName& intfVrf) {
      for (size_t i = 0; i < list.servers.size(); ++i) {
         const PendingServer& p = list.servers[i];
         if (!p.valid)
            continue;
         const std::string path = list.path + "[" + std::to_string(i) + "]";
         if (p.vrfGiven && p.server.vrf != intfVrf)
            error(p.line, path + ".vrf",
                  "a server in another VRF needs information-option: true on the interface "
                  "(its replies find the client by the VRF name in option 82)");
         else if (!p.server.sourceInterface.empty())
            error(p.line, path + ".source-interface",
                  "a server reached from a source interface needs information-option: true on "
                  "the interface (the server leases from the client's subnet by option 82's link "
                  "selection)");
      }
   }

   // Orders servers for the duplicate check: an interface may list thousands.
   struct ServerOrder {
      bool operator()(const ServerDoc* a, const ServerDoc* b) const {
         return std::tie(a->address, a->hostname, a->vrf, a->sourceInterface, a->sourceAddress) <
                std::tie(b->address, b->hostname, b->vrf, b->sourceInterface, b->sourceAddress);
      }
   };

   std::vector<ServerDoc> resolveServers(ServerList list, const VrfName& intfVrf) {
      std::vector<ServerDoc> out;
      out.reserve(list.servers.size());
      std::map<const ServerDoc*, int, ServerOrder> lineOf;
      for (size_t i = 0; i < list.servers.size(); ++i) {
         PendingServer& p = list.servers[i];
         if (!p.valid)
            continue;
         if (!p.vrfGiven)
            p.server.vrf = intfVrf;
         const auto [first, added] = lineOf.emplace(&p.server, p.line);
         if (!added) {
            error(p.line, list.path + "[" + std::to_string(i) + "]",
                  "same server as line " + std::to_string(first->second));
            continue;
         }
         out.push_back(p.server);
      }
      return out;
   }

   void ccapCores(const Value& v, std::vector<Ip6Addr>& out) {
      std::set<Ip6Addr> seen;
      elements(v, [&](const Value& e) {
         const auto a = address(e, true);
         if (!a)
            return;
         if (!seen.insert(a->v6()).second) {
            error(e.line, e.path(), "duplicate address " + a->toString());
            return;
         }
         out.push_back(a->v6());
      });
   }

   void circuitId(const Value& v, std::string& out) {
      auto s = string(v);
      if (!s)
         return;
      if (s->size() > kCircuitIdMax) {
         error(v.line, v.path(),
               "circuit-id longer than " + std::to_string(kCircuitIdMax) + " bytes (" +
                   std::to_string(s->size()) + ")");
         return;
      }
      out = std::move(*s);
   }

   void snooping(const Value& v) {
      SnoopingDoc& s = doc_.snooping;
      members(v, {{"enabled", [&](const Value& m) { setBool(m, s.enabled); }},
                  {"vlans", [&](const Value& m) { vlanSet(m, s.vlans); }},
                  {"information-option", [&](const Value& m) { setBool(m, s.informationOption); }},
                  {"circuit-id-type",
                   [&](const Value& m) {
                      if (const auto n = integerIn(m, 0, kCircuitIdTypeMax, "circuit-id type")) {
                         s.circuitIdType = static_cast<uint8_t>(*n);
                         s.circuitIdTypeValid = true;
                      }
                   }},
                  {"circuit-id-format", [&](const Value& m) { circuitIdFormat(m); }},
                  {"v6", [&](const Value& m) { snooping6(m); }}});
   }

   void circuitIdFormat(const Value& v) {
      const auto f = string(v);
      if (!f)
         return;
      if (*f != kFormatPortVlan && *f != kFormatHostPort) {
         error(v.line, v.path(),
               "expected \"%p:%v\" (port:vlan) or \"%h:%p\" (host:port), got " + quoted(*f));
         return;
      }
      doc_.snooping.circuitIdFormat = *f;
   }

   void snooping6(const Value& v) {
      Snooping6Doc& s = doc_.snooping.v6;
      members(v, {{"vlans", [&](const Value& m) { vlanSet(m, s.vlans); }},
                  {"remote-id-option", [&](const Value& m) { setBool(m, s.remoteIdOption); }}});
   }

   void bridging(const Value& v) {
      members(v, {{"ports", [&](const Value& ports) {
                      forEachKey(ports, [&](const std::string& key, int keyLine, const Value& m) {
                         const auto intf = intfName(keyLine, m, key);
                         PortDoc doc = port(m);
                         if (intf)
                            doc_.ports.emplace(*intf, std::move(doc));
                      });
                   }}});
   }

   PortDoc port(const Value& v) {
      PortDoc doc;
      std::optional<Value> mode, access, native, allowed;
      members(v, {{"mode", [&](const Value& m) { mode = m; }},
                  {"vlan", [&](const Value& m) { access = m; }},
                  {"native-vlan", [&](const Value& m) { native = m; }},
                  {"allowed-vlans", [&](const Value& m) { allowed = m; }}});
      if (v.node->kind != Yaml::Kind::map && v.node->kind != Yaml::Kind::null)
         return doc;
      if (access) {
         if (const auto id = vlan(*access))
            doc.vlan = *id;
      }
      if (native) {
         if (const auto id = vlan(*native))
            doc.nativeVlan = *id;
      }
      if (allowed)
         vlanSet(*allowed, doc.allowedVlans);
      if (!mode) {
         error(v.line, v.path(), "needs mode (access or trunk)");
         return doc;
      }
      const auto text = string(*mode);
      if (text && *text == "access") {
         doc.mode = SwitchportMode::access;
         if (!access)
            error(v.line, v.path(), "mode access needs vlan");
         for (const auto& trunkOnly : {native, allowed}) {
            if (trunkOnly)
               error(trunkOnly->line, trunkOnly->path(), "applies to mode trunk only");
         }
      } else if (text && *text == "trunk") {
         doc.mode = SwitchportMode::trunk;
         // A trunk carries only what is listed: there is no implicit "all VLANs".
         if (!allowed)
            error(v.line, v.path(), "mode trunk needs allowed-vlans");
         if (access) {
            error(access->line, access->path(),
                  "applies to mode access only (trunks take native-vlan)");
         }
      } else if (text) {
         error(mode->line, mode->path(), "expected access or trunk, got " + quoted(*text));
      }
      return doc;
   }

   void metrics(const Value& v) {
      members(v, {{"listen", [&](const Value& m) { listen(m); }}});
   }

   // ADDRESS:PORT, an IPv6 address in brackets (and the whole in quotes, for YAML).
   void listen(const Value& v) {
      const auto s = string(v);
      if (!s)
         return;
      const std::string_view text(*s);
      const bool v6 = text.starts_with('[');
      const size_t colon = v6 ? text.find("]:") + 1 : text.rfind(':');
      if (colon == std::string_view::npos || colon == 0) {
         error(v.line, v.path(), "expected ADDRESS:PORT or [IPV6]:PORT, got " + quoted(text));
         return;
      }
      const std::string host(v6 ? text.substr(1, colon - 2) : text.substr(0, colon));
      const std::string_view portText = text.substr(colon + 1);
      std::optional<IpGenAddr> address;
      if (v6) {
         if (const auto a = Ip6Addr::parse(host))
            address = IpGenAddr(*a);
      } else if (const auto a = IpAddr::parse(host)) {
         address = IpGenAddr(*a);
      }
      if (!address) {
         error(v.line, v.path(),
               std::string("not an ") + (v6 ? "IPv6" : "IPv4") + " address: " + quoted(host));
         return;
      }
      uint32_t port = 0;
      const auto [end, ec] =
          std::from_chars(portText.data(), portText.data() + portText.size(), port);
      if (portText.empty() || ec != std::errc() || end != portText.data() + portText.size() ||
          port < 1 || port > 65535) {
         error(v.line, v.path(), "not a port (1..65535): " + quoted(portText));
         return;
      }
      doc_.metrics.address = *address;
      doc_.metrics.port = static_cast<uint16_t>(port);
   }

   void checkVrfReferences() {
      for (const VrfReference& r : vrfReferences_) {
         if (r.vrf.isDefault() || declaredVrfs_.contains(r.vrf))
            continue;
         error(r.line, r.path,
               "unknown VRF " + quoted(r.vrf.str()) + " (not \"default\" nor in vrfs)");
      }
   }

   std::string file_;
   ConfigDocument doc_;
   std::vector<Error> errors_;
   size_t errorsNotKept_ = 0;
   std::map<Platform::IntfId, DevicePlace> devicePlaces_;
   std::vector<VrfReference> vrfReferences_;
   std::set<VrfName> declaredVrfs_;
};

}  // namespace

ParsedConfig parseConfigText(const std::string& text, const std::string& fileName) {
   return Parser(fileName).run(text);
}

ParsedConfig parseConfigFile(const std::string& path) {
   ParsedConfig out;
   auto refuse = [&](const std::string& why) {
      out.errors.push_back(path + ": " + why);
      return out;
   };
   // Non-blocking, so that a FIFO without a writer cannot hang the agent in open().
   const Platform::Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
   struct stat st;
   if (!fd || ::fstat(fd.get(), &st) < 0)
      return refuse(std::string("cannot read: ") + std::strerror(errno));
   if (!S_ISREG(st.st_mode))
      return refuse("not a regular file");
   auto tooLarge = [&] {
      return refuse("larger than " + std::to_string(kMaxConfigBytes / (1024 * 1024)) +
                    " MiB; refused");
   };
   if (static_cast<uint64_t>(st.st_size) > kMaxConfigBytes)
      return tooLarge();
   std::string text;
   text.reserve(static_cast<size_t>(st.st_size));
   char buf[65536];
   for (;;) {
      const ssize_t n = ::read(fd.get(), buf, sizeof(buf));
      if (n > 0) {
         // The file may grow while it is read.
         if (text.size() + static_cast<size_t>(n) > kMaxConfigBytes)
            return tooLarge();
         text.append(buf, static_cast<size_t>(n));
      } else if (n == 0) {
         break;
      } else if (errno != EINTR) {
         return refuse(std::string("cannot read: ") + std::strerror(errno));
      }
   }
   return parseConfigText(text, path);
}

}  // namespace Frontend
