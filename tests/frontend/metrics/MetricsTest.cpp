#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "frontend/metrics/HttpExchange.h"
#include "frontend/metrics/MetricsText.h"

namespace Frontend {
namespace {

using Ip::Helper::DhcpRelay::DropReason;
using Ip::Helper::DhcpRelay::dropReasonFamilies;
using Ip::Helper::DhcpRelay::kDropReasonCount;
using Ip::Helper::DhcpRelay::kDropV4;
using Ip::Helper::DhcpRelay::kDropV6;
using Ip::Helper::DhcpRelay::Status;

std::vector<std::string> lines(const std::string& text) {
   std::vector<std::string> out;
   std::istringstream in(text);
   for (std::string line; std::getline(in, line);)
      out.push_back(line);
   return out;
}

TEST(MetricsText, NamesLabelsAndEscaping) {
   auto v4 = Platform::make<Status>("status");
   v4->runControlIs(true);
   v4->totalRequestsReceivedIs(3);
   v4->totalRequestsForwardedWithCrossVrfIpIs(2);
   v4->dropsInc(DropReason::option82Untrusted);
   v4->numClientBindingsIs(4);
   v4->intfStatusIs(*Platform::IntfId::parse("Ethernet1/1"))->repliesForwardedIs(5);
   auto v6 = Platform::make<Status>("status6");
   const std::string text = metricsText({"1.0 \"q\"\\\n", 1700000000.5},
                                        {{"dhcpv4", *v4, kDropV4}, {"dhcpv6", *v6, kDropV6}});
   const std::vector<std::string> got = lines(text);
   const std::set<std::string> all(got.begin(), got.end());
   for (
       const char* want : {
           R"(dhcp_relay_info{version="1.0 \"q\"\\\n"} 1)",
           "dhcp_relay_start_time_seconds 1700000000.5",
           "# TYPE dhcp_relay_running gauge",
           R"(dhcp_relay_running{family="dhcpv4"} 1)",
           R"(dhcp_relay_running{family="dhcpv6"} 0)",
           "# HELP dhcp_relay_requests_received_total totalRequestsReceived of dhcp-relay-ctl "
           "show counters.",
           "# TYPE dhcp_relay_requests_received_total counter",
           R"(dhcp_relay_requests_received_total{family="dhcpv4"} 3)",
           R"(dhcp_relay_requests_forwarded_with_cross_vrf_ip_total{family="dhcpv4"} 2)",
           R"(dhcp_relay_drops_total{family="dhcpv4",reason="option82Untrusted"} 1)",
           R"(dhcp_relay_drops_total{family="dhcpv6",reason="unknownIfindex"} 0)",
           R"(dhcp_relay_client_bindings{family="dhcpv4"} 4)",
           R"(dhcp_relay_interface_replies_forwarded_total{family="dhcpv4",interface="Ethernet1/1"} 5)",
       })
      EXPECT_TRUE(all.contains(want)) << want << "\nin:\n" << text;

   // Each metric is declared once, HELP then TYPE, and its samples follow before the next
   // metric; counters end in _total; every drop reason of every family is there, zeros too.
   std::map<std::string, std::string> typeOf;
   std::string current;
   size_t drops = 0;
   for (size_t i = 0; i < got.size(); ++i) {
      const std::string& l = got[i];
      if (l.starts_with("# HELP ")) {
         current = l.substr(7, l.find(' ', 7) - 7);
         ASSERT_LT(i + 1, got.size());
         EXPECT_TRUE(got[i + 1].starts_with("# TYPE " + current + " ")) << got[i + 1];
         EXPECT_FALSE(typeOf.contains(current)) << current << " declared twice";
         typeOf[current] = got[i + 1].substr(got[i + 1].rfind(' ') + 1);
         EXPECT_EQ(typeOf[current] == "counter", current.ends_with("_total")) << current;
         ++i;
         continue;
      }
      EXPECT_EQ(l.substr(0, l.find_first_of("{ ")), current) << l;
      drops += l.starts_with("dhcp_relay_drops_total{");
   }
   size_t reasons = 0;  // each family's own reasons, zeros included
   for (size_t r = 0; r < kDropReasonCount; ++r) {
      const uint8_t families = dropReasonFamilies(static_cast<DropReason>(r));
      reasons += ((families & kDropV4) != 0) + ((families & kDropV6) != 0);
   }
   EXPECT_EQ(drops, reasons);
}

TEST(MetricsText, CounterNamesBecomeMetricWords) {
   EXPECT_EQ(metricWords("totalRequestsDroppedByOption79"), "requests_dropped_by_option79");
   EXPECT_EQ(metricWords("requestsForwardedWithCrossVrfIp"),
             "requests_forwarded_with_cross_vrf_ip");
}

TEST(HttpExchange, AnswersOnlyCompleteHeadsAndOnlyMetrics) {
   struct Case {
      std::string received;
      std::optional<std::string> statusLine;  // nothing: wait for more
   };
   const std::string big(kMaxRequestHead, 'a');
   const std::vector<Case> cases = {
       {"GET /metrics HTTP/1.1\r\nHost: relay:9467\r\nAccept: */*\r\n\r\n", "HTTP/1.1 200 OK"},
       {"GET /metrics?x=1 HTTP/1.0\n\n", "HTTP/1.1 200 OK"},
       {"GET /metrics HTTP/1.1\r\nHost: relay\r\n", std::nullopt},
       {"GET /metrics HTTP/1.1\r\nX: " + big.substr(100), std::nullopt},
       {"GET /metrics HTTP/1.1\r\nX: " + big + "\r\n\r\n",
        "HTTP/1.1 431 Request Header Fields Too Large"},
       {"GET / HTTP/1.1\r\n\r\n", "HTTP/1.1 404 Not Found"},
       {"GET /metricsx HTTP/1.1\r\n\r\n", "HTTP/1.1 404 Not Found"},
       {"POST /metrics HTTP/1.1\r\nContent-Length: 0\r\n\r\n", "HTTP/1.1 405 Method Not Allowed"},
       {"GET /metrics\r\n\r\n", "HTTP/1.1 400 Bad Request"},
       {"GET /metrics HTTP/2.0\r\n\r\n", "HTTP/1.1 400 Bad Request"},
       {"GET http://relay/metrics HTTP/1.1\r\n\r\n", "HTTP/1.1 400 Bad Request"},
       {"GET /metrics HTTP/1.1\r\nno colon here\r\n\r\n", "HTTP/1.1 400 Bad Request"},
       {"\x16\x03\x01\x02\x05\n\n", "HTTP/1.1 400 Bad Request"},
   };
   for (const Case& c : cases) {
      int rendered = 0;
      const auto answer = httpAnswer(c.received, [&] {
         ++rendered;
         return std::string("m 1\n");
      });
      const std::string shown = c.received.substr(0, 40);
      ASSERT_EQ(answer.has_value(), c.statusLine.has_value()) << shown;
      if (!answer)
         continue;
      EXPECT_EQ(answer->substr(0, answer->find("\r\n")), *c.statusLine) << shown;
      EXPECT_NE(answer->find("\r\nConnection: close\r\n"), std::string::npos) << shown;
      // Only a scrape renders the metrics.
      EXPECT_EQ(rendered, c.statusLine->ends_with("200 OK") ? 1 : 0) << shown;
   }
   EXPECT_EQ(*httpAnswer("GET /metrics HTTP/1.1\r\n\r\n", [] { return std::string("m 1\n"); }),
             "HTTP/1.1 200 OK\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\n"
             "Content-Length: 4\r\nConnection: close\r\n\r\nm 1\n");
   const auto head =
       httpAnswer("HEAD /metrics HTTP/1.1\r\n\r\n", [] { return std::string("m 1\n"); });
   EXPECT_TRUE(head->ends_with("Content-Length: 4\r\nConnection: close\r\n\r\n")) << *head;
   EXPECT_NE(httpAnswer("PUT / HTTP/1.1\r\n\r\n", {})->find("\r\nAllow: GET, HEAD\r\n"),
             std::string::npos);
}

}  // namespace
}  // namespace Frontend
