"""DHCPv6 relayed by the agent between a real ISC dhclient -6 and real ISC dhcpd -6
servers in the lab's namespaces (see tools/lab/lab.py), and against crafted traffic.
What the servers received and what reached the client are read from captures and
decoded by hand (tools/lab/dhcp6.py), so a malformed message shows as it is."""

import contextlib
import functools
import ipaddress
import random
import struct
from dataclasses import dataclass

import pytest

import dhcp6 as D
import lab as L
from conftest import mutations, noise

SERVER = {"address": L.SERVER_IP6}
AT_RED = {"address": L.RED_IP6, "vrf": "red"}
INTERFACE_ID = b"Ethernet1:default"   # "<interface>:<VRF>" of the client's interface
ENTERPRISE = 32473                     # the documentation enterprise number (RFC 5612)
REMOTE_MAC = "02:00:00:00:01:99"
CORES = ["2001:db8:cc::1", "2001:db8:cc::2"]


@pytest.fixture
def relay6(relay_agent):
    """The agent with Ethernet1 relaying DHCPv6 to `server` unless servers_v6 says
    otherwise."""
    return functools.partial(relay_agent, servers_v6=[SERVER])


def v6_drops(agent):
    """The DHCPv6 relay's drops by reason, as `dhcp-relay-ctl show counters` keeps them."""
    return agent.show("counters")["dhcpv6"]["drops"]


def innermost(msg):
    while msg.inner is not None:
        msg = msg.inner
    return msg


def xid(msg):
    return int.from_bytes(msg.raw[1:4], "big")


def udp(msg):
    from scapy.layers.inet import UDP
    return msg.ip[UDP]


@dataclass
class Watched:
    lease: L.Lease6
    client_link: list   # every DHCPv6 message on the client's link, in order
    relayed: list       # per watched server link, the Relay-Forw messages it carried

    def sent(self):
        return [m for m in self.client_link if udp(m).dport == D.PORT_AGENT]

    def received(self):
        return [m for m in self.client_link if udp(m).dport == D.PORT_CLIENT]


def lease_watched(lab, *server_links, prefix=False):  # noqa: F811
    """dhclient -6 once, with the client's link and each (role, device) of `server_links`
    captured."""
    with contextlib.ExitStack() as stack:
        caps = [stack.enter_context(lab.capture(role, dev, L.DHCP6_PORTS))
                for role, dev in (("client", L.CLIENT_DEV), *server_links)]
        lease = lab.dhclient6(timeout=15, prefix=prefix)
        frames = [c.stop() for c in caps]
    return Watched(lease, D.captured(frames[0]),
                   [D.captured(f, D.PORT_AGENT, D.RELAY_FORW) for f in frames[1:]])


SERVER_LINK = ("server", L.SERVER_BRIDGE)


def test_address_through_the_agent(lab, relay6):  # noqa: F811
    """Each client message goes up byte for byte in a Relay-Forw of the agent's own (hop
    count 0, its Ethernet1 address as link-address, the client as peer, Interface-Id and
    Remote-Id); each answer comes down to the client bare, from the agent's link-local
    address."""
    server = lab.start_dhcpd6("server")
    a = relay6(global_relay={"remote-id": {"enterprise-number": ENTERPRISE, "mac": REMOTE_MAC}})
    w = lease_watched(lab, SERVER_LINK)
    assert w.lease and L.server_of6(w.lease.address) == "server", (a.log_text(), server.log_text())

    client_ll = lab.addr6("client", L.CLIENT_DEV)
    [relayed] = w.relayed
    assert [f.inner.raw for f in relayed] == [m.raw for m in w.sent()]
    assert {f.inner.msg_type for f in relayed} == {D.SOLICIT, D.REQUEST}
    remote_id = struct.pack("!IHH", ENTERPRISE, 3, 1) + bytes.fromhex(REMOTE_MAC.replace(":", ""))
    for f in relayed:
        assert (f.ip.src, f.ip.dst) == (L.RELAY_SERVER_IP6, L.SERVER_IP6)
        assert (f.hop_count, f.link_address, f.peer_address) == (0, L.RELAY_CLIENT_IP6, client_ll)
        assert f.option(D.OPT_INTERFACE_ID) == INTERFACE_ID and f.option(D.OPT_VSS) is None
        rid = f.option(D.OPT_REMOTE_ID)
        assert rid is not None and len(rid) == 22 and rid[:14] == remote_id, rid

    down = w.received()
    assert {m.msg_type for m in down} == {D.ADVERTISE, D.REPLY}
    relay_ll = lab.addr6("relay", L.RELAY_CLIENT_DEV)
    assert {(m.ip.src, m.ip.dst, udp(m).sport) for m in down} == {(relay_ll, client_ll, 547)}


def test_prefix_delegated_through_the_agent(lab, relay6):  # noqa: F811
    lab.start_dhcpd6("server")
    relay6()
    lease = lab.dhclient6(timeout=15, prefix=True)
    assert lease and lease.prefix.endswith(f"/{L.DELEGATED_LEN}")
    assert L.server_of6(lease.prefix) == "server"


def test_cross_vrf_copy_alone_carries_the_vrf_and_leases(lab, relay6):  # noqa: F811
    """One server in the client's VRF (no dhcpd there: it only listens) and one in VRF
    red: both get the Solicit, from the agent's address in their VRF; only red's copy
    names the client's VRF (option 68), and red alone leases."""
    lab.split_red_vrf()
    red = lab.start_dhcpd6("red")
    a = relay6(servers_v6=[SERVER, AT_RED])
    w = lease_watched(lab, SERVER_LINK, ("red", L.RED_DEV))
    assert w.lease and L.server_of6(w.lease.address) == "red", (a.log_text(), red.log_text())

    same, cross = w.relayed
    solicit = next(m.raw for m in w.sent() if m.msg_type == D.SOLICIT)
    for copies, source, vss in ((same, L.RELAY_SERVER_IP6, None),
                                (cross, L.RELAY_RED_IP6, b"\0default")):
        assert solicit in [f.inner.raw for f in copies]
        for f in copies:
            assert (f.ip.src, f.link_address, f.option(D.OPT_INTERFACE_ID)) == \
                (source, L.RELAY_CLIENT_IP6, INTERFACE_ID)
            assert f.option(D.OPT_VSS) == vss


def test_behind_a_downstream_relay(lab, relay6):  # noqa: F811
    """The client's messages reach the agent in another relay's Relay-Forw, sent from
    that relay's global address: the agent wraps it once more (hop count 1, link-address
    unspecified, the other relay as peer), and unwraps the server's answer once, for
    that relay to deliver."""
    server = lab.start_dhcpd6("server")
    lab.insert_downstream_relay()
    a = relay6()
    w = lease_watched(lab, SERVER_LINK)
    assert w.lease and L.server_of6(w.lease.address) == "server", (a.log_text(), server.log_text())
    assert ipaddress.ip_address(w.lease.address) in ipaddress.ip_network(L.DOWNSTREAM_NET6)

    [relayed] = w.relayed
    assert relayed
    for f in relayed:
        assert (f.hop_count, f.link_address, f.peer_address) == (1, "::", L.HOP_UP_IP6)
        assert f.option(D.OPT_INTERFACE_ID) == INTERFACE_ID
        assert (f.inner.msg_type, f.inner.hop_count, f.inner.link_address) == \
            (D.RELAY_FORW, 0, L.HOP_DOWN_IP6)
    assert {innermost(f).msg_type for f in relayed} == {D.SOLICIT, D.REQUEST}


def test_ccap_cores_and_dscp(lab, relay6):  # noqa: F811
    """With CCAP cores on the client's interface, the Advertise and the Reply reach the
    client with CableLabs option 17 listing them, in datagrams whose lengths and checksum
    were fixed for the grown message; with dscp-v6 46 the Relay-Forw leave with traffic
    class 184."""
    from scapy.layers.inet import UDP
    from scapy.layers.inet6 import IPv6
    lab.start_dhcpd6("server")
    # A veth leaves the UDP checksum to "hardware" that never fills it in: make the kernel
    # compute it, so that the capture shows the checksum a real link would carry.
    L.run("ip", "netns", "exec", lab.ns["relay"], "ethtool", "-K", L.RELAY_CLIENT_DEV, "tx",
          "off")
    a = relay6(ccap_cores=CORES, global_relay={"dscp-v6": 46})
    w = lease_watched(lab, SERVER_LINK)
    assert w.lease, a.log_text()

    down = w.received()
    assert {m.msg_type for m in down} == {D.ADVERTISE, D.REPLY}
    for m in down:
        assert D.ccap_cores(m) == CORES, m.options
        assert m.ip.plen == udp(m).len == 8 + len(m.raw)
        fresh = IPv6(bytes(m.ip))
        del fresh[UDP].chksum
        assert udp(m).chksum == IPv6(bytes(fresh))[UDP].chksum
    [relayed] = w.relayed
    assert relayed and {f.ip.tc for f in relayed} == {46 << 2}


# --- crafted messages, each dropped and counted --------------------------------------

CLIENT_DUID = bytes.fromhex("00030001020000000c01")   # DUID-LL of 02:00:00:00:0c:01
SERVER_DUID = bytes.fromhex("00030001020000000201")
DROPPED_XID, CONTROL_XID = 0xD0D0D0, 0xC0C0C0


def solicit(x):
    return D.message(D.SOLICIT, x, D.option(D.OPT_CLIENT_ID, CLIENT_DUID)
                     + D.option(D.OPT_IA_NA, bytes(12)))


def answer(msg_type, x):
    return D.message(msg_type, x, D.option(D.OPT_CLIENT_ID, CLIENT_DUID)
                     + D.option(D.OPT_SERVER_ID, SERVER_DUID))


def forw(hop_count, inner):
    """Another relay's Relay-Forw, as from its client link."""
    return D.relay(D.RELAY_FORW, hop_count, L.HOP_DOWN_IP6, "fe80::c",
                   D.option(D.OPT_RELAY_MSG, inner))


def repl(inner, peer, link=L.RELAY_CLIENT_IP6, interface_id=INTERFACE_ID):
    """A server's Relay-Repl for the agent's Relay-Forw, the Interface-Id first so that
    cutting the tail cuts into the relay message."""
    return D.relay(D.RELAY_REPL, 0, link, peer, D.option(D.OPT_INTERFACE_ID, interface_id)
                   + D.option(D.OPT_RELAY_MSG, inner))


@dataclass
class Crafted:
    side: str        # "client": sent to ff02::1:2 on the client link; "server": sent by
                     # the server to the agent's Ethernet2 address
    sport: int
    dropped: object  # peer (the client's link-local) -> payload
    control: object  # the same, a message the agent relays: it marks the drop decided


CRAFTED = {
    "hop-count-at-the-limit": Crafted("client", 547, lambda p: forw(32, solicit(DROPPED_XID)),
                                      lambda p: forw(31, solicit(CONTROL_XID))),
    "reply-sent-by-a-client": Crafted("client", 546, lambda p: answer(D.REPLY, DROPPED_XID),
                                      lambda p: solicit(CONTROL_XID)),
    "interface-not-in-that-vrf": Crafted(
        "server", 547, lambda p: repl(answer(D.ADVERTISE, DROPPED_XID), p,
                                      interface_id=b"Ethernet1:red"),
        lambda p: repl(answer(D.ADVERTISE, CONTROL_XID), p)),
    "truncated-relay-message": Crafted(
        "server", 547, lambda p: repl(answer(D.ADVERTISE, DROPPED_XID), p)[:-6],
        lambda p: repl(answer(D.ADVERTISE, CONTROL_XID), p)),
    "reply-with-unspecified-link-address": Crafted(
        "server", 547, lambda p: repl(answer(D.REPLY, DROPPED_XID), p, link="::"),
        lambda p: repl(answer(D.REPLY, CONTROL_XID), p)),
}


@pytest.mark.parametrize("case", CRAFTED.values(), ids=CRAFTED.keys())
def test_crafted_message_dropped_and_counted(lab, relay6, case):  # noqa: F811
    """The control goes last on the same socket: once it is through, the crafted message
    was decided. It went nowhere and is the one DHCPv6 drop counted."""
    a = relay6()
    peer = lab.addr6("client", L.CLIENT_DEV)
    client_link = ("client", L.CLIENT_DEV)
    (sender, dev), dst, far = {
        "client": (client_link, D.ALL_RELAYS_AND_SERVERS, SERVER_LINK),
        "server": (SERVER_LINK, L.RELAY_SERVER_IP6, client_link)}[case.side]
    with lab.capture(*far, L.DHCP6_PORTS) as cap:
        lab.send6(sender, dev, [case.dropped(peer), case.control(peer)], dst=dst, sport=case.sport)

        def through(frames):
            return [m for m in D.captured(frames) if xid(innermost(m)) == CONTROL_XID]
        try:
            frames = cap.wait(through, what="the control message")
        except TimeoutError as e:
            raise AssertionError(f"{e}\nagent log:\n{a.log_text()}")
    assert all(xid(innermost(m)) != DROPPED_XID for m in D.captured(frames))
    if case.side == "client":
        # A relayed Relay-Forw goes up one hop further: from 31, to the limit.
        [control] = through(frames)
        assert control.hop_count == (32 if control.inner.msg_type == D.RELAY_FORW else 0)
    L.wait_for(lambda: sum(v6_drops(a).values()) == 1, 10,
               f"one DHCPv6 drop: {a.show('counters')}")


# --- robustness ------------------------------------------------------------------------

STORM_REPLIES = 400   # unwrapped Replies in the server's storm: each one is a drop


def test_malformed_storm_leaves_the_agent_relaying(lab, relay6):  # noqa: F811
    a = relay6()
    rng = random.Random(0xD6C9)
    peer = lab.addr6("client", L.CLIENT_DEV)
    codes = (0, 9, 18, 255)  # option codes and lengths: the relay message, Interface-Id
    nested = repl(repl(answer(D.REPLY, 1), peer), L.HOP_UP_IP6, link="::")
    client_side = (noise(rng, 1000) + mutations(rng, solicit(1), 4, 300, codes)
                   + mutations(rng, forw(3, solicit(2)), D.RELAY_HEADER, 300, codes))
    advertise = repl(answer(D.ADVERTISE, 3), peer)
    server_side = (noise(rng, 1000) + mutations(rng, nested, D.RELAY_HEADER, 300, codes)
                   + mutations(rng, advertise, D.RELAY_HEADER, 300, codes)
                   + [answer(D.REPLY, 4)[:rng.randrange(4, 40)] for _ in range(STORM_REPLIES)])
    rng.shuffle(client_side)
    rng.shuffle(server_side)
    # Paced, so that a busy machine does not shed most of it from the agent's socket.
    half, pace = len(client_side) // 2, 0.0002
    lab.send6("client", L.CLIENT_DEV, client_side[:half], inter=pace, timeout=60)
    lab.send6("client", L.CLIENT_DEV, client_side[half:], dst=L.RELAY_CLIENT_IP6, inter=pace,
              timeout=60)
    lab.send6("server", L.SERVER_BRIDGE, server_side, dst=L.RELAY_SERVER_IP6, sport=547,
              inter=pace, timeout=60)

    assert a.proc.poll() is None, a.log_text()
    # The storm reached the agent (its socket may shed some of it).
    L.wait_for(lambda: sum(v6_drops(a).values()) >= STORM_REPLIES // 2, 10,
               f"the storm's Replies dropped: {a.show('counters')}")
    server = lab.start_dhcpd6("server")
    lease = lab.dhclient6(timeout=15)
    assert lease and L.server_of6(lease.address) == "server", (a.log_text(), server.log_text())
    assert a.proc.poll() is None
    assert "assertion failed" not in a.log_text().lower()
