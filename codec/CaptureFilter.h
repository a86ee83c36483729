#pragma once

#include <linux/filter.h>

#include <vector>

namespace Codec {

// The classic BPF program for a packet socket that should see DHCPv4 and DHCPv6 only: UDP
// to or from port 67 or 68 over IPv4 (options allowed, first fragments only), 546 or 547
// over IPv6 (UDP right after the fixed header), untagged or with one 802.1Q tag in the
// data. It reads the frame at the offsets of codec/Frame.h; what passes may still be
// refused by locateFrame (a first fragment, lengths that disagree), which the agent counts.
// The creator of the capture socket builds it and hands it over: the platform below the
// codec knows nothing of IP.
std::vector<sock_filter> dhcpCaptureFilter();

}  // namespace Codec
