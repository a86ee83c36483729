#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "model/Status.h"

namespace Frontend {

// One relay family's status as the metrics show it: its samples carry family="<name>", so
// DHCPv6 adds samples to the same metric names rather than names of its own.
struct MetricsFamily {
   std::string_view name;  // "dhcpv4", "dhcpv6"
   const Ip::Helper::DhcpRelay::Status& status;
   uint8_t dropFamilies;  // the family's drop reasons: kDropV4 or kDropV6
};

struct MetricsAgent {
   std::string_view version;
   double startTime = 0;  // UTC seconds since the epoch
};

// The Prometheus text exposition (format 0.0.4) of the agent and its families' status.
// Every counter of the Status and IntfStatus counter lists and every drop reason is a
// metric, named after the counter ("totalRequestsReceived" is
// dhcp_relay_requests_received_total), so a counter added to a list is published without a
// change here. Each metric's samples follow its HELP and TYPE lines, one per family.
std::string metricsText(const MetricsAgent& agent, const std::vector<MetricsFamily>& families);

// "totalRequestsForwardedWithCrossVrfIp" -> "requests_forwarded_with_cross_vrf_ip": a
// leading "total" goes, every capital starts a word.
std::string metricWords(std::string_view counter);

// A label value between its quotes: backslash, double quote and line feed escaped.
std::string metricLabelValue(std::string_view text);

}  // namespace Frontend
