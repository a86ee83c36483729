"""DHCPv4 servers named by host name: the agent resolves them through its namespace's
resolver configuration (a dnsmasq in the lab, see Lab.start_dns), keeps asking for a
name that does not resolve while it relays to the others, and follows a changed
address once the answer's TTL runs out. Back-off, failed lookups and server sets
are the unit tests' (NamelookSmTest, DhcpRelayServerIpSmTest)."""

import itertools
import time

import lab as L
from test_relay4_vrf import NO_PING, in_pool

NAME = f"dhcp1.{L.DNS_DOMAIN}"
MISSING = f"nowhere.{L.DNS_DOMAIN}"
TTL = 5               # the least TTL the agent honours
PROBE_MAC = "02:00:00:00:0c:61"


def relayed_to(frames):
    """(server address, xid) of each request the relay sent, in the order it sent them."""
    from scapy.layers.dhcp import BOOTP
    from scapy.layers.inet import IP
    return [(f[IP].dst, f[BOOTP].xid) for f in frames if BOOTP in f and f[BOOTP].op == 1]


def discover_until_offer_from(lab, server_ip, timeout):  # noqa: F811
    """Sends DISCOVERs (a new xid each) from the client namespace until an OFFER from
    `server_ip` comes back; returns that OFFER's xid, or None."""
    from scapy.layers.dhcp import BOOTP, DHCP

    def offered(frames):
        return [f[BOOTP].xid for f in frames
                if L.dhcp_type(f) == 2 and ("server_id", server_ip) in f[DHCP].options]
    deadline = time.monotonic() + timeout
    with lab.capture("client", L.CLIENT_DEV) as cap:
        for xid in itertools.count(0x7001):
            lab.send_discover(PROBE_MAC, xid=xid)
            try:
                return offered(cap.wait(offered, 0.5, "an OFFER"))[0]
            except TimeoutError:
                if time.monotonic() > deadline:
                    return None


def test_servers_named_by_host_name_follow_their_addresses(lab, relay_agent):  # noqa: F811
    server = lab.start_dhcpd("server", extra=NO_PING)
    server2 = lab.start_dhcpd("server2", extra=NO_PING)
    lab.start_dns({NAME: L.SERVER_IP}, ttl=TTL)
    a = relay_agent(servers=[{"hostname": MISSING}, {"hostname": NAME}])
    # Asked again (the agent backs off from a second upwards): the name failed for
    # good once already, and the lease below is relayed while it keeps failing.
    L.wait_for(lambda: lab.dns_queries(MISSING).count("NXDOMAIN") >= 2, 10,
               f"the agent to look up {MISSING} twice")
    with lab.capture("relay", L.RELAY_SERVER_DEV) as cap:
        lease = lab.dhclient(timeout=10)
        assert lease is not None, (a.log_text(), lab.dns_log.read_text())
        assert in_pool(lease.ip, "server") and lease.server == L.SERVER_IP
        assert server.acks() == [(lease.ip, L.RELAY_CLIENT_IP)] and not server2.seen()

        lab.set_dns({NAME: L.SERVER2_IP})
        xid = discover_until_offer_from(lab, L.SERVER2_IP, TTL + 5)
        assert xid is not None, (a.log_text(), lab.dns_log.read_text())
        frames = cap.stop()
    # The move is a switch: nothing went to the old address once the new one was
    # in use, and no request went to both.
    sent = relayed_to(frames)
    first_new = [dst for dst, _ in sent].index(L.SERVER2_IP)
    assert first_new > 0 and {dst for dst, _ in sent[:first_new]} == {L.SERVER_IP}, sent
    assert {dst for dst, _ in sent[first_new:]} == {L.SERVER2_IP}, sent
    assert (L.SERVER_IP, xid) not in sent
    assert L.SERVER2_IP in lab.dns_queries(NAME)
