"""Smart relay against a real ISC dhcpd that serves only the relay's secondary subnet
on the client link: a client whose DISCOVERs go unanswered is moved on to the next of
the interface's subnets every three DISCOVERs, an answer puts it back on the primary,
and a request for an address goes out from the subnet that holds it. How the rotation
follows addresses that come and go is the unit tests' (SmartRelayTest) and
test_relay4_edges'."""

from scapy.layers.dhcp import BOOTP

import lab as L
from test_relay4_vrf import NO_PING, client_mac, in_pool

DISCOVER, REQUEST = 1, 3
P, S1 = L.RELAY_CLIENT_IP, L.RELAY_SECONDARY_IP


def relayed(frames, mac):
    """(giaddr, message type) of each request the relay sent to a server about `mac`."""
    raw = bytes.fromhex(mac.replace(":", ""))
    return [(f[BOOTP].giaddr, L.dhcp_type(f)) for f in frames
            if BOOTP in f and f[BOOTP].op == 1 and f[BOOTP].chaddr[:6] == raw]


def wait_relayed(cap, mac, count, agent):
    try:
        return relayed(cap.wait(lambda p: len(relayed(p, mac)) >= count, 10,
                                f"{count} requests relayed"), mac)
    except TimeoutError as e:
        raise AssertionError(f"{e}: {relayed(cap.packets(), mac)}\n{agent.log_text()}")


def ignored(server, giaddr):
    """DISCOVERs dhcpd dropped because it knows no subnet of their giaddr."""
    return server.log_text().count(f"via {giaddr}: unknown network segment")


def smart_hosts(agent):
    """Clients smart relay keeps state for; the status is published every few seconds,
    and at once when someone asks for the counters."""
    agent.show("counters")
    return agent.show("status")["numSmartRelayedHosts"]


def test_unanswered_client_gets_its_lease_from_the_secondary_subnet(lab, relay_agent):  # noqa: F811
    lab.add_secondary()
    server = lab.start_dhcpd("server", only=[L.SECONDARY_NET], extra=NO_PING)
    a = relay_agent(smart_relay=True)
    mac = client_mac(lab)
    with lab.capture("relay", L.RELAY_SERVER_DEV) as cap:
        # dhclient backs off between DISCOVERs (seconds to its fourth): three
        # crafted ones with its MAC stand in for its first, unanswered tries.
        lab.send_discover(mac, count=3)
        assert wait_relayed(cap, mac, 3, a) == [(P, DISCOVER)] * 3
        L.wait_for(lambda: ignored(server, P) == 3, 5, "dhcpd to ignore giaddr P")
        assert smart_hosts(a) == 1

        lease = lab.dhclient(timeout=10)
        assert lease is not None, (a.log_text(), server.log_text())
        assert smart_hosts(a) == 0
        # An answered client starts over on the primary.
        lab.send_discover(mac, xid=0x4321)
        sent = wait_relayed(cap, mac, 6, a)
    assert in_pool(lease.ip, "server", L.SECONDARY_NET), lease
    assert lease.routers == S1 and lease.server == L.SERVER_IP
    # dhclient's DISCOVER was the client's fourth; its REQUEST for the offered
    # address goes out from the subnet holding that address.
    assert sent == [(P, DISCOVER)] * 3 + [(S1, DISCOVER), (S1, REQUEST), (P, DISCOVER)]
    L.wait_for(lambda: ignored(server, P) == 4, 5, "dhcpd to ignore the last DISCOVER")
    assert server.acks() == [(lease.ip, S1)]
    assert smart_hosts(a) == 1
