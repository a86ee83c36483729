"""DHCPv4 relayed across VRFs and from configured source addresses, between a real ISC
dhclient and real ISC dhcpd servers in the lab's namespaces (see lab.py), with the
agent's counters checked against what the client link carried."""

import ipaddress
import json

import lab as L
from conftest import Agent
from lab import lab  # noqa: F401  (fixture)

DISCOVER, REQUEST, ACK = 1, 3, 5
# dhcpd pings an address for a second before it offers it and ignores the client's
# DISCOVERs meanwhile; without that every request the relay sends is answered and
# logged.
NO_PING = "ping-check false;\n"


def start_agent(lab, tmp_path, **relay_settings):  # noqa: F811
    return Agent(tmp_path, lab.agent_config(**relay_settings), lab.ns["relay"])


def assert_counters(agent, requests, forwarded, replies, non_subnet=0, cross_vrf=0):
    """The counters dhcp-relay-ctl shows, globally and for the client's Ethernet1 (the
    only interface that relays), are exactly what the exchange produced: nothing
    dropped, each request received once and forwarded once per server copy."""
    shown = agent.show("counters")
    assert shown["counters"] == {**shown["counters"], **{
        "totalRequestsReceived": requests, "totalRequestsForwarded": forwarded,
        "totalRepliesForwarded": replies, "totalRequestsDropped": 0, "totalRepliesDropped": 0,
        "totalRequestsForwardedWithNonSubnetIp": non_subnet,
        "totalRequestsForwardedWithCrossVrfIp": cross_vrf}}, shown
    intf = shown["interfaces"]["Ethernet1"]["counters"]
    assert intf == {**intf, **{
        "requestsReceived": requests, "requestsDropped": 0, "repliesForwarded": replies,
        "requestsForwardedWithNonSubnetIp": non_subnet,
        "requestsForwardedWithCrossVrfIp": cross_vrf}}, shown


def client_mac(lab):  # noqa: F811
    return json.loads(lab.ip("client", "-j", "link", "show", L.CLIENT_DEV).stdout)[0]["address"]


def client_link(frames, mac):
    """The client's requests and the replies to it, as (bootp op, message type,
    frame), in the order the client link carried them."""
    from scapy.layers.dhcp import BOOTP
    out = []
    for f in frames:
        if BOOTP in f and f[BOOTP].chaddr[:6] == bytes.fromhex(mac.replace(":", "")):
            out.append((f[BOOTP].op, L.dhcp_type(f), f))
    return out


def in_pool(ip, role, net=L.CLIENT_NET):
    lo, hi = (ipaddress.ip_address(a) for a in L.POOLS[role][net])
    return lo <= ipaddress.ip_address(ip) <= hi


def test_cross_vrf_lease_and_unicast_renewal(lab, tmp_path):  # noqa: F811
    """The only server is in VRF red: the client sees the relay as its server
    (server identifier override), tells the server everything it needs through
    option 82, and renews by unicast to the relay, which takes the renewal to the
    server it learned from the lease."""
    lab.split_red_vrf()
    # A renewal two seconds after binding (T1) lets a real dhclient renew within the test.
    red = lab.start_dhcpd("red", extra=NO_PING + "option dhcp-renewal-time 2;\n")
    a = start_agent(lab, tmp_path, information_option=True,
                    servers=[{"address": L.RED_IP, "vrf": "red"}])
    try:
        with lab.capture("client", L.CLIENT_DEV) as cap:
            renewed = lab.dhclient(timeout=20, until="RENEW")
            frames = client_link(cap.stop(), client_mac(lab))
        assert renewed is not None, (a.log_text(), red.log_text())
        v = renewed.vars
        assert in_pool(v["new_ip_address"], "red") and v["old_ip_address"] == v["new_ip_address"]
        # Both the first lease and the renewed one name the relay, never the server.
        assert v["old_dhcp_server_identifier"] == v["new_dhcp_server_identifier"] == \
            L.RELAY_CLIENT_IP

        # The server got every request from the relay's address in red, with the
        # client's VRF, subnet and the address the client sees.
        seen = red.seen()
        assert seen and all(s.giaddr == L.RELAY_RED_IP for s in seen), red.log_text()
        for s in seen:
            assert (s.circuit_id, s.link_selection, s.server_id_override, s.vss) == \
                (b"Ethernet1", "192.0.2.0", L.RELAY_CLIENT_IP, b"\x00default"), s
        assert {s.msg_type for s in seen} == {DISCOVER, REQUEST}
        # One ACK for the selecting request, one for the renewal, both through the relay.
        assert red.acks() == [(v["new_ip_address"], L.RELAY_RED_IP)] * 2, red.log_text()

        # The renewal left the client as a unicast to the relay and its ACK came back.
        from scapy.layers.dhcp import BOOTP
        from scapy.layers.inet import IP
        renewal = [f for op, t, f in frames if op == 1 and f[IP].dst == L.RELAY_CLIENT_IP]
        assert len(renewal) == 1 and L.dhcp_type(renewal[0]) == REQUEST
        assert renewal[0][BOOTP].ciaddr == v["new_ip_address"]
        last = frames[-1]
        assert last[:2] == (2, ACK) and last[2][IP].src == L.RELAY_CLIENT_IP

        # Each broadcast request went to red from Ethernet3's address, which is none of
        # the client interface's: it counts as from outside its subnets, not as
        # cross-VRF (that one counts only the client interface's own addresses). The
        # renewal follows the client's binding and is not classified.
        requests = sum(op == 1 for op, t, f in frames)
        assert_counters(a, requests, requests, sum(op == 2 for op, t, f in frames),
                        non_subnet=requests - 1)
    finally:
        assert a.stop() == 0


def test_servers_relayed_from_a_source_address_and_a_source_interface(lab, tmp_path):  # noqa: F811
    """A source address becomes giaddr as it is; a source interface lends its address
    and the client's subnet goes along as link selection, on that copy only."""
    lab.add_secondary()
    # The server namespace has no route to Ethernet3's subnet, so what `server` sends to
    # that giaddr goes nowhere and the lease comes from server2, in the secondary subnet.
    server = lab.start_dhcpd("server", extra=NO_PING)
    server2 = lab.start_dhcpd("server2", second_pool=True, extra=NO_PING)
    # Server keys are ordered by address: the copy with link selection goes out
    # first, so a sub-option left over from it would show in the second copy.
    a = start_agent(lab, tmp_path, information_option=True, servers=[
        {"address": L.SERVER_IP, "source-interface": "Ethernet3"},
        {"address": L.SERVER2_IP, "source-address": L.RELAY_SECONDARY_IP}])
    try:
        with lab.capture("client", L.CLIENT_DEV) as cap:
            lease = lab.dhclient(timeout=20)
            frames = client_link(cap.stop(), client_mac(lab))
        assert lease is not None, (a.log_text(), server2.log_text())
        assert in_pool(lease.ip, "server2", L.SECONDARY_NET) and lease.server == L.SERVER2_IP

        requests = [t for op, t, f in frames if op == 1]
        assert requests and requests[0] == DISCOVER and requests[-1] == REQUEST
        for d, giaddr, link in ((server, L.RELAY_RED_IP, "192.0.2.0"),
                                (server2, L.RELAY_SECONDARY_IP, None)):
            # Every request reached both servers, each with its own giaddr. The client
            # bound on server2's ACK, which may come before `server` logs the request.
            try:
                L.wait_for(lambda: len(d.seen()) >= len(requests), 5, f"{d.role} to log")
            except TimeoutError:
                pass
            seen = d.seen()
            assert [s.msg_type for s in seen] == requests, d.log_text()
            for s in seen:
                assert (s.giaddr, s.circuit_id, s.link_selection, s.vss) == \
                    (giaddr, b"Ethernet1", link, None), (d.role, s)

        # The secondary address is the client interface's own, so it is not counted
        # as outside its subnets; a source interface's copy is not classified.
        assert_counters(a, len(requests), 2 * len(requests), sum(op == 2 for op, t, f in frames))
    finally:
        assert a.stop() == 0
