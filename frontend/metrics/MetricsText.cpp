#include "frontend/metrics/MetricsText.h"

#include <charconv>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <utility>

namespace Frontend {

namespace {

constexpr std::string_view kPrefix = "dhcp_relay_";

using Label = std::pair<std::string_view, std::string_view>;

class Writer {
 public:
   void head(std::string_view name, std::string_view type, std::string_view help) {
      name_.assign(kPrefix).append(name);
      out_.append("# HELP ").append(name_).append(" ").append(help).append("\n");
      out_.append("# TYPE ").append(name_).append(" ").append(type).append("\n");
   }
   // A sample of the metric of the last head().
   template <class V>
   void sample(std::initializer_list<Label> labels, V value) {
      out_.append(name_);
      char sep = '{';
      for (const auto& [key, text] : labels) {
         out_.append(1, sep).append(key).append("=\"").append(metricLabelValue(text)).append("\"");
         sep = ',';
      }
      if (sep == ',')
         out_.append("}");
      char number[32];
      const auto end = std::to_chars(number, number + sizeof number, value).ptr;
      out_.append(" ").append(number, end).append("\n");
   }
   std::string take() { return std::move(out_); }

 private:
   std::string out_;
   std::string name_;
};

#define METRICS_COUNTER_NAME(name, Name) #name,
constexpr std::string_view kStatusCounters[] = {DHCP_RELAY_STATUS_COUNTERS(METRICS_COUNTER_NAME)};
constexpr std::string_view kIntfCounters[] = {
    DHCP_RELAY_INTF_STATUS_COUNTERS(METRICS_COUNTER_NAME)};
#undef METRICS_COUNTER_NAME

// A record's counter values, in list order.
template <class Record>
std::vector<uint64_t> countersOf(const Record& r) {
   std::vector<uint64_t> out;
   r.forEachCounter([&](std::string_view, uint64_t v) { out.push_back(v); });
   return out;
}

void statusCounters(Writer& w, const std::vector<MetricsFamily>& families) {
   std::vector<std::vector<uint64_t>> values;
   for (const MetricsFamily& f : families)
      values.push_back(countersOf(f.status));
   for (size_t i = 0; i < std::size(kStatusCounters); ++i) {
      const std::string_view counter = kStatusCounters[i];
      w.head(metricWords(counter) + "_total", "counter",
             std::string(counter) + " of dhcp-relay-ctl show counters.");
      for (size_t f = 0; f < families.size(); ++f)
         w.sample({{"family", families[f].name}}, values[f][i]);
   }
}

void intfCounters(Writer& w, const std::vector<MetricsFamily>& families) {
   struct Row {
      std::string_view family;
      std::string intf;
      std::vector<uint64_t> values;
   };
   std::vector<Row> rows;
   for (const MetricsFamily& f : families) {
      for (const auto& [intf, s] : f.status.intfStatus())
         rows.push_back({f.name, intf.toString(), countersOf(*s)});
   }
   for (size_t i = 0; i < std::size(kIntfCounters); ++i) {
      const std::string_view counter = kIntfCounters[i];
      w.head("interface_" + metricWords(counter) + "_total", "counter",
             std::string(counter) + " of an interface in dhcp-relay-ctl show counters.");
      for (const Row& r : rows)
         w.sample({{"family", r.family}, {"interface", r.intf}}, r.values[i]);
   }
}

}  // namespace

std::string metricWords(std::string_view counter) {
   if (counter.starts_with("total") && counter.size() > 5)
      counter.remove_prefix(5);
   std::string out;
   for (const char c : counter) {
      if (c >= 'A' && c <= 'Z') {
         if (!out.empty())
            out += '_';
         out += static_cast<char>(c - 'A' + 'a');
      } else {
         out += c;
      }
   }
   return out;
}

std::string metricLabelValue(std::string_view text) {
   std::string out;
   out.reserve(text.size());
   for (const char c : text) {
      if (c == '\\' || c == '"')
         out.append(1, '\\').append(1, c);
      else if (c == '\n')
         out.append("\\n");
      else
         out += c;
   }
   return out;
}

std::string metricsText(const MetricsAgent& agent, const std::vector<MetricsFamily>& families) {
   Writer w;
   w.head("info", "gauge", "The agent's version; always 1.");
   w.sample({{"version", agent.version}}, 1);
   w.head("start_time_seconds", "gauge", "When the agent started, in seconds since the epoch.");
   w.sample({}, agent.startTime);
   if (families.empty())
      return w.take();

   w.head("running", "gauge", "1 while the family relays (some interface needs it), else 0.");
   for (const MetricsFamily& f : families)
      w.sample({{"family", f.name}}, f.status.runControl() ? 1 : 0);
   statusCounters(w, families);
   w.head("drops_total", "counter",
          "Messages dropped, by reason (dhcp-relay-ctl show counters --drops); each is also in "
          "the requests or replies dropped.");
   for (const MetricsFamily& f : families)
      f.status.forEachDrop(
          [&](std::string_view reason, uint64_t n) {
             w.sample({{"family", f.name}, {"reason", reason}}, n);
          },
          f.dropFamilies);
   w.head("client_bindings", "gauge", "Client bindings kept for unicast renewals.");
   for (const MetricsFamily& f : families)
      w.sample({{"family", f.name}}, f.status.numClientBindings());
   w.head("client_bindings_refused_total", "counter",
          "Client bindings refused because the table was full.");
   for (const MetricsFamily& f : families)
      w.sample({{"family", f.name}}, f.status.clientBindingsRefused());
   w.head("smart_relayed_hosts", "gauge", "Clients with smart relay state.");
   for (const MetricsFamily& f : families)
      w.sample({{"family", f.name}}, f.status.numSmartRelayedHosts());
   w.head("counters_reset_time_seconds", "gauge",
          "When all counters were last cleared, in seconds since the epoch; 0: never.");
   for (const MetricsFamily& f : families)
      w.sample({{"family", f.name}}, f.status.lastResetAllTime());
   intfCounters(w, families);
   return w.take();
}

}  // namespace Frontend
