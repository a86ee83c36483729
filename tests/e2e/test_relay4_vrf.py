"""DHCPv4 relayed across VRFs and from configured source addresses, between a real ISC
dhclient and real ISC dhcpd servers in the lab's namespaces (see tools/lab/lab.py), with the
agent's counters checked against what the client link carried."""

import ipaddress
import json
from dataclasses import dataclass

import pytest

import lab as L

DISCOVER, OFFER, REQUEST, ACK = 1, 2, 3, 5
# dhcpd pings an address for a second before it offers it and ignores the client's
# DISCOVERs meanwhile; without that every request the relay sends is answered and
# logged.
NO_PING = "ping-check false;\n"
# A renewal two seconds after binding (T1) lets a real dhclient renew within the test.
RENEW_SOON = "option dhcp-renewal-time 2;\n"


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


def renewed_through_the_relay(lab, agent, dhcpd, role, giaddr, extra=""):
    """dhclient leases and renews by unicast, with its link captured: the same address
    from `role`'s pool both times, each naming the relay as its server, never the server,
    and ACKed by `role`'s dhcpd to `giaddr`. The lease's variables and the client link."""
    with lab.capture("client", L.CLIENT_DEV) as cap:
        renewed = lab.dhclient(timeout=20, until="RENEW", extra=extra)
        frames = client_link(cap.stop(), client_mac(lab))
    assert renewed is not None, (agent.log_text(), [d.log_text() for d in dhcpd.values()])
    v = renewed.vars
    assert in_pool(v["new_ip_address"], role) and v["old_ip_address"] == v["new_ip_address"]
    assert v["old_dhcp_server_identifier"] == v["new_dhcp_server_identifier"] == \
        L.RELAY_CLIENT_IP
    # One ACK for the selecting request, one for the renewal.
    assert dhcpd[role].acks() == [(v["new_ip_address"], giaddr)] * 2, dhcpd[role].log_text()
    return v, frames


def test_cross_vrf_lease_and_unicast_renewal(lab, relay_agent):  # noqa: F811
    """The only server is in VRF red: the client sees the relay as its server
    (server identifier override), tells the server everything it needs through
    option 82, and renews by unicast to the relay, which takes the renewal to the
    server it learned from the lease."""
    lab.split_red_vrf()
    red = lab.start_dhcpd("red", extra=NO_PING + RENEW_SOON)
    a = relay_agent(information_option=True, servers=[{"address": L.RED_IP, "vrf": "red"}])
    v, frames = renewed_through_the_relay(lab, a, {"red": red}, "red", L.RELAY_RED_IP)

    # The server got every request from the relay's address in red, with the
    # client's VRF, subnet and the address the client sees.
    seen = red.seen()
    assert seen and all(s.giaddr == L.RELAY_RED_IP for s in seen), red.log_text()
    for s in seen:
        assert (s.circuit_id, s.link_selection, s.server_id_override, s.vss) == \
            (b"Ethernet1", "192.0.2.0", L.RELAY_CLIENT_IP, b"\x00default"), s
    assert {s.msg_type for s in seen} == {DISCOVER, REQUEST}

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


@dataclass
class Copy:
    """One server entry and the copy it gets: from `giaddr`, located (link selection
    and the override address) or not."""
    role: str
    server: dict
    giaddr: str
    located: bool


FROM_ETHERNET3 = Copy("server", {"address": L.SERVER_IP, "source-interface": "Ethernet3"},
                      L.RELAY_RED_IP, True)
SOURCES = {
    "source-interface": [FROM_ETHERNET3],
    "source-address": [Copy("server", {"address": L.SERVER_IP, "source-address": L.RELAY_SERVER_IP},
                            L.RELAY_SERVER_IP, True)],
    # The located copy goes out first (keys in address order): a sub-option left over
    # from it would show in server2's copy. A secondary of the client's own interface
    # needs no locating: the reply finds the client by giaddr.
    "with-own-secondary": [FROM_ETHERNET3,
                           Copy("server2", {"address": L.SERVER2_IP,
                                            "source-address": L.RELAY_SECONDARY_IP},
                                L.RELAY_SECONDARY_IP, False)],
}


@pytest.mark.parametrize("copies", SOURCES.values(), ids=SOURCES.keys())
def test_lease_and_renewal_from_a_source_interface_or_address(lab, relay_agent, copies):  # noqa: F811
    """The first server is relayed from another interface's address: the client leases
    from it with the relay for its server and renews by unicast to the relay, which
    forwards the renewal by the client's binding. Any other server's offer reaches the
    client too (dhclient turns server2's down)."""
    lab.add_secondary()
    lab.ip("server", "route", "add", L.RED_NET, "via", L.RELAY_SERVER_IP)
    dhcpd = {c.role: lab.start_dhcpd(c.role, second_pool=True, extra=NO_PING + RENEW_SOON)
             for c in copies}
    a = relay_agent(information_option=True, servers=[c.server for c in copies])
    # dhclient rejects by the offer's source: server2's comes from its giaddr.
    _, frames = renewed_through_the_relay(lab, a, dhcpd, copies[0].role, copies[0].giaddr,
                                          extra=f"reject {L.RELAY_SECONDARY_IP};\n")

    from scapy.layers.dhcp import BOOTP
    offered = [f[BOOTP].yiaddr for op, t, f in frames if t == OFFER]
    for c in copies:
        link = "192.0.2.0" if c.located else None
        override = L.RELAY_CLIENT_IP if c.located else None
        seen = dhcpd[c.role].seen()
        assert seen, dhcpd[c.role].log_text()
        for s in seen:
            assert (s.giaddr, s.circuit_id, s.link_selection, s.server_id_override, s.vss) == \
                (c.giaddr, b"Ethernet1", link, override, None), (c.role, s)
        net = L.CLIENT_NET if c.located else L.SECONDARY_NET
        assert any(in_pool(ip, c.role, net) for ip in offered), (c.role, offered)
    a.show("counters")  # publishes the status at once
    assert a.show("status")["numClientBindings"] == 1
