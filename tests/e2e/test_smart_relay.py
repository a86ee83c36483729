"""Smart relay against real ISC dhcpd servers that serve only the relay's secondary
subnets on the client link: a client whose DISCOVERs go unanswered is moved on to the
next of the interface's subnets every three DISCOVERs, an answer puts it back on the
primary, and a request for an address goes out from the subnet that holds it."""

from scapy.layers.dhcp import BOOTP

import lab as L
from lab import lab  # noqa: F401  (fixture)
from test_relay4_vrf import NO_PING, client_mac, in_pool, start_agent

DISCOVER, OFFER, REQUEST = 1, 2, 3
PROBE_MAC = "02:00:00:00:0c:51"
P, S1, S2 = L.RELAY_CLIENT_IP, L.RELAY_SECONDARY_IP, L.RELAY_SECONDARY2_IP


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


def test_unanswered_client_gets_its_lease_from_the_secondary_subnet(lab, tmp_path):  # noqa: F811
    lab.add_secondary()
    server = lab.start_dhcpd("server", only=[L.SECONDARY_NET], extra=NO_PING)
    a = start_agent(lab, tmp_path, smart_relay=True)
    mac = client_mac(lab)
    try:
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
    finally:
        assert a.stop() == 0


def test_removed_secondary_moves_its_clients_to_the_next_one(lab, tmp_path):  # noqa: F811
    lab.add_secondary(L.SECONDARY_NET)
    lab.add_secondary(L.SECONDARY2_NET)
    # Only S2's subnet gets answers; smart relay switched on for all interfaces.
    server2 = lab.start_dhcpd("server2", only=[L.SECONDARY2_NET], extra=NO_PING)
    a = start_agent(lab, tmp_path, global_relay={"smart-relay": True},
                    servers=[{"address": L.SERVER2_IP}])

    def has_s1():
        [vrf] = [v for v in a.show("interfaces")["vrfs"] if v["vrf"] == "default"]
        [r0] = [i for i in vrf["interfaces"] if i["device"] == L.RELAY_CLIENT_DEV]
        return f"{S1}/24" in r0["ipv4"]
    try:
        with lab.capture("relay", L.RELAY_SERVER_DEV) as cap, \
                lab.capture("client", L.CLIENT_DEV) as client:
            lab.send_discover(PROBE_MAC, count=4)
            assert wait_relayed(cap, PROBE_MAC, 4, a) == [(P, DISCOVER)] * 3 + [(S1, DISCOVER)]
            L.wait_for(lambda: ignored(server2, S1) == 1, 5, "dhcpd to ignore giaddr S1")

            lab.del_secondary(L.SECONDARY_NET)
            L.wait_for(lambda: not has_s1(), 5, "the agent to see S1 go")
            lab.send_discover(PROBE_MAC, xid=0x5)
            assert wait_relayed(cap, PROBE_MAC, 5, a)[4:] == [(S2, DISCOVER)]
            offers = client.wait(lambda p: [f for f in p if L.dhcp_type(f) == OFFER], 10,
                                 "the OFFER for S2's subnet")
        [offer] = [f for f in offers if L.dhcp_type(f) == OFFER]
        assert offer[BOOTP].xid == 0x5 and in_pool(offer[BOOTP].yiaddr, "server2", L.SECONDARY2_NET)
        assert ignored(server2, P) == 3
    finally:
        assert a.stop() == 0

